// The writer's private order index against std::map: splits, removals that
// empty leaves and inner nodes, a tree emptied and refilled, a bulk load,
// and the cursors the writer takes neighbours from.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <random>
#include <vector>

#include "Vorn/detail/OrderIndex.h"

namespace {

// A wide key makes small nodes, so that a few thousand keys build a tall
// tree.
struct WideKey {
  std::uint64_t n = 0;
  std::uint64_t pad[15] = {};
  friend bool operator<(WideKey const& a, WideKey const& b) { return a.n < b.n; }
};
using Index = Vorn::detail::OrderIndex<WideKey>;

WideKey key(std::uint64_t n) {
  WideKey k;
  k.n = n;
  return k;
}
// Key n lives in entry n + 1, at some level.
std::uint32_t valueOf(std::uint64_t n, std::uint64_t level) {
  return Index::pack(std::uint32_t(n + 1), std::uint32_t(level % 12 + 1));
}

// The index holds exactly the model, in order, walked both ways.
void expectSame(Index const& index, std::map<std::uint64_t, std::uint32_t> const& model) {
  ASSERT_EQ(index.size(), model.size());
  std::vector<std::pair<std::uint64_t, std::uint32_t>> seen, expected(model.begin(), model.end());
  index.forEach([&](WideKey const& k, std::uint32_t v) { seen.emplace_back(k.n, v); });
  ASSERT_EQ(seen, expected);
  if (model.empty()) return;
  Index::Cursor c = index.lowerBound(key(model.rbegin()->first));
  std::vector<std::pair<std::uint64_t, std::uint32_t>> backwards;
  do backwards.emplace_back(c.key().n, c.value());
  while (c.back());
  std::vector<std::pair<std::uint64_t, std::uint32_t>> const reversed(model.rbegin(), model.rend());
  ASSERT_EQ(backwards, reversed);
}

// The cursor stands on `n` (or the end when n is none) with the model's
// neighbours on either side.
void expectAt(Index::Cursor c, std::map<std::uint64_t, std::uint32_t> const& model, std::uint64_t n, bool end = false) {
  auto it = end ? model.end() : model.find(n);
  ASSERT_EQ(c.valid(), it != model.end());
  if (c.valid()) {
    ASSERT_EQ(c.key().n, n);
  }
  Index::Cursor b = c;
  ASSERT_EQ(b.back(), it != model.begin());
  if (it != model.begin()) {
    ASSERT_EQ(b.key().n, std::prev(it)->first);
  }
  if (it == model.end()) return;
  Index::Cursor f = c;
  ASSERT_EQ(f.forward(), std::next(it) != model.end());
  if (std::next(it) != model.end()) {
    ASSERT_EQ(f.key().n, std::next(it)->first);
  }
}

}  // namespace

TEST(VornOrderIndex, RandomInsertsAndErasesKeepOrderAndNeighbours) {
  Index index;
  index.entriesIs(4001);
  std::map<std::uint64_t, std::uint32_t> model;
  std::mt19937_64 rng(3);
  for (int round = 0; round < 3; ++round) {
    // Grow to a few thousand, then churn, then drain to nothing.
    for (int i = 0; i < 6000; ++i) {
      std::uint64_t const n = rng() % 4000;
      std::uint32_t const v = valueOf(n, rng());
      Index::Cursor at;
      bool const fresh = model.emplace(n, v).second;
      ASSERT_EQ(index.insert(key(n), v, at), fresh);
      if (fresh) expectAt(at, model, n);
      if (i % 3 == 0) {
        std::uint64_t const d = rng() % 4000;
        std::uint32_t value = 0;
        Index::Cursor after;
        auto it = model.find(d);
        // Asked for the wrong key, it refuses.
        ASSERT_FALSE(index.erase(std::uint32_t(d + 1), key(d + 1), value, after));
        ASSERT_EQ(index.erase(std::uint32_t(d + 1), key(d), value, after), it != model.end());
        if (it == model.end()) continue;
        ASSERT_EQ(value, it->second);
        auto const next = model.erase(it);
        expectAt(after, model, next == model.end() ? 0 : next->first, next == model.end());
      }
    }
    expectSame(index, model);
    std::vector<std::uint64_t> keys;
    for (auto const& [n, v] : model) keys.push_back(n);
    std::shuffle(keys.begin(), keys.end(), rng);
    for (std::size_t i = 0; i < keys.size(); ++i) {
      std::uint32_t value = 0;
      Index::Cursor after;
      ASSERT_TRUE(index.erase(std::uint32_t(keys[i] + 1), key(keys[i]), value, after));
      model.erase(keys[i]);
      if (i % 500 == 0) expectSame(index, model);
    }
    expectSame(index, model);  // empty: the next round refills it
  }
}

TEST(VornOrderIndex, ABulkLoadedTreeTakesInsertsAndErasesLikeABuiltOne) {
  for (std::size_t size : {0, 1, 7, 100, 5000}) {
    Index index;
    index.entriesIs(2 * size + 11);
    std::map<std::uint64_t, std::uint32_t> model;
    std::vector<std::pair<WideKey, std::uint32_t>> sorted;
    for (std::size_t i = 0; i < size; ++i) {
      sorted.emplace_back(key(i * 2), valueOf(i * 2, i));
      model[i * 2] = valueOf(i * 2, i);
    }
    index.assign(sorted);
    expectSame(index, model);
    std::mt19937_64 rng(size);
    for (int i = 0; i < 3000; ++i) {
      std::uint64_t const n = rng() % (2 * size + 10);
      Index::Cursor at;
      if (rng() % 2) {
        ASSERT_EQ(index.insert(key(n), valueOf(n, 3), at), model.emplace(n, valueOf(n, 3)).second);
      } else {
        std::uint32_t v;
        ASSERT_EQ(index.erase(std::uint32_t(n + 1), key(n), v, at), model.erase(n) == 1);
      }
    }
    expectSame(index, model);
  }
}
