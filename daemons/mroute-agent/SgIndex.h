// MrouteAgent::SgIndex: the kernel entries of one address family by (S, G).
//
//   SgIndex entries;
//   KernelEntry& e = entries.put(sg, want);          // adds or replaces
//   if (KernelEntry* e = entries.find(sg)) ...         // constant time, whatever is installed
//   for (SgKey const& k : entries.groupEntries(g))    // the group's entries no exact route owns
//   entries.erase(sg);
//
// What it promises:
// - Every upcall and every route change looks an entry up: a hash table
//   answers in constant time, with a hash of the address words instead of an
//   ordered compare of their bytes. Iteration is in no particular order.
// - Beside it, per group, the sources of the entries that no exact route
//   owns (origin fromStarG or drop): a change of a (*, G) route, and the
//   expiry of drop entries, visit those and nothing else. put() and erase()
//   keep that list right; an entry's origin must change through put(), never
//   by writing the field (the other fields may be written in place).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Schema/Mfib/IpGenRouteKey.h"
#include "Wirly/IpGenAddr.h"

namespace MrouteAgent {

using Routing::Multicast::Fib::IpGenRouteKey;

struct SgKey {
  Wirly::IpGenAddr group;
  Wirly::IpGenAddr source;
  friend auto operator<=>(SgKey const&, SgKey const&) = default;
};

// Outgoing VIFs as a set of bits: VIF v is bit v (VIFs are below 32).
using VifMask = std::uint32_t;

// One kernel entry as the agent last wrote it.
struct KernelEntry {
  enum Origin : std::uint8_t { exact, fromStarG, drop };
  IpGenRouteKey routeKey;  // the route it comes from (none for a drop entry)
  Origin origin = drop;
  bool installed = false;
  bool recovered = false;  // learned from the kernel's unresolved list
  std::uint16_t iif = 0;
  VifMask oifs = 0;
  int error = 0;                // errno of the last refusal, 0 when installed
  std::uint64_t learnedNs = 0;  // monotonic: upcall or recovery that asked for it
  std::uint64_t installedNs = 0;
  std::uint64_t lastPkts = 0;      // drop entries: the kernel's count when last looked at
  std::uint64_t lastActiveNs = 0;  // and when it last moved
};

// Hashes an address by its words: cheaper than a byte-wise walk, and every
// bit of the address reaches the result.
struct AddrHash {
  std::size_t operator()(Wirly::IpGenAddr const& a) const noexcept {
    std::uint64_t w[2];
    std::memcpy(w, a.bytes(), sizeof w);
    std::uint64_t h = (w[0] ^ (w[1] * 0x9e3779b97f4a7c15ull) ^ std::uint64_t(a.af())) * 0xff51afd7ed558ccdull;
    return std::size_t(h ^ (h >> 32));
  }
};

struct SgKeyHash {
  std::size_t operator()(SgKey const& k) const noexcept { return AddrHash()(k.group) * 31 ^ AddrHash()(k.source); }
};

class SgIndex {
 public:
  using Map = std::unordered_map<SgKey, KernelEntry, SgKeyHash>;

  KernelEntry* find(SgKey const& sg) {
    auto it = map_.find(sg);
    return it == map_.end() ? nullptr : &it->second;
  }
  KernelEntry const* find(SgKey const& sg) const {
    auto it = map_.find(sg);
    return it == map_.end() ? nullptr : &it->second;
  }
  // Throws std::out_of_range when there is none.
  KernelEntry const& at(SgKey const& sg) const { return map_.at(sg); }
  std::size_t count(SgKey const& sg) const { return map_.count(sg); }
  std::size_t size() const { return map_.size(); }
  bool empty() const { return map_.empty(); }
  Map::const_iterator begin() const { return map_.begin(); }
  Map::const_iterator end() const { return map_.end(); }

  // Adds or replaces the entry of sg.
  KernelEntry& put(SgKey const& sg, KernelEntry const& e);
  // Removes the entry of sg; false when there was none.
  bool erase(SgKey const& sg);

  // The entries of group that no exact route owns, ordered by source.
  std::vector<SgKey> groupEntries(Wirly::IpGenAddr const& group) const;
  // Every entry that no exact route owns, in no particular order.
  std::vector<SgKey> nonExactEntries() const;
  std::size_t nonExactCount() const { return nonExact_; }

 private:
  void doGroupAdd(SgKey const& sg);
  void doGroupDel(SgKey const& sg);

  Map map_;
  std::unordered_map<Wirly::IpGenAddr, std::unordered_set<Wirly::IpGenAddr, AddrHash>, AddrHash> byGroup_;
  std::size_t nonExact_ = 0;
};

}  // namespace MrouteAgent
