// ReviewInfo: requests to review the routes of a VRF, per address family.
#pragma once

#include <unordered_map>

#include "Kiv/Entity.h"
#include "Kiv/Ptr.h"
#include "Kiv/Reflect.h"
#include "MrouteLib/PortVlanSet.h"
#include "Schema/VrfName.h"

namespace MrouteLib {

// Requests to review the routes of a VRF: one number per VRF for IPv4
// (review) and IPv6 (review6). Observers of an entry review that VRF.
class ReviewInfo : public Kiv::Entity {
 public:
  using ReviewMap = std::unordered_map<L3::VrfName, U32>;

  class NotifieeConst : public Kiv::NotifieeConstBase<ReviewInfo> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onReview(L3::VrfName const&) {}
    virtual void onReview6(L3::VrfName const&) {}
  };

  static Kiv::Ptr<ReviewInfo> ReviewInfoIs() { return new ReviewInfo(); }
  KIV_REFLECT_BEGIN(ReviewInfo, "MrouteLib::ReviewInfo")

  // 0 when the VRF has no entry.
  U32 review(L3::VrfName const& vrf) const;
  ReviewMap const& reviewMap() const { return review_; }
  void reviewIs(L3::VrfName const& vrf, U32 n);
  void reviewDel(L3::VrfName const& vrf);
  void reviewDelAll();
  KIV_REFLECT_COLLECTION(review, L3::VrfName, review_.size(), review_)
  U32 review6(L3::VrfName const& vrf) const;
  ReviewMap const& review6Map() const { return review6_; }
  void review6Is(L3::VrfName const& vrf, U32 n);
  void review6Del(L3::VrfName const& vrf);
  void review6DelAll();
  KIV_REFLECT_COLLECTION(review6, L3::VrfName, review6_.size(), review6_)
  KIV_REFLECT_END

 private:
  ReviewInfo() = default;

  ReviewMap review_;
  ReviewMap review6_;
};

}  // namespace MrouteLib
