#include "Wirly/MrtMessage.h"

#include <ostream>

namespace Wirly {

std::ostream& operator<<(std::ostream& os, MrtMessageType t) {
  switch (t) {
    case MrtMessageType::none:
      return os << "none";
    case MrtMessageType::igmpNoCache:
      return os << "igmpNoCache";
    case MrtMessageType::igmpWrongVif:
      return os << "igmpWrongVif";
    case MrtMessageType::igmpWholePkt:
      return os << "igmpWholePkt";
  }
  return os << "MrtMessageType(" << unsigned(t) << ")";
}

}  // namespace Wirly
