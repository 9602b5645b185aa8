// Routing::KernelMfib::Status: the routing agent's view of the kernel's
// multicast interfaces, VIF (IPv4) or MIF (IPv6) index to interface id and
// back. Upcall parsers resolve the kernel's index through it; a relay maps
// an interface back to the index it sends.
//
//   auto s = Routing::KernelMfib::Status::statusIs("kernelMfib");
//   s->vifIntfIs(1, Wirly::IntfId("Ethernet1"));
//   s->vifIntf(1);                          // Ethernet1; an unknown index gives IntfId()
//   s->intfVif(Wirly::IntfId("Ethernet1")); // 1; an unknown interface gives 0
//
// The two directions are kept in step: giving an index a new interface, or
// an interface a new index, removes the old pairing in both maps.
#pragma once

#include <cstdint>
#include <map>

#include "Kiv/Entity.h"
#include "Kiv/Reflect.h"
#include "Wirly/IntfId.h"

namespace Routing::KernelMfib {

class Status : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<Status> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onVifIntf(std::uint16_t) {}
  };

  static Kiv::Ptr<Status> statusIs(Kiv::Name name) { return new Status(std::move(name)); }
  KIV_REFLECT_BEGIN(Status, "Routing::KernelMfib::Status")

  Wirly::IntfId vifIntf(std::uint16_t vif) const;
  std::uint16_t intfVif(Wirly::IntfId intf) const;
  std::size_t vifIntfs() const { return vifIntf_.size(); }

  // The empty interface id removes the index.
  void vifIntfIs(std::uint16_t vif, Wirly::IntfId intf);
  void vifIntfDel(std::uint16_t vif);
  void vifIntfDelAll();
  KIV_REFLECT_COLLECTION(vifIntf, std::uint16_t, vifIntfs(), vifIntf_)
  // The other direction, kept by vifIntfIs.
  KIV_REFLECT_COLLECTION_RO(intfVif, Wirly::IntfId, intfVif_.size(), intfVif_)
  KIV_REFLECT_END

 private:
  explicit Status(Kiv::Name name) : Kiv::Entity(std::move(name)) {}

  std::map<std::uint16_t, Wirly::IntfId> vifIntf_;
  std::map<Wirly::IntfId, std::uint16_t> intfVif_;
};

}  // namespace Routing::KernelMfib
