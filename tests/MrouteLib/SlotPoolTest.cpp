#include "MrouteLib/SlotPool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <vector>

using MrouteLib::SlotPool;

TEST(SlotPool, SlotsAreDistinctAlignedAndChunksGoBackWhenEmpty) {
  SlotPool pool(100000);  // a handful of slots per chunk
  std::size_t const per = pool.slotsPerChunk();
  ASSERT_GE(per, 2u);
  std::vector<void*> slots;
  for (std::size_t i = 0; i < 2 * per + 1; ++i) {
    void* p = pool.allocate();
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % alignof(std::max_align_t), 0u);
    std::memset(p, int(i), pool.slotBytes());  // the whole slot is ours
    slots.push_back(p);
  }
  EXPECT_EQ(std::set<void*>(slots.begin(), slots.end()).size(), slots.size());
  EXPECT_EQ(pool.chunks(), 3u);
  EXPECT_EQ(pool.live(), 2 * per + 1);

  // A freed slot is reused before any new chunk is made.
  void* again = slots[per];
  pool.deallocate(again);
  EXPECT_EQ(pool.allocate(), again);

  for (void* p : slots) pool.deallocate(p);
  EXPECT_EQ(pool.live(), 0u);
  EXPECT_EQ(pool.chunks(), 1u) << "one empty chunk stays as a spare";
  void* p = pool.allocate();
  EXPECT_EQ(pool.chunks(), 1u);
  pool.deallocate(p);
}
