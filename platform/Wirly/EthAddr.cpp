#include "Wirly/EthAddr.h"

#include <cstdio>
#include <ostream>

#include "Kiv/Exception.h"
#include "Kiv/Hash.h"
#include "Kiv/ValuePlain.h"
#include "Kiv/ValueText.h"

namespace Wirly {

static_assert(sizeof(EthAddr) == 6);
static_assert(std::is_trivially_copyable_v<EthAddr>);

namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

EthAddr::EthAddr(std::string_view text) {
  bool ok = text.size() == 17;
  for (std::size_t i = 0; ok && i < 6; ++i) {
    int hi = hexDigit(text[3 * i]);
    int lo = hexDigit(text[3 * i + 1]);
    ok = hi >= 0 && lo >= 0 && (i == 5 || text[3 * i + 2] == ':');
    bytes_[i] = static_cast<std::uint8_t>(hi * 16 + lo);
  }
  if (!ok) {
    bytes_ = {};
    throw Kiv::ParseException("EthAddr: '" + std::string(text) + "' is not an Ethernet address (xx:xx:xx:xx:xx:xx)");
  }
}

bool EthAddr::isBroadcast() const {
  for (std::uint8_t b : bytes_) {
    if (b != 0xff) return false;
  }
  return true;
}

std::string EthAddr::str() const {
  char buf[18];
  std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", bytes_[0], bytes_[1], bytes_[2], bytes_[3], bytes_[4],
                bytes_[5]);
  return buf;
}

std::uint64_t EthAddr::hash() const {
  Kiv::HashAccumulator h;
  h.mix(bytes_.data(), bytes_.size());
  return h.result();
}

std::string EthAddr::valueToStrep() const { return Kiv::ValueWriter("Wirly::EthAddr").field("addr", str()).str(); }

EthAddr EthAddr::fromStrep(std::string_view text) {
  Kiv::ValueReader r(text, "Wirly::EthAddr");
  EthAddr a(r.get<std::string>("addr"));
  r.done();
  return a;
}

std::ostream& operator<<(std::ostream& os, EthAddr const& a) { return os << a.str(); }

namespace {
// Shown as written.
Kiv::PlainForm const ethAddrPlainForm("Wirly::EthAddr", [](Kiv::ValueReader const& r) {
  std::string s = r.get<std::string>("addr");
  return s.empty() ? Kiv::Plain::none() : Kiv::Plain::string(std::move(s));
});
}  // namespace

}  // namespace Wirly
