#include "Vorn/Registry.h"

#include <map>
#include <mutex>

namespace Vorn {

namespace {
// Registrars run during static initialisation, in any order.
std::map<std::string, StatusRegistry::Factory, std::less<>>& types() {
  static std::map<std::string, StatusRegistry::Factory, std::less<>> m;
  return m;
}
}  // namespace

void StatusRegistry::typeIs(std::string_view typeName, Factory factory) { types()[std::string(typeName)] = factory; }

StatusRegistry::Factory StatusRegistry::type(std::string_view typeName) {
  auto it = types().find(typeName);
  return it == types().end() ? nullptr : it->second;
}

Kiv::Ptr<Status> StatusRegistry::statusNew(std::string_view typeName, Kiv::Name const& name) {
  Factory f = type(typeName);
  return f ? f(name) : Kiv::Ptr<Status>();
}

std::vector<std::string> StatusRegistry::typeNames() {
  std::vector<std::string> out;
  for (auto const& [name, f] : types()) out.push_back(name);
  return out;
}

}  // namespace Vorn
