// Kiv::LinkQueue: a first-in first-out queue whose entries carry 32-bit
// sequence numbers.
//
// Each entry is {index, payload} (the payload's member may be named by the
// user, see LinkQueue's parameters); the head is the oldest. enq() numbers a new
// entry with the larger of the queue's next sequence number and the tail's
// number plus one, so numbers strictly increase from head to tail, and a
// number whose entry just left is not handed out again at once:
//
//   Kiv::LinkQueue<std::uint16_t> pool;
//   pool.enq(10);                    // returns 0
//   pool.enq(11);                    // returns 1
//   pool.entryDel(1);
//   pool.enq(12);                    // returns 2, not 1
//   pool.deq();                      // 10
//
// The sequence space wraps. Numbers are ordered by their distance from the
// head's number, so 4294967295 is followed by 0, and the head's own number is
// the one a new entry can never get: when the next number would be the
// head's, enq() raises Kiv::RangeException "linkqueue index space full" and
// leaves the queue as it was. Dequeuing the head frees its number again.
//
// entryIs(index, payload) places an entry by number: it replaces the payload
// of the entry that has the number (a payload equal to the one held changes
// nothing), or inserts a new one where its number belongs. Every number other
// than the head's lies after the head, so a number past the tail, or one just
// below the head's (9 when the head is 10), is appended; it then becomes the
// tail and the next sequence number moves past it (it never moves back). On
// an empty queue the placed number starts the run afresh: the next number
// becomes index + 1. Payloads must be movable; entryIs also move-assigns.
//
// metadata() is the queue's bookkeeping as one value compared by ==: the
// head's number (the next number when the queue is empty), the next number,
// a modification count that every real change raises (wrapping), and the
// entry count.
//
// Costs: enq, deq, head and tail are O(1) and allocate nothing once the node
// pool has grown to the queue's largest size; nodes are recycled and go back
// to the system only with the queue. entry(index), entryIs and entryDel walk
// the list, O(n), except for the head, the tail (lookup) and numbers past
// the tail, which are O(1); they serve reflective access, not the hot path.
#pragma once

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <ostream>
#include <utility>
#include <vector>

namespace Kiv {

struct LinkQueueMetadata {
  std::uint32_t headIndex = 0;
  std::uint32_t nextIndex = 0;
  std::uint32_t modCount = 0;
  std::uint32_t entries = 0;

  friend bool operator==(LinkQueueMetadata const&, LinkQueueMetadata const&) = default;
};

std::ostream& operator<<(std::ostream& os, LinkQueueMetadata const& m);

// Raises the RangeException of an exhausted sequence space; out of line so
// that enq() stays small.
[[noreturn]] void linkQueueIndexSpaceFull();

template <class Payload>
struct LinkQueueEntry {
  std::uint32_t index;
  Payload payload;
};

// Entry is an aggregate whose first member is the 32-bit `index` and whose
// member `Field` holds the payload, so that a user can give the payload the
// name it has in its own model.
template <class Payload, class EntryT = LinkQueueEntry<Payload>, Payload EntryT::*Field = &EntryT::payload>
class LinkQueue {
  struct Node;

 public:
  using Index = std::uint32_t;
  using Entry = EntryT;
  using PayloadType = Payload;

  static Payload const& payloadOf(Entry const& e) { return e.*Field; }

  class const_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;
    using pointer = Entry const*;
    using reference = Entry const&;

    const_iterator() = default;
    reference operator*() const { return n_->entry; }
    pointer operator->() const { return &n_->entry; }
    const_iterator& operator++() {
      n_ = n_->next;
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator old = *this;
      n_ = n_->next;
      return old;
    }
    friend bool operator==(const_iterator const&, const_iterator const&) = default;

   private:
    friend class LinkQueue;
    explicit const_iterator(Node const* n) : n_(n) {}
    Node const* n_ = nullptr;
  };

  LinkQueue() = default;
  // Delegates so that a payload copy that throws still runs the destructor.
  LinkQueue(LinkQueue const& o) : LinkQueue() {
    for (Entry const& e : o) append(newNode(e.index, e.*Field));
    next_ = o.next_;
    mod_ = o.mod_;
    count_ = o.count_;
  }
  LinkQueue(LinkQueue&& o) noexcept { swap(o); }
  LinkQueue& operator=(LinkQueue const& o) {
    if (this != &o) LinkQueue(o).swap(*this);
    return *this;
  }
  LinkQueue& operator=(LinkQueue&& o) noexcept {
    LinkQueue(std::move(o)).swap(*this);
    return *this;
  }
  ~LinkQueue() {
    for (Node* n = head_; n != nullptr; n = n->next) std::destroy_at(&n->entry);
  }

  void swap(LinkQueue& o) noexcept {
    std::swap(head_, o.head_);
    std::swap(tail_, o.tail_);
    std::swap(free_, o.free_);
    std::swap(chunks_, o.chunks_);
    std::swap(chunkSize_, o.chunkSize_);
    std::swap(next_, o.next_);
    std::swap(mod_, o.mod_);
    std::swap(count_, o.count_);
  }

  // Appends at the tail and returns the entry's sequence number.
  Index enq(Payload const& payload) { return enqNode(payload); }
  Index enq(Payload&& payload) { return enqNode(std::move(payload)); }

