// MrouteLib::SparseMap: a hashed map that costs one pointer while it is
// empty. Most routes have no fast-drop entries, RPF failures or cached
// indexes; with a million routes, three empty std::unordered_map members
// would cost 168 bytes each route for nothing. The map is allocated on the
// first insertion and freed when it empties again.
//
//   SparseMap<VlanId, U16> m;
//   m.find(v);         // nullptr when absent
//   m.set(v, 3);       // true when inserted or changed
//   m.erase(v);        // true when an entry went
//   for (auto const& [k, x] : m) ...
#pragma once

#include <memory>
#include <unordered_map>
#include <utility>

namespace MrouteLib {

template <class K, class V, class Hash = std::hash<K>>
class SparseMap {
 public:
  using Map = std::unordered_map<K, V, Hash>;
  using key_type = K;
  using mapped_type = V;
  using value_type = typename Map::value_type;

  bool empty() const { return !map_; }
  std::size_t size() const { return map_ ? map_->size() : 0; }

  V const* find(K const& k) const {
    if (!map_) return nullptr;
    auto it = map_->find(k);
    return it == map_->end() ? nullptr : &it->second;
  }
  V* find(K const& k) {
    if (!map_) return nullptr;
    auto it = map_->find(k);
    return it == map_->end() ? nullptr : &it->second;
  }
  // Inserts or replaces; says whether anything changed.
  bool set(K const& k, V const& v) {
    if (!map_) map_ = std::make_unique<Map>();
    auto [it, added] = map_->try_emplace(k, v);
    if (added) return true;
    if (it->second == v) return false;
    it->second = v;
    return true;
  }
  // Removes k; the removed value, if any, goes to *old.
  bool erase(K const& k, V* old = nullptr) {
    if (!map_) return false;
    auto it = map_->find(k);
    if (it == map_->end()) return false;
    if (old) *old = std::move(it->second);
    map_->erase(it);
    if (map_->empty()) map_.reset();
    return true;
  }
  void clear() { map_.reset(); }

  typename Map::const_iterator begin() const { return map_ ? map_->cbegin() : emptyMap().cbegin(); }
  typename Map::const_iterator end() const { return map_ ? map_->cend() : emptyMap().cend(); }

 private:
  static Map const& emptyMap() {
    static Map const m;
    return m;
  }
  std::unique_ptr<Map> map_;
};

}  // namespace MrouteLib
