#include "StaticPublisher.h"

#include <set>
#include <sstream>

#include "Kiv/Exception.h"
#include "Mfib/MfibDir.h"
#include "Stelo/Mount.h"

namespace MrouteStatic {

using namespace Vorn::Multicast::Fib;

StaticPublisher::StaticPublisher(std::string const& app, Kiv::Ptr<Stelo::EntityManager> const& em)
    : app_(app), em_(em), vornDir_(mfibVornDirFactory()) {
  KivVorn::Mount mount(em_);
  mount.doMount(MfibDir::sharedDirUrl, MfibDir::typeNameText, KivVorn::MountInfo::dirWriterOf(app_));
  dir_ = Kiv::ptrCast<Kiv::Dir>(mount.getEntity(MfibDir::sharedDirUrl));
  if (!dir_) throw Kiv::Exception("cannot publish in the MFIB directory under " + em_->root());
  writer_ = mfibDirWriterFactory(app_, dir_, vornDir_, em_);
  doAdopt();
}

StaticPublisher::~StaticPublisher() = default;

std::string StaticPublisher::tableUrl(L3::VrfName const& vrf) const { return "mfib/" + vrf.str() + "/" + app_; }

std::string StaticPublisher::summary(Change const& c) const {
  std::ostringstream os;
  os << "static " << app_ << ": " << c.routes << " routes (+" << c.added << " -" << c.removed << " ~" << c.changed
     << ")";
  if (c.refused() == 0) return os.str();
  os << "; " << c.refused() << " refused:";
  char const* sep = " ";
  for (auto [n, reason] : {std::pair{c.malformed, "malformed"}, std::pair{c.tableFull, "table full"},
                           std::pair{c.noOifIndex, "no interface index left"}, std::pair{c.noTable, "no VRF table"},
                           std::pair{c.otherwise, "not published"}}) {
    if (n == 0) continue;
    os << sep << n << " " << reason;
    sep = ", ";
  }
  return os.str();
}

// The directory entry an earlier run left names its tables; mounting them
// for writing takes over their records, which then count as published.
void StaticPublisher::doAdopt() {
  Kiv::Ptr<MfibDir> appDir = writer_->appDir();
  if (!appDir) return;
  std::vector<std::pair<L3::VrfName, std::string>> announced;
  for (auto const& [vrf, coll] : appDir->dirCollMap())
    if (!coll->vornUrl().empty()) announced.emplace_back(vrf, coll->vornUrl());
  for (auto const& [vrfName, url] : announced) {
    Kiv::Ptr<Table> table = writer_->doAddVorn(vrfName, url);
    if (!table) continue;
    Vrf& vrf = vrfs_[vrfName];
    vrf.url = url;
    vrf.table = table;
    std::map<OifIndex, Wirly::IntfId> intfOf;
    std::uint32_t pos = 0;
    OifIndex index;
    OifIndexIntf mapping;
    for (bool more = table->oifIndexIntfTable().unorderedFirst(pos, index, mapping); more;
         more = table->oifIndexIntfTable().unorderedNext(pos, index, mapping)) {
      vrf.oifIndex[mapping.intfId()] = index;
      intfOf[index] = mapping.intfId();
    }
    pos = 0;
    IpGenRouteKey key;
    Route route;
    for (bool more = table->routeTable().unorderedFirst(pos, key, route); more;
         more = table->routeTable().unorderedNext(pos, key, route)) {
      StaticRoute r;
      r.iif = route.specialIntf1();
      r.priority = route.priority().value();
      // An index without a mapping stays as the empty id, which no route
      // from the file has: the route is rewritten by the first apply().
      for (OifIndex i = route.firstOif(); !i.isEnd(); i = route.nextOif(i)) r.oifs.push_back(intfOf[i]);
      std::sort(r.oifs.begin(), r.oifs.end());
      published_[RouteId(vrfName, key)] = r;
    }
  }
}

StaticPublisher::Vrf* StaticPublisher::doAddVrf(L3::VrfName const& vrfName) {
  if (auto it = vrfs_.find(vrfName); it != vrfs_.end()) return &it->second;
  std::string const url = tableUrl(vrfName);
  Kiv::Ptr<Table> table;
  try {
    table = writer_->doAddVorn(vrfName, url);
  } catch (Kiv::Exception const& e) {
    problems_.push_back("VRF " + vrfName.str() + ": cannot create " + url + ": " + e.what());
    return nullptr;
  }
  if (!table) {
    problems_.push_back("VRF " + vrfName.str() + ": cannot create " + url);
    return nullptr;
  }
  Vrf& vrf = vrfs_[vrfName];
  vrf.url = url;
  vrf.table = table;
  return &vrf;
}

bool StaticPublisher::doMapOifs(L3::VrfName const& vrfName, Vrf& vrf, StaticRoute const& r) {
  for (Wirly::IntfId intf : r.oifs) {
    if (vrf.oifIndex.count(intf) != 0) continue;
    std::set<OifIndex> used;
    for (auto const& [i, index] : vrf.oifIndex) used.insert(index);
    std::uint16_t free = 0;
    while (free < OifIndex::endValue && used.count(OifIndex(free)) != 0) ++free;
    if (free == OifIndex::endValue) {
      problems_.push_back("VRF " + vrfName.str() + ": no room for outgoing interface " + intf.name() + " (" +
                          std::to_string(OifIndex::endValue) + " in use)");
      return false;
    }
    vrf.table->oifIndexIntfIs(OifIndexIntf(OifIndex(free), intf));
    vrf.oifIndex[intf] = OifIndex(free);
  }
  return true;
}

void StaticPublisher::doUnmapUnused(L3::VrfName const& vrfName, Vrf& vrf) {
  std::set<Wirly::IntfId> inUse;
  for (auto it = published_.lower_bound(RouteId(vrfName, IpGenRouteKey()));
       it != published_.end() && it->first.first == vrfName; ++it)
    inUse.insert(it->second.oifs.begin(), it->second.oifs.end());
  for (auto it = vrf.oifIndex.begin(); it != vrf.oifIndex.end();) {
    if (inUse.count(it->first) != 0) {
      ++it;
      continue;
    }
    vrf.table->oifIndexIntfDel(it->second);
    it = vrf.oifIndex.erase(it);
  }
}

Route StaticPublisher::routeOf(IpGenRouteKey const& key, StaticRoute const& r, Vrf const& vrf) const {
  Route route(key);
  route.specialIntf1Is(r.iif);
  route.priorityIs(RoutePriority(r.priority));
  for (Wirly::IntfId intf : r.oifs) route.oifIs(vrf.oifIndex.at(intf), true);
  return route;
}

StaticPublisher::Change StaticPublisher::apply(RouteMap const& routes) {
  problems_.clear();
  refused_.clear();
  Change c;
  // New and changed routes first, then the ones that go: a key never
  // disappears from a reader's view while it is only being rewritten.
  for (auto const& [id, r] : routes) {
    auto old = published_.find(id);
    if (old != published_.end() && old->second == r) continue;
    Vrf* vrf = doAddVrf(id.first);
    if (vrf == nullptr) {
      ++c.noTable;
      refused_[id] = "no VRF table";
      continue;
    }
    if (!doMapOifs(id.first, *vrf, r)) {
      ++c.noOifIndex;
      refused_[id] = "no interface index left";
      continue;
    }
    try {
      vrf->table->routePublish(routeOf(id.second, r, *vrf));
    } catch (Kiv::Exception const& e) {
      // A full table is the one refusal the table names as a range error.
      bool const full = dynamic_cast<Kiv::RangeException const*>(&e) != nullptr;
      ++(full ? c.tableFull : c.otherwise);
      refused_[id] = full ? "table full" : "not published: " + std::string(e.what());
      problems_.push_back("VRF " + id.first.str() + ": route (" + sourceText(id.second) + ", " +
                          id.second.group().address().str() + ") not published: " + e.what());
      continue;
    }
    ++(old == published_.end() ? c.added : c.changed);
    published_[id] = r;
  }
  for (auto it = published_.begin(); it != published_.end();) {
    if (routes.count(it->first) != 0) {
      ++it;
      continue;
    }
    vrfs_.at(it->first.first).table->routeDel(it->first.second);
    it = published_.erase(it);
    ++c.removed;
  }
  for (auto it = vrfs_.begin(); it != vrfs_.end();) {
    auto const& [vrfName, vrf] = *it;
    doUnmapUnused(vrfName, it->second);
    // The default VRF's announcement outlives its table (the directory
    // writer keeps it), and readers would keep the table it names: an
    // emptied default VRF keeps its empty table instead.
    auto first = published_.lower_bound(RouteId(vrfName, IpGenRouteKey()));
    if ((first != published_.end() && first->first.first == vrfName) || vrfName == L3::VrfName::defaultVrf()) {
      ++it;
      continue;
    }
    std::string const url = vrf.url;
    it->second.table = nullptr;
    writer_->doDelVorn(vrfName, url);
    it = vrfs_.erase(it);
  }
  c.routes = published_.size();
  return c;
}

void StaticPublisher::withdraw() {
  if (!writer_) return;
  // Route by route first, so that readers hear each one withdrawn whatever
  // they make of the tables going.
  for (auto const& [id, r] : published_) vrfs_.at(id.first).table->routeDel(id.second);
  while (!vrfs_.empty()) {
    auto it = vrfs_.begin();
    std::string const url = it->second.url;
    L3::VrfName const vrf = it->first;
    it->second.table = nullptr;
    vrfs_.erase(it);
    writer_->doDelVorn(vrf, url);
  }
  published_.clear();
  writer_ = nullptr;
  dir_->entryDel(app_);  // its shared table goes with it
}

}  // namespace MrouteStatic
