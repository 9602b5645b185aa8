#include "BitMapper/BitMapperSchema.h"

#include "Kiv/Hash.h"
#include "Kiv/ValueText.h"

namespace BitMapper {

std::uint64_t BitMapperKey::hash() const {
  Kiv::HashAccumulator h;
  h.mix64(intfId_.hash());
  h.mix64(addr_.hash());
  return h.result();
}

std::string BitMapperKey::valueToStrep() const {
  Kiv::ValueWriter w("BitMapper::BitMapperKey");
  w.fieldRaw("intfId", intfId_.valueToStrep()).fieldRaw("addr", addr_.valueToStrep());
  return w.str();
}

BitMapperKey BitMapperKey::fromStrep(std::string_view text) {
  Kiv::ValueReader r(text, "BitMapper::BitMapperKey");
  BitMapperKey k(Wirly::IntfId::fromStrep(r.raw("intfId")), Wirly::IpGenAddr::fromStrep(r.raw("addr")));
  r.done();
  return k;
}

std::ostream& operator<<(std::ostream& os, BitMapperKey const& k) {
  return os << "(" << k.intfId() << ", " << k.addr() << ")";
}

std::string BitIndexMap::valueToStrep() const {
  Kiv::ValueWriter w("BitMapper::BitIndexMap");
  w.field("bitIndex", unsigned(bitIndex_.value()))
      .fieldRaw("bitMapperKey", bitMapperKey_.valueToStrep())
      .field("refCount", refCount_)
      .field("firstAlloc", firstAlloc_);
  return w.str();
}

std::ostream& operator<<(std::ostream& os, BitIndexMap const& r) {
  return os << "bitIndex " << r.bitIndex() << " key " << r.bitMapperKey() << " refCount " << r.refCount()
            << " firstAlloc " << (r.firstAlloc() ? "true" : "false");
}

std::string WaitlistMap::valueToStrep() const {
  Kiv::ValueWriter w("BitMapper::WaitlistMap");
  w.fieldRaw("bitMapperKey", bitMapperKey_.valueToStrep()).field("requestCount", requestCount_);
  return w.str();
}

std::ostream& operator<<(std::ostream& os, WaitlistMap const& r) {
  return os << "key " << r.bitMapperKey() << " requestCount " << r.requestCount();
}

}  // namespace BitMapper
