// L3::VrfName: the name of a VRF, a string of at most maxLength (100) bytes
// kept in fixed storage, so it may be stored in shared-memory records.
// Longer names raise Kiv::RangeException with exactly
// "VrfName::bytes > VrfName::maxLength not allowed". The default VRF is
// named "default" (defaultVrf()); a default-constructed VrfName is empty.
//
//   L3::VrfName red = "red";
//   red < L3::VrfName::defaultVrf();   // byte-wise, as std::string orders
//
// Prints as the bare name; text form: the quoted name ('red').
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace L3 {

class VrfName {
 public:
  static constexpr std::size_t maxLength = 100;

  VrfName() = default;
  VrfName(std::string_view name);
  VrfName(char const* name) : VrfName(std::string_view(name)) {}
  VrfName(std::string const& name) : VrfName(std::string_view(name)) {}

  static VrfName defaultVrf() { return VrfName("default"); }

  std::string_view view() const { return std::string_view(bytes_, size_); }
  std::string str() const { return std::string(view()); }
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  std::uint64_t hash() const;

  std::string valueToStrep() const;
  static VrfName fromStrep(std::string_view text);

  friend bool operator==(VrfName const& a, VrfName const& b) { return a.view() == b.view(); }
  friend std::strong_ordering operator<=>(VrfName const& a, VrfName const& b) {
    return a.view().compare(b.view()) <=> 0;
  }

 private:
  std::uint8_t size_ = 0;
  char bytes_[maxLength] = {};  // unused bytes stay zero
};

std::ostream& operator<<(std::ostream& os, VrfName const& n);

}  // namespace L3

template <>
struct std::hash<L3::VrfName> {
  std::size_t operator()(L3::VrfName const& n) const noexcept { return n.hash(); }
};
