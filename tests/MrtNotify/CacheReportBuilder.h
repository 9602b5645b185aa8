// Builds RTM_NEWCACHEREPORT datagrams byte by byte for the tests of the
// upcall receive path: attributes are appended in the order given, each
// padded to 4 bytes, and done() writes the netlink header's length and type.
//
//   Bytes r = CacheReport(129).msgType(1).mif(3).src("2001:db8::1").dst("ff3e::1").done();
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "Wirly/AddressFamily.h"
#include "Wirly/IpGenAddr.h"

namespace CacheReportBuilder {

using Bytes = std::vector<std::uint8_t>;

template <class T>
void put(Bytes& b, std::size_t at, T const& v) {
  if (b.size() < at + sizeof(T)) b.resize(at + sizeof(T));
  std::memcpy(b.data() + at, &v, sizeof(T));
}

inline Bytes addrBytes(char const* text) {
  Wirly::IpGenAddr const a(text);
  return Bytes(a.bytes(), a.bytes() + a.byteLength());
}

struct CacheReport {
  Bytes b = Bytes(20, 0);
  // The rtgen_family byte as given (128 IPv4, 129 IPv6, or anything else).
  explicit CacheReport(std::uint8_t family) { b[16] = family; }
  explicit CacheReport(Wirly::AddressFamily af) : CacheReport(std::uint8_t(af == Wirly::ipv4 ? 128 : 129)) {}

  CacheReport& attr(std::uint16_t type, Bytes const& v) {
    std::size_t const at = b.size();
    put(b, at, std::uint16_t(4 + v.size()));
    put(b, at + 2, type);
    b.insert(b.end(), v.begin(), v.end());
    b.resize((b.size() + 3) & ~std::size_t(3), 0);
    return *this;
  }
  // An attribute holding v's bytes as they lie in memory (host order).
  template <class T>
  CacheReport& value(std::uint16_t type, T const& v) {
    auto const* p = reinterpret_cast<std::uint8_t const*>(&v);
    return attr(type, Bytes(p, p + sizeof(T)));
  }
  CacheReport& msgType(std::uint8_t t) { return attr(1, Bytes{t}); }
  CacheReport& mif(std::uint32_t m) { return value(2, m); }
  CacheReport& src(char const* a) { return attr(3, addrBytes(a)); }
  CacheReport& dst(char const* a) { return attr(4, addrBytes(a)); }
  CacheReport& intfId(std::uint64_t id) { return value(6, id); }

  Bytes done(std::uint16_t nlType = 96) const {
    Bytes out = b;
    put(out, 0, std::uint32_t(out.size()));
    put(out, 4, nlType);
    return out;
  }
};

}  // namespace CacheReportBuilder
