// StaticNatInfo: static multicast NAT rules by address; StaticNatIpInfo:
// the VLANs one rule applies on.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>

#include "Kiv/Entity.h"
#include "Kiv/Ptr.h"
#include "Kiv/Reflect.h"
#include "Schema/VlanId.h"
#include "Wirly/IpGenAddr.h"

namespace MrouteLib {

using Bridging::VlanId;

// On which VLANs a static multicast NAT rule applies for one address. A
// value holding a collection: no constructor from text.
class StaticNatIpInfo {
 public:
  using VlanMap = std::unordered_map<VlanId, bool>;
  // Refused, not asserted, when read from text by name.
  static constexpr bool kivNoTextConstructor = true;

  VlanMap const& vlan() const { return vlan_; }
  bool vlan(VlanId v) const;
  void vlanIs(VlanId v, bool on) { vlan_[v] = on; }
  bool vlanDel(VlanId v) { return vlan_.erase(v) != 0; }
  void vlanDelAll() { vlan_.clear(); }

  std::string valueToStrep() const;
  // Always fails: the value holds a collection.
  [[noreturn]] static StaticNatIpInfo fromStrep(std::string_view text);

  friend bool operator==(StaticNatIpInfo const& a, StaticNatIpInfo const& b) { return &a == &b || a.vlan_ == b.vlan_; }

 private:
  VlanMap vlan_;
};

// Static multicast NAT rules by address.
class StaticNatInfo : public Kiv::Entity {
 public:
  using IpInfoMap = std::unordered_map<Wirly::IpGenAddr, StaticNatIpInfo>;

  class NotifieeConst : public Kiv::NotifieeConstBase<StaticNatInfo> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onIpInfo(Wirly::IpGenAddr const&) {}
    virtual void onIpInfokivImmediate(Wirly::IpGenAddr const&) {}
  };

  static Kiv::Ptr<StaticNatInfo> StaticNatInfoIs() { return new StaticNatInfo(); }
  KIV_REFLECT_BEGIN(StaticNatInfo, "MrouteLib::StaticNatInfo")

  // An empty value when the address has no entry.
  StaticNatIpInfo ipInfo(Wirly::IpGenAddr const& a) const;
  IpInfoMap const& ipInfoMap() const { return ipInfo_; }
  // An equal value already stored changes nothing and notifies nobody.
  void ipInfoIs(Wirly::IpGenAddr const& a, StaticNatIpInfo const& info);
  void ipInfoDel(Wirly::IpGenAddr const& a);
  void ipInfoDelAll();
  KIV_REFLECT_COLLECTION(ipInfo, Wirly::IpGenAddr, ipInfo_.size(), ipInfo_)
  KIV_REFLECT_END

 private:
  StaticNatInfo() = default;
  void ipInfoNotify(Wirly::IpGenAddr const& a);

  IpInfoMap ipInfo_;
};

}  // namespace MrouteLib
