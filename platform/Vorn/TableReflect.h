// The reflective face of a shared-memory table: a status lists each of its
// tables as a read-only collection, so that tools read records by key and
// walk a table in key order through the generic attribute interface.
//
//   class RouteStatus : public Vorn::Status {
//     KIV_REFLECT_BEGIN(RouteStatus, "Ns::RouteStatus")
//     RouteTable const& routeTable() const;
//     VORN_REFLECT_TABLE(route)            // reads routeTable()
//     KIV_REFLECT_END
//   };
//   Kiv::attrLookup(*status, "route", "<key text>");   // the record, or R()'s text on a miss
//
// Nothing is written through it: the process that mounted the table for
// writing owns every record. A record that the table cannot give intact
// raises the table's corruption exception, which the caller (the
// introspection server) reports as an error.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>

#include "Kiv/Reflect.h"
#include "Vorn/Table.h"

namespace Vorn::Reflect {

template <class Self, class TableFn>
Kiv::Attr table(std::string_view name, TableFn) {
  using Q = std::decay_t<std::invoke_result_t<TableFn, Self const&>>;
  using K = typename Q::Key;
  using R = typename Q::Record;
  Kiv::Attr a;
  a.name = name;
  a.kind = Kiv::AttrKind::collection;
  a.valueType = Kiv::valueTypeName<R>();
  a.keyType = Kiv::valueTypeName<K>();
  a.count = [](Kiv::Entity const& e) -> std::size_t {
    Q const& t = TableFn{}(Kiv::ReflectDetail::self<Self>(e));
    return t.mounted() ? t.size() : 0;
  };
  a.has = [](Kiv::Entity const& e, std::string_view k) {
    Q const& t = TableFn{}(Kiv::ReflectDetail::self<Self>(e));
    return t.mounted() && t.contains(Kiv::keyFromPath<K>(k));
  };
  a.lookup = [](Kiv::Entity const& e, std::string_view k) {
    Q const& t = TableFn{}(Kiv::ReflectDetail::self<Self>(e));
    K const key = Kiv::keyFromPath<K>(k);
    return Kiv::ReflectDetail::text<R>(t.mounted() ? t.find(key) : R());
  };
  a.forEach = [](Kiv::Entity const& e, std::function<void(std::string const&, std::string const&)> const& f) {
    Q const& t = TableFn{}(Kiv::ReflectDetail::self<Self>(e));
    if (!t.mounted()) return;
    K key{};
    R rec{};
    IterHint hint;
    for (bool ok = t.first(key, rec, hint); ok; ok = t.next(key, key, rec, hint))
      f(Kiv::ReflectDetail::text<K>(key), Kiv::ReflectDetail::text<R>(rec));
  };
  return a;
}

}  // namespace Vorn::Reflect

// The table that nTable() returns, as the read-only collection n.
#define VORN_REFLECT_TABLE(n)                                                                                      \
  KIV_REFLECT_SLOT_ {                                                                                              \
    return ::Vorn::Reflect::table<KivSelf>(#n, [](KivSelf const& s) -> decltype(auto) { return (s.n##Table()); }); \
  }
