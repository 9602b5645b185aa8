// The writer's ordered index of one table's keys: a B+ tree in the writer's
// private memory that maps each key to its entry (and the entry's skip-list
// level). The writer asks it where a new key goes and which entries stand
// around a change, instead of searching the shared skip list: a few dense
// nodes per search rather than one scattered entry per step.
//
// It also knows each entry's leaf, so that a delete finds its place without
// a search. Leaves a delete empties stay in the tree (inserts refill them)
// until they outnumber the full ones, when the tree is built again.
//
// Nothing here is shared: readers never see it, a crash loses it, and an
// adopting writer rebuilds it from the entries it keeps.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

namespace Vorn::detail {

template <class K>
class OrderIndex {
 public:
  // An element's value: the entry in the low 27 bits, its level above.
  static constexpr std::uint32_t kEntryBits = 27;
  static constexpr std::uint32_t pack(std::uint32_t entry, std::uint32_t level) { return entry | level << kEntryBits; }
  static constexpr std::uint32_t entryOf(std::uint32_t v) { return v & ((1u << kEntryBits) - 1); }
  static constexpr std::uint32_t levelOf(std::uint32_t v) { return v >> kEntryBits; }

 private:
  // Nodes of about 512 bytes of keys: a search fetches a node's lines
  // together and then compares within it. At most 32 keys even when they
  // are small: an insert or a delete moves up to a node's worth of them.
  static constexpr std::uint32_t kNodeKeys = std::clamp<std::uint32_t>(512 / sizeof(K), 8, 32);
  static constexpr std::uint32_t kLeafMax = kNodeKeys;
  static constexpr std::uint32_t kInnerMax = kNodeKeys;
  struct Leaf {
    std::uint32_t n = 0;
    Leaf* prev = nullptr;
    Leaf* next = nullptr;
    K keys[kLeafMax];
    std::uint32_t vals[kLeafMax];
  };
  // Child i holds the keys in [keys[i-1], keys[i]).
  struct Inner {
    std::uint32_t n = 0;  // children
    K keys[kInnerMax - 1];
    void* child[kInnerMax];
  };

 public:
  // A place in key order: an element (pos < leaf->n) or the end (pos ==
  // leaf->n on the last leaf).
  struct Cursor {
    Leaf* leaf = nullptr;
    std::uint32_t pos = 0;
    bool valid() const { return pos < leaf->n; }
    K const& key() const { return leaf->keys[pos]; }
    std::uint32_t value() const { return leaf->vals[pos]; }
    // The element before; false at the first.
    bool back() {
      if (pos > 0) {
        --pos;
        return true;
      }
      Leaf* l = leaf->prev;
      while (l && l->n == 0) l = l->prev;
      if (l == nullptr) return false;
      leaf = l;
      pos = l->n - 1;
      return true;
    }
    // The element after; false (the cursor at the end) past the last.
    bool forward() {
      if (pos + 1 < leaf->n) {
        ++pos;
        return true;
      }
      return skipToNext();
    }
    // From the end of this leaf to the first element of a later one.
    bool skipToNext() {
      Leaf* l = leaf->next;
      while (l && l->n == 0) l = l->next;
      if (l == nullptr) {
        pos = leaf->n;
        return false;
      }
      leaf = l;
      pos = 0;
      return true;
    }
  };

  OrderIndex() { root_ = new Leaf; }
  ~OrderIndex() { release(root_, height_); }
  OrderIndex(OrderIndex const&) = delete;
  OrderIndex& operator=(OrderIndex const&) = delete;

  std::size_t size() const { return size_; }

  void clear() {
    release(root_, height_);
    root_ = new Leaf;
    height_ = 0;
    size_ = 0;
    leaves_ = 1;
    std::fill(where_.begin(), where_.end(), nullptr);
  }
  // Room for entries 0..count-1.
  void entriesIs(std::size_t count) { where_.resize(count, nullptr); }

