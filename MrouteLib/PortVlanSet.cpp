#include "MrouteLib/PortVlanSet.h"

#include <ostream>
#include <sstream>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"

namespace MrouteLib {

// ---- ToCpuPurpose ----

void ToCpuPurpose::valueIs(U32 value) {
  if (value > 0x3) throw Kiv::RangeException("ToCpuPurpose::value > 0x3 not allowed");
  value_ = value;
}

std::string ToCpuPurpose::valueToStrep() const {
  return Kiv::ValueWriter("MrouteLib::ToCpuPurpose")
      .field("toCpuMcast", toCpuMcast())
      .field("toCpuVxlan", toCpuVxlan())
      .str();
}

ToCpuPurpose ToCpuPurpose::fromStrep(std::string_view text) {
  Kiv::ValueReader r(text, "MrouteLib::ToCpuPurpose");
  ToCpuPurpose p;
  p.toCpuMcastIs(r.get<bool>("toCpuMcast"));
  p.toCpuVxlanIs(r.get<bool>("toCpuVxlan"));
  r.done();
  p.valueIs(p.value_);
  return p;
}

// ---- LagOperation ----

std::string lagOperationName(LagOperation op) {
  switch (op) {
    case passLag:
      return "passLag";
    case expandLag:
      return "expandLag";
    case chooseLagMember:
      return "chooseLagMember";
  }
  return "LagOperation(" + std::to_string(unsigned(op)) + ")";
}

LagOperation lagOperationFromName(std::string_view name) {
  for (auto op : {passLag, expandLag, chooseLagMember}) {
    if (lagOperationName(op) == name) return op;
  }
  throw Kiv::ParseException("'" + std::string(name) + "' is not a LagOperation");
}

std::ostream& operator<<(std::ostream& os, LagOperation op) { return os << lagOperationName(op); }

// ---- PortVlanSet ----

namespace {

// The one-at-a-time byte hash; multi-byte values go in least significant
// byte first so that the result does not depend on the host's byte order.
class OneAtATime {
 public:
  void byte(U8 b) {
    h_ += b;
    h_ += h_ << 10;
    h_ ^= h_ >> 6;
  }
  void word(U64 v, int bytes) {
    for (int i = 0; i < bytes; ++i) byte(static_cast<U8>(v >> (8 * i)));
  }
  void portVlans(PortVlanSet::PortVlanMap const& m) {
    // The kind byte stays out: a VLAN and a logical interface with the same
    // number hash alike and are told apart by equality.
    for (auto const& [pv, flag] : m) {
      word(pv.intfId().value(), 8);
      word(pv.target().value(), 4);
    }
  }
  U32 finish() const {
    U32 h = h_;
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
  }

