#include "Schema/BitMapper/BitMapperSchema.h"

#include <cstring>

#include "Kiv/Hash.h"
#include "Kiv/ValuePlain.h"
#include "Kiv/ValueText.h"

namespace BitMapper {

// Mixes the raw fields once: every allocation and release hashes the key
// several times, and hashing the fields' own hashes again cost a fifth of
// the allocator's time.
std::uint64_t BitMapperKey::hash() const {
  std::uint64_t words[2];
  std::memcpy(words, addr_.bytes(), sizeof words);
  Kiv::HashAccumulator h;
  h.mix64(intfId_.value());
  h.mix64(words[0] ^ addr_.af());
  h.mix64(words[1]);
  return h.result();
}

std::string BitIndex::valueToStrep() const { return Kiv::valueToStrep(value_); }

BitIndex BitIndex::fromStrep(std::string_view text) { return BitIndex(Kiv::valueFromStrep<std::uint16_t>(text)); }

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

namespace {
// "(Ethernet1, 239.0.0.1)"; in JSON {"intfId", "addr"}.
Kiv::PlainForm const keyPlainForm("BitMapper::BitMapperKey", [](Kiv::ValueReader const& r) {
  Kiv::Plain const intf = Kiv::plainFromStrep(r.raw("intfId"));
  Kiv::Plain const addr = Kiv::plainFromStrep(r.raw("addr"));
  Kiv::Plain p = Kiv::Plain::object();
  p.field("intfId", intf).field("addr", addr);
  return p.textIs("(" + intf.text() + ", " + addr.text() + ")");
});
}  // namespace

}  // namespace BitMapper
