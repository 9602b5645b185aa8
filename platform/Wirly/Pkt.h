// Wirly::Pkt: one packet buffer with a data window that moves without
// copying, and Wirly::PktManager, the process's pool of them.
//
//   Kiv::Ptr<Wirly::Pkt> p = Wirly::PktManager::global().newPkt(1490);
//   p->headDataIs(1490);                    // the window covers the first 1490 bytes
//   ssize_t n = recv(sd, p->data(), p->len(), 0);
//   p->trim(n);                             // keep what arrived
//   p->removeHead(20);                      // drop a header, no copy
//   Wirly::Segment s = p->firstSeg();       // {data, len} of the window
//
// The buffer holds capacity() bytes. The data window starts at offset()
// (the head room in front of it, which removeHead grows) and holds len()
// bytes; the window never leaves the buffer: a request that would is an
// assertion, because callers size windows from lengths they checked.
//
// Packets are reference counted; when the last Kiv::Ptr goes the buffer
// returns to the manager's pool for its size class and the next newPkt of
// that class reuses it, so a steady stream of packets allocates nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Kiv/Ptr.h"

namespace Wirly {

struct Segment {
  std::uint8_t* data;
  std::size_t len;
};

class PktManager;

class Pkt : public Kiv::PtrInterface {
 public:
  std::size_t capacity() const { return capacity_; }
  std::size_t offset() const { return offset_; }
  std::size_t len() const { return len_; }
  std::uint8_t* data() { return buf_.get() + offset_; }
  std::uint8_t const* data() const { return buf_.get() + offset_; }
  Segment firstSeg() { return {data(), len_}; }

  // The window becomes the first n bytes of the buffer (contents kept).
  void headDataIs(std::size_t n);
  // Keeps the first n bytes of the window; a longer n changes nothing.
  void trim(std::size_t n);
  // Drops the first n bytes of the window without copying.
  void removeHead(std::size_t n);
  // The window becomes the first n bytes of the buffer, filled from src.
  void headDataIs(void const* src, std::size_t n);

  // The length of the IPv4 header at the start of the window (IHL x 4), or
  // 0 when the window is empty.
  std::size_t ipv4HeaderBytes() const;

 private:
  friend class PktManager;
  Pkt(PktManager* manager, std::size_t capacity);
  void onZeroReferences() const override;

  PktManager* manager_;
  std::unique_ptr<std::uint8_t[]> buf_;
  std::size_t capacity_;
  std::size_t offset_ = 0;
  std::size_t len_ = 0;
};

class PktManager {
 public:
  // Capacities are rounded up to a power of two of at least minCapacity;
  // requests above maxCapacity get no packet.
  static constexpr std::size_t minCapacity = 2048;
  static constexpr std::size_t maxCapacity = std::size_t(1) << 20;
  // Free packets kept per size class; more are released to the heap.
  static constexpr std::size_t poolLimit = 512;

  // The process's manager. It is never destroyed, so packets held by
  // static objects can still return to it at exit.
  static PktManager& global();

  // A packet of at least `capacity` bytes with an empty window at offset 0,
  // or null when capacity exceeds maxCapacity.
  Kiv::Ptr<Pkt> newPkt(std::size_t capacity);

  // Packet buffers taken from the heap since the manager was made.
  std::uint64_t allocations() const { return allocations_; }
  std::size_t pooled() const;

  PktManager() = default;
  PktManager(PktManager const&) = delete;
  PktManager& operator=(PktManager const&) = delete;
  ~PktManager();

 private:
  friend class Pkt;
  static unsigned sizeClass(std::size_t capacity);
  void release(Pkt* p);

  std::vector<std::vector<Pkt*>> free_;
  std::uint64_t allocations_ = 0;
};

}  // namespace Wirly
