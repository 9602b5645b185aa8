#include "Stelo/Mount.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "Brisklog/Brisklog.h"
#include "Kiv/Exception.h"
#include "Kiv/PathTrust.h"
#include "Kiv/Trace.h"
#include "Stelo/SharedDir.h"
#include "Vorn/Registry.h"

namespace KivVorn {

namespace {
Kiv::TraceHandle th("Vorn::Mount");
}  // namespace

Mount::Mount(Kiv::Ptr<Stelo::EntityManager> entityManager) : entityManager_(std::move(entityManager)) {}

Mount::~Mount() = default;

void Mount::handleInitialized() {
  KIV_TRACE(th, 9, "void KivVorn::Mount::handleInitialized() root " << entityManager_->root());
  entityManager_->doTrustRoot(true);
}

void Mount::doMount(std::string const& url, std::string const& typeName, MountInfo const& mountInfo) {
  KIV_TRACE(th, 9, "void KivVorn::Mount::doMount(" << url << ", " << typeName << ", kind " << mountInfo.kind << ")");
  std::string const path = entityManager_->pathOfUrl(url);  // refuses unsafe URLs
  if (mountInfo.kind == MountInfo::dirWriter || mountInfo.kind == MountInfo::dirReader) {
    if (entityManager_->sharedDir(url)) return;
    Kiv::Ptr<Stelo::SharedDir> dir =
        mountInfo.kind == MountInfo::dirWriter
            ? Stelo::SharedDir::writerIs(entityManager_, url, typeName, Kiv::Name(mountInfo.entry))
            : Stelo::SharedDir::readerIs(entityManager_, url, typeName);
    entityManager_->sharedDirIs(url, dir);
    KIV_TRACE(th, 5,
              "doMount: shared directory " << url << " of " << typeName
                                           << (mountInfo.kind == MountInfo::dirWriter ? ", publishing " : "")
                                           << mountInfo.entry);
    return;
  }
  if (Kiv::Ptr<Vorn::Status> existing = entityManager_->mounted(url)) {
    if (existing->typeName() != typeName)
      KIV_TRACE(th, 2, "doMount: " << url << " is mounted already as " << existing->typeName() << ", not " << typeName);
    return;
  }
  Vorn::Status::Mode mode;
  switch (mountInfo.kind) {
    case MountInfo::writer:
      mode = Vorn::Status::Mode::writer;
      break;
    case MountInfo::reader:
    case MountInfo::mfibReader:
      mode = Vorn::Status::Mode::reader;
      break;
    default:
      KIV_TRACE(th, 2, "doMount: " << url << ": unknown mount kind " << mountInfo.kind);
      return;
  }
  Kiv::Ptr<Vorn::Status> status = Vorn::StatusRegistry::statusNew(typeName, Kiv::Name(url));
  if (!status) {
    KIV_TRACE(th, 2, "doMount: " << url << ": unknown type name " << typeName);
    return;
  }
  if (mode == Vorn::Status::Mode::writer) {
    entityManager_->doTrustRoot(true);
  } else if (::access(path.c_str(), F_OK) != 0) {
    KIV_TRACE(th, 4, "doMount: " << url << ": no table at " << path << " (yet)");
    return;
  } else {
    entityManager_->doTrustRoot(false);
  }
  try {
    status->mountIs(path, mode, mountInfo.options);
    if (mode == Vorn::Status::Mode::reader && entityManager_->eventLoop() != nullptr)
      status->followIs(entityManager_->eventLoop());
  } catch (Kiv::UntrustedPathException const& e) {
    // Someone else's file in the root: never read as a table, never taken
    // over by a writer.
    entityManager_->untrustedTablesInc();
    KIV_TRACE(th, 2, "doMount: " << url << ": " << e.what());
    BRISKLOG("KivVorn::Mount", "mount of %s refused: %s", url, e.what());
    if (mode == Vorn::Status::Mode::writer) throw;
    return;
  } catch (Pelto::CorruptionDetectedException const& e) {
    KIV_TRACE(th, 2, "doMount: " << url << ": " << e.what());
    BRISKLOG("KivVorn::Mount", "mount of %s failed: %s", url, e.what());
    return;
  } catch (Kiv::Exception const& e) {
    // No such file, no permission, no room, or a table another writer is
    // writing. A reader waits for the table to appear; a writer that cannot
    // make or take its table must not go on as if it had one.
    KIV_TRACE(th, 2, "doMount: " << url << ": " << e.what());
    BRISKLOG("KivVorn::Mount", "mount of %s failed: %s", url, e.what());
    if (mode == Vorn::Status::Mode::writer) throw;
    return;
  }
  entityManager_->mountedIs(url, status);
  KIV_TRACE(th, 5, "doMount: mounted " << url << " at " << path);
  BRISKLOG("KivVorn::Mount", "mounted %s (%s) as %s", url, typeName,
           mode == Vorn::Status::Mode::writer ? "writer" : "reader");
}

Kiv::Ptr<Kiv::Entity> Mount::getEntity(std::string const& url) const {
  if (Kiv::Ptr<Vorn::Status> status = entityManager_->mounted(url)) return Kiv::Ptr<Kiv::Entity>(status);
  if (Kiv::Ptr<Stelo::SharedDir> dir = entityManager_->sharedDir(url)) return Kiv::Ptr<Kiv::Entity>(dir->dir());
  return nullptr;
}

void Mount::doUnmount(std::string const& url) {
  KIV_TRACE(th, 9, "void KivVorn::Mount::doUnmount(" << url << ")");
  Kiv::Ptr<Vorn::Status> status = entityManager_->mountedDel(url);
  if (status) {
    status->unmount();
    BRISKLOG("KivVorn::Mount", "unmounted %s", url);
  }
  if (Kiv::Ptr<Stelo::SharedDir> dir = entityManager_->sharedDirDel(url)) dir->stop();
}

void Mount::cleanup(std::string const& url) {
  KIV_TRACE(th, 9, "void KivVorn::Mount::cleanup(" << url << ")");
  std::string const path = entityManager_->pathOfUrl(url);
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    KIV_TRACE(th, 2, "cleanup: unlink " << path << ": errno " << errno);
    return;
  }
  // Doorbells of readers that did not close them.
  std::string const root = entityManager_->root();
  std::string const prefix = path.substr(root.size() + 1) + ".bell.";
  if (DIR* d = ::opendir(root.c_str())) {
    while (dirent* e = ::readdir(d)) {
      std::string name = e->d_name;
      if (name.compare(0, prefix.size(), prefix) == 0) ::unlink((root + "/" + name).c_str());
    }
    ::closedir(d);
  }
}

}  // namespace KivVorn
