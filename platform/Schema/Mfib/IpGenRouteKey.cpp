#include "Schema/Mfib/IpGenRouteKey.h"

#include "Kiv/Hash.h"
#include "Kiv/ValuePlain.h"
#include "Kiv/ValueText.h"
#include "Schema/Mfib/RoutePlain.h"

namespace Routing::Multicast::Fib {

IpGenRouteKey::IpGenRouteKey(std::string_view source, std::string_view group)
    : source_(Wirly::IpGenPrefix(source)), group_(Wirly::IpGenPrefix(group)) {}

std::uint64_t IpGenRouteKey::hash() const {
  Kiv::HashAccumulator h;
  h.mix64(Wirly::IpGenPrefixBase::hash(source_));
  h.mix64(Wirly::IpGenPrefixBase::hash(group_));
  return h.result();
}

std::string IpGenRouteKey::valueToStrep() const {
  Kiv::ValueWriter w("Routing::Multicast::Fib::IpGenRouteKey");
  w.fieldRaw("source", source_.valueToStrep()).fieldRaw("group", group_.valueToStrep());
  return w.str();
}

IpGenRouteKey IpGenRouteKey::fromStrep(std::string_view text) {
  Kiv::ValueReader r(text, "Routing::Multicast::Fib::IpGenRouteKey");
  IpGenRouteKey k(Wirly::IpGenPrefix::fromStrep(r.raw("source")), Wirly::IpGenPrefix::fromStrep(r.raw("group")));
  r.done();
  return k;
}

std::ostream& operator<<(std::ostream& os, IpGenRouteKey const& k) {
  return os << "(s: " << k.source() << " g: " << k.group() << ")";
}

namespace {

// "*" for any source, the bare address for a host prefix, else the prefix.
std::string sidePlain(Wirly::IpGenPrefix const& p) {
  if (p.len() == 0) return "*";
  unsigned const full = p.af() == Wirly::ipv6 ? 128 : 32;
  return p.len() == full ? p.address().str() : p.str();
}

Kiv::PlainForm const ipGenRouteKeyPlainForm("Routing::Multicast::Fib::IpGenRouteKey", [](Kiv::ValueReader const& r) {
  return routeKeyPlain(
      IpGenRouteKey(Wirly::IpGenPrefix::fromStrep(r.raw("source")), Wirly::IpGenPrefix::fromStrep(r.raw("group"))));
});

}  // namespace

Kiv::Plain routeKeyPlain(IpGenRouteKey const& k) {
  std::string const s = sidePlain(k.source()), g = sidePlain(k.group());
  Kiv::Plain p = Kiv::Plain::object();
  p.field("source", Kiv::Plain::string(s)).field("group", Kiv::Plain::string(g));
  p.textIs("(" + s + ", " + g + ")");
  return p;
}

}  // namespace Routing::Multicast::Fib
