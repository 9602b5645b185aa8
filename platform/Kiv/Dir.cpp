#include "Kiv/Dir.h"

#include <string>
#include <utility>
#include <vector>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"

namespace Kiv {

namespace {

using Registry = std::map<std::string, Dir::Factory, std::less<>>;

// Built on first use, so that libraries may register from their own static
// initialisers whatever the order in which they are loaded.
Registry& registry() {
  static Registry* r = new Registry{
      {"Kiv::Dir", [](Name const& name) -> Kiv::Ptr<Entity> { return Dir::DirIs(name); }},
  };
  return *r;
}

}  // namespace

Dir::Ptr Dir::DirIs(Name name) { return new Dir(std::move(name)); }

Kiv::Ptr<Entity> Dir::entity(Name const& name) const {
  KIV_ASSERT(name && "Need a valid name supplied");
  auto it = entries_.find(name);
  return it == entries_.end() ? Kiv::Ptr<Entity>() : it->second;
}

bool Dir::has(Name const& name) const {
  KIV_ASSERT(name && "Need a valid name supplied");
  return entries_.contains(name);
}

void Dir::entryIs(Name const& name, Kiv::Ptr<Entity> const& entity) {
  KIV_ASSERT(name && "Need a valid name supplied");
  auto [it, added] = entries_.try_emplace(name, entity);
  if (!added) {
    if (it->second == entity) return;
    // The old entity goes only after the map is consistent again, in case
    // its destructor looks at this directory.
    Kiv::Ptr<Entity> old = std::exchange(it->second, entity);
  }
  Name const key = name;  // name may live in an entry a notifiee removes
  notify(&NotifieeConst::onEntityPtr, key);
}

Kiv::Ptr<Entity> Dir::entryIs(Name const& name, std::string_view typeName) {
  KIV_ASSERT(name && "Need a valid name supplied");
  Registry const& r = registry();
  auto type = r.find(typeName);
  if (type == r.end()) {
    throw RangeException("no entity type '" + std::string(typeName) + "' registered for Kiv::Dir entry '" + name.str() +
                         "'");
  }
  auto it = entries_.find(name);
  if (it != entries_.end() && it->second) {
    if (it->second->typeName() == typeName) return it->second;
    throw NameInUseException("Kiv::Dir entry '" + name.str() + "' holds a " + std::string(it->second->typeName()) +
                             ", not a " + std::string(typeName));
  }
  // The factory may itself edit this directory or the registry, so nothing
  // found above is used after it runs.
  Name const key = name;
  Factory const factory = type->second;
  Kiv::Ptr<Entity> made = factory(key);
  KIV_ASSERT(made && "Entity factory returned null");
  entryIs(key, made);
  return made;
}

Kiv::Ptr<Entity> Dir::entryDel(Name const& name) {
  KIV_ASSERT(name && "Need a valid name supplied");
  auto it = entries_.find(name);
  if (it == entries_.end()) return Kiv::Ptr<Entity>();
  Name const key = name;
  Kiv::Ptr<Entity> old = std::move(it->second);
  entries_.erase(it);
  notify(&NotifieeConst::onEntityPtr, key);
  return old;
}

void Dir::entryDelAll() {
  std::vector<Name> names;
  names.reserve(entries_.size());
  for (auto const& entry : entries_) names.push_back(entry.first);
  for (Name const& name : names) entryDel(name);
}

void Dir::typeIs(std::string_view typeName, Factory factory) {
  Registry& r = registry();
  if (!factory) {
    auto it = r.find(typeName);
    if (it != r.end()) r.erase(it);
    return;
  }
  r.insert_or_assign(std::string(typeName), std::move(factory));
}

Dir::Factory Dir::type(std::string_view typeName) {
  Registry const& r = registry();
  auto it = r.find(typeName);
  return it == r.end() ? Factory() : it->second;
}

}  // namespace Kiv
