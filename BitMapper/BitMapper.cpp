#include "BitMapper/BitMapper.h"

namespace BitMapper {

namespace {
using KeyHook = void (Status::NotifieeConst::*)(BitMapperKey);
using AllHook = void (Status::NotifieeConst::*)();
}  // namespace

void Status::bitIndexIs(BitMapperKey const& key, BitIndex index) {
  auto [it, added] = bitIndex_.try_emplace(key, index);
  if (!added && !Kiv::changed(it->second, index)) return;
  notify(KeyHook(&NotifieeConst::onBitIndex), key);
}

BitIndex Status::bitIndexDel(BitMapperKey const& key) {
  auto it = bitIndex_.find(key);
  if (it == bitIndex_.end()) return BitIndex::null();
  BitIndex old = it->second;
  bitIndex_.erase(it);
  notify(KeyHook(&NotifieeConst::onBitIndex), key);
  return old;
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
