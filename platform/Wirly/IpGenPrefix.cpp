#include "Wirly/IpGenPrefix.h"

#include <charconv>
#include <ostream>

#include "Kiv/Exception.h"
#include "Kiv/Hash.h"
#include "Kiv/ValuePlain.h"
#include "Kiv/ValueText.h"

namespace Wirly {

static_assert(sizeof(IpGenPrefix) == 18);
static_assert(std::is_trivially_copyable_v<IpGenPrefix>);

std::uint64_t IpGenPrefixBase::hash() const {
  Kiv::HashAccumulator h;
  h.mix(addr_.bytes(), 16);
  h.mix32((std::uint32_t(addr_.af()) << 8) | len_);
  return h.result();
}

std::strong_ordering operator<=>(IpGenPrefixBase const& a, IpGenPrefixBase const& b) {
  if (auto c = a.addr_ <=> b.addr_; c != 0) return c;
  return a.len_ <=> b.len_;
}

namespace {

[[noreturn]] void tooLong(unsigned len, IpGenAddr const& addr, std::string_view text) {
  throw Kiv::RangeException("IpGenPrefix: length " + std::to_string(len) + " > " +
                            std::to_string(8 * addr.byteLength()) + " not allowed in '" + std::string(text) + "'");
}

}  // namespace

IpGenPrefix::IpGenPrefix(IpGenAddr const& addr, unsigned len) {
  if (len > 8 * addr.byteLength()) tooLong(len, addr, addr.str() + "/" + std::to_string(len));
  addr_ = addr.masked(len);
  len_ = static_cast<std::uint8_t>(len);
}

IpGenPrefix::IpGenPrefix(IpGenAddr const& addr) {
  addr_ = addr;
  len_ = static_cast<std::uint8_t>(8 * addr.byteLength());
}

IpGenPrefix::IpGenPrefix(std::string_view text) {
  std::size_t slash = text.find('/');
  std::string_view digits = slash == std::string_view::npos ? std::string_view() : text.substr(slash + 1);
  IpGenAddr addr;
  unsigned len = 0;
  bool ok = true;
  try {
    addr = IpGenAddr(text.substr(0, slash));
  } catch (Kiv::ParseException const&) {
    ok = false;
  }
  if (slash == std::string_view::npos) {
    len = unsigned(8 * addr.byteLength());
  } else {
    auto res = std::from_chars(digits.data(), digits.data() + digits.size(), len);
    ok = ok && !addr.isUnspecified() && !digits.empty() && digits.size() <= 3 && res.ec == std::errc() &&
         res.ptr == digits.data() + digits.size();
  }
  if (!ok) {
    throw Kiv::ParseException("IpGenPrefix: '" + std::string(text) + "' is not an IPv4 or IPv6 prefix");
  }
  if (len > 8 * addr.byteLength()) tooLong(len, addr, text);
  addr_ = addr.masked(len);
  len_ = static_cast<std::uint8_t>(len);
}

bool IpGenPrefix::isMulticast() const {
  switch (af()) {
    case ipv4:
      return len_ >= 4 && addr_.isMulticast();
    case ipv6:
      return len_ >= 8 && addr_.isMulticast();
    default:
      return false;
  }
}

bool IpGenPrefix::contains(IpGenAddr const& a) const {
  return !isUnspecified() && a.af() == af() && a.masked(len_) == addr_;
}

bool IpGenPrefix::contains(IpGenPrefix const& p) const {
  return !isUnspecified() && p.af() == af() && p.len_ >= len_ && p.addr_.masked(len_) == addr_;
}

std::string IpGenPrefix::str() const {
  if (isUnspecified()) return std::string();
  return addr_.str() + "/" + std::to_string(len_);
}

std::string IpGenPrefix::valueToStrep() const {
  return Kiv::ValueWriter("Wirly::IpGenPrefix").field("prefix", str()).str();
}

IpGenPrefix IpGenPrefix::fromStrep(std::string_view text) {
  Kiv::ValueReader r(text, "Wirly::IpGenPrefix");
  IpGenPrefix p(r.get<std::string>("prefix"));
  r.done();
  return p;
}

std::ostream& operator<<(std::ostream& os, IpGenPrefix const& p) { return os << p.str(); }

namespace {
// Shown as address/length; the empty prefix is none.
Kiv::PlainForm const ipGenPrefixPlainForm("Wirly::IpGenPrefix", [](Kiv::ValueReader const& r) {
  std::string s = r.get<std::string>("prefix");
  return s.empty() ? Kiv::Plain::none() : Kiv::Plain::string(std::move(s));
});
}  // namespace

}  // namespace Wirly
