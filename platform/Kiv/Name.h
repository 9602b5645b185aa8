// Kiv::String and Kiv::Name: the framework's text types. A Name names an
// entity or a directory entry; the empty Name means "no name" and converts
// to false.
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <string_view>

namespace Kiv {

using String = std::string;

class Name {
 public:
  Name() = default;
  Name(char const* s) : s_(s) {}
  Name(std::string s) : s_(std::move(s)) {}
  Name(std::string_view s) : s_(s) {}

  std::string const& str() const { return s_; }
  char const* c_str() const { return s_.c_str(); }
  bool empty() const { return s_.empty(); }
  explicit operator bool() const { return !s_.empty(); }

  friend bool operator==(Name const& a, Name const& b) = default;
  friend auto operator<=>(Name const& a, Name const& b) = default;
  friend std::ostream& operator<<(std::ostream& os, Name const& n) { return os << n.s_; }

 private:
  std::string s_;
};

}  // namespace Kiv

template <>
struct std::hash<Kiv::Name> {
  std::size_t operator()(Kiv::Name const& n) const noexcept { return std::hash<std::string>()(n.str()); }
};
