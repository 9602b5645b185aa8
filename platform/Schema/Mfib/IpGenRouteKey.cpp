#include "Schema/Mfib/IpGenRouteKey.h"

#include "Kiv/Hash.h"
#include "Kiv/ValueText.h"

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

}  // namespace Routing::Multicast::Fib
