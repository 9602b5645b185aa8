// The bit mapper's shared schema: the values every process that reads a bit
// mapper table uses, and the shared-memory status "BitMapper::VornStatus"
// with its tables `bitIndexMap` (index -> the key holding it) and
// `waitlistMap` (key -> requests filed while it waits).
//
// A record equal to its default-constructed value means "no record": lookups
// of absent keys return it and callers test absence by comparing with it.
#pragma once

#include <compare>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

#include "Vorn/Registry.h"
#include "Vorn/Status.h"
#include "Vorn/Table.h"
#include "Vorn/TableReflect.h"
#include "Wirly/IntfId.h"
#include "Wirly/IpGenAddr.h"

namespace BitMapper {

// A bit index: 0..65533 are indices, 65534 marks a key that waits for one,
// 65535 (null) means none.
class BitIndex {
 public:
  constexpr BitIndex() = default;
  // Keeps the low 16 bits, as every comparison with a 32-bit bound does.
  constexpr explicit BitIndex(std::uint32_t v) : value_(static_cast<std::uint16_t>(v)) {}

  static constexpr BitIndex null() { return BitIndex(0xFFFF); }
  static constexpr BitIndex waitlist() { return BitIndex(0xFFFE); }

  constexpr std::uint16_t value() const { return value_; }
  constexpr bool isValid() const { return value_ < 0xFFFE; }
  std::uint64_t hash() const { return value_; }

  friend constexpr bool operator==(BitIndex, BitIndex) = default;
  friend constexpr auto operator<=>(BitIndex, BitIndex) = default;
  friend std::ostream& operator<<(std::ostream& os, BitIndex b) { return os << b.value_; }
  // The decimal number, as printed to a stream.
  std::string valueToStrep() const;
  static BitIndex fromStrep(std::string_view text);

 private:
  std::uint16_t value_ = 0xFFFF;
};

// The opaque key a client numbers: an interface and an address. The null key
// (empty interface, unspecified address) is never a valid request.
class BitMapperKey {
 public:
  BitMapperKey() = default;
  BitMapperKey(Wirly::IntfId intfId, Wirly::IpGenAddr const& addr) : intfId_(intfId), addr_(addr) {}

  Wirly::IntfId intfId() const { return intfId_; }
  Wirly::IpGenAddr const& addr() const { return addr_; }
  // Stable across processes: decides where the key sits in shared memory.
  std::uint64_t hash() const;

  std::string valueToStrep() const;
  static BitMapperKey fromStrep(std::string_view text);

  friend bool operator==(BitMapperKey const&, BitMapperKey const&) = default;
  friend std::strong_ordering operator<=>(BitMapperKey const& a, BitMapperKey const& b) {
    if (auto c = a.intfId_ <=> b.intfId_; c != 0) return c;
    return a.addr_ <=> b.addr_;
  }

 private:
  Wirly::IntfId intfId_;
  Wirly::IpGenAddr addr_;
};
std::ostream& operator<<(std::ostream& os, BitMapperKey const& k);

// One allocated index, keyed by the index.
class BitIndexMap {
 public:
  BitIndexMap() = default;
  BitIndexMap(BitIndex bitIndex, BitMapperKey const& key, std::uint32_t refCount, bool firstAlloc)
      : bitIndex_(bitIndex), bitMapperKey_(key), refCount_(refCount), firstAlloc_(firstAlloc) {}

  BitIndex bitIndex() const { return bitIndex_; }
  BitMapperKey const& bitMapperKey() const { return bitMapperKey_; }
  std::uint32_t refCount() const { return refCount_; }
  void refCountIs(std::uint32_t n) { refCount_ = n; }
  // False once the key had waited for the index, or asked for it again.
  bool firstAlloc() const { return firstAlloc_; }
  void firstAllocIs(bool b) { firstAlloc_ = b; }

  std::string valueToStrep() const;

  friend bool operator==(BitIndexMap const&, BitIndexMap const&) = default;

 private:
  BitIndex bitIndex_;
  BitMapperKey bitMapperKey_;
  std::uint32_t refCount_ = 0;
  bool firstAlloc_ = true;
};
std::ostream& operator<<(std::ostream& os, BitIndexMap const& r);

// One waiting key, keyed by the key.
class WaitlistMap {
 public:
  WaitlistMap() = default;
  WaitlistMap(BitMapperKey const& key, std::uint32_t requestCount) : bitMapperKey_(key), requestCount_(requestCount) {}

