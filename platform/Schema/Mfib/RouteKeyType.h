// Routing::Multicast::Fib::RouteKeyType: which kind of route key a route or
// a replication set serves. Stored values: never renumber.
//   unknownKey 0   no kind recorded (the default)
//   sourceGroup 1  (S, G): one source, one group
//   anySource 2    (*, G): any source, one group
//   groupPrefix 3  (*, G/len): any source, a range of groups
// Prints and has the text form as its name ('sourceGroup'); a number outside
// the enumeration (read from outside) prints "RouteKeyType(<n>)".
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

#include "Kiv/Exception.h"
#include "Kiv/ValueText.h"

namespace Routing::Multicast::Fib {

enum RouteKeyType : std::uint8_t { unknownKey = 0, sourceGroup = 1, anySource = 2, groupPrefix = 3 };

inline std::string routeKeyTypeName(RouteKeyType t) {
  switch (t) {
    case unknownKey:
      return "unknownKey";
    case sourceGroup:
      return "sourceGroup";
    case anySource:
      return "anySource";
    case groupPrefix:
      return "groupPrefix";
  }
  return "RouteKeyType(" + std::to_string(unsigned(t)) + ")";
}

inline RouteKeyType routeKeyTypeFromName(std::string_view name) {
  for (auto t : {unknownKey, sourceGroup, anySource, groupPrefix}) {
    if (routeKeyTypeName(t) == name) return t;
  }
  throw Kiv::ParseException("'" + std::string(name) + "' is not a RouteKeyType");
}

inline std::ostream& operator<<(std::ostream& os, RouteKeyType t) { return os << routeKeyTypeName(t); }

}  // namespace Routing::Multicast::Fib

template <>
struct Kiv::ValueText<Routing::Multicast::Fib::RouteKeyType> {
  static std::string toStrep(Routing::Multicast::Fib::RouteKeyType t) {
    return ValueTextDetail::quote(Routing::Multicast::Fib::routeKeyTypeName(t));
  }
  static Routing::Multicast::Fib::RouteKeyType fromStrep(std::string_view text) {
    return Routing::Multicast::Fib::routeKeyTypeFromName(valueFromStrep<std::string>(text));
  }
};
