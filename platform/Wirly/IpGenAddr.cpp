#include "Wirly/IpGenAddr.h"

#include <arpa/inet.h>

#include <cstring>
#include <ostream>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Kiv/Hash.h"
#include "Kiv/ValuePlain.h"
#include "Kiv/ValueText.h"

namespace Wirly {

static_assert(sizeof(IpGenAddr) == 17);
static_assert(std::is_trivially_copyable_v<IpGenAddr>);

IpGenAddr::IpGenAddr(std::string_view text) {
  if (text.empty()) return;
  // inet_pton wants a terminated string; anything longer than the longest
  // IPv6 text is not an address anyway.
  char buf[INET6_ADDRSTRLEN + 1];
  bool v6 = text.find(':') != std::string_view::npos;
  if (text.size() < sizeof buf) {
    std::memcpy(buf, text.data(), text.size());
    buf[text.size()] = '\0';
    if (inet_pton(v6 ? AF_INET6 : AF_INET, buf, addr_) == 1) {
      af_ = v6 ? ipv6 : ipv4;
      return;
    }
  }
  std::memset(addr_, 0, sizeof addr_);
  throw Kiv::ParseException("IpGenAddr: '" + std::string(text) + "' is not an IPv4 or IPv6 address");
}

IpGenAddr::IpGenAddr(in_addr a) : af_(ipv4) { std::memcpy(addr_, &a, 4); }

IpGenAddr::IpGenAddr(in6_addr const& a) : af_(ipv6) { std::memcpy(addr_, &a, 16); }

IpGenAddr IpGenAddr::v4(std::uint32_t hostOrder) {
  in_addr a;
  a.s_addr = htonl(hostOrder);
  return IpGenAddr(a);
}

IpGenAddr IpGenAddr::v6(std::array<std::uint8_t, 16> const& bytes) {
  in6_addr a;
  std::memcpy(&a, bytes.data(), 16);
  return IpGenAddr(a);
}

bool IpGenAddr::isMulticast() const {
  switch (af_) {
    case ipv4:
      return (addr_[0] & 0xf0) == 0xe0;
    case ipv6:
      return addr_[0] == 0xff;
    default:
      return false;
  }
}

std::size_t IpGenAddr::byteLength() const {
  switch (af_) {
    case ipv4:
      return 4;
    case ipv6:
      return 16;
    default:
      return 0;
  }
}

std::uint32_t IpGenAddr::v4Addr() const { return ntohl(inAddr().s_addr); }

std::array<std::uint8_t, 16> IpGenAddr::v6Addr() const {
  KIV_ASSERT(af_ == ipv6);
  std::array<std::uint8_t, 16> out;
  std::memcpy(out.data(), addr_, 16);
  return out;
}

in_addr IpGenAddr::inAddr() const {
  KIV_ASSERT(af_ == ipv4);
  in_addr a;
  std::memcpy(&a, addr_, 4);
  return a;
}

in6_addr IpGenAddr::in6Addr() const {
  KIV_ASSERT(af_ == ipv6);
  in6_addr a;
  std::memcpy(&a, addr_, 16);
  return a;
}

IpGenAddr IpGenAddr::masked(unsigned length) const {
  std::size_t bits = 8 * byteLength();
  if (length > bits) {
    throw Kiv::RangeException("IpGenAddr: mask length " + std::to_string(length) + " > " + std::to_string(bits) +
                              " not allowed for " + str());
  }
  IpGenAddr out = *this;
  for (std::size_t i = 0; i < sizeof addr_; ++i) {
    std::size_t keep = length > 8 * i ? length - 8 * i : 0;  // bits of this byte to keep
    if (keep < 8) out.addr_[i] &= static_cast<std::uint8_t>(0xff00u >> keep);
  }
  return out;
}

std::string IpGenAddr::str() const {
  if (af_ != ipv4 && af_ != ipv6) return std::string();
  char buf[INET6_ADDRSTRLEN];
  inet_ntop(af_ == ipv4 ? AF_INET : AF_INET6, addr_, buf, sizeof buf);
  return buf;
}

std::uint64_t IpGenAddr::hash() const {
  Kiv::HashAccumulator h;
  h.mix(addr_, sizeof addr_);
  h.mix32(af_);
  return h.result();
}

std::strong_ordering operator<=>(IpGenAddr const& a, IpGenAddr const& b) {
  if (auto c = a.af_ <=> b.af_; c != 0) return c;
  return std::memcmp(a.addr_, b.addr_, sizeof a.addr_) <=> 0;
}

std::string IpGenAddr::valueToStrep() const { return Kiv::ValueWriter("Wirly::IpGenAddr").field("addr", str()).str(); }

IpGenAddr IpGenAddr::fromStrep(std::string_view text) {
  Kiv::ValueReader r(text, "Wirly::IpGenAddr");
  IpGenAddr a(r.get<std::string>("addr"));
  r.done();
  return a;
}

std::ostream& operator<<(std::ostream& os, IpGenAddr const& a) { return os << a.str(); }

namespace {
// Shown as written; the empty address is none.
Kiv::PlainForm const ipGenAddrPlainForm("Wirly::IpGenAddr", [](Kiv::ValueReader const& r) {
  std::string s = r.get<std::string>("addr");
  return s.empty() ? Kiv::Plain::none() : Kiv::Plain::string(std::move(s));
});
}  // namespace

}  // namespace Wirly
