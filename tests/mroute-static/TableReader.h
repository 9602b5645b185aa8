// Test helper: the MFIB directory and one table as a reader in another
// process finds them (its own entity manager and mounts).
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "Kiv/EventLoop.h"
#include "Mfib/MfibDir.h"
#include "Mfib/MfibVorn.h"
#include "RouteFile.h"
#include "Stelo/EntityManager.h"
#include "Stelo/Mount.h"

namespace MrouteStatic {

using namespace Vorn::Multicast::Fib;

// What the MFIB directory announces, as a reader in another process finds
// it: "app: vrf=url, ...;" per application.
inline std::string announced(std::string const& root) {
  Kiv::EventLoop loop;
  auto em = Stelo::EntityManager::entityManagerIs(&loop, root);
  KivVorn::Mount mount(em);
  mount.doMount(MfibDir::sharedDirUrl, MfibDir::typeNameText, KivVorn::MountInfo(KivVorn::MountInfo::dirReader));
  auto dir = Kiv::ptrCast<Kiv::Dir>(mount.getEntity(MfibDir::sharedDirUrl));
  std::string out;
  for (auto const& [name, entity] : *dir) {
    out += name.str() + ":";
    for (auto const& [vrf, coll] : Kiv::ptrCast<MfibDir>(entity)->dirCollMap())
      out += " " + vrf.str() + "=" + coll->vornUrl();
    out += ";";
  }
  return out;
}

// One table as a reader sees it: per route "(s, g) iif prio p -> oifs v<version>".
struct TableView {
  bool exists = false;
  std::map<std::string, std::uint32_t> version;  // by "(s, g)"
  std::map<std::string, std::string> route;      // by "(s, g)", without the version
  std::size_t mappings = 0;
};

inline TableView view(std::string const& root, std::string const& url) {
  TableView v;
  auto em = Stelo::EntityManager::entityManagerIs(nullptr, root);
  KivVorn::Mount mount(em);
  mount.doMount(url, Status::typeNameText, KivVorn::MountInfo(KivVorn::MountInfo::mfibReader));
  auto table = Kiv::ptrCast<Status>(mount.getEntity(url));
  if (!table) return v;
  v.exists = true;
  std::uint32_t pos = 0;
  IpGenRouteKey key;
  Route r;
  for (bool more = table->routeTable().unorderedFirst(pos, key, r); more;
       more = table->routeTable().unorderedNext(pos, key, r)) {
    std::string const k = "(" + sourceText(key) + ", " + key.group().address().str() + ")";
    std::string text = r.specialIntf1().name() + " prio " + std::to_string(r.priority().value()) + " ->";
    for (OifIndex i = r.firstOif(); !i.isEnd(); i = r.nextOif(i)) {
      OifIndexIntf const m = table->oifIndexIntf(i);
      text += " " + (m == OifIndexIntf() ? "?" + std::to_string(i.value()) : m.intfId().name());
    }
    v.route[k] = text;
    v.version[k] = r.version();
  }
  OifIndex index;
  OifIndexIntf m;
  pos = 0;
  for (bool more = table->oifIndexIntfTable().unorderedFirst(pos, index, m); more;
       more = table->oifIndexIntfTable().unorderedNext(pos, index, m))
    ++v.mappings;
  mount.doUnmount(url);
  return v;
}

}  // namespace MrouteStatic
