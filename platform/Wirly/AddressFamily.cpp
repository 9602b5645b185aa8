#include "Wirly/AddressFamily.h"

#include <ostream>

#include "Kiv/Exception.h"

namespace Wirly {

std::string addressFamilyName(AddressFamily af) {
  switch (af) {
    case ipUnknown:
      return "ipUnknown";
    case ipv4:
      return "ipv4";
    case ipv6:
      return "ipv6";
  }
  return "AddressFamily(" + std::to_string(unsigned(af)) + ")";
}

AddressFamily addressFamilyFromName(std::string_view name) {
  if (name == "ipUnknown") return ipUnknown;
  if (name == "ipv4") return ipv4;
  if (name == "ipv6") return ipv6;
  throw Kiv::ParseException("AddressFamily: unknown name '" + std::string(name) + "'");
}

std::ostream& operator<<(std::ostream& os, AddressFamily af) { return os << addressFamilyName(af); }

}  // namespace Wirly
