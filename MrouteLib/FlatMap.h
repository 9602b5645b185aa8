// MrouteLib::FlatMap: an ordered map kept as a sorted vector, for the small
// collections of a PortVlanSet (a handful of port-VLAN pairs). One
// allocation per collection instead of one per element, contiguous for the
// hash and the comparisons that walk it, and iteration in ascending key
// order like std::map. Insertion and removal are linear: not for large maps.
#pragma once

#include <algorithm>
#include <utility>
#include <vector>

namespace MrouteLib {

template <class K, class V>
class FlatMap {
 public:
  using key_type = K;
  using mapped_type = V;
  using value_type = std::pair<K, V>;
  using Vector = std::vector<value_type>;
  using iterator = typename Vector::iterator;
  using const_iterator = typename Vector::const_iterator;

  std::size_t size() const { return v_.size(); }
  bool empty() const { return v_.empty(); }
  const_iterator begin() const { return v_.begin(); }
  const_iterator end() const { return v_.end(); }

  const_iterator find(K const& k) const {
    auto it = lowerBound(k);
    return it != v_.end() && !(k < it->first) ? it : v_.end();
  }
  std::size_t count(K const& k) const { return find(k) != v_.end() ? 1 : 0; }

  // The value under k, inserted (value-initialised) when absent.
  V& operator[](K const& k) {
    auto it = std::lower_bound(v_.begin(), v_.end(), k, [](value_type const& e, K const& x) { return e.first < x; });
    if (it == v_.end() || k < it->first) {
      if (v_.empty()) {
        // Sets usually have a few elements: one allocation for the first eight.
        v_.reserve(8);
        it = v_.begin();
      }
      it = v_.insert(it, value_type(k, V()));
    }
    return it->second;
  }

  std::size_t erase(K const& k) {
    auto it = find(k);
    if (it == v_.end()) return 0;
    v_.erase(it);
    return 1;
  }
  iterator erase(const_iterator it) { return v_.erase(it); }
  void clear() { v_.clear(); }
  void reserve(std::size_t n) { v_.reserve(n); }

  friend bool operator==(FlatMap const& a, FlatMap const& b) { return a.v_ == b.v_; }
  friend bool operator<(FlatMap const& a, FlatMap const& b) { return a.v_ < b.v_; }

 private:
  const_iterator lowerBound(K const& k) const {
    return std::lower_bound(v_.begin(), v_.end(), k, [](value_type const& e, K const& x) { return e.first < x; });
  }
  Vector v_;
};

}  // namespace MrouteLib
