// Entities and their notifiees: the framework's observer pattern.
//
// An entity holds attributes and a list of registered notifiees. Every real
// change of an attribute is announced synchronously to each registered,
// active, non-zombie notifiee through a hook named after the attribute.
// A setter given the value already held changes nothing and notifies nobody.
//
//   class Port : public Kiv::Entity {
//    public:
//     class NotifieeConst : public Kiv::NotifieeConstBase<Port> {
//      public:
//       virtual void onSpeed() {}
//     };
//     void speedIs(unsigned s) { if (Kiv::changed(speed_, s)) notify(&NotifieeConst::onSpeed); }
//    private:
//     unsigned speed_ = 0;
//   };
//
// Delivery guarantees: a notifiee that unregisters itself or another, is
// destroyed, or registers a new notifiee while a notification is delivered
// does not break the delivery. A notifiee removed during delivery hears no
// more of it; one added during delivery hears from the next notification on.
// The entity is kept alive for the length of a delivery even when a notifiee
// drops the last reference to it.
#pragma once

#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

#include "Kiv/Name.h"
#include "Kiv/Ptr.h"

namespace Kiv {

class Entity;
class TypeInfo;

// Stores v in slot and says whether the value changed; the building block of
// every setter.
template <class T, class U>
bool changed(T& slot, U&& v) {
  if (slot == v) return false;
  slot = std::forward<U>(v);
  return true;
}

// The part of every notifiee that the notifier sees.
class NotifieeBase {
 public:
  NotifieeBase() = default;
  NotifieeBase(NotifieeBase const&) = delete;
  NotifieeBase& operator=(NotifieeBase const&) = delete;
  virtual ~NotifieeBase();

  // An inactive notifiee stays registered but hears nothing. Owners of child
  // reactors override this to pass the value on.
  bool hasNotificationActive() const { return active_; }
  virtual void hasNotificationActiveIs(bool active) { active_ = active; }

  // Zombie protocol: a reactor marked for deletion hears nothing more, even
  // before the last reference to it goes. Owners override to pass it on to
  // their child reactors.
  bool isZombie() const { return zombie_; }
  virtual void kivDoZombieReactors(bool zombie) { zombie_ = zombie; }

  bool wantsNotification() const { return active_ && !zombie_; }

 protected:
  // Moves the registration to entity e (null: unregister).
  void notifierEntityIs(Entity const* e);
  Entity const* notifierEntity() const { return entity_; }

 private:
  friend class Entity;
  Entity const* entity_ = nullptr;
  bool active_ = true;
  bool zombie_ = false;
};

// Base of every E::NotifieeConst: holds a counted pointer to the watched
// entity, registers with it on construction or notifierIs, and unregisters on
// destruction.
template <class E>
class NotifieeConstBase : public NotifieeBase {
 public:
  NotifieeConstBase() = default;
  explicit NotifieeConstBase(Ptr<E const> const& e) { notifierIs(e); }
  ~NotifieeConstBase() override { notifierEntityIs(nullptr); }

  Ptr<E const> const& notifier() const { return notifier_; }
  void notifierIs(Ptr<E const> const& e) {
    if (e == notifier_) return;
    notifierEntityIs(e.ptr());
    notifier_ = e;
  }

 private:
  Ptr<E const> notifier_;
};

class Entity : public PtrInterface {
 public:
  explicit Entity(Name name = Name()) : name_(std::move(name)) {}
  Entity(Entity const&) = delete;
  Entity& operator=(Entity const&) = delete;

  Name const& name() const { return name_; }
  // The registered type name ("BitMapper::Status"); each entity type returns
  // its own.
  virtual std::string_view typeName() const { return "Kiv::Entity"; }
  // The attributes reachable by name (Kiv/Reflect.h); null for a type that
  // declares none.
  virtual TypeInfo const* kivTypeInfo() const { return nullptr; }

  // Owners of reactors pass both switches on to them.
  virtual void kivDoZombieReactors(bool) {}
  virtual void hasNotificationActiveIs(bool) {}

  // The registered notifiees, in registration order.
  std::vector<NotifieeBase*> notifieeList() const;
  std::size_t notifiees() const { return notifieeList().size(); }

 protected:
  ~Entity() override;

  // Calls hook(args...) on every registered notifiee that wants notification.
  template <class N, class... P, class... A>
  void notify(void (N::*hook)(P...), A const&... args) const {
    if (list_.empty()) return;
    Delivery d(this);
    std::size_t const n = list_.size();
    for (std::size_t i = 0; i < n; ++i) {
      NotifieeBase* b = list_[i];
      if (b == nullptr || !b->wantsNotification()) continue;
      (static_cast<N*>(b)->*hook)(args...);
    }
  }

 private:
  friend class NotifieeBase;

  // Keeps the entity alive and the list's slots stable while a delivery runs;
  // removals during delivery leave holes that the outermost delivery closes.
  class Delivery {
   public:
    // An entity that nobody counts (one on the stack) cannot be released by
    // a notifiee, and counting it here would delete it on the way out.
    explicit Delivery(Entity const* e) : e_(e), counted_(e->references() > 0) {
      if (counted_) e_->newRef();
      ++e_->depth_;
    }
    ~Delivery() {
      if (--e_->depth_ == 0 && e_->holes_) e_->closeHoles();
      if (counted_) e_->deleteRef();
    }

   private:
    Entity const* e_;
    bool counted_;
  };

  void attach(NotifieeBase* n) const;
  void detach(NotifieeBase* n) const;
  void closeHoles() const;

  Name name_;
  mutable std::vector<NotifieeBase*> list_;
  mutable unsigned depth_ = 0;
  mutable bool holes_ = false;
};

}  // namespace Kiv
