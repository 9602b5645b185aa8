// Wirly::EthAddr: a 48-bit Ethernet (MAC) address; the default is all zero.
// Six bytes, trivially copyable.
//
//   Wirly::EthAddr m("01:00:5e:01:01:01");   // Kiv::ParseException if malformed
//   m.isMulticast();
//
// Text: six two-digit hexadecimal bytes separated by ':' (either case on
// input, lower case on output). Order: the bytes as an unsigned number.
// Text form: Value('Wirly::EthAddr', ** {'addr': '00:11:22:33:44:55'}).
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Wirly {

class EthAddr {
 public:
  constexpr EthAddr() = default;
  constexpr explicit EthAddr(std::array<std::uint8_t, 6> const& bytes) : bytes_(bytes) {}
  explicit EthAddr(std::string_view text);
  explicit EthAddr(char const* text) : EthAddr(std::string_view(text)) {}
  explicit EthAddr(std::string const& text) : EthAddr(std::string_view(text)) {}

  std::array<std::uint8_t, 6> const& bytes() const { return bytes_; }
  bool isZero() const { return *this == EthAddr(); }
  // The group bit: multicast and broadcast addresses.
  bool isMulticast() const { return bytes_[0] & 1; }
  bool isBroadcast() const;

  std::string str() const;
  std::uint64_t hash() const;

  std::string valueToStrep() const;
  static EthAddr fromStrep(std::string_view text);

  friend bool operator==(EthAddr const& a, EthAddr const& b) = default;
  friend auto operator<=>(EthAddr const& a, EthAddr const& b) = default;

 private:
  std::array<std::uint8_t, 6> bytes_ = {};
};

std::ostream& operator<<(std::ostream& os, EthAddr const& a);

}  // namespace Wirly

template <>
struct std::hash<Wirly::EthAddr> {
  std::size_t operator()(Wirly::EthAddr const& a) const noexcept { return a.hash(); }
};
