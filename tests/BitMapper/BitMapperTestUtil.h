// A private shared-memory root and the bit mapper's three entities over a
// writer mount, for the bit mapper's tests.
#pragma once

#include <string>

#include "BitMapper/BitMapperSm.h"
#include "tests/Vorn/VornTestUtil.h"

namespace BitMapperTest {

inline BitMapper::BitMapperKey key(unsigned n) {
  return BitMapper::BitMapperKey(Wirly::IntfId("Ethernet" + std::to_string(n + 1)),
                                 Wirly::IpGenAddr::v4(0xe0000000u + n));
}

inline Kiv::Ptr<BitMapper::VornStatus> vornStatus(std::string const& path, Vorn::Status::Mode mode) {
  Kiv::Ptr<BitMapper::VornStatus> v = new BitMapper::VornStatus("bitmapper");
  v->mountIs(path, mode);
  return v;
}

class Allocator {
 public:
  Allocator(std::string const& path, std::uint32_t size, bool refCount, std::uint32_t minIndex = 0)
      : config(BitMapper::configFactory(size, refCount)),
        status(BitMapper::statusFactory()),
        vorn(vornStatus(path, Vorn::Status::Mode::writer)) {
    config->bitMapMinIndexIs(minIndex);
    sm = BitMapper::bitMapperSmFactory(config, status, vorn);
  }
  BitMapper::BitIndex alloc(BitMapper::BitMapperKey const& k) {
    config->allocRequestKeyIs(k);
    config->allocRequestCountInc(1);
    return status->bitIndex(k);
  }
  BitMapper::BitIndex dealloc(BitMapper::BitMapperKey const& k) {
    config->deallocRequestKeyIs(k);
    config->deallocRequestCountInc(1);
    return status->bitIndex(k);
  }
  std::vector<unsigned> pool() const {
    std::vector<unsigned> out;
    for (auto const& e : sm->bitIndexFreePool()) out.push_back(e.bitIndex.value());
    return out;
  }

  Kiv::Ptr<BitMapper::Config> config;
  Kiv::Ptr<BitMapper::Status> status;
  Kiv::Ptr<BitMapper::VornStatus> vorn;
  Kiv::Ptr<BitMapper::BitMapperSm> sm;
};

}  // namespace BitMapperTest
