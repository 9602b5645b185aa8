#include "Stelo/SharedDir.h"

#include <dirent.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "Kiv/Assert.h"
#include "Kiv/EventLoop.h"
#include "Kiv/Exception.h"
#include "Kiv/PathTrust.h"
#include "Kiv/Trace.h"
#include "Stelo/Mount.h"
#include "Vorn/Region.h"
#include "Vorn/Registry.h"

namespace Stelo {

namespace {

Kiv::TraceHandle th("Stelo::SharedDir");

std::map<std::string, SharedDirEntryType, std::less<>>& types() {
  static auto* t = new std::map<std::string, SharedDirEntryType, std::less<>>;
  return *t;
}

}  // namespace

void SharedDirEntryType::typeIs(std::string_view entityType, SharedDirEntryType type) {
  auto& t = types();
  if (type.statusType.empty()) {
    auto it = t.find(entityType);
    if (it != t.end()) t.erase(it);
    return;
  }
  t.insert_or_assign(std::string(entityType), std::move(type));
}

SharedDirEntryType const* SharedDirEntryType::type(std::string_view entityType) {
  auto const& t = types();
  auto it = t.find(entityType);
  return it == t.end() ? nullptr : &it->second;
}

// Watches the writer's local directory for its own entry.
class SharedDir::KivDir : public Kiv::PtrInterface, public Kiv::Dir::NotifieeConst {
 public:
  KivDir(Kiv::Ptr<Kiv::Dir const> const& dir, SharedDir* owner) : Kiv::Dir::NotifieeConst(dir), owner_(owner) {}
  void onEntityPtr(Kiv::Name name) override { owner_->handleEntry(name); }