  // Replaces the contents with `sorted` (keys ascending, no repeats).
  void assign(std::vector<std::pair<K, std::uint32_t>> const& sorted) {
    clear();
    if (sorted.empty()) return;
    delete static_cast<Leaf*>(root_);
    leaves_ = 0;
    // Leaves three quarters full leave room for inserts without a split.
    std::uint32_t const fill = std::max<std::uint32_t>(1, kLeafMax * 3 / 4);
    std::vector<std::pair<K, void*>> level;
    Leaf* last = nullptr;
    for (std::size_t i = 0; i < sorted.size(); i += fill) {
      Leaf* l = new Leaf;
      l->n = std::uint32_t(std::min<std::size_t>(fill, sorted.size() - i));
      for (std::uint32_t j = 0; j < l->n; ++j) {
        l->keys[j] = sorted[i + j].first;
        l->vals[j] = sorted[i + j].second;
      }
      for (std::uint32_t j = 0; j < l->n; ++j) where_[entryOf(l->vals[j])] = l;
      l->prev = last;
      if (last) last->next = l;
      ++leaves_;
      last = l;
      level.emplace_back(l->keys[0], l);
    }
    height_ = 0;
    std::uint32_t const innerFill = std::max<std::uint32_t>(2, kInnerMax * 3 / 4);
    while (level.size() > 1) {
      std::vector<std::pair<K, void*>> up;
      for (std::size_t i = 0; i < level.size(); i += innerFill) {
        Inner* in = new Inner;
        in->n = std::uint32_t(std::min<std::size_t>(innerFill, level.size() - i));
        for (std::uint32_t j = 0; j < in->n; ++j) {
          in->child[j] = level[i + j].second;
          if (j > 0) in->keys[j - 1] = level[i + j].first;
        }
        up.emplace_back(level[i].first, in);
      }
      level = std::move(up);
      ++height_;
    }
    root_ = level[0].second;
    size_ = sorted.size();
  }

  // Inserts k (not yet present) with `value`; returns the cursor on it.
  // False when k was there already (the index is left as it was).
  bool insert(K const& k, std::uint32_t value, Cursor& at) {
    compactIfSparse();
    Path path;
    Leaf* leaf = descend(k, path);
    std::uint32_t const pos = lowerBound(leaf, k);
    if (pos < leaf->n && !(k < leaf->keys[pos])) return false;
    ++size_;
    if (leaf->n < kLeafMax) {
      shiftUp(leaf, pos);
      leaf->keys[pos] = k;
      leaf->vals[pos] = value;
      where_[entryOf(value)] = leaf;
      at = {leaf, pos};
      return true;
    }
    // Split: the upper half moves to a new leaf after this one.
    Leaf* right = new Leaf;
    std::uint32_t const half = (kLeafMax + 1) / 2;
    std::uint32_t const move = kLeafMax - half;
    std::copy(leaf->keys + half, leaf->keys + kLeafMax, right->keys);
    std::copy(leaf->vals + half, leaf->vals + kLeafMax, right->vals);
    right->n = move;
    leaf->n = half;
    ++leaves_;
    right->next = leaf->next;
    if (right->next) right->next->prev = right;
    right->prev = leaf;
    leaf->next = right;
    Leaf* into = pos <= half ? leaf : right;
    std::uint32_t const p = pos <= half ? pos : pos - half;
    shiftUp(into, p);
    into->keys[p] = k;
    into->vals[p] = value;
    for (std::uint32_t j = 0; j < right->n; ++j) where_[entryOf(right->vals[j])] = right;
    where_[entryOf(value)] = into;
    at = {into, p};
    insertChild(path, right->keys[0], right);
    return true;
  }

  // The first element not less than k (the end when none).
  Cursor lowerBound(K const& k) const {
    Path path;
    Leaf* leaf = descend(k, path);
    Cursor c{leaf, lowerBound(leaf, k)};
    if (!c.valid()) c.skipToNext();
    return c;
  }

  // Removes `entry`, which holds key k; returns its value and sets `after`
  // on the element that followed it (or the end). False when the entry is
  // not there under that key.
  bool erase(std::uint32_t entry, K const& k, std::uint32_t& value, Cursor& after) {
    compactIfSparse();
    Leaf* const leaf = entry < where_.size() ? where_[entry] : nullptr;
    if (leaf == nullptr) return false;
    std::uint32_t pos = 0;
    while (pos < leaf->n && entryOf(leaf->vals[pos]) != entry) ++pos;
    if (pos == leaf->n || k < leaf->keys[pos] || leaf->keys[pos] < k) return false;
    value = leaf->vals[pos];
    where_[entry] = nullptr;
    --size_;
    std::copy(leaf->keys + pos + 1, leaf->keys + leaf->n, leaf->keys + pos);
    std::copy(leaf->vals + pos + 1, leaf->vals + leaf->n, leaf->vals + pos);
    --leaf->n;
    after = {leaf, pos};
    if (!after.valid()) after.skipToNext();
    return true;
  }

  // Every element in key order, for checks.
  template <class F>
  void forEach(F&& f) const {
    Leaf const* l = first();
    for (; l; l = l->next)
      for (std::uint32_t i = 0; i < l->n; ++i) f(l->keys[i], l->vals[i]);
  }

