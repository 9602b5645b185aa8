// Wirly::AddressFamily: which IP version a value, socket or table is about.
// The numbers are stored and sent between processes: ipUnknown 0, ipv4 1,
// ipv6 2. Prints and has the text form as its name ('ipv4').
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

#include "Kiv/ValueText.h"

namespace Wirly {

enum AddressFamily : std::uint8_t { ipUnknown = 0, ipv4 = 1, ipv6 = 2 };

// "ipUnknown", "ipv4", "ipv6"; a number outside the enumeration (read from
// outside) gives "AddressFamily(<n>)".
std::string addressFamilyName(AddressFamily af);
// The inverse of addressFamilyName for the three names; Kiv::ParseException otherwise.
AddressFamily addressFamilyFromName(std::string_view name);

std::ostream& operator<<(std::ostream& os, AddressFamily af);

}  // namespace Wirly

template <>
struct Kiv::ValueText<Wirly::AddressFamily> {
  static std::string toStrep(Wirly::AddressFamily af) { return ValueTextDetail::quote(Wirly::addressFamilyName(af)); }
  static Wirly::AddressFamily fromStrep(std::string_view text) {
    return Wirly::addressFamilyFromName(valueFromStrep<std::string>(text));
  }
};
