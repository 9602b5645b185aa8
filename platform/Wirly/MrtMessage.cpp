#include "Wirly/MrtMessage.h"

#include <ostream>
#include <sstream>

#include "Kiv/Exception.h"

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

MrtMessageType mrtMessageTypeFromName(std::string_view name) {
  for (MrtMessageType t : {MrtMessageType::none, MrtMessageType::igmpNoCache, MrtMessageType::igmpWrongVif,
                           MrtMessageType::igmpWholePkt}) {
    std::ostringstream os;
    os << t;
    if (os.str() == name) return t;
  }
  throw Kiv::ParseException("not a message type (none, igmpNoCache, igmpWrongVif, igmpWholePkt): " + std::string(name));
}

}  // namespace Wirly

std::string Kiv::ValueText<Wirly::MrtMessageType>::toStrep(Wirly::MrtMessageType t) {
  std::ostringstream os;
  os << t;
  return ValueTextDetail::quote(os.str());
}
