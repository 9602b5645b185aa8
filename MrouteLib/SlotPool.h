// MrouteLib::SlotPool: fixed-size slots carved from 2 MiB chunks, for the
// objects a table holds by the million (routes).
//
// Why not malloc: a review walks every route of a table, one cache line
// each, and with ordinary 4 KiB pages most of its time goes to TLB misses
// (on a virtual machine, two-level page walks). Chunks are 2 MiB-aligned
// and asked to be backed by transparent huge pages, and slots carry no
// allocator header, so routes sit densely and one TLB entry covers about
// 3800 of them.
//
//   static SlotPool pool(sizeof(Mroute));
//   void* p = pool.allocate();     // std::bad_alloc when the system has no memory
//   pool.deallocate(p);
//
// Memory comes back to the system when a chunk empties (one empty chunk is
// kept as a spare). Slots are carved from a chunk only as they are first
// needed, so untouched memory is never faulted in. Thread-safe (a mutex):
// entities may be destroyed on any thread that holds their last count.
#pragma once

#include <cstddef>
#include <mutex>

namespace MrouteLib {

class SlotPool {
 public:
  static constexpr std::size_t chunkBytes = std::size_t(2) << 20;

  explicit SlotPool(std::size_t slotBytes);
  ~SlotPool();
  SlotPool(SlotPool const&) = delete;
  SlotPool& operator=(SlotPool const&) = delete;

  void* allocate();
  // p must come from this pool's allocate.
  void deallocate(void* p);

  std::size_t slotBytes() const { return slotBytes_; }
  std::size_t slotsPerChunk() const { return slotsPerChunk_; }
  std::size_t chunks() const;
  std::size_t live() const;

 private:
  struct Chunk;
  Chunk* newChunk();
  void unlinkAvailable(Chunk* c);
  void pushAvailable(Chunk* c);

  std::size_t slotBytes_;
  std::size_t firstSlot_;
  std::size_t slotsPerChunk_;
  mutable std::mutex mutex_;
  Chunk* available_ = nullptr;  // chunks with a free or uncarved slot
  std::size_t availableCount_ = 0;
  std::size_t chunks_ = 0;
  std::size_t live_ = 0;
};

}  // namespace MrouteLib
