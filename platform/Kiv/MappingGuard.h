// Kiv::MappingGuard: keeps a process alive when a file it has mapped shared
// is truncated under the mapping.
//
//   void* p = mmap(nullptr, n, PROT_READ, MAP_SHARED, fd, 0);
//   Kiv::MappingGuard guard(p, n);
//   ... read through p ...
//   if (guard.truncated()) ...   // the lost pages read as zeros from now on
//
// A bus error at an address inside a guarded range replaces the pages from
// there to the range's end with private zero pages and flags the guard, so
// the faulting access completes and the owner notices at its next check.
// Writes into those pages reach nobody: an owner that writes must check
// truncated() before it reports a write done. Any number of ranges may be
// guarded at once (slots are kept in chunks that are never freed, so the
// signal handler walks them without locks); a fault outside every range
// goes to the handler that was installed before, or kills the process as
// it would have.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Kiv {

class MappingGuard {
 public:
  MappingGuard() = default;
  MappingGuard(void* base, std::size_t length);
  ~MappingGuard();
  MappingGuard(MappingGuard const&) = delete;
  MappingGuard& operator=(MappingGuard const&) = delete;
  MappingGuard(MappingGuard&& other) noexcept;
  MappingGuard& operator=(MappingGuard&& other) noexcept;

  bool active() const { return slot_ != nullptr; }
  // True once a fault inside the range found the file cut short.
  bool truncated() const { return slot_ != nullptr && slot_->truncated.load(std::memory_order_relaxed); }
  // Stops guarding (before the range is unmapped).
  void release();

  // One guarded range, read by the signal handler.
  struct Slot {
    std::atomic<std::uintptr_t> base{0};
    std::atomic<std::size_t> length{0};  // 0: free
    std::atomic<bool> truncated{false};
  };

 private:
  Slot* slot_ = nullptr;
};

}  // namespace Kiv
