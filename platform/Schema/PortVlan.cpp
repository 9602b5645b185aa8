#include "Schema/PortVlan.h"

#include <ostream>
#include <type_traits>

#include "Kiv/Exception.h"
#include "Kiv/Hash.h"
#include "Kiv/ValuePlain.h"
#include "Kiv/ValueText.h"

namespace MrouteLib {

static_assert(sizeof(PortVlan) == 16 && std::is_trivially_copyable_v<PortVlan>);

OutLif OutLif::fromStrep(std::string_view text) { return OutLif(Kiv::valueFromStrep<std::uint32_t>(text)); }

std::ostream& operator<<(std::ostream& os, OutLif l) { return os << l.value(); }

std::uint64_t PortVlan::hash() const {
  Kiv::HashAccumulator h;
  h.mix64(intfId_.value());
  h.mix64((std::uint64_t(kind_) << 32) | target_.value());
  return h.result();
}

std::string PortVlan::valueToStrep() const {
  return Kiv::ValueWriter("MrouteLib::PortVlan")
      .field("intfId", intfId_)
      .field("outLif", target_.value())
      .field("kind", std::string_view(kind_ == outLif ? "outLif" : "vlan"))
      .str();
}

PortVlan PortVlan::fromStrep(std::string_view text) {
  Kiv::ValueReader r(text, "MrouteLib::PortVlan");
  auto intf = r.get<Wirly::IntfId>("intfId");
  auto target = OutLif(r.get<std::uint32_t>("outLif"));
  auto kind = r.get<std::string>("kind");
  r.done();
  PortVlan pv;
  pv.intfId_ = intf;
  pv.target_ = target;
  if (kind == "outLif") {
    pv.kind_ = outLif;
  } else if (kind == "vlan") {
    pv.kind_ = vlan;
  } else {
    throw Kiv::ParseException("PortVlan kind '" + kind + "' is neither 'vlan' nor 'outLif'");
  }
  return pv;
}

std::ostream& operator<<(std::ostream& os, PortVlan const& pv) { return os << pv.target() << ':' << pv.intfId(); }

namespace {
// "Ethernet1 vlan 10" or "Ethernet1 outLif 70000"; in JSON the interface and
// either vlanId or outLif.
Kiv::PlainForm const portVlanPlainForm("MrouteLib::PortVlan", [](Kiv::ValueReader const& r) {
  Kiv::Plain const intf = Kiv::plainFromStrep(r.raw("intfId"));
  std::uint32_t const target = r.get<std::uint32_t>("outLif");
  std::string const kind = r.get<std::string>("kind") == "outLif" ? "outLif" : "vlanId";
  Kiv::Plain p = Kiv::Plain::object();
  p.field("intfId", intf).field(kind, Kiv::Plain::number(target));
  return p.textIs(intf.text() + (kind == "outLif" ? " outLif " : " vlan ") + std::to_string(target));
});
}  // namespace

}  // namespace MrouteLib
