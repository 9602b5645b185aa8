// The value types: constructed from natural Python values (strings for
// names and addresses, ints for numbers), str() giving the plain form
// (10.1.0.2/32, Ethernet1, (10.1.0.2, 239.1.1.1)) and json() its typed JSON,
// repr() the value text form, from_text() reading that back where the type
// has a reader, ==, hash() over exactly what == compares, and < where the
// type is ordered.
#include <pybind11/operators.h>
#include <pybind11/stl.h>

#include <string>
#include <vector>

#include "Bind.h"
#include "Kiv/ValuePlain.h"
#include "Kiv/ValueText.h"
#include "Schema/BitMapper/BitMapperSchema.h"
#include "Schema/Mfib/IpGenRouteKey.h"
#include "Schema/Mfib/Route.h"
#include "Schema/PortVlan.h"
#include "Schema/VrfName.h"
#include "Wirly/AddressFamily.h"
#include "Wirly/IntfId.h"
#include "Wirly/IpGenAddr.h"
#include "Wirly/IpGenPrefix.h"

namespace MroutePython {

namespace {

using Routing::Multicast::Fib::IpGenRouteKey;
using Vorn::Multicast::Fib::OifIndex;
using Vorn::Multicast::Fib::OifIndexIntf;
using Vorn::Multicast::Fib::Route;
using Vorn::Multicast::Fib::RoutePriority;

// str() and json() the plain form, repr() the value text form.
template <class T, class... O>
py::class_<T, O...>& shown(py::class_<T, O...>& c) {
  c.def("__str__", [](T const& v) { return Kiv::valueToPlain(v).text(); });
  c.def(
      "json", [](T const& v) { return Kiv::valueToPlain(v).json(); },
      "The plain form as JSON text: strings for names and addresses, numbers, objects for compound values.");
  c.def("__repr__", [](T const& v) { return Kiv::valueToStrep(v); });
  return c;
}

// shown, ==, hash, and from_text where the type reads its text form.
template <class T, class... O>
py::class_<T, O...>& common(py::class_<T, O...>& c) {
  shown(c);
  // Strict: a str converts implicitly to several types but hashes as a str,
  // so it must not compare equal to one of them.
  c.def(
      "__eq__",
      [](T const& a, py::object const& b) -> py::object {
        if (!py::isinstance<T>(b)) return py::reinterpret_borrow<py::object>(Py_NotImplemented);
        return py::bool_(a == b.cast<T const&>());
      },
      py::is_operator());
  c.def(
      "__ne__",
      [](T const& a, py::object const& b) -> py::object {
        if (!py::isinstance<T>(b)) return py::reinterpret_borrow<py::object>(Py_NotImplemented);
        return py::bool_(!(a == b.cast<T const&>()));
      },
      py::is_operator());
  // Each type's hash() covers exactly what its == compares.
  c.def("__hash__", [](T const& v) { return static_cast<std::size_t>(v.hash()); });
  if constexpr (Kiv::ValueTextDetail::HasMemberFrom<T> || Kiv::ValueTextDetail::HasTraitsFrom<T>)
    c.def_static(
        "from_text", [](std::string_view t) { return Kiv::valueFromStrep<T>(t); }, py::arg("text"),
        "Reads the value text form; mroute.ParseError when it is malformed.");
  return c;
}

template <class T, class... O>
void ordered(py::class_<T, O...>& c) {
  c.def(
      "__lt__", [](T const& a, T const& b) { return a < b; }, py::is_operator());
  c.def(
      "__le__", [](T const& a, T const& b) { return !(b < a); }, py::is_operator());
  c.def(
      "__gt__", [](T const& a, T const& b) { return b < a; }, py::is_operator());
  c.def(
      "__ge__", [](T const& a, T const& b) { return !(a < b); }, py::is_operator());
}

std::vector<unsigned> oifsOf(Route const& r) {
  std::vector<unsigned> out;
  for (OifIndex i = r.firstOif(); !i.isEnd(); i = r.nextOif(i)) out.push_back(i.value());
  return out;
}

}  // namespace

std::string textOf(py::handle value) {
  if (value.is_none()) return "None";
  if (py::isinstance<py::bool_>(value)) return value.cast<bool>() ? "True" : "False";
  if (py::isinstance<py::str>(value)) return value.cast<std::string>();
  if (py::isinstance<py::int_>(value)) return py::str(value).cast<std::string>();
  if (py::isinstance<py::float_>(value)) return Kiv::valueToStrep(value.cast<double>());
  return py::repr(value).cast<std::string>();
}

void bindValues(py::module_& m) {
  py::enum_<Wirly::AddressFamily>(m, "AddressFamily", "Wirly::AddressFamily: ipUnknown 0, ipv4 1, ipv6 2.")
      .value("ipUnknown", Wirly::ipUnknown)
      .value("ipv4", Wirly::ipv4)
      .value("ipv6", Wirly::ipv6)
      .def_property_readonly("text", [](Wirly::AddressFamily af) { return Kiv::valueToStrep(af); })
      .def_static("from_text", [](std::string_view t) { return Kiv::valueFromStrep<Wirly::AddressFamily>(t); });

  py::class_<Wirly::IntfId> intfId(m, "IntfId", "An interface; IntfId() is no interface.");
  intfId.def(py::init<>())
      .def(py::init<std::string const&>(), py::arg("name"))
      .def_property_readonly("name", &Wirly::IntfId::name)
      .def("__bool__", [](Wirly::IntfId const& i) { return static_cast<bool>(i); });
  common(intfId);
  ordered(intfId);

  py::class_<Wirly::IpGenAddr> addr(m, "IpGenAddr", "An IPv4 or IPv6 address; IpGenAddr() is the empty one.");
  addr.def(py::init<>())
      .def(py::init<std::string const&>(), py::arg("text"))
      .def_property_readonly("af", &Wirly::IpGenAddr::af)
      .def_property_readonly("str", &Wirly::IpGenAddr::str, "'10.0.0.1', 'ff02::1'")
      .def_property_readonly("is_multicast", &Wirly::IpGenAddr::isMulticast)
      .def_property_readonly("is_unspecified", &Wirly::IpGenAddr::isUnspecified);
  common(addr);
  ordered(addr);

  py::class_<Wirly::IpGenPrefix> prefix(m, "IpGenPrefix", "A prefix: 'a.b.c.d/len', or an address and a length.");
  prefix.def(py::init<>())
      .def(py::init<std::string const&>(), py::arg("text"))
      .def(py::init<Wirly::IpGenAddr const&, unsigned>(), py::arg("address"), py::arg("len"))
      .def_property_readonly("address", [](Wirly::IpGenPrefix const& p) { return p.address(); })
      .def_property_readonly("len", [](Wirly::IpGenPrefix const& p) { return unsigned(p.len()); })
      .def_property_readonly("af", [](Wirly::IpGenPrefix const& p) { return p.af(); })
      .def_property_readonly("str", &Wirly::IpGenPrefix::str, "'10.0.0.0/8'")
      .def("contains", py::overload_cast<Wirly::IpGenAddr const&>(&Wirly::IpGenPrefix::contains, py::const_));
  common(prefix);
  ordered(prefix);

  py::class_<L3::VrfName> vrf(m, "VrfName", "A VRF's name, at most 100 bytes.");
  vrf.def(py::init<>()).def(py::init<std::string const&>(), py::arg("name"));
  vrf.def_property_readonly("name", &L3::VrfName::str);
  common(vrf);
  ordered(vrf);

  py::class_<IpGenRouteKey> key(m, "IpGenRouteKey",
                                "A route key: IpGenRouteKey('10.0.0.1', '239.1.1.1') (full-length prefixes) "
                                "or from two IpGenPrefix.");
  key.def(py::init<>())
      .def(py::init<Wirly::IpGenPrefix const&, Wirly::IpGenPrefix const&>(), py::arg("source"), py::arg("group"))
      .def(py::init([](std::string const& s, std::string const& g) { return IpGenRouteKey(s, g); }), py::arg("source"),
           py::arg("group"))
      .def_property_readonly("source", &IpGenRouteKey::source)
      .def_property_readonly("group", &IpGenRouteKey::group);
  common(key);
  ordered(key);

  py::class_<RoutePriority> prio(m, "RoutePriority", "A route's priority, 0..255; 0 never wins.");
  prio.def(py::init<>())
      .def(py::init([](unsigned v) {
             if (v > 255) throw Kiv::RangeException("RoutePriority " + std::to_string(v) + " > 255");
             return RoutePriority(static_cast<std::uint8_t>(v));
           }),
           py::arg("value"))
      .def_property_readonly("value", [](RoutePriority p) { return unsigned(p.value()); })
      .def("__int__", [](RoutePriority p) { return unsigned(p.value()); })
      .def("__str__", [](RoutePriority p) { return std::to_string(p.value()); })
      .def("__repr__", [](RoutePriority p) { return "RoutePriority(" + std::to_string(p.value()) + ")"; })
      .def(
          "__eq__", [](RoutePriority a, RoutePriority b) { return a == b; }, py::is_operator())
      .def("__hash__", [](RoutePriority p) { return std::size_t(p.value()); });
  ordered(prio);

  py::class_<OifIndex> oif(m, "OifIndex", "An outgoing-interface index, 0..511; 512 ends a set.");
  oif.def(py::init<>())
      .def(py::init([](unsigned v) {
             if (v > OifIndex::endValue) throw Kiv::RangeException("OifIndex " + std::to_string(v) + " > 512");
             return OifIndex(static_cast<std::uint16_t>(v));
           }),
           py::arg("value"))
      .def_property_readonly("value", &OifIndex::value)
      .def("__int__", &OifIndex::value)
      .def("__str__", [](OifIndex i) { return std::to_string(i.value()); })
      .def("__repr__", [](OifIndex i) { return "OifIndex(" + std::to_string(i.value()) + ")"; })
      .def(
          "__eq__", [](OifIndex a, OifIndex b) { return a == b; }, py::is_operator())
      .def("__hash__", [](OifIndex i) { return std::size_t(i.hash()); });
  ordered(oif);

  py::class_<OifIndexIntf>(m, "OifIndexIntf", "What an outgoing-interface index stands for.")
      .def(py::init<OifIndex, Wirly::IntfId>(), py::arg("oifIndex"), py::arg("intfId"))
      .def_property_readonly("oifIndex", [](OifIndexIntf const& e) { return e.oifIndex().value(); })
      .def_property_readonly("intfId", &OifIndexIntf::intfId)
      .def(
          "__eq__", [](OifIndexIntf const& a, OifIndexIntf const& b) { return a == b; }, py::is_operator())
      .def("__hash__", [](OifIndexIntf const& e) { return std::size_t(e.oifIndex().hash() * 31 + e.intfId().hash()); })
      .def("__repr__", [](OifIndexIntf const& e) {
        return "OifIndexIntf(" + std::to_string(e.oifIndex().value()) + ", " + e.intfId().name() + ")";
      });

  // A route as a table holds it: every field readable, none writable here
  // (the bindings never publish).
  py::class_<Route> route(m, "Route", "One application's multicast route, as read from its MFIB table.");
  route.def(py::init<IpGenRouteKey const&>(), py::arg("key"))
      .def_property_readonly("key", &Route::key)
      .def_property_readonly("specialIntf1", &Route::specialIntf1)
      .def_property_readonly("specialIntf2", &Route::specialIntf2)
      .def_property_readonly("specialIntf3", &Route::specialIntf3)
      .def_property_readonly("specialIntf4", &Route::specialIntf4)
      .def_property_readonly("flags", &Route::flags)
      .def_property_readonly("priority", &Route::priority)
      .def_property_readonly("version", &Route::version)
      .def_property_readonly("rpaIndex", [](Route const& r) { return r.rpaIndex().value(); })
      .def_property_readonly("oifs", &oifsOf, "The outgoing-interface indices, ascending.")
      .def_property_readonly("lastOif", [](Route const& r) { return r.lastOif().value(); })
      .def(
          "__eq__", [](Route const& a, Route const& b) { return a == b; }, py::is_operator())
      .def("__hash__", [](Route const& r) { return std::size_t(r.key().hash() ^ r.version()); });
  shown(route);

  py::class_<BitMapper::BitIndex> bitIndex(m, "BitIndex",
                                           "A bit index: 0..65533, 65534 (waitlist) while a key waits, 65535 null.");
  bitIndex.def(py::init<>())
      .def(py::init([](std::uint32_t v) {
             if (v > 0xFFFF) throw Kiv::RangeException("BitIndex " + std::to_string(v) + " > 65535");
             return BitMapper::BitIndex(v);
           }),
           py::arg("value"))
      .def_property_readonly("value", &BitMapper::BitIndex::value)
      .def_property_readonly("is_valid", &BitMapper::BitIndex::isValid)
      .def("__int__", &BitMapper::BitIndex::value)
      .def_static("null", &BitMapper::BitIndex::null)
      .def_static("waitlist", &BitMapper::BitIndex::waitlist);
  common(bitIndex);
  ordered(bitIndex);

  py::class_<BitMapper::BitMapperKey> bmKey(m, "BitMapperKey", "The key a bit index is numbered for.");
  bmKey.def(py::init<>())
      .def(py::init<Wirly::IntfId, Wirly::IpGenAddr const&>(), py::arg("intfId"), py::arg("addr"))
      .def(py::init([](std::string const& intf, std::string const& a) {
             return BitMapper::BitMapperKey(Wirly::IntfId(intf), Wirly::IpGenAddr(a));
           }),
           py::arg("intfId"), py::arg("addr"))
      .def_property_readonly("intfId", &BitMapper::BitMapperKey::intfId)
      .def_property_readonly("addr", &BitMapper::BitMapperKey::addr);
  common(bmKey);
  ordered(bmKey);

  py::class_<BitMapper::BitIndexMap> bim(m, "BitIndexMap", "A bit mapper table record: one index handed out.");
  bim.def_property_readonly("bitIndex", &BitMapper::BitIndexMap::bitIndex)
      .def_property_readonly("bitMapperKey", &BitMapper::BitIndexMap::bitMapperKey)
      .def_property_readonly("refCount", &BitMapper::BitIndexMap::refCount)
      .def_property_readonly("firstAlloc", &BitMapper::BitIndexMap::firstAlloc)
      .def(
          "__eq__", [](BitMapper::BitIndexMap const& a, BitMapper::BitIndexMap const& b) { return a == b; },
          py::is_operator())
      .def("__hash__", [](BitMapper::BitIndexMap const& r) { return std::size_t(r.bitMapperKey().hash()); });
  shown(bim);

  py::class_<BitMapper::WaitlistMap> wl(m, "WaitlistMap", "A bit mapper table record: one key waiting.");
  wl.def_property_readonly("bitMapperKey", &BitMapper::WaitlistMap::bitMapperKey)
      .def_property_readonly("requestCount", &BitMapper::WaitlistMap::requestCount)
      .def(
          "__eq__", [](BitMapper::WaitlistMap const& a, BitMapper::WaitlistMap const& b) { return a == b; },
          py::is_operator())
      .def("__hash__", [](BitMapper::WaitlistMap const& r) { return std::size_t(r.bitMapperKey().hash()); });
  shown(wl);

  py::class_<MrouteLib::PortVlan> portVlan(m, "PortVlan",
                                           "A replication target: an interface and a VLAN (or a logical "
                                           "interface, PortVlan.out_lif).");
  portVlan.def(py::init<>())
      .def(py::init([](Wirly::IntfId intf, int vlan) { return MrouteLib::PortVlan(intf, Bridging::VlanId(vlan)); }),
           py::arg("intfId"), py::arg("vlanId"))
      .def_static(
          "out_lif",
          [](Wirly::IntfId intf, std::uint32_t lif) { return MrouteLib::PortVlan(intf, MrouteLib::OutLif(lif)); },
          py::arg("intfId"), py::arg("lif"))
      .def_property_readonly("intfId", &MrouteLib::PortVlan::intfId)
      .def_property_readonly("is_out_lif", &MrouteLib::PortVlan::isOutLif)
      .def_property_readonly("target", [](MrouteLib::PortVlan const& p) { return p.target().value(); })
      .def_property_readonly("vlanId", [](MrouteLib::PortVlan const& p) { return p.vlanId().value(); });
  common(portVlan);
  ordered(portVlan);

  // Names and addresses given as str wherever a value is expected.
  py::implicitly_convertible<py::str, Wirly::IntfId>();
  py::implicitly_convertible<py::str, Wirly::IpGenAddr>();
  py::implicitly_convertible<py::str, Wirly::IpGenPrefix>();
  py::implicitly_convertible<py::str, L3::VrfName>();
  py::implicitly_convertible<py::int_, RoutePriority>();
  py::implicitly_convertible<py::int_, OifIndex>();
  py::implicitly_convertible<py::int_, BitMapper::BitIndex>();
}

}  // namespace MroutePython
