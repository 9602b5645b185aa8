// The edits every keyed collection attribute of an entity makes, so that
// each entity writes only its notification:
//
//   void vornPtrIs(K k, Kiv::Ptr<V> const& v) { if (Kiv::ptrEntryIs(vornPtr_, k, v)) vornPtrNotify(k); }
//   Kiv::Ptr<V> vornPtrDel(K k) { auto old = Kiv::entryTake(vornPtr_, k); if (old) vornPtrNotify(k); return old; }
//   void vornPtrDelAll() { for (K k : Kiv::keysOf(vornPtr_)) vornPtrDel(k); }
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Kiv/Exception.h"

namespace Kiv {

// What a collection mutator raises when given a null argument:
// nullParameter("_appDir", "Ns::Owner::appDir") reads
// null _appDir parameter to mutator for Ns::Owner::appDir not allowed"
// The closing double quote belongs to the text, which agents match as it
// stands.
inline RangeException nullParameter(std::string_view parameter, std::string_view attribute) {
  return RangeException("null " + std::string(parameter) + " parameter to mutator for " + std::string(attribute) +
                        " not allowed\"");
}

// Stores a pointer value under key: the same pointer changes nothing, a null
// pointer removes the entry, another pointer replaces it. Returns whether
// the map changed.
template <class Map, class K, class V>
bool ptrEntryIs(Map& map, K const& key, V const& value) {
  auto it = map.find(key);
  if (it != map.end()) {
    if (it->second == value) return false;
    if (value) {
      it->second = value;
    } else {
      map.erase(it);
    }
    return true;
  }
  if (!value) return false;
  map.emplace(key, value);
  return true;
}

// Removes key and returns its value, or a default (null) value when absent.
template <class Map, class K>
typename Map::mapped_type entryTake(Map& map, K const& key) {
  auto it = map.find(key);
  if (it == map.end()) return typename Map::mapped_type();
  typename Map::mapped_type old = std::move(it->second);
  map.erase(it);
  return old;
}

// The keys now present, for deleting one at a time while notifiees may edit
// the map.
template <class Map>
std::vector<typename Map::key_type> keysOf(Map const& map) {
  std::vector<typename Map::key_type> keys;
  keys.reserve(map.size());
  for (auto const& entry : map) keys.push_back(entry.first);
  return keys;
}

}  // namespace Kiv
