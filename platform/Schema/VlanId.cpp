#include "Schema/VlanId.h"

#include <ostream>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Kiv/Hash.h"
#include "Kiv/ValueText.h"

namespace Bridging {

static_assert(sizeof(VlanId) == 2 && std::is_trivially_copyable_v<VlanId>);
static_assert(sizeof(VlanIdOrNone) == 2 && std::is_trivially_copyable_v<VlanIdOrNone>);

std::uint16_t VlanId::checked(long long value, bool negative) {
  if (negative) throw Kiv::RangeException("VlanId::value < 0 not allowed");
  // Compared unsigned so that a huge unsigned argument is not mistaken for a small one.
  if (static_cast<unsigned long long>(value) > maxValue) {
    throw Kiv::RangeException("VlanId::value > 4095 not allowed");
  }
  return static_cast<std::uint16_t>(value);
}

std::uint64_t VlanId::hash() const {
  Kiv::HashAccumulator h;
  h.mix32(value_);
  return h.result();
}

VlanId VlanId::fromStrep(std::string_view text) { return VlanId(Kiv::valueFromStrep<std::uint64_t>(text)); }

VlanId VlanIdOrNone::vlanId() const {
  KIV_ASSERT(hasValue());
  return VlanId(raw_ - 1);
}

std::uint64_t VlanIdOrNone::hash() const {
  Kiv::HashAccumulator h;
  h.mix32(raw_);
  return h.result();
}

std::string VlanIdOrNone::valueToStrep() const { return isNone() ? std::string("None") : vlanId().valueToStrep(); }

VlanIdOrNone VlanIdOrNone::fromStrep(std::string_view text) {
  auto v = Kiv::valueFromStrep<std::optional<std::uint64_t>>(text);
  return v ? VlanIdOrNone(VlanId(*v)) : VlanIdOrNone();
}

std::ostream& operator<<(std::ostream& os, VlanId v) { return os << v.value(); }

std::ostream& operator<<(std::ostream& os, VlanIdOrNone v) {
  if (v.isNone()) return os << "none";
  return os << v.vlanId();
}

}  // namespace Bridging
