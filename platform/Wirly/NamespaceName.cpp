#include "Wirly/NamespaceName.h"

#include <ostream>

#include "Kiv/Exception.h"
#include "Kiv/Hash.h"
#include "Kiv/ValueText.h"

namespace Wirly {

NamespaceName::NamespaceName(std::string_view name) {
  if (name.size() > maxLength) {
    throw Kiv::RangeException("NamespaceName::bytes > NamespaceName::maxLength not allowed");
  }
  // The name becomes a path component under /run/netns.
  if (name.find_first_of(std::string_view("/\0", 2)) != std::string_view::npos || name == "." || name == "..") {
    throw Kiv::RangeException("NamespaceName: '" + std::string(name) + "' is not a namespace name");
  }
  name_ = name;
}

std::uint64_t NamespaceName::hash() const {
  Kiv::HashAccumulator h;
  h.mix(name_.data(), name_.size());
  return h.result();
}

std::string NamespaceName::valueToStrep() const { return Kiv::valueToStrep(name_); }

NamespaceName NamespaceName::fromStrep(std::string_view text) {
  return NamespaceName(Kiv::valueFromStrep<std::string>(text));
}

std::ostream& operator<<(std::ostream& os, NamespaceName const& n) { return os << n.str(); }

}  // namespace Wirly