 private:
  SharedDir* owner_;
};

SharedDir::SharedDir(Kiv::Ptr<EntityManager> const& entityManager, std::string dirUrl, std::string entityType,
                     bool writer)
    : entityManager_(entityManager.ptr()),
      dirUrl_(std::move(dirUrl)),
      entityType_(std::move(entityType)),
      writer_(writer),
      dir_(Kiv::Dir::DirIs(Kiv::Name(dirUrl_))) {}

SharedDir::~SharedDir() {
  stop();
  // Readers let go of the tables; a writer's table stays for a successor to
  // adopt (its entry is withdrawn only by removing it from the directory).
  for (auto& [name, m] : mounted_) {
    m.binding = nullptr;
    m.table->unmount();
  }
}

SharedDirEntryType const& SharedDir::entryType() const {
  SharedDirEntryType const* t = SharedDirEntryType::type(entityType_);
  if (!t) throw Kiv::RangeException("no shared directory entry type '" + entityType_ + "' registered");
  return *t;
}

Kiv::Ptr<Vorn::Status> SharedDir::table(Kiv::Name const& name) const {
  auto it = mounted_.find(name);
  return it == mounted_.end() ? nullptr : it->second.table;
}

void SharedDir::stop() {
  if (kivDir_) {
    kivDir_->kivDoZombieReactors(true);
    kivDir_ = nullptr;
  }
  if (inotifyFd_ >= 0) {
    if (Kiv::EventLoop* loop = entityManager_->eventLoop()) loop->readableDel(inotifyFd_);
    ::close(inotifyFd_);
    inotifyFd_ = -1;
  }
}

// ---- writer

Kiv::Ptr<SharedDir> SharedDir::writerIs(Kiv::Ptr<EntityManager> const& entityManager, std::string const& dirUrl,
                                        std::string const& entityType, Kiv::Name const& entryName) {
  KIV_ASSERT(entryName && "Need a valid name supplied");
  Kiv::Ptr<SharedDir> d = new SharedDir(entityManager, dirUrl, entityType, true);
  d->entryType();  // refuses an unknown type before anything is created
  d->writerEntry_ = entryName;
  d->publish(entryName);
  d->kivDir_ = new KivDir(d->dir_, d.ptr());
  return d;
}

void SharedDir::publish(Kiv::Name const& name) {
  SharedDirEntryType const& type = entryType();
  std::string const url = urlOfEntry(name);
  Kiv::Ptr<Vorn::Status> table = Vorn::StatusRegistry::statusNew(type.statusType, Kiv::Name(url));
  if (!table) throw Kiv::RangeException("unknown table type '" + type.statusType + "' for " + url);
  KivVorn::Mount(Kiv::Ptr<EntityManager>(entityManager_)).handleInitialized();
  table->mountIs(entityManager_->pathOfUrl(url), Vorn::Status::Mode::writer);
  KIV_TRACE(th, 5, "publishing " << name << " in " << url << (table->region()->adopted() ? " (adopted)" : ""));
  Kiv::Ptr<Kiv::Entity> entity = dir_->entity(name);
  if (!entity) entity = dir_->entryIs(name, entityType_);
  Mounted& m = mounted_[name];
  m.table = table;
  m.binding = type.publish(entity, table);
}

void SharedDir::withdraw(Kiv::Name const& name) {
  auto it = mounted_.find(name);
  if (it == mounted_.end()) return;
  KIV_TRACE(th, 5, "withdrawing " << name << " from " << urlOfEntry(name));
  Mounted m = std::move(it->second);
  mounted_.erase(it);
  m.binding = nullptr;
  m.table->unmount();
  KivVorn::Mount(Kiv::Ptr<EntityManager>(entityManager_)).cleanup(urlOfEntry(name));
}

void SharedDir::handleEntry(Kiv::Name const& name) {
  if (name != writerEntry_) {
    KIV_TRACE(
        th, 4,
        "entry " << name << " of " << dirUrl_ << " stays local: this process publishes " << writerEntry_ << " only");
    return;
  }
  Kiv::Ptr<Kiv::Entity> entity = dir_->entity(name);
  auto it = mounted_.find(name);
  if (!entity) {
    withdraw(name);
  } else if (it == mounted_.end()) {
    publish(name);
  } else {
    // Another entity under the same name: publish it in place of the old.
    it->second.binding = nullptr;
    it->second.binding = entryType().publish(entity, it->second.table);
  }
}

// ---- reader

Kiv::Ptr<SharedDir> SharedDir::readerIs(Kiv::Ptr<EntityManager> const& entityManager, std::string const& dirUrl,
                                        std::string const& entityType) {
  Kiv::EventLoop* loop = entityManager->eventLoop();
  if (!loop) throw Kiv::RangeException("a shared directory reader needs an entity manager with an event loop");
  Kiv::Ptr<SharedDir> d = new SharedDir(entityManager, dirUrl, entityType, false);
  d->entryType();
  KivVorn::Mount(entityManager).handleInitialized();
  d->inotifyFd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (d->inotifyFd_ < 0) throw Kiv::ErrnoException("inotify_init1", errno);
  // Writers build a table aside and rename it into place, so a table
  // appears whole with IN_MOVED_TO. Creation and writes are not watched:
  // readers themselves open tables for writing (doorbells), and a file
  // still being filled cannot be mounted anyway.
  if (::inotify_add_watch(d->inotifyFd_, entityManager->root().c_str(),
                          IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | IN_ONLYDIR) < 0) {
    int const e = errno;
    ::close(d->inotifyFd_);
    d->inotifyFd_ = -1;
    throw Kiv::ErrnoException("inotify_add_watch(" + entityManager->root() + ")", e);
  }
  SharedDir* raw = d.ptr();
  loop->readableIs(d->inotifyFd_, [raw] { raw->handleInotify(); });
  // Watching first, then listing: a file made in between is seen twice,
  // never missed.
  d->rescan();
  return d;
}

Kiv::Name SharedDir::entryOfFile(std::string const& fileName) const {
  std::string const url = Vorn::urlOfFileName(fileName);
  if (url.size() <= dirUrl_.size() + 1 || url.compare(0, dirUrl_.size(), dirUrl_) != 0 || url[dirUrl_.size()] != '/')
    return Kiv::Name();
  std::string name = url.substr(dirUrl_.size() + 1);
  if (name.find('/') != std::string::npos) return Kiv::Name();
  return Kiv::Name(name);
}

void SharedDir::rescan() {
  if (writer_) return;
  std::map<Kiv::Name, ino_t> present;
  if (DIR* d = ::opendir(entityManager_->root().c_str())) {
    while (dirent* e = ::readdir(d)) {
      Kiv::Name const name = entryOfFile(e->d_name);
      if (!name) continue;
      struct stat st;
      if (::stat((entityManager_->root() + "/" + e->d_name).c_str(), &st) == 0) present[name] = st.st_ino;
    }
    ::closedir(d);
  }
  std::vector<Kiv::Name> gone;
  for (auto const& [name, m] : mounted_)
    if (!present.contains(name)) gone.push_back(name);
  for (Kiv::Name const& name : gone) drop(name);
  for (auto const& [name, inode] : present) follow(name, inode);
}

void SharedDir::handleInotify() {
  alignas(inotify_event) char buf[8192];
  bool overflow = false;
  std::vector<std::string> files;
  for (;;) {
    ssize_t n = ::read(inotifyFd_, buf, sizeof buf);
    if (n <= 0) break;
    for (char* p = buf; p < buf + n;) {
      auto* ev = reinterpret_cast<inotify_event*>(p);
      if (ev->mask & IN_Q_OVERFLOW) overflow = true;
      if (ev->len > 0) files.emplace_back(ev->name);
      p += sizeof(inotify_event) + ev->len;
    }
  }
  if (overflow) {
    KIV_TRACE(th, 2, "inotify queue overflowed under " << entityManager_->root() << ": rescanning");
    rescan();
    return;
  }
  for (std::string const& f : files) handleFile(f);
}

void SharedDir::handleFile(std::string const& fileName) {
  Kiv::Name const name = entryOfFile(fileName);
  if (!name) return;
  struct stat st;
  if (::stat((entityManager_->root() + "/" + fileName).c_str(), &st) != 0) {
    drop(name);
  } else {
    follow(name, st.st_ino);
  }
}

void SharedDir::follow(Kiv::Name const& name, ino_t inode) {
  auto it = mounted_.find(name);
  if (it != mounted_.end() && it->second.inode == inode) return;
  if (auto r = refused_.find(name); r != refused_.end() && r->second == inode) return;
  SharedDirEntryType const& type = entryType();
  std::string const url = urlOfEntry(name);
  Kiv::Ptr<Vorn::Status> table = Vorn::StatusRegistry::statusNew(type.statusType, Kiv::Name(url));
  if (!table) return;
  try {
    table->mountIs(entityManager_->pathOfUrl(url), Vorn::Status::Mode::reader);
    table->followIs(entityManager_->eventLoop());
  } catch (Kiv::UntrustedPathException const& e) {
    // Another user's file: not an entry, reported once per file.
    entityManager_->untrustedTablesInc();
    KIV_TRACE(th, 2, "not mounting " << url << ": " << e.what());
    if (it != mounted_.end()) drop(name);
    refused_[name] = inode;
    return;
  } catch (Pelto::CorruptionDetectedException const& e) {
    ++corruptions_;
    table->corruptionDetected(e.what());
    KIV_TRACE(th, 2, "not mounting " << url << ": " << e.what());
    if (it != mounted_.end()) drop(name);
    refused_[name] = inode;
    return;
  } catch (Kiv::Exception const& e) {
    // Gone again before it could be opened; its removal follows.
    KIV_TRACE(th, 4, "not mounting " << url << ": " << e.what());
    return;
  }
  refused_.erase(name);
  KIV_TRACE(th, 5, (it == mounted_.end() ? "following " : "following the new table of ") << name << " in " << url);
  if (it != mounted_.end()) {
    it->second.binding = nullptr;
    it->second.table->unmount();
  }
  Kiv::Ptr<Kiv::Entity> entity = dir_->entity(name);
  if (!entity) entity = dir_->entryIs(name, entityType_);
  Mounted& m = mounted_[name];
  m.table = table;
  m.inode = inode;
  m.binding = type.follow(entity, table);
}

void SharedDir::drop(Kiv::Name const& name) {
  refused_.erase(name);
  auto it = mounted_.find(name);
  if (it != mounted_.end()) {
    KIV_TRACE(th, 5, "entry " << name << " of " << dirUrl_ << " was withdrawn");
    Mounted m = std::move(it->second);
    mounted_.erase(it);
    m.binding = nullptr;
    m.table->unmount();
  }
  Kiv::Ptr<Kiv::Entity> entity = dir_->entity(name);
  SharedDirEntryType const* type = SharedDirEntryType::type(entityType_);
  if (entity && type && type->withdraw) type->withdraw(entity);
  dir_->entryDel(name);
}

}  // namespace Stelo
