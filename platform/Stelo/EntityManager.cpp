#include "Stelo/EntityManager.h"

#include "Kiv/PathTrust.h"
#include "Stelo/SharedDir.h"
#include "Vorn/Region.h"

namespace Stelo {

Kiv::Ptr<EntityManager> EntityManager::entityManagerIs(Kiv::EventLoop* loop, std::string root) {
  return Kiv::Ptr<EntityManager>(new EntityManager(loop, std::move(root)));
}

EntityManager::EntityManager(Kiv::EventLoop* loop, std::string root)
    : loop_(loop), root_(root.empty() ? Vorn::defaultRoot() : std::move(root)) {}

EntityManager::~EntityManager() {
  for (auto& [url, dir] : sharedDirs_) dir->stop();
  // Tables outlive the manager if someone holds them, readable still, but
  // they no longer hear of changes from the manager's loop.
  for (auto& [url, status] : mounts_)
    if (status->follow() == loop_) status->followIs(nullptr);
}

void EntityManager::rootIs(std::string root) {
  root_ = root.empty() ? Vorn::defaultRoot() : std::move(root);
  rootTrusted_ = false;
}

void EntityManager::doTrustRoot(bool make) {
  if (rootTrusted_) return;
  Kiv::PathTrust::Use const use{"table root", "VORN_ROOT"};
  if (make) {
    Kiv::PathTrust::dirMake(root_, use);
  } else {
    Kiv::PathTrust::dirCheck(root_, use);
  }
  rootTrusted_ = true;
}

std::string EntityManager::pathOfUrl(std::string const& url) const { return root_ + "/" + Vorn::fileNameOfUrl(url); }

Kiv::Ptr<Vorn::Status> EntityManager::mounted(std::string const& url) const {
  auto it = mounts_.find(url);
  return it == mounts_.end() ? Kiv::Ptr<Vorn::Status>() : it->second;
}

void EntityManager::mountedIs(std::string const& url, Kiv::Ptr<Vorn::Status> const& status) {
  if (!status) {
    mountedDel(url);
    return;
  }
  mounts_[url] = status;
}

Kiv::Ptr<Vorn::Status> EntityManager::mountedDel(std::string const& url) {
  auto it = mounts_.find(url);
  if (it == mounts_.end()) return {};
  Kiv::Ptr<Vorn::Status> s = it->second;
  mounts_.erase(it);
  return s;
}

Kiv::Ptr<SharedDir> EntityManager::sharedDir(std::string const& url) const {
  auto it = sharedDirs_.find(url);
  return it == sharedDirs_.end() ? Kiv::Ptr<SharedDir>() : it->second;
}

void EntityManager::sharedDirIs(std::string const& url, Kiv::Ptr<SharedDir> const& dir) {
  if (!dir) {
    sharedDirDel(url);
    return;
  }
  sharedDirs_[url] = dir;
}

Kiv::Ptr<SharedDir> EntityManager::sharedDirDel(std::string const& url) {
  auto it = sharedDirs_.find(url);
  if (it == sharedDirs_.end()) return {};
  Kiv::Ptr<SharedDir> d = it->second;
  sharedDirs_.erase(it);
  return d;
}

}  // namespace Stelo