  BitMapperKey const& bitMapperKey() const { return bitMapperKey_; }
  // Allocation requests filed while waiting, less deallocations meanwhile.
  std::uint32_t requestCount() const { return requestCount_; }
  void requestCountIs(std::uint32_t n) { requestCount_ = n; }

  std::string valueToStrep() const;

  friend bool operator==(WaitlistMap const&, WaitlistMap const&) = default;

 private:
  BitMapperKey bitMapperKey_;
  std::uint32_t requestCount_ = 0;
};
std::ostream& operator<<(std::ostream& os, WaitlistMap const& r);

// The shared-memory status: written by the one process that allocates,
// read by any number of others.
class VornStatus : public Vorn::Status {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<VornStatus> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onBitIndexMap(BitIndex) {}
    virtual void onBitIndexMapkivImmediate(BitIndex) {}
    virtual void onBitIndexMap() {}
    virtual void onBitIndexMapControl() {}
    virtual void onWaitlistMap(BitMapperKey) {}
    virtual void onWaitlistMapkivImmediate(BitMapperKey) {}
    virtual void onWaitlistMap() {}
    virtual void onWaitlistMapControl() {}
  };
  // The mutable notifiee: the same hooks, and a notifier it may change.
  class Notifiee : public NotifieeConst {
   public:
    using NotifieeConst::NotifieeConst;
  };

  static constexpr char const* typeNameText = "BitMapper::VornStatus";
  static constexpr std::uint32_t bitIndexMapDefaultCapacity = 65536;
  static constexpr std::uint32_t waitlistMapDefaultCapacity = 4096;

  using BitIndexMapTable = Vorn::Table<BitIndex, BitIndexMap, &BitIndexMap::bitIndex>;
  using WaitlistMapTable = Vorn::Table<BitMapperKey, WaitlistMap, &WaitlistMap::bitMapperKey>;

  explicit VornStatus(Kiv::Name const& name = Kiv::Name()) : Vorn::Status(name) {}
  // By name: both tables, read-only.
  KIV_REFLECT_BEGIN(VornStatus, typeNameText)

  BitIndexMap bitIndexMap(BitIndex index) const { return bitIndexMap_.find(index); }
  void bitIndexMapIs(BitIndexMap const& r) { bitIndexMap_.is(r); }
  void bitIndexMapDel(BitIndex index) { bitIndexMap_.del(index); }
  BitIndexMapTable& bitIndexMapTable() { return bitIndexMap_; }
  BitIndexMapTable const& bitIndexMapTable() const { return bitIndexMap_; }
  VORN_REFLECT_TABLE(bitIndexMap)

  WaitlistMap waitlistMap(BitMapperKey const& key) const { return waitlistMap_.find(key); }
  void waitlistMapIs(WaitlistMap const& r) { waitlistMap_.is(r); }
  void waitlistMapDel(BitMapperKey const& key) { waitlistMap_.del(key); }
  WaitlistMapTable& waitlistMapTable() { return waitlistMap_; }
  WaitlistMapTable const& waitlistMapTable() const { return waitlistMap_; }
  VORN_REFLECT_TABLE(waitlistMap)
  KIV_REFLECT_END

 private:
  using IndexHook = void (NotifieeConst::*)(BitIndex);
  using KeyHook = void (NotifieeConst::*)(BitMapperKey);

  BitIndexMapTable bitIndexMap_{this, "bitIndexMap", bitIndexMapDefaultCapacity,
                                [this](BitIndex const& i) { notify(IndexHook(&NotifieeConst::onBitIndexMap), i); }};
  WaitlistMapTable waitlistMap_{this, "waitlistMap", waitlistMapDefaultCapacity,
                                [this](BitMapperKey const& k) { notify(KeyHook(&NotifieeConst::onWaitlistMap), k); }};
};

// Makes the status mountable by its type name in every process that links
// the schema.
inline Vorn::StatusRegistrar<VornStatus> const vornStatusRegistrar(VornStatus::typeNameText);

}  // namespace BitMapper
