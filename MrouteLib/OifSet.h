// OifSet: one hardware replication list of the route model, shared by
// content; OifSetPtr: the registry's non-owning reference to one.
// The registry holds no count: an OifSet registers itself in its
// MrouteTableColl when made and leaves when its last Kiv::Ptr goes.
#ifndef MROUTELIB_MODEL_
// The entities that point at each other are defined together (MrouteLib.h).
#include "MrouteLib/MrouteLib.h"
#elif !defined(MROUTELIB_OIF_SET_H)
#define MROUTELIB_OIF_SET_H

#include <string>
#include <string_view>

#include "Kiv/Entity.h"
#include "Kiv/Ptr.h"
#include "Kiv/Reflect.h"
#include "Kiv/ValueText.h"
#include "MrouteLib/PortVlanSet.h"

namespace MrouteLib {

class MrouteTableColl;

// One hardware replication list, shared by every route and fast-drop entry
// whose PortVlanSet is equal. Made through oifSetFactory or
// MrouteTableColl::oifSetFor; registers itself in its collection while it is
// made and unregisters while it is destroyed. Two live sets of equal content
// in one collection are a programming error (assertion).
class OifSet : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<OifSet> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onMrouteTable() {}
    virtual void onInitialized() {}
  };

  // A null collection makes a set that nobody can find.
  static Kiv::Ptr<OifSet> OifSetIs(MrouteTableColl* mrouteTable, PortVlanSet const& portVlanSet) {
    return new OifSet(mrouteTable, portVlanSet);
  }
  KIV_REFLECT_BEGIN(OifSet, "MrouteLib::OifSet")

  // The collection; null once the collection has gone.
  MrouteTableColl* mrouteTable() const { return mrouteTable_; }
  KIV_REFLECT_SCALAR_RO(mrouteTable)
  PortVlanSet const& portVlanSet() const { return portVlanSet_; }
  KIV_REFLECT_SCALAR_RO(portVlanSet)
  bool initialized() const { return initialized_; }
  KIV_REFLECT_SCALAR_RO(initialized)

  bool toCpu() const { return portVlanSet_.toCpu(); }
  KIV_REFLECT_OPERATION(toCpu)
  bool doCmpPortVlanSet(PortVlanSet const& s) const { return portVlanSet_ == s; }
  KIV_REFLECT_OPERATION(doCmpPortVlanSet)
  KIV_REFLECT_END

  void handleInitialized();
  void handleDel();

 private:
  friend class MrouteTableColl;
  OifSet(MrouteTableColl* mrouteTable, PortVlanSet const& portVlanSet);
  ~OifSet() override;

  MrouteTableColl* mrouteTable_;
  PortVlanSet portVlanSet_;
  bool initialized_ = false;
};

// A non-owning reference to a registered OifSet, as the registry stores it.
// Equal when it names the same set. Text form: the pointer ("0x55d0c0de").
// Reading also takes the value's own form,
// Value('MrouteLib::OifSetPtr', ** {'ptr': 0x55d0c0de}), whose one
// attribute `ptr` is that pointer (None for null).
class OifSetPtr {
 public:
  OifSetPtr() = default;
  explicit OifSetPtr(OifSet* p) : ptr_(p) {}
  OifSet* ptr() const { return ptr_; }
  explicit operator bool() const { return ptr_ != nullptr; }

  std::string valueToStrep() const { return Kiv::valueToStrep(ptr_); }
  // Kiv::ParseException for any other text.
  static OifSetPtr fromStrep(std::string_view text);

  friend bool operator==(OifSetPtr a, OifSetPtr b) { return a.ptr_ == b.ptr_; }

 private:
  OifSet* ptr_ = nullptr;
};

}  // namespace MrouteLib

#endif  // MROUTELIB_OIF_SET_H
