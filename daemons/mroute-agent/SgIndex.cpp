#include "SgIndex.h"

#include <algorithm>

namespace MrouteAgent {

KernelEntry& SgIndex::put(SgKey const& sg, KernelEntry const& e) {
  auto [it, added] = map_.try_emplace(sg, e);
  if (added) {
    if (e.origin != KernelEntry::exact) doGroupAdd(sg);
    return it->second;
  }
  bool const was = it->second.origin != KernelEntry::exact, is = e.origin != KernelEntry::exact;
  it->second = e;
  if (was && !is) doGroupDel(sg);
  if (!was && is) doGroupAdd(sg);
  return it->second;
}

bool SgIndex::erase(SgKey const& sg) {
  auto it = map_.find(sg);
  if (it == map_.end()) return false;
  if (it->second.origin != KernelEntry::exact) doGroupDel(sg);
  map_.erase(it);
  return true;
}

void SgIndex::doGroupAdd(SgKey const& sg) {
  if (byGroup_[sg.group].insert(sg.source).second) ++nonExact_;
}

void SgIndex::doGroupDel(SgKey const& sg) {
  auto g = byGroup_.find(sg.group);
  if (g == byGroup_.end()) return;
  if (g->second.erase(sg.source)) --nonExact_;
  if (g->second.empty()) byGroup_.erase(g);
}

std::vector<SgKey> SgIndex::groupEntries(Wirly::IpGenAddr const& group) const {
  std::vector<SgKey> out;
  auto g = byGroup_.find(group);
  if (g == byGroup_.end()) return out;
  out.reserve(g->second.size());
  for (Wirly::IpGenAddr const& s : g->second) out.push_back({group, s});
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<SgKey> SgIndex::nonExactEntries() const {
  std::vector<SgKey> out;
  out.reserve(nonExact_);
  for (auto const& [group, sources] : byGroup_)
    for (Wirly::IpGenAddr const& s : sources) out.push_back({group, s});
  return out;
}

}  // namespace MrouteAgent
