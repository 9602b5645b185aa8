#include "MrouteLib/StaticNatInfo.h"

#include "Kiv/Assert.h"
#include "Kiv/CollectionAttr.h"
#include "Kiv/ValueText.h"

namespace MrouteLib {

bool StaticNatIpInfo::vlan(VlanId v) const {
  auto it = vlan_.find(v);
  return it != vlan_.end() && it->second;
}

std::string StaticNatIpInfo::valueToStrep() const {
  return Kiv::ValueWriter("MrouteLib::StaticNatIpInfo").fieldNone("vlan").str();
}

StaticNatIpInfo StaticNatIpInfo::fromStrep(std::string_view) {
  KIV_ASSERT(!"No String constructor for StaticNatIpInfo - has collection");
  __builtin_unreachable();
}

StaticNatIpInfo StaticNatInfo::ipInfo(Wirly::IpGenAddr const& a) const {
  auto it = ipInfo_.find(a);
  return it == ipInfo_.end() ? StaticNatIpInfo() : it->second;
}

void StaticNatInfo::ipInfoIs(Wirly::IpGenAddr const& a, StaticNatIpInfo const& info) {
  auto [it, added] = ipInfo_.try_emplace(a, info);
  if (!added && !Kiv::changed(it->second, info)) return;
  ipInfoNotify(a);
}

void StaticNatInfo::ipInfoDel(Wirly::IpGenAddr const& a) {
  if (ipInfo_.erase(a)) ipInfoNotify(a);
}

void StaticNatInfo::ipInfoDelAll() {
  for (auto const& a : Kiv::keysOf(ipInfo_)) ipInfoDel(a);
}

void StaticNatInfo::ipInfoNotify(Wirly::IpGenAddr const& a) {
  notify(&NotifieeConst::onIpInfokivImmediate, a);
  notify(&NotifieeConst::onIpInfo, a);
}

}  // namespace MrouteLib
