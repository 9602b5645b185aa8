// KivVorn::Mount: mounts shared tables by URL for an entity manager.
//
// Kinds: 0 the writer (creates the table, or adopts the records of an
// existing one), 2 a reader, 3 a reader of the MFIB schema; 4 and 5 mount a
// shared directory (Stelo/SharedDir.h) of entities of `typeName` under
// `url`: 4 publishes the entry named in MountInfo::entry, 5 mirrors every
// entry; getEntity(url) is then the local Kiv::Dir. Unlike a table, a
// shared directory that cannot be mounted raises (an unknown entry type, a
// reader without event loop, an entry another running process publishes):
// a process that cannot publish or follow its directory has to know. A type name is
// resolved through Vorn::StatusRegistry. A reader mount of a table that
// does not exist (yet), holds another type or is corrupt yields no entity:
// getEntity returns null and the reason is traced ("Vorn::Mount" handle);
// so does a table file that another user owns or may write, which is also
// counted (EntityManager::untrustedTables). A table root that is not
// trusted (Stelo/EntityManager.h) is refused for every kind with
// Kiv::UntrustedPathException.
// A writer mount that cannot create or take its table (no permission, no
// room, a read-only file system, another writer running) raises the
// Kiv::Exception that says why.
// Mounting a URL that the entity manager already holds returns the same
// entity. A URL that is absolute or contains ".." is refused with
// Kiv::ParseException.
//
//   KivVorn::Mount mount(entityManager);
//   mount.doMount(url, "BitMapper::VornStatus", KivVorn::MountInfo(0));
//   auto status = Kiv::ptrCast<BitMapper::VornStatus>(mount.getEntity(url));
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "Kiv/Entity.h"
#include "Kiv/Ptr.h"
#include "Stelo/EntityManager.h"
#include "Vorn/Status.h"

namespace KivVorn {

struct MountInfo {
  static constexpr int writer = 0;
  static constexpr int reader = 2;
  static constexpr int mfibReader = 3;
  static constexpr int dirWriter = 4;
  static constexpr int dirReader = 5;

  MountInfo() = default;
  explicit MountInfo(int k) : kind(k) {}
  static MountInfo dirWriterOf(std::string entryName) {
    MountInfo m(dirWriter);
    m.entry = std::move(entryName);
    return m;
  }

  int kind = reader;
  // The entry a directory writer publishes.
  std::string entry;
  // Table capacities and change-log size for a writer that creates the table.
  Vorn::MountOptions options;
};

class Mount : public Kiv::PtrInterface {
 public:
  explicit Mount(Kiv::Ptr<Stelo::EntityManager> entityManager);
  ~Mount() override;

  Kiv::Ptr<Stelo::EntityManager> const& entityManager() const { return entityManager_; }

  // Makes sure the root directory exists and is trusted.
  void handleInitialized();
  void doMount(std::string const& url, std::string const& typeName, MountInfo const& mountInfo);
  // The mounted entity, or null.
  Kiv::Ptr<Kiv::Entity> getEntity(std::string const& url) const;
  void doUnmount(std::string const& url);
  // Removes the table's file (the writer's last act on a table).
  void cleanup(std::string const& url);

 private:
  Kiv::Ptr<Stelo::EntityManager> entityManager_;
};

}  // namespace KivVorn
