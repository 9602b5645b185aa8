#include "BitMapper/BitMapper.h"

namespace BitMapper {

namespace {
using KeyHook = void (Status::NotifieeConst::*)(BitMapperKey);
using AllHook = void (Status::NotifieeConst::*)();
}  // namespace

void Status::bitIndexIs(BitMapperKey const& key, BitIndex index) {
  auto [held, added] = bitIndex_.tryEmplace(key, index);
  if (!added && !Kiv::changed(*held, index)) return;
  notify(KeyHook(&NotifieeConst::onBitIndex), key);
}

BitIndex Status::bitIndexDel(BitMapperKey const& key) {
  std::optional<BitIndex> const old = bitIndex_.erase(key);
  if (!old) return BitIndex::null();
  notify(KeyHook(&NotifieeConst::onBitIndex), key);
  return *old;
}

void Status::bitIndexDelAll() {
  if (bitIndex_.empty()) return;
  bitIndex_.clear();
  notify(AllHook(&NotifieeConst::onBitIndex));
}

Kiv::Ptr<Config> configFactory(std::uint32_t bitMapSize, std::uint32_t enableRefCount) {
  return Config::ConfigIs(bitMapSize, static_cast<std::uint8_t>(enableRefCount) != 0);
}

Kiv::Ptr<Status> statusFactory() { return Status::StatusIs(); }

}  // namespace BitMapper
