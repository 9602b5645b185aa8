#include "MrouteLib/ReviewInfo.h"

#include "Kiv/CollectionAttr.h"

namespace MrouteLib {

namespace {

U32 reviewOf(ReviewInfo::ReviewMap const& m, L3::VrfName const& vrf) {
  auto it = m.find(vrf);
  return it == m.end() ? 0 : it->second;
}

bool reviewEntryIs(ReviewInfo::ReviewMap& m, L3::VrfName const& vrf, U32 n) {
  auto [it, added] = m.try_emplace(vrf, n);
  return added || Kiv::changed(it->second, n);
}

}  // namespace

U32 ReviewInfo::review(L3::VrfName const& vrf) const { return reviewOf(review_, vrf); }

void ReviewInfo::reviewIs(L3::VrfName const& vrf, U32 n) {
  if (reviewEntryIs(review_, vrf, n)) notify(&NotifieeConst::onReview, vrf);
}

void ReviewInfo::reviewDel(L3::VrfName const& vrf) {
  if (review_.erase(vrf)) notify(&NotifieeConst::onReview, vrf);
}

void ReviewInfo::reviewDelAll() {
  for (auto const& v : Kiv::keysOf(review_)) reviewDel(v);
}

U32 ReviewInfo::review6(L3::VrfName const& vrf) const { return reviewOf(review6_, vrf); }

void ReviewInfo::review6Is(L3::VrfName const& vrf, U32 n) {
  if (reviewEntryIs(review6_, vrf, n)) notify(&NotifieeConst::onReview6, vrf);
}

void ReviewInfo::review6Del(L3::VrfName const& vrf) {
  if (review6_.erase(vrf)) notify(&NotifieeConst::onReview6, vrf);
}

void ReviewInfo::review6DelAll() {
  for (auto const& v : Kiv::keysOf(review6_)) review6Del(v);
}

}  // namespace MrouteLib
