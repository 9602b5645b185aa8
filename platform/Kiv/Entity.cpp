#include "Kiv/Entity.h"

#include <algorithm>

#include "Kiv/Assert.h"

namespace Kiv {

NotifieeBase::~NotifieeBase() { notifierEntityIs(nullptr); }

void NotifieeBase::notifierEntityIs(Entity const* e) {
  if (e == entity_) return;
  if (entity_) entity_->detach(this);
  entity_ = e;
  if (entity_) entity_->attach(this);
}

Entity::~Entity() {
  KIV_ASSERT(depth_ == 0);
  // Notifiees hold counted pointers, so only notifiees that registered
  // through a plain pointer can still be here; cut them loose.
  for (NotifieeBase* n : list_) {
    if (n) n->entity_ = nullptr;
  }
}

std::vector<NotifieeBase*> Entity::notifieeList() const {
  std::vector<NotifieeBase*> out;
  out.reserve(list_.size());
  for (NotifieeBase* n : list_) {
    if (n) out.push_back(n);
  }
  return out;
}

void Entity::attach(NotifieeBase* n) const { list_.push_back(n); }

void Entity::detach(NotifieeBase* n) const {
  auto it = std::find(list_.begin(), list_.end(), n);
  if (it == list_.end()) return;
  if (depth_ > 0) {
    *it = nullptr;
    holes_ = true;
  } else {
    list_.erase(it);
  }
}

void Entity::closeHoles() const {
  list_.erase(std::remove(list_.begin(), list_.end(), nullptr), list_.end());
  holes_ = false;
}

}  // namespace Kiv
