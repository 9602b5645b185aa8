// Kiv::Dir: a directory of entities by name, through which one party
// announces entities and others find and watch them.
//
// Each entry is a Kiv::Name with a Kiv::Ptr<Kiv::Entity>; the pointer may be
// null, for a name that is announced before (or without) its entity. Entries
// iterate in name order. Every added, replaced or removed entry is announced
// through NotifieeConst::onEntityPtr(name); storing the pointer an entry
// already holds changes nothing and announces nothing. Unlike most pointer
// setters, entryIs(name, nullptr) does not remove: it stores an entry without
// an entity.
//
//   Kiv::Dir::typeIs("Foo::Bar", [](Kiv::Name const& n) { return Foo::barFactory(n); });
//   Kiv::Ptr<Kiv::Dir> dir = Kiv::Dir::DirIs("mfib");
//   Kiv::Ptr<Kiv::Entity> bar = dir->entryIs("app1", "Foo::Bar");   // made by the factory
//   dir->entryIs("app1", "Foo::Bar");   // the same entity again; no notification
//   dir->entryDel("app1");              // returns bar
//
// Entities are made by type name through a process-wide registry that
// libraries fill at start-up (typeIs). Asking for a type nobody registered
// raises Kiv::RangeException; asking to create a name whose entry holds an
// entity of another type raises Kiv::NameInUseException, and an entry that
// already holds an entity of the asked type is returned unchanged, so a
// writer that starts again finds its own entry.
//
// Every operation that takes a name asserts it is not empty. A notifiee may
// add or remove entries from onEntityPtr; entryDelAll removes the entries
// present when it was called, skipping those a notifiee removed meanwhile.
// Like the rest of the framework, a Dir and the registry belong to one thread.
//
// Reflectively a Dir has one attribute, the collection `entry` (name ->
// entity), which is its path collection: /app1 names the entry app1. An
// entry set by name holds no entity (the value given must be None).
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string_view>
#include <utility>

#include "Kiv/Entity.h"
#include "Kiv/Name.h"
#include "Kiv/Ptr.h"
#include "Kiv/Reflect.h"

namespace Kiv {

class Dir : public Entity {
 public:
  using Ptr = Kiv::Ptr<Dir>;
  using PtrConst = Kiv::PtrConst<Dir>;
  using Map = std::map<Name, Kiv::Ptr<Entity>>;
  using const_iterator = Map::const_iterator;
  // Makes the entity for a new entry, given the entry's name; never null.
  using Factory = std::function<Kiv::Ptr<Entity>(Name const&)>;

  class NotifieeConst : public NotifieeConstBase<Dir> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    // The entry called name appeared, changed its entity or vanished.
    virtual void onEntityPtr(Name) {}
  };

  static Ptr DirIs(Name name = Name());

  // The entry's entity; null when the entry is absent or holds none.
  Kiv::Ptr<Entity> entity(Name const& name) const;
  bool has(Name const& name) const;
  std::size_t entries() const { return entries_.size(); }

  // Adds the entry or replaces its entity.
  void entryIs(Name const& name, Kiv::Ptr<Entity> const& entity);
  void entryIs(Name const& name, std::nullptr_t) { entryIs(name, Kiv::Ptr<Entity>()); }
  // Creates the entry's entity through the registered factory of typeName and
  // returns it; see the header comment for names already in use.
  Kiv::Ptr<Entity> entryIs(Name const& name, std::string_view typeName);
  // Removes the entry and returns the entity it held (null when absent).
  Kiv::Ptr<Entity> entryDel(Name const& name);
  void entryDelAll();

  const_iterator begin() const { return entries_.begin(); }
  const_iterator end() const { return entries_.end(); }
  Map const& entryMap() const { return entries_; }

  KIV_REFLECT_BEGIN(Dir, "Kiv::Dir")
  // The entry's entity, as the reflective collection reads it.
  Kiv::Ptr<Entity> entry(Name const& name) const { return entity(name); }
  KIV_REFLECT_PATH_COLLECTION(
      entry, Name, entries(), entries_, [](KivSelf& s, Name const& k, auto&& v) { s.entryIs(k, v); },
      [](KivSelf& s, Name const& k) { s.entryDel(k); })
  KIV_REFLECT_END

  // Registers the factory of typeName, replacing an earlier one; an empty
  // factory removes the registration. "Kiv::Dir" is registered from the start.
  static void typeIs(std::string_view typeName, Factory factory);
  // The registered factory; empty when there is none.
  static Factory type(std::string_view typeName);

 protected:
  explicit Dir(Name name) : Entity(std::move(name)) {}
  ~Dir() override = default;

 private:
  Map entries_;
};

}  // namespace Kiv