  // Removes the head and returns its payload; empty when the queue is.
  std::optional<Payload> deq() {
    Node* n = head_;
    if (n == nullptr) return std::nullopt;
    std::optional<Payload> out(std::move(n->entry.*Field));
    head_ = n->next;
    if (head_ == nullptr) tail_ = nullptr;
    release(n);
    --count_;
    ++mod_;
    return out;
  }

  Entry const* head() const { return head_ ? &head_->entry : nullptr; }
  Entry const* tail() const { return tail_ ? &tail_->entry : nullptr; }

  // The entry numbered index, or null.
  Entry const* entry(Index index) const {
    if (head_ == nullptr) return nullptr;
    Index const h = head_->entry.index;
    Index const d = index - h;
    if (d > tail_->entry.index - h) return nullptr;
    if (index == tail_->entry.index) return &tail_->entry;
    Node const* n = head_;
    while (n->entry.index - h < d) n = n->next;
    return n->entry.index == index ? &n->entry : nullptr;
  }

  void entryIs(Index index, Payload payload) {
    if (head_ == nullptr) {
      append(newNode(index, std::move(payload)));
      next_ = index + 1;
      ++count_;
      ++mod_;
      return;
    }
    Index const h = head_->entry.index;
    Index const d = index - h;
    if (d > tail_->entry.index - h) {
      append(newNode(index, std::move(payload)));
      if (!(next_ - h > d)) next_ = index + 1;
      ++count_;
      ++mod_;
      return;
    }
    Node* prev = nullptr;
    Node* n = head_;
    while (n->entry.index - h < d) {
      prev = n;
      n = n->next;
    }
    if (n->entry.index == index) {
      if constexpr (std::equality_comparable<Payload>) {
        if (n->entry.*Field == payload) return;
      }
      n->entry.*Field = std::move(payload);
      ++mod_;
      return;
    }
    // d > 0 here, so the new entry goes after the head and prev is set.
    Node* fresh = newNode(index, std::move(payload));
    fresh->next = n;
    prev->next = fresh;
    ++count_;
    ++mod_;
  }

  // Removes the entry numbered index; false when there is none. The next
  // sequence number stays where it is.
  bool entryDel(Index index) {
    if (head_ == nullptr) return false;
    Index const h = head_->entry.index;
    Index const d = index - h;
    if (d > tail_->entry.index - h) return false;
    Node* prev = nullptr;
    Node* n = head_;
    while (n->entry.index - h < d) {
      prev = n;
      n = n->next;
    }
    if (n->entry.index != index) return false;
    (prev ? prev->next : head_) = n->next;
    if (n == tail_) tail_ = prev;
    release(n);
    --count_;
    ++mod_;
    return true;
  }

  void entryDelAll() {
    if (head_ == nullptr) return;
    Node* n = head_;
    while (n != nullptr) {
      Node* following = n->next;
      release(n);
      n = following;
    }
    head_ = tail_ = nullptr;
    count_ = 0;
    ++mod_;
  }

  std::uint32_t entries() const { return count_; }
  bool empty() const { return head_ == nullptr; }

  LinkQueueMetadata metadata() const {
    return LinkQueueMetadata{head_ ? head_->entry.index : next_, next_, mod_, count_};
  }

  const_iterator begin() const { return const_iterator(head_); }
  const_iterator end() const { return const_iterator(); }

 private:
  // A node's entry is alive only while the node is on the list; a free node
  // keeps its link in next.
  struct Node {
    Node() {}
    ~Node() {}
    Node* next = nullptr;
    union {
      Entry entry;
    };
  };

  template <class P>
  Index enqNode(P&& payload) {
    Index index = next_;
    if (head_ != nullptr) {
      Index const h = head_->entry.index;
      Index const tailIndex = tail_->entry.index;
      if (!(next_ - h > tailIndex - h)) index = tailIndex + 1;
      if (index == h) linkQueueIndexSpaceFull();
    }
    append(newNode(index, std::forward<P>(payload)));
    next_ = index + 1;
    ++count_;
    ++mod_;
    return index;
  }

  template <class P>
  Node* newNode(Index index, P&& payload) {
    if (free_ == nullptr) grow();
    Node* n = free_;
    ::new (static_cast<void*>(&n->entry)) Entry{index, Payload(std::forward<P>(payload))};
    free_ = n->next;
    n->next = nullptr;
    return n;
  }

  void append(Node* n) {
    if (tail_ != nullptr) {
      tail_->next = n;
    } else {
      head_ = n;
    }
    tail_ = n;
  }

  void release(Node* n) {
    std::destroy_at(&n->entry);
    n->next = free_;
    free_ = n;
  }

  // Chunks double from 8 nodes up to 1024, so a small queue stays small and
  // a large one costs one allocation per thousand entries.
  void grow() {
    std::size_t const size = chunks_.empty() ? 8 : std::min<std::size_t>(chunkSize_ * 2, 1024);
    chunkSize_ = size;
    chunks_.push_back(std::make_unique<Node[]>(size));
    Node* chunk = chunks_.back().get();
    for (std::size_t i = size; i-- > 0;) {
      chunk[i].next = free_;
      free_ = &chunk[i];
    }
  }

  Node* head_ = nullptr;
  Node* tail_ = nullptr;
  Node* free_ = nullptr;
  std::vector<std::unique_ptr<Node[]>> chunks_;
  std::size_t chunkSize_ = 0;
  Index next_ = 0;
  std::uint32_t mod_ = 0;
  std::uint32_t count_ = 0;
};

}  // namespace Kiv
