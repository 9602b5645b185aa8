// Stelo::EntityManager: the agent's handle on its shared state. It knows the
// root directory under which shared tables live and the event loop from
// which readers hear of changes, and it holds what is mounted, so that every
// KivVorn::Mount made from it sees the same entities.
//
// The root must belong to this process's user or root and be writable by
// nobody else (Kiv/PathTrust.h): otherwise another local user could put
// tables there that this process would read as its own. Mounts check it
// once, before the first table, and refuse it with the one line of
// Kiv::UntrustedPathException; a table file in a good root that belongs to
// someone else is refused on its own and counted (untrustedTables()).
//
//   Kiv::EventLoop loop;
//   auto em = Stelo::EntityManager::entityManagerIs(&loop);   // root: Vorn::defaultRoot()
//   KivVorn::Mount mount(em);
//   mount.doMount("mfib/default/pim", "Vorn::Multicast::Fib::Status", KivVorn::MountInfo(2));
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "Kiv/Ptr.h"
#include "Vorn/Status.h"

namespace Kiv {
class EventLoop;
}

namespace Stelo {

class SharedDir;

class EntityManager : public Kiv::PtrInterface {
 public:
  // root empty: Vorn::defaultRoot(). loop may be null (no reader follows
  // changes then).
  static Kiv::Ptr<EntityManager> entityManagerIs(Kiv::EventLoop* loop = nullptr, std::string root = {});

  std::string const& root() const { return root_; }
  void rootIs(std::string root);
  // Checks the root, making it (0755) when `make` and it is missing; only
  // the first time after construction or rootIs. Kiv::UntrustedPathException
  // when it may not be used.
  void doTrustRoot(bool make);
  // Table files refused because another user owns them or may write them.
  std::uint64_t untrustedTables() const { return untrustedTables_; }
  void untrustedTablesInc() { ++untrustedTables_; }
  Kiv::EventLoop* eventLoop() const { return loop_; }

  // The region file of `url` under the root; Kiv::ParseException for a URL
  // that could leave the root.
  std::string pathOfUrl(std::string const& url) const;

  // What is mounted, by URL.
  Kiv::Ptr<Vorn::Status> mounted(std::string const& url) const;
  void mountedIs(std::string const& url, Kiv::Ptr<Vorn::Status> const& status);
  Kiv::Ptr<Vorn::Status> mountedDel(std::string const& url);
  std::size_t mounts() const { return mounts_.size(); }

  // Shared directories mounted (KivVorn::MountInfo::dirWriter, dirReader),
  // by directory URL.
  Kiv::Ptr<SharedDir> sharedDir(std::string const& url) const;
  void sharedDirIs(std::string const& url, Kiv::Ptr<SharedDir> const& dir);
  Kiv::Ptr<SharedDir> sharedDirDel(std::string const& url);

 protected:
  EntityManager(Kiv::EventLoop* loop, std::string root);
  ~EntityManager() override;

 private:
  Kiv::EventLoop* loop_;
  std::string root_;
  bool rootTrusted_ = false;
  std::uint64_t untrustedTables_ = 0;
  std::map<std::string, Kiv::Ptr<Vorn::Status>> mounts_;
  std::map<std::string, Kiv::Ptr<SharedDir>> sharedDirs_;
};

}  // namespace Stelo
