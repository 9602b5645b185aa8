// DirtyChangeSet: the change the agent is recording, and counts of each
// kind it has seen.
#pragma once

#include "Kiv/Entity.h"
#include "Kiv/Ptr.h"
#include "Kiv/Reflect.h"
#include "MrouteLib/Attr.h"
#include "MrouteLib/PortVlanSet.h"
#include "Schema/VlanId.h"
#include "Wirly/EthAddr.h"
#include "Wirly/IntfId.h"

namespace MrouteLib {

using Bridging::VlanIdOrNone;

// One change the agent is recording, and how many of each kind it has seen.
class DirtyChangeSet : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<DirtyChangeSet> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onVlanId() {}
    virtual void onPort() {}
    virtual void onEthGroup() {}
    virtual void onLag() {}
    virtual void onDirtyVlanCount() {}
    virtual void onDirtyVlanPortCount() {}
    virtual void onDirtyVlanGroupCount() {}
    virtual void onDirtyLagCount() {}
    virtual void onAllVlansDirtyCount() {}
  };

  static Kiv::Ptr<DirtyChangeSet> DirtyChangeSetIs() { return new DirtyChangeSet(); }
  KIV_REFLECT_BEGIN(DirtyChangeSet, "MrouteLib::DirtyChangeSet")

  MROUTELIB_ATTR(VlanIdOrNone, vlanId, VlanId)
  MROUTELIB_ATTR(Wirly::IntfId, port, Port)
  MROUTELIB_ATTR(Wirly::EthAddr, ethGroup, EthGroup)
  MROUTELIB_ATTR(Wirly::IntfId, lag, Lag)
  MROUTELIB_COUNTER(U32, dirtyVlanCount, DirtyVlanCount)
  MROUTELIB_COUNTER(U32, dirtyVlanPortCount, DirtyVlanPortCount)
  MROUTELIB_COUNTER(U32, dirtyVlanGroupCount, DirtyVlanGroupCount)
  MROUTELIB_COUNTER(U32, dirtyLagCount, DirtyLagCount)
  MROUTELIB_COUNTER(U32, allVlansDirtyCount, AllVlansDirtyCount)
  KIV_REFLECT_END

 private:
  DirtyChangeSet() = default;

  VlanIdOrNone vlanId_;
  Wirly::IntfId port_;
  Wirly::EthAddr ethGroup_;
  Wirly::IntfId lag_;
  U32 dirtyVlanCount_ = 0;
  U32 dirtyVlanPortCount_ = 0;
  U32 dirtyVlanGroupCount_ = 0;
  U32 dirtyLagCount_ = 0;
  U32 allVlansDirtyCount_ = 0;
};

}  // namespace MrouteLib