 private:
  U32 h_ = 0;
};

void printPortVlans(std::ostream& os, PortVlanSet::PortVlanMap const& m) {
  for (auto const& [pv, flag] : m) {
    os << (pv.isOutLif() ? " outLif " : " vlan ") << pv.target() << ':' << pv.intfId();
  }
}

}  // namespace

bool PortVlanSet::natVlan(Bridging::VlanId v) const {
  auto it = natVlan_.find(v);
  return it != natVlan_.end() && it->second;
}

U32 PortVlanSet::computeHash() const {
  OneAtATime h;
  h.portVlans(portVlan_);
  for (auto const& [v, flag] : natVlan_) h.word(v.value(), 2);
  h.word(acceptingVlanId_.value(), 2);
  h.word(currentIif_.value(), 8);
  h.portVlans(portVlanFrr_);
  return h.finish();
}

bool PortVlanSet::operator==(PortVlanSet const& o) const {
  if (hash() != o.hash()) return false;
  if (ignoreType_ != o.ignoreType_) return false;
  if (!ignoreType_ && type_ != o.type_) return false;
  bool const same = this == &o;
  if (!same && portVlan_ != o.portVlan_) return false;
  if (!(toCpuPurpose_ == o.toCpuPurpose_) || featureFlag_ != o.featureFlag_ || acceptingVlanId_ != o.acceptingVlanId_) {
    return false;
  }
  if (!same && natVlan_ != o.natVlan_) return false;
  if (fastdrop_ != o.fastdrop_ || currentIif_ != o.currentIif_) return false;
  return same || portVlanFrr_ == o.portVlanFrr_;
}

bool PortVlanSet::operator<(PortVlanSet const& o) const {
  if (portVlan_ != o.portVlan_) return portVlan_ < o.portVlan_;
  if (portVlanFrr_ != o.portVlanFrr_) return portVlanFrr_ < o.portVlanFrr_;
  if (toCpuPurpose_.value() != o.toCpuPurpose_.value()) return toCpuPurpose_.value() < o.toCpuPurpose_.value();
  if (featureFlag_ != o.featureFlag_) return featureFlag_ < o.featureFlag_;
  // type takes part even when ignoreType is set: equal sets may still order.
  if (type_ != o.type_) return type_ < o.type_;
  if (acceptingVlanId_ != o.acceptingVlanId_) return acceptingVlanId_ < o.acceptingVlanId_;
  if (natVlan_ != o.natVlan_) return natVlan_ < o.natVlan_;
  if (fastdrop_ != o.fastdrop_) return fastdrop_ < o.fastdrop_;
  if (currentIif_ != o.currentIif_) return currentIif_ < o.currentIif_;
  return ignoreType_ < o.ignoreType_;
}

std::string PortVlanSet::pretty() const {
  std::ostringstream os;
  os << portVlan_.size() << " PVs -";
  if (toCpu() || featureFlag_ != 0) {
    os << " (";
    if (toCpu()) os << "Cpu ";
    if (featureFlag_ != 0) os << "0x" << std::hex << featureFlag_ << std::dec;
    os << ")";
  }
  os << " acceptingVlanId: " << acceptingVlanId_ << " hash: " << hash();
  printPortVlans(os, portVlan_);
  if (!portVlanFrr_.empty()) {
    os << " currentIif: " << currentIif_;
    printPortVlans(os, portVlanFrr_);
  }
  return os.str();
}

std::string PortVlanSet::valueToStrep() const {
  return Kiv::ValueWriter("MrouteLib::PortVlanSet")
      .fieldNone("portVlan")
      .field("toCpuPurpose", toCpuPurpose_)
      .field("featureFlag", featureFlag_)
      .field("cachedHash", cachedHash_)
      .field("type", type_)
      .field("acceptingVlanId", acceptingVlanId_)
      .fieldNone("natVlan")
      .field("fastdrop", fastdrop_)
      .field("currentIif", currentIif_)
      .fieldNone("portVlanFrr")
      .field("ignoreType", ignoreType_)
      .str();
}

PortVlanSet PortVlanSet::fromStrep(std::string_view) {
  KIV_ASSERT(!"No String constructor for PortVlanSet - has collection");
  __builtin_unreachable();
}

std::ostream& operator<<(std::ostream& os, PortVlanSet const& s) { return os << s.pretty(); }

// ---- MrouteFailureReason ----

std::string MrouteFailureReason::logExplain() const {
  if (oifSetFailureHwFull()) return ": replication table is full";
  if (oifSetFailureMcastIdFull()) return ": multicast ids exhausted";
  if (routeFailureHwFull()) return ": tcam/lem is full";
  if (macTableFailureHwFull()) return ": mac table is full";
  return "";
}

std::string MrouteFailureReason::pretty() const {
  // The order is the one operators know from the logs: the vrfStatus text
  // comes before BadAddr, and the RPA bit prints nothing.
  static constexpr struct {
    U32 mask;
    char const* text;
  } texts[] = {
      {oifSetFailureHwFullMask, " MCDBFull"},
      {oifSetFailureNotMappedMask, " PortNotMapped"},
      {oifSetFailureNoFeCardMask, " NoFeCard"},
      {oifSetFailureMcastIdFullMask, " NoFreeMcastId"},
      {routeFailureHwFullMask, " NoSpaceInTcamOrLem"},
      {routeFailureNoRouteInfoMask, " NoRouteInfo"},
      {routeFailureVrfStatusNotInitedMask, " vrfStatus not initialized"},
      {routeFailureBadAddrMask, " BadAddr"},
      {macTableFailureHwFullMask, " NoMacTableSpace"},
      {macTableFailureNoRouteInfoMask, " NoRouteInfo"},
      {blockedMask, " BlockedTemporarily"},
      {timeoutMask, " TimedOut"},
      {notInitedMask, " NotInitialized"},
      {inProgressMask, " InProgress"},
  };
  std::string s;
  for (auto const& t : texts) {
    if (value_ & t.mask) s += t.text;
  }
  return s;
}

MrouteFailureReason MrouteFailureReason::fromStrep(std::string_view text) {
  if (text.find("Value(") == std::string_view::npos) {
    return MrouteFailureReason(Kiv::valueFromStrep<U32>(text));
  }
  Kiv::ValueReader r(text, "MrouteLib::MrouteFailureReason");
  MrouteFailureReason m(r.get<U32>("value"));
  r.done();
  return m;
}

}  // namespace MrouteLib
