#include "Schema/VrfName.h"

#include <cstring>
#include <ostream>

#include "Kiv/Exception.h"
#include "Kiv/Hash.h"
#include "Kiv/ValueText.h"

namespace L3 {

static_assert(std::is_trivially_copyable_v<VrfName>);
static_assert(sizeof(VrfName) == 1 + VrfName::maxLength);

VrfName::VrfName(std::string_view name) {
  if (name.size() > maxLength) {
    throw Kiv::RangeException("VrfName::bytes > VrfName::maxLength not allowed");
  }
  std::memcpy(bytes_, name.data(), name.size());
  size_ = static_cast<std::uint8_t>(name.size());
}

std::uint64_t VrfName::hash() const {
  Kiv::HashAccumulator h;
  h.mix(bytes_, size_);
  return h.result();
}

std::string VrfName::valueToStrep() const { return Kiv::valueToStrep(view()); }

VrfName VrfName::fromStrep(std::string_view text) { return VrfName(Kiv::valueFromStrep<std::string>(text)); }

std::ostream& operator<<(std::ostream& os, VrfName const& n) { return os << n.view(); }

}  // namespace L3
