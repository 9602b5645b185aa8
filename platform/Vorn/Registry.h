// Vorn::StatusRegistry: status types by their registered type name, so that
// a mount can make the right status object from a name such as
// "BitMapper::VornStatus". Schema code registers its types with a static
// registrar next to the class:
//
//   inline Vorn::StatusRegistrar<BitMapper::VornStatus> vornStatusRegistrar("BitMapper::VornStatus");
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Kiv/Name.h"
#include "Kiv/Ptr.h"
#include "Vorn/Status.h"

namespace Vorn {

class StatusRegistry {
 public:
  using Factory = Kiv::Ptr<Status> (*)(Kiv::Name const& name);

  // Registers (or replaces) the factory of `typeName`.
  static void typeIs(std::string_view typeName, Factory factory);
  // The factory of `typeName`, or nullptr when nobody registered it.
  static Factory type(std::string_view typeName);
  // A new unmounted status of `typeName`, or null when it is unknown.
  static Kiv::Ptr<Status> statusNew(std::string_view typeName, Kiv::Name const& name);
  // Registered names, sorted.
  static std::vector<std::string> typeNames();
};

template <class S>
class StatusRegistrar {
 public:
  explicit StatusRegistrar(std::string_view typeName) {
    StatusRegistry::typeIs(typeName, [](Kiv::Name const& name) { return Kiv::Ptr<Status>(new S(name)); });
  }
};

}  // namespace Vorn
