// A small schema for tests, benchmarks and tools: "Vorn::TestStatus" with
// two tables, `entry` (a 32-byte key, a 200-byte record whose payload
// carries its own checksum, so a torn copy shows) and `peer` (a 16-bit key).
// It is also the model of how a schema declares a status.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string_view>
#include <tuple>

#include "Kiv/Entity.h"
#include "Kiv/Hash.h"
#include "Vorn/Registry.h"
#include "Vorn/Status.h"
#include "Vorn/Table.h"

namespace Vorn {

struct TestKey {
  std::uint64_t a = 0, b = 0, c = 0, d = 0;

  TestKey() = default;
  explicit TestKey(std::uint64_t n) : a(n >> 32), b(n), c(n * 0x9e3779b97f4a7c15ull), d(~n) {}
  // One multiply per word and one finaliser: cheap, and every bit of the
  // key reaches every bit of the hash.
  std::uint64_t hash() const {
    return Kiv::HashAccumulator::fmix(a * 0x9e3779b97f4a7c15ull ^ std::rotl(b * 0xc2b2ae3d27d4eb4full, 17) ^
                                      std::rotl(c * 0x165667b19e3779f9ull, 31) ^
                                      std::rotl(d * 0xd6e8feb86659fd93ull, 47));
  }
  friend bool operator==(TestKey const&, TestKey const&) = default;
  friend bool operator<(TestKey const& x, TestKey const& y) {
    return std::tie(x.a, x.b, x.c, x.d) < std::tie(y.a, y.b, y.c, y.d);
  }
  friend std::ostream& operator<<(std::ostream& os, TestKey const& k) {
    return os << "TestKey(" << ((k.a << 32) | (k.b & 0xffffffffu)) << ")";
  }
};
static_assert(sizeof(TestKey) == 32);

struct TestRecord {
  TestKey key;
  std::uint64_t version = 0;
  std::uint64_t payload[19] = {};
  std::uint64_t checksum = 0;

  TestRecord() = default;
  TestRecord(TestKey k, std::uint64_t v) : key(k), version(v) {
    for (unsigned i = 0; i < 19; ++i) payload[i] = (v + 1) * 0x100000001b3ull ^ (i * 0x9e3779b97f4a7c15ull) ^ k.b;
    checksum = sum();
  }
  std::uint64_t sum() const {
    Kiv::HashAccumulator h;
    h.mix(&key, sizeof key);
    h.mix64(version);
    h.mix(payload, sizeof payload);
    return h.result();
  }
  // True when the record is the one its writer built (not torn).
  bool whole() const { return checksum == sum(); }
  friend bool operator==(TestRecord const&, TestRecord const&) = default;
  friend std::ostream& operator<<(std::ostream& os, TestRecord const& r) {
    return os << "TestRecord(version " << r.version << (r.whole() ? "" : ", torn") << ")";
  }
};
static_assert(sizeof(TestRecord) == 200);

struct TestPeer {
  std::uint16_t index = 0;
  std::uint16_t flags = 0;
  std::uint32_t value = 0;
  friend bool operator==(TestPeer const&, TestPeer const&) = default;
  friend std::ostream& operator<<(std::ostream& os, TestPeer const& p) {
    return os << "TestPeer(" << p.index << ", " << p.value << ")";
  }
};

class TestStatus : public Status {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<TestStatus> {
   public:
    virtual void onEntry(TestKey const&) {}
    virtual void onPeer(std::uint16_t) {}
  };

  explicit TestStatus(Kiv::Name const& name = Kiv::Name()) : Status(name) {}
  std::string_view typeName() const override { return "Vorn::TestStatus"; }

  VORN_TABLE(TestStatus, entry, Entry, TestKey, TestRecord, &TestRecord::key, 1024)
  VORN_TABLE(TestStatus, peer, Peer, std::uint16_t, TestPeer, &TestPeer::index, 64)
};

inline StatusRegistrar<TestStatus> const testStatusRegistrar("Vorn::TestStatus");

}  // namespace Vorn
