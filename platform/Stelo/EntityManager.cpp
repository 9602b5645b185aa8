#include "Stelo/EntityManager.h"

#include "Vorn/Region.h"

namespace Stelo {

Kiv::Ptr<EntityManager> EntityManager::entityManagerIs(Kiv::EventLoop* loop, std::string root) {
  return Kiv::Ptr<EntityManager>(new EntityManager(loop, std::move(root)));
}

EntityManager::EntityManager(Kiv::EventLoop* loop, std::string root)
    : loop_(loop), root_(root.empty() ? Vorn::defaultRoot() : std::move(root)) {}

EntityManager::~EntityManager() {
  // Tables outlive the manager if someone holds them, readable still, but
  // they no longer hear of changes from the manager's loop.
  for (auto& [url, status] : mounts_)
    if (status->follow() == loop_) status->followIs(nullptr);
}

void EntityManager::rootIs(std::string root) { root_ = root.empty() ? Vorn::defaultRoot() : std::move(root); }

std::string EntityManager::pathOfUrl(std::string const& url) const {
  return root_ + "/" + Vorn::fileNameOfUrl(url);
}

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

}  // namespace Stelo
