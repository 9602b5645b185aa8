// Stelo::SharedDir: a Kiv::Dir whose entries are shared between processes.
//
// Each entry lives in its own shared table, "<dir url>/<entry name>", and
// has exactly one writer: the process that publishes it. A reader process
// holds a local Kiv::Dir that mirrors every entry under the directory URL,
// so its reactors see onEntityPtr(name) and the entity's own notifications
// from the reader's event loop, in the order the writer made the changes.
// Mount it with one call on either side:
//
//   KivVorn::Mount mount(entityManager);
//   mount.doMount("mfibdir", "Vorn::Multicast::Fib::MfibDir", KivVorn::MountInfo::dirWriterOf("pim"));
//   mount.doMount("mfibdir", "Vorn::Multicast::Fib::MfibDir", KivVorn::MountInfo(KivVorn::MountInfo::dirReader));
//   auto dir = Kiv::ptrCast<Kiv::Dir>(mount.getEntity("mfibdir"));
//
// How an entity travels through a table belongs to the schema that defines
// the entity: it registers a SharedDirEntryType under the entity's type name.
//
// Writer: the mount creates the table (or adopts the one a previous run
// left, whose contents go into the entity first, so a restarted writer finds
// its part as it left it), creates the entry in the local directory and
// from then on writes every change of the entity into the table. Removing
// the entry from the local directory withdraws it: the table is unmounted
// and its file removed. Other entries of a writer's directory stay local.
//
// Reader: new tables under the URL are found through inotify on the table
// root (no polling), also those of writers that start after the reader;
// a table appears when it is renamed into place, as Vorn writers make them.
// An entry appears when its table does and vanishes when the file is
// removed (emptied first, when its type says how). A writer that dies leaves its file, so its entry stays, with the
// last contents, and stays readable; when it restarts and adopts the file,
// readers see only the changes it makes afterwards. A file replaced by a
// new one (a writer that could not adopt it) is mounted again and the entity
// brought in line with it. A writer refuses to take over a table that
// another running process writes (the table library's exception says who).
// A table that cannot be mounted because it is
// corrupt is reported to the table's corruptionDetected hook, counted, and
// has no entry; the other entries are not affected. So is a table file that
// another user owns or may write (counted by the entity manager's
// untrustedTables); the root itself is checked when the directory is mounted. The reader needs the
// entity manager's event loop. A shared directory lives no longer than its
// entity manager, which stops it when it goes.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "Kiv/Dir.h"
#include "Kiv/Ptr.h"
#include "Stelo/EntityManager.h"
#include "Vorn/Status.h"

namespace Stelo {

// How the entities of one type travel through a shared table.
struct SharedDirEntryType {
  // What keeps entity and table in step while it lives.
  using Binding = Kiv::Ptr<Kiv::PtrInterface>;
  using Bind = std::function<Binding(Kiv::Ptr<Kiv::Entity> const& entity, Kiv::Ptr<Vorn::Status> const& table)>;

  // The Vorn status type of the table.
  std::string statusType;
  // Writer side: first takes into the entity what the table holds and the
  // entity lacks, then writes the entity's state and every later change.
  Bind publish;
  // Reader side: brings the entity in line with the table now and on every
  // change the table announces; corruption goes to the table's hook.
  Bind follow;
  // Reader side, optional: empties the entity before its entry leaves the
  // directory, so that watchers of the entity hear each part withdrawn.
  std::function<void(Kiv::Ptr<Kiv::Entity> const& entity)> withdraw;

  // Registers (an empty statusType removes) the type of entityType.
  static void typeIs(std::string_view entityType, SharedDirEntryType type);
  // The registered type, or null.
  static SharedDirEntryType const* type(std::string_view entityType);
};

class SharedDir : public Kiv::PtrInterface {
 public:
  // Publishes entry `entryName` of a directory of entityType entities.
  static Kiv::Ptr<SharedDir> writerIs(Kiv::Ptr<EntityManager> const& entityManager, std::string const& dirUrl,
                                      std::string const& entityType, Kiv::Name const& entryName);
  // Mirrors every entry under dirUrl.
  static Kiv::Ptr<SharedDir> readerIs(Kiv::Ptr<EntityManager> const& entityManager, std::string const& dirUrl,
                                      std::string const& entityType);
  ~SharedDir() override;

  Kiv::Ptr<Kiv::Dir> const& dir() const { return dir_; }
  std::string const& dirUrl() const { return dirUrl_; }
  bool writer() const { return writer_; }
  // The table of an entry, or null.
  Kiv::Ptr<Vorn::Status> table(Kiv::Name const& name) const;
  // The table URL of an entry.
  std::string urlOfEntry(Kiv::Name const& name) const { return dirUrl_ + "/" + name.str(); }
  // Tables refused as corrupt.
  std::uint64_t corruptions() const { return corruptions_; }

  // Reader: compares the root with what is mounted and mends the
  // difference (done on its own when inotify lost events).
  void rescan();
  // Stops watching; the entries stay as they are.
  void stop();

 private:
  class KivDir;
  struct Mounted {
    Kiv::Ptr<Vorn::Status> table;
    SharedDirEntryType::Binding binding;
    ino_t inode = 0;
  };

  SharedDir(Kiv::Ptr<EntityManager> const& entityManager, std::string dirUrl, std::string entityType, bool writer);
  SharedDirEntryType const& entryType() const;
  // Writer.
  void publish(Kiv::Name const& name);
  void withdraw(Kiv::Name const& name);
  void handleEntry(Kiv::Name const& name);
  // Reader.
  void handleInotify();
  void handleFile(std::string const& fileName);
  void follow(Kiv::Name const& name, ino_t inode);
  void drop(Kiv::Name const& name);
  Kiv::Name entryOfFile(std::string const& fileName) const;

  // The manager holds this object when it is mounted, so a plain pointer
  // back to it, as from any child to its owner.
  EntityManager* entityManager_;
  std::string const dirUrl_;
  std::string const entityType_;
  bool const writer_;
  Kiv::Ptr<Kiv::Dir> dir_;
  std::map<Kiv::Name, Mounted> mounted_;
  // Files refused as corrupt, by inode, so each is reported once.
  std::map<Kiv::Name, ino_t> refused_;
  Kiv::Ptr<KivDir> kivDir_;
  Kiv::Name writerEntry_;
  int inotifyFd_ = -1;
  std::uint64_t corruptions_ = 0;
};

}  // namespace Stelo
