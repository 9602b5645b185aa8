#include "Wirly/Pkt.h"

#include <bit>
#include <cstring>

#include "Kiv/Assert.h"

namespace Wirly {

Pkt::Pkt(PktManager* manager, std::size_t capacity)
    : manager_(manager), buf_(new std::uint8_t[capacity]), capacity_(capacity) {}

void Pkt::onZeroReferences() const { manager_->release(const_cast<Pkt*>(this)); }

void Pkt::headDataIs(std::size_t n) {
  KIV_ASSERT(n <= capacity_);
  offset_ = 0;
  len_ = n;
}

void Pkt::headDataIs(void const* src, std::size_t n) {
  headDataIs(n);
  if (n) std::memcpy(buf_.get(), src, n);
}

void Pkt::trim(std::size_t n) {
  if (n < len_) len_ = n;
}

void Pkt::removeHead(std::size_t n) {
  KIV_ASSERT(n <= len_);
  offset_ += n;
  len_ -= n;
}

std::size_t Pkt::ipv4HeaderBytes() const {
  if (len_ == 0) return 0;
  return std::size_t(data()[0] & 0x0f) * 4;
}

PktManager& PktManager::global() {
  static PktManager* const theManager = new PktManager();
  return *theManager;
}

PktManager::~PktManager() {
  for (auto& list : free_)
    for (Pkt* p : list) delete p;
}

unsigned PktManager::sizeClass(std::size_t capacity) {
  std::size_t const c = capacity < minCapacity ? minCapacity : capacity;
  return unsigned(std::bit_width(std::bit_ceil(c) / minCapacity) - 1);
}

Kiv::Ptr<Pkt> PktManager::newPkt(std::size_t capacity) {
  if (capacity > maxCapacity) return nullptr;
  unsigned const cls = sizeClass(capacity);
  if (cls < free_.size() && !free_[cls].empty()) {
    Pkt* p = free_[cls].back();
    free_[cls].pop_back();
    p->offset_ = 0;
    p->len_ = 0;
    return Kiv::Ptr<Pkt>(p);
  }
  ++allocations_;
  return Kiv::Ptr<Pkt>(new Pkt(this, minCapacity << cls));
}

void PktManager::release(Pkt* p) {
  unsigned const cls = sizeClass(p->capacity_);
  if (free_.size() <= cls) free_.resize(cls + 1);
  if (free_[cls].size() >= poolLimit) {
    delete p;
    return;
  }
  free_[cls].push_back(p);
}

std::size_t PktManager::pooled() const {
  std::size_t n = 0;
  for (auto const& list : free_) n += list.size();
  return n;
}

}  // namespace Wirly
