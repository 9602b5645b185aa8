// Wirly::NamespaceName: the name of a Linux network namespace as `ip netns`
// knows it (a file under /run/netns). The empty name means the namespace the
// process started in. At most maxLength (255) bytes, no '/' or NUL, and not
// "." or ".."; anything else raises Kiv::RangeException, the length with
// "NamespaceName::bytes > NamespaceName::maxLength not allowed".
// Prints as the bare name; text form: the quoted name ('blue').
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Wirly {

class NamespaceName {
 public:
  static constexpr std::size_t maxLength = 255;

  NamespaceName() = default;
  explicit NamespaceName(std::string_view name);
  explicit NamespaceName(char const* name) : NamespaceName(std::string_view(name)) {}
  explicit NamespaceName(std::string const& name) : NamespaceName(std::string_view(name)) {}

  std::string const& str() const { return name_; }
  char const* c_str() const { return name_.c_str(); }
  bool isDefault() const { return name_.empty(); }

  std::uint64_t hash() const;

  std::string valueToStrep() const;
  static NamespaceName fromStrep(std::string_view text);

  friend bool operator==(NamespaceName const& a, NamespaceName const& b) = default;
  friend std::strong_ordering operator<=>(NamespaceName const& a, NamespaceName const& b) {
    return a.name_.compare(b.name_) <=> 0;
  }

 private:
  std::string name_;
};

std::ostream& operator<<(std::ostream& os, NamespaceName const& n);

}  // namespace Wirly

template <>
struct std::hash<Wirly::NamespaceName> {
  std::size_t operator()(Wirly::NamespaceName const& n) const noexcept { return n.hash(); }
};
