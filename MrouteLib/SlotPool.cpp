#include "MrouteLib/SlotPool.h"

#include <sys/mman.h>

#include <cstdint>
#include <new>

#include "Kiv/Assert.h"

namespace MrouteLib {

// Sits at the start of each chunk; a slot finds its chunk by masking its
// address.
struct SlotPool::Chunk {
  Chunk* prev = nullptr;
  Chunk* next = nullptr;
  void* freeList = nullptr;  // freed slots, each holding the next
  std::size_t carved = 0;    // slots handed out at least once
  std::size_t live = 0;
  bool isAvailable = false;
};

namespace {

constexpr std::size_t kAlign = 64;

std::size_t roundUp(std::size_t n, std::size_t a) { return (n + a - 1) / a * a; }

}  // namespace

SlotPool::SlotPool(std::size_t slotBytes)
    : slotBytes_(roundUp(slotBytes < sizeof(void*) ? sizeof(void*) : slotBytes, alignof(std::max_align_t))),
      firstSlot_(roundUp(sizeof(Chunk), kAlign)),
      slotsPerChunk_((chunkBytes - firstSlot_) / slotBytes_) {
  KIV_ASSERT(slotsPerChunk_ > 0);
}

SlotPool::~SlotPool() {
  // Only the spare can be left when every slot came back; live slots keep
  // their chunks (the pool is a static that outlives the last route).
  if (live_ != 0) return;
  while (available_) {
    Chunk* c = available_;
    unlinkAvailable(c);
    munmap(c, chunkBytes);
  }
}

SlotPool::Chunk* SlotPool::newChunk() {
  // Twice the size, then the unaligned ends go back: mmap aligns to pages only.
  void* raw = mmap(nullptr, 2 * chunkBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (raw == MAP_FAILED) throw std::bad_alloc();
  auto const start = reinterpret_cast<std::uintptr_t>(raw);
  auto const aligned = roundUp(start, chunkBytes);
  if (aligned > start) munmap(raw, aligned - start);
  std::uintptr_t const end = start + 2 * chunkBytes;
  if (end > aligned + chunkBytes) munmap(reinterpret_cast<void*>(aligned + chunkBytes), end - aligned - chunkBytes);
  void* p = reinterpret_cast<void*>(aligned);
  // Advice only: without huge pages the pool still works, more slowly.
  madvise(p, chunkBytes, MADV_HUGEPAGE);
  ++chunks_;
  return new (p) Chunk();
}

void SlotPool::unlinkAvailable(Chunk* c) {
  if (c->prev) c->prev->next = c->next;
  if (c->next) c->next->prev = c->prev;
  if (available_ == c) available_ = c->next;
  c->prev = c->next = nullptr;
  c->isAvailable = false;
  --availableCount_;
}

void SlotPool::pushAvailable(Chunk* c) {
  c->next = available_;
  c->prev = nullptr;
  if (available_) available_->prev = c;
  available_ = c;
  c->isAvailable = true;
  ++availableCount_;
}

void* SlotPool::allocate() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!available_) pushAvailable(newChunk());
  Chunk* c = available_;
  void* p;
  if (c->freeList) {
    p = c->freeList;
    c->freeList = *static_cast<void**>(p);
  } else {
    KIV_ASSERT(c->carved < slotsPerChunk_);
    p = reinterpret_cast<char*>(c) + firstSlot_ + c->carved * slotBytes_;
    ++c->carved;
  }
  ++c->live;
  ++live_;
  if (!c->freeList && c->carved == slotsPerChunk_) unlinkAvailable(c);
  return p;
}

void SlotPool::deallocate(void* p) {
  if (!p) return;
  std::lock_guard<std::mutex> lock(mutex_);
  auto* c = reinterpret_cast<Chunk*>(reinterpret_cast<std::uintptr_t>(p) & ~(chunkBytes - 1));
  KIV_ASSERT(c->live > 0);
  *static_cast<void**>(p) = c->freeList;
  c->freeList = p;
  --c->live;
  --live_;
  if (!c->isAvailable) pushAvailable(c);
  if (c->live == 0 && availableCount_ > 1) {
    unlinkAvailable(c);
    munmap(c, chunkBytes);
    --chunks_;
  }
}

std::size_t SlotPool::chunks() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return chunks_;
}

std::size_t SlotPool::live() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return live_;
}

}  // namespace MrouteLib
