// The route engine over tables of this process, programming a kernel that
// is the recording AgentTestSys: the fixture of the engine's and show's tests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "AgentTestSys.h"
#include "RouteEngine.h"
#include "tests/Mfib/MfibTestUtil.h"

namespace MrouteAgentTest {

using namespace MrouteAgent;
using Vorn::Multicast::Fib::OifIndex;
using Vorn::Multicast::Fib::OifIndexIntf;
using Vorn::Multicast::Fib::Route;
using Vorn::Multicast::Fib::RoutePriority;
using Wirly::IntfId;
using Wirly::IpGenAddr;

inline IpGenRouteKey sg(char const* s, char const* g) { return IpGenRouteKey(s, g); }
inline IpGenRouteKey starG(char const* g) {
  IpGenAddr const grp(g);
  IpGenAddr const any(grp.af() == Wirly::ipv4 ? "0.0.0.0" : "::");
  return IpGenRouteKey(Wirly::IpGenPrefix(any, 0), Wirly::IpGenPrefix(grp));
}

// An agent's engine over tables of this process, programming a kernel that
// is the recording Sys: three interfaces, VIFs 1..3.
class EngineTest : public testing::Test {
 protected:
  void SetUp() override {
    v4.open();
    v6.open();
    engine = std::make_unique<RouteEngine>(std::vector<IntfConfig>{{IntfId("Ethernet1"), "Ethernet1", 11, 1},
                                                                   {IntfId("Ethernet2"), "Ethernet2", 12, 2},
                                                                   {IntfId("Ethernet3"), "Ethernet3", 13, 3}},
                                           vornDir, [](L3::VrfName const&, Status const& t) { return t.name().str(); });
    engine->sinkIs([this](std::string const& l) { lines.push_back(l); });
    engine->clockIs([this] { return clockNs; });
    engine->mfcIs(Wirly::ipv4, &v4);
    engine->mfcIs(Wirly::ipv6, &v6);
    app = table("default", "static");
  }
  void TearDown() override { engine.reset(); }

  Kiv::Ptr<Status> table(char const* vrf, std::string const& name) {
    Kiv::Ptr<Status> t = tables.table(name);
    for (unsigned n = 1; n <= 3; ++n)
      t->oifIndexIntfIs(OifIndexIntf(OifIndex(std::uint16_t(n)), IntfId("Ethernet" + std::to_string(n))));
    vornDir->vornCollIs(L3::VrfName(vrf))->vornPtrIs(t.ptr(), t);
    engine->flush();
    return t;
  }
  void publish(Status& t, IpGenRouteKey const& key, char const* iif, std::vector<unsigned> oifs, unsigned prio = 1) {
    Route r(key);
    r.specialIntf1Is(IntfId(iif));
    for (unsigned n : oifs) r.oifIs(OifIndex(std::uint16_t(n)), true);
    r.priorityIs(RoutePriority(std::uint8_t(prio)));
    t.routePublish(r);
    engine->flush();
  }
  void withdraw(Status& t, IpGenRouteKey const& key) {
    t.routeDel(key);
    engine->flush();
  }
  // The IPv4 entries written since the last call, decoded.
  std::vector<mfcctl> adds() {
    std::vector<mfcctl> out;
    auto const all = sys.optionsNamed(MRT_ADD_MFC);
    for (std::size_t i = seenAdds; i < all.size(); ++i) {
      if (all[i].level != IPPROTO_IP) continue;
      mfcctl m;
      std::memcpy(&m, all[i].bytes.data(), sizeof m);
      out.push_back(m);
    }
    seenAdds = all.size();
    return out;
  }
  std::size_t dels() const {
    std::size_t n = 0;
    for (auto const& o : sys.optionsNamed(MRT_DEL_MFC)) n += o.level == IPPROTO_IP;
    return n;
  }
  static std::vector<int> oifsOf(mfcctl const& m) {
    std::vector<int> out;
    for (int i = 0; i < 32; ++i)
      if (m.mfcc_ttls[i]) out.push_back(i);
    return out;
  }
  bool printed(std::string const& line) const { return std::find(lines.begin(), lines.end(), line) != lines.end(); }

  AgentTestSys sys;
  MfibTest::Tables tables;
  Kiv::Ptr<MfibVornDir> vornDir = Vorn::Multicast::Fib::mfibVornDirFactory();
  KernelMfc v4{Wirly::ipv4}, v6{Wirly::ipv6};
  std::unique_ptr<RouteEngine> engine;
  Kiv::Ptr<Status> app;
  std::vector<std::string> lines;
  std::uint64_t clockNs = 1000;
  std::size_t seenAdds = 0;
};

}  // namespace MrouteAgentTest