 private:
  static constexpr std::uint32_t kMaxHeight = 32;
  // Once leaves (empty ones included) are four times what the keys need
  // when packed, the tree is built again: a cost in proportion to what
  // the deletes that emptied them did.
  void compactIfSparse() {
    if (leaves_ < 64 || leaves_ <= 4 * (size_ / kLeafMax + 1)) return;
    std::vector<std::pair<K, std::uint32_t>> all;
    all.reserve(size_);
    forEach([&](K const& k, std::uint32_t v) { all.emplace_back(k, v); });
    assign(all);
  }
  struct Path {
    Inner* node[kMaxHeight];
    std::uint32_t slot[kMaxHeight];
  };

  static void prefetchNode(void const* p, std::size_t bytes) {
    for (std::size_t off = 0; off < bytes; off += 64) __builtin_prefetch(static_cast<char const*>(p) + off);
  }
  Leaf* descend(K const& k, Path& path) const {
    void* n = root_;
    for (std::uint32_t d = 0; d < height_; ++d) {
      Inner* in = static_cast<Inner*>(n);
      prefetchNode(in, sizeof(Inner));
      std::uint32_t const c = std::uint32_t(std::upper_bound(in->keys, in->keys + in->n - 1, k) - in->keys);
      path.node[d] = in;
      path.slot[d] = c;
      n = in->child[c];
    }
    prefetchNode(n, sizeof(Leaf));
    return static_cast<Leaf*>(n);
  }
  static std::uint32_t lowerBound(Leaf const* l, K const& k) {
    return std::uint32_t(std::lower_bound(l->keys, l->keys + l->n, k) - l->keys);
  }
  static void shiftUp(Leaf* l, std::uint32_t pos) {
    std::copy_backward(l->keys + pos, l->keys + l->n, l->keys + l->n + 1);
    std::copy_backward(l->vals + pos, l->vals + l->n, l->vals + l->n + 1);
    ++l->n;
  }
  // After a split below path's deepest node: `right` (whose keys start at
  // `sep`) goes in beside the child that split, splitting parents in turn.
  void insertChild(Path& path, K sep, void* right) {
    for (std::uint32_t d = height_; d-- > 0;) {
      Inner* in = path.node[d];
      std::uint32_t const c = path.slot[d] + 1;  // right's place
      if (in->n < kInnerMax) {
        std::copy_backward(in->child + c, in->child + in->n, in->child + in->n + 1);
        std::copy_backward(in->keys + c - 1, in->keys + in->n - 1, in->keys + in->n);
        in->child[c] = right;
        in->keys[c - 1] = sep;
        ++in->n;
        return;
      }
      // Full: lay out the n + 1 children, keep the lower half, move the
      // upper half to a new node, and pass up the key between them.
      void* ch[kInnerMax + 1];
      K ks[kInnerMax];
      std::copy(in->child, in->child + c, ch);
      ch[c] = right;
      std::copy(in->child + c, in->child + in->n, ch + c + 1);
      std::copy(in->keys, in->keys + c - 1, ks);
      ks[c - 1] = sep;
      std::copy(in->keys + c - 1, in->keys + in->n - 1, ks + c);
      std::uint32_t const total = in->n + 1;
      std::uint32_t const left = total / 2;
      Inner* r = new Inner;
      in->n = left;
      std::copy(ch, ch + left, in->child);
      std::copy(ks, ks + left - 1, in->keys);
      r->n = total - left;
      std::copy(ch + left, ch + total, r->child);
      std::copy(ks + left, ks + total - 1, r->keys);
      sep = ks[left - 1];
      right = r;
    }
    Inner* top = new Inner;
    top->n = 2;
    top->child[0] = root_;
    top->child[1] = right;
    top->keys[0] = sep;
    root_ = top;
    ++height_;
  }
  Leaf const* first() const {
    void* n = root_;
    for (std::uint32_t d = 0; d < height_; ++d) n = static_cast<Inner*>(n)->child[0];
    return static_cast<Leaf const*>(n);
  }
  static void release(void* n, std::uint32_t height) {
    if (height == 0) {
      delete static_cast<Leaf*>(n);
      return;
    }
    Inner* in = static_cast<Inner*>(n);
    for (std::uint32_t i = 0; i < in->n; ++i) release(in->child[i], height - 1);
    delete in;
  }

  void* root_;
  std::uint32_t height_ = 0;
  std::size_t size_ = 0;
  std::size_t leaves_ = 1;
  std::vector<Leaf*> where_;  // by entry: the leaf that holds it
};

}  // namespace Vorn::detail
