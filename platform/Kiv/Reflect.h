// The generic attribute interface: every entity type lists its attributes
// and operations, in declaration order, so that tools and scripts reach them
// by name through the value text form without a command per type.
//
//   class Port : public Kiv::Entity {
//    public:
//     class NotifieeConst : public Kiv::NotifieeConstBase<Port> {
//      public:
//       virtual void onSpeed() {}
//     };
//     KIV_REFLECT_BEGIN(Port, "Ns::Port")                 // also defines typeName()
//     KIV_ATTR(std::uint32_t, speed, onSpeed, 0)          // speed(), speedIs(), hook, entry
//     KIV_REFLECT_SCALAR_RO(mtu)                          // an accessor written by hand
//     KIV_REFLECT_COLLECTION(vlan, vlans, vlanMap)        // vlan(k), vlanIs, vlanDel, vlans()
//     KIV_REFLECT_OPERATION(handleReset)
//     KIV_REFLECT_END
//   };
//
//   Kiv::attrGet(*port, "speed");            // "0"
//   Kiv::attrSet(*port, "speed", "100");     // through speedIs: notifies onSpeed
//   Kiv::attrInvoke(*port, "handleReset", "");
//
// An attribute is declared once, where it stands in the class: KIV_ATTR
// writes its storage, getter and notifying setter and its reflective entry;
// the KIV_REFLECT_* forms give an entry to accessors written by hand. The
// reflective order is the order of these lines in the class. A generated
// setter is the one a developer would write (compare, store, notify), so
// reflection costs typed callers nothing.
//
// Names derived from an entry, as a typed caller has them: a collection's
// "<name>DelAll" and a counter's "<name>Inc" / "<name>Dec" (one argument,
// the amount, 1 when omitted; wrapping at the counter's width) are
// operations by name too (attrInvoke), on entries that are writable.
//
// A type may mark one collection as its path collection
// (KIV_REFLECT_PATH_COLLECTION): a path segment that names no attribute of
// the entity is then read as a key of that collection, so a Kiv::Dir's
// entries are reached as /name without a special case.
//
// Errors from the text side (an unknown attribute, a set of a read-only
// one, malformed text, the wrong number of arguments) raise
// Kiv::RangeException or Kiv::ParseException with a message naming the
// type and the attribute; they never assert.
//
// The reflective interface writes through const entities (a table mounted
// read-only is still a const entity in the agent): it is an operator's tool,
// and the setters it calls keep every promise a typed caller gets.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "Kiv/Entity.h"
#include "Kiv/Exception.h"
#include "Kiv/Ptr.h"
#include "Kiv/ValueText.h"

namespace Kiv {

enum class AttrKind { scalar, pointer, collection, counter, operation };
std::string_view attrKindName(AttrKind kind);

// One reflective entry. Only the functions that fit the kind are set; a null
// setter means read-only.
struct Attr {
  std::string name;
  AttrKind kind = AttrKind::scalar;
  std::string valueType;  // the operation's signature for an operation
  std::string keyType;    // collections only
  bool writable = false;

  // scalar, pointer, counter
  std::string (*get)(Entity const&) = nullptr;
  void (*set)(Entity&, std::string_view) = nullptr;
  // pointer, and collections of entities: the entity held (may be null)
  Ptr<Entity> (*entity)(Entity const&) = nullptr;

  // collection; keys and values in the text form
  std::size_t (*count)(Entity const&) = nullptr;
  bool (*has)(Entity const&, std::string_view key) = nullptr;
  std::string (*lookup)(Entity const&, std::string_view key) = nullptr;
  Ptr<Entity> (*lookupEntity)(Entity const&, std::string_view key) = nullptr;
  void (*entryIs)(Entity&, std::string_view key, std::string_view value) = nullptr;
  void (*entryDel)(Entity&, std::string_view key) = nullptr;
  void (*forEach)(Entity const&,
                  std::function<void(std::string const& key, std::string const& value)> const&) = nullptr;

  // writable collections: removes every entry (the entity's own nDelAll
  // when it has one, else nDel for each key present)
  void (*entryDelAll)(Entity&) = nullptr;
  // writable counters: adds or subtracts the amount, wrapping
  void (*inc)(Entity&, std::string_view amount) = nullptr;
  void (*dec)(Entity&, std::string_view amount) = nullptr;
  // a path segment that names no attribute is a key of this collection
  bool pathKeys = false;

  // operation: arguments as a comma-separated list of text forms; the
  // result's text form, empty for void
  std::string (*invoke)(Entity&, std::string_view args) = nullptr;
};

class TypeInfo {
 public:
  TypeInfo(std::string_view typeName, std::vector<Attr> attrs);
  std::string_view typeName() const { return typeName_; }
  std::vector<Attr> const& attrs() const { return attrs_; }
  // Null when the type has no attribute of that name.
  Attr const* attr(std::string_view name) const;
  // The collection whose keys a path names directly, or null.
  Attr const* pathCollection() const;

 private:
  std::string typeName_;
  std::vector<Attr> attrs_;
};

// The entity's reflective description; throws RangeException for an entity
// type that declares none.
TypeInfo const& typeInfo(Entity const& e);
// The named attribute; throws RangeException naming type and attribute when
// absent or (with kind given) of another kind.
Attr const& attrOf(Entity const& e, std::string_view name);

std::string attrGet(Entity const& e, std::string_view name);
void attrSet(Entity const& e, std::string_view name, std::string_view text);
std::string attrInvoke(Entity const& e, std::string_view name, std::string_view args);
// Collections. attrLookup yields the absent value's text ("None", or the
// default value) for a missing key.
std::string attrLookup(Entity const& e, std::string_view name, std::string_view key);
bool attrHas(Entity const& e, std::string_view name, std::string_view key);
std::size_t attrCount(Entity const& e, std::string_view name);
void attrEntryIs(Entity const& e, std::string_view name, std::string_view key, std::string_view value);
void attrEntryDel(Entity const& e, std::string_view name, std::string_view key);
std::vector<std::pair<std::string, std::string>> attrEntries(Entity const& e, std::string_view name);
void attrDelAll(Entity const& e, std::string_view name);
// A counter moved by amount (its text form); returns the new value's text.
std::string attrInc(Entity const& e, std::string_view name, std::string_view amount);
std::string attrDec(Entity const& e, std::string_view name, std::string_view amount);
// The derived operation a name stands for ("vornPtrDelAll", "reviewsInc"):
// the attribute it belongs to and the suffix, or null when the name is no
// such operation of a writable entry.
struct DerivedOperation {
  Attr const* attr = nullptr;
  std::string_view suffix;  // "DelAll", "Inc" or "Dec"
};
DerivedOperation derivedOperation(Entity const& e, std::string_view name);

// Splits "a, 'b,c', Value('X', ** {'y': 1})" at its top-level commas.
std::vector<std::string> splitArgs(std::string_view args);

namespace ReflectDetail {
// A value type that holds a collection declares
// `static constexpr bool kivNoTextConstructor = true;` and is then refused
// (ParseException) by the reflective interface instead of reaching its
// fromStrep, which fails an assertion.
template <class T>
concept NoTextConstructor = requires {
  requires T::kivNoTextConstructor;
};
}  // namespace ReflectDetail

// A key as a path names it: its text form, or a bare word read as a string.
template <class K>
K keyFromPath(std::string_view text) {
  if constexpr (ReflectDetail::NoTextConstructor<K>) {
    throw ParseException("no text form to read a key from: " + std::string(text));
  } else {
    try {
      return valueFromStrep<K>(text);
    } catch (ParseException const&) {
      if constexpr (std::is_constructible_v<std::string, std::string_view>) {
        if (!text.empty() && text.front() != '\'') return valueFromStrep<K>(ValueTextDetail::quote(text));
      }
      throw;
    }
  }
}

// The name a value type is listed with: "U32", "bool", "string", or the
// type's own C++ name.
template <class T>
std::string valueTypeName();

namespace ReflectDetail {

std::string demangle(char const* mangled);

template <class T>
struct IsPtr : std::false_type {};
template <class T>
struct IsPtr<Ptr<T>> : std::true_type {
  using element = T;
};

template <class T>
concept Parsable =
    !NoTextConstructor<T> && (ValueTextDetail::HasTraitsFrom<T> || ValueTextDetail::HasMemberFrom<T> ||
                              std::is_arithmetic_v<T> || std::is_same_v<T, std::string> || std::is_same_v<T, Name>);

template <class T>
concept Printable = ValueTextDetail::HasTraitsTo<T> || ValueTextDetail::HasMemberTo<T> || std::is_arithmetic_v<T> ||
    std::is_same_v<T, Name> || std::is_convertible_v<T const&, std::string_view> ||
    ValueTextDetail::IsOptional<T>::value;

std::string entityText(Entity const* e);

// A counted pointer to an entity reads as the entity; one to another
// counted object (a reactor, a manager) as its address.
template <class V>
inline constexpr bool isEntityPtr = [] {
  if constexpr (IsPtr<V>::value)
    return std::is_base_of_v<Entity, std::remove_const_t<typename IsPtr<V>::element>>;
  else
    return false;
}();

// A plain back pointer to an owning entity (an Mroute's table): read as the
// entity and walked into, never written by name. Only scalar entries use
// this; keys that are pointers stay pointers.
template <class V>
inline constexpr bool isEntityRawPtr = [] {
  if constexpr (std::is_pointer_v<V>)
    return std::is_base_of_v<Entity, std::remove_cv_t<std::remove_pointer_t<V>>>;
  else
    return false;
}();

// Presence of a key in a map-like container whose find() gives either an
// iterator or a pointer to the value.
template <class M, class K>
bool contains(M const& m, K const& k) {
  if constexpr (std::is_pointer_v<decltype(m.find(k))>)
    return m.find(k) != nullptr;
  else
    return m.find(k) != m.end();
}

template <class V>
std::string text(V const& v) {
  if constexpr (isEntityPtr<V>) {
    return entityText(v.ptr());
  } else if constexpr (IsPtr<V>::value) {
    return valueToStrep(static_cast<void const*>(v.ptr()));
  } else {
    return valueToStrep(v);
  }
}

template <class V>
Ptr<Entity> entityOf(V const& v) {
  if constexpr (isEntityPtr<V>) {
    return Ptr<Entity>(const_cast<std::remove_const_t<typename IsPtr<V>::element>*>(v.ptr()));
  } else {
    return Ptr<Entity>();
  }
}

// An entity has no text form; the one pointer text reads is None, which
// pointer setters take as "remove".
void requireNone(std::string_view t);

template <class V>
V parse(std::string_view t) {
  if constexpr (IsPtr<V>::value) {
    requireNone(t);
    return V();
  } else if constexpr (Parsable<V>) {
    return valueFromStrep<V>(t);
  } else {
    throw ParseException("no text form to read a " + valueTypeName<V>() + " from");
  }
}

// An operation's argument: as a value is read, except that a pointer has no
// text form here (None would hand the operation a null it does not expect).
template <class V>
V parseArg(std::string_view t) {
  if constexpr (IsPtr<V>::value || std::is_pointer_v<V>) {
    throw ParseException("no text form to read a " + valueTypeName<V>() + " argument from: " + std::string(t));
  } else {
    return parse<V>(t);
  }
}

template <class Self>
Self& self(Entity& e) {
  return static_cast<Self&>(e);
}
template <class Self>
Self const& self(Entity const& e) {
  return static_cast<Self const&>(e);
}

}  // namespace ReflectDetail

template <class T>
std::string valueTypeName() {
  if constexpr (std::is_same_v<T, bool>)
    return "bool";
  else if constexpr (std::is_same_v<T, std::uint8_t>)
    return "U8";
  else if constexpr (std::is_same_v<T, std::uint16_t>)
    return "U16";
  else if constexpr (std::is_same_v<T, std::uint32_t>)
    return "U32";
  else if constexpr (std::is_same_v<T, std::uint64_t>)
    return "U64";
  else if constexpr (std::is_same_v<T, std::int32_t>)
    return "S32";
  else if constexpr (std::is_same_v<T, std::int64_t>)
    return "S64";
  else if constexpr (std::is_same_v<T, double>)
    return "double";
  else if constexpr (std::is_same_v<T, std::string>)
    return "string";
  else if constexpr (ReflectDetail::IsPtr<T>::value)
    return "Ptr<" + valueTypeName<std::remove_const_t<typename ReflectDetail::IsPtr<T>::element>>() + ">";
  else
    return ReflectDetail::demangle(typeid(T).name());
}

// Builders of entries; the KIV_REFLECT_* macros call them with captureless
// lambdas, which are default-constructible and so need no storage.
namespace Reflect {

template <class Self, class G, class S, class IncF = std::nullptr_t, class DecF = std::nullptr_t>
Attr scalar(std::string_view name, AttrKind kind, G, S, IncF = nullptr, DecF = nullptr) {
  using V = std::decay_t<std::invoke_result_t<G, Self const&>>;
  Attr a;
  a.name = name;
  bool const entityValued = ReflectDetail::isEntityPtr<V> || ReflectDetail::isEntityRawPtr<V>;
  a.kind = entityValued && kind == AttrKind::scalar ? AttrKind::pointer : kind;
  a.valueType = valueTypeName<V>();
  if constexpr (ReflectDetail::isEntityRawPtr<V>) {
    a.get = [](Entity const& e) { return ReflectDetail::entityText(G{}(ReflectDetail::self<Self>(e))); };
    a.entity = [](Entity const& e) {
      using E = std::remove_cv_t<std::remove_pointer_t<V>>;
      return Ptr<Entity>(const_cast<E*>(G{}(ReflectDetail::self<Self>(e))));
    };
  } else {
    a.get = [](Entity const& e) { return ReflectDetail::text<V>(G{}(ReflectDetail::self<Self>(e))); };
  }
  if constexpr (ReflectDetail::isEntityPtr<V>) {
    a.entity = [](Entity const& e) { return ReflectDetail::entityOf<V>(G{}(ReflectDetail::self<Self>(e))); };
  }
  if constexpr (!std::is_same_v<S, std::nullptr_t>) {
    a.writable = true;
    a.set = [](Entity& e, std::string_view t) { S{}(ReflectDetail::self<Self>(e), ReflectDetail::parse<V>(t)); };
  }
  if constexpr (!std::is_same_v<IncF, std::nullptr_t>) {
    a.inc = [](Entity& e, std::string_view t) { IncF{}(ReflectDetail::self<Self>(e), ReflectDetail::parse<V>(t)); };
  }
  if constexpr (!std::is_same_v<DecF, std::nullptr_t>) {
    a.dec = [](Entity& e, std::string_view t) { DecF{}(ReflectDetail::self<Self>(e), ReflectDetail::parse<V>(t)); };
  }
  return a;
}

// A keyed collection: get(self, key) yields the value (its absent value when
// missing), map(self) the container walked for iteration and presence.
template <class Self, class K, class Get, class Map, class Count, class SetF, class DelF,
          class DelAllF = std::nullptr_t>
Attr collection(std::string_view name, Get, Map, Count, SetF, DelF, DelAllF = nullptr) {
  using V = std::decay_t<std::invoke_result_t<Get, Self const&, K const&>>;
  Attr a;
  a.name = name;
  a.kind = AttrKind::collection;
  a.valueType = valueTypeName<V>();
  a.keyType = valueTypeName<K>();
  a.count = [](Entity const& e) -> std::size_t { return Count{}(ReflectDetail::self<Self>(e)); };
  a.lookup = [](Entity const& e, std::string_view k) {
    return ReflectDetail::text<V>(Get{}(ReflectDetail::self<Self>(e), keyFromPath<K>(k)));
  };
  if constexpr (ReflectDetail::isEntityPtr<V>) {
    a.lookupEntity = [](Entity const& e, std::string_view k) {
      return ReflectDetail::entityOf<V>(Get{}(ReflectDetail::self<Self>(e), keyFromPath<K>(k)));
    };
  }
  a.has = [](Entity const& e, std::string_view k) {
    return ReflectDetail::contains(Map{}(ReflectDetail::self<Self>(e)), keyFromPath<K>(k));
  };
  // Values are read through the getter, so a map that stores them in
  // another form (a reactor behind a Ptr) prints what n(key) returns.
  a.forEach = [](Entity const& e, std::function<void(std::string const&, std::string const&)> const& f) {
    Self const& s = ReflectDetail::self<Self>(e);
    for (auto const& entry : Map{}(s))
      f(ReflectDetail::text<K>(entry.first), ReflectDetail::text<V>(Get{}(s, entry.first)));
  };
  if constexpr (!std::is_same_v<SetF, std::nullptr_t>) {
    a.writable = true;
    a.entryIs = [](Entity& e, std::string_view k, std::string_view v) {
      SetF{}(ReflectDetail::self<Self>(e), keyFromPath<K>(k), ReflectDetail::parse<V>(v));
    };
  }
  if constexpr (!std::is_same_v<DelF, std::nullptr_t>) {
    a.entryDel = [](Entity& e, std::string_view k) { DelF{}(ReflectDetail::self<Self>(e), keyFromPath<K>(k)); };
    a.entryDelAll = [](Entity& e) {
      Self& s = ReflectDetail::self<Self>(e);
      if constexpr (!std::is_same_v<DelAllF, std::nullptr_t>) {
        if (DelAllF{}(s)) return;
      }
      // The keys first: each removal may change the container.
      std::vector<std::decay_t<K>> keys;
      for (auto const& entry : Map{}(s)) keys.push_back(entry.first);
      for (auto const& k : keys) DelF{}(s, k);
    };
  }
  return a;
}

// A Kiv::LinkQueue, keyed by sequence number. Each entry reads as the value
// "<Type>::Kiv<Name>" with the fields `index` and the payload's field name;
// an absent number reads None. nIs(index, payload) and nDel(index) edit it.
std::string queueEntryText(std::string_view typeName, std::string_view attr, std::string_view field,
                           std::uint32_t index, std::string const& payload);

template <class Self, class Names, class Queue, class SetF, class DelF>
Attr queue(Queue, SetF, DelF) {
  std::string_view const name = Names::attr();
  using Q = std::decay_t<std::invoke_result_t<Queue, Self const&>>;
  using P = typename Q::PayloadType;
  Attr a;
  a.name = name;
  a.kind = AttrKind::collection;
  a.valueType =
      std::string(Self::kivTypeName) + "::Kiv" + static_cast<char>(name[0] - 'a' + 'A') + std::string(name.substr(1));
  a.keyType = valueTypeName<std::uint32_t>();
  a.count = [](Entity const& e) -> std::size_t { return Queue{}(ReflectDetail::self<Self>(e)).entries(); };
  a.has = [](Entity const& e, std::string_view k) {
    return Queue{}(ReflectDetail::self<Self>(e)).entry(keyFromPath<std::uint32_t>(k)) != nullptr;
  };
  a.lookup = [](Entity const& e, std::string_view k) {
    auto const* entry = Queue{}(ReflectDetail::self<Self>(e)).entry(keyFromPath<std::uint32_t>(k));
    if (entry == nullptr) return std::string("None");
    return queueEntryText(Self::kivTypeName, Names::attr(), Names::field(), entry->index,
                          ReflectDetail::text<P>(Q::payloadOf(*entry)));
  };
  a.forEach = [](Entity const& e, std::function<void(std::string const&, std::string const&)> const& f) {
    for (auto const& entry : Queue{}(ReflectDetail::self<Self>(e)))
      f(valueToStrep(entry.index), queueEntryText(Self::kivTypeName, Names::attr(), Names::field(), entry.index,
                                                  ReflectDetail::text<P>(Q::payloadOf(entry))));
  };
  a.writable = true;
  a.entryIs = [](Entity& e, std::string_view k, std::string_view v) {
    SetF{}(ReflectDetail::self<Self>(e), keyFromPath<std::uint32_t>(k), ReflectDetail::parse<P>(v));
  };
  a.entryDel = [](Entity& e, std::string_view k) {
    DelF{}(ReflectDetail::self<Self>(e), keyFromPath<std::uint32_t>(k));
  };
  a.entryDelAll = [](Entity& e) {
    Self& s = ReflectDetail::self<Self>(e);
    std::vector<std::uint32_t> keys;
    for (auto const& entry : Queue{}(s)) keys.push_back(entry.index);
    for (std::uint32_t k : keys) DelF{}(s, k);
  };
  return a;
}

// Obj is the entity type, const for a query (isDirty) that is invoked the
// same way.
template <class Obj, auto Fn, class R, class... A>
struct OperationOf {
  static std::string invoke(Entity& e, std::string_view args) {
    std::vector<std::string> parts = splitArgs(args);
    if (parts.size() != sizeof...(A))
      throw RangeException(std::string(e.typeName()) + " operation takes " + std::to_string(sizeof...(A)) +
                           " argument(s), given " + std::to_string(parts.size()));
    return call(static_cast<Obj&>(e), parts, std::index_sequence_for<A...>{});
  }
  template <std::size_t... I>
  static std::string call(Obj& s, std::vector<std::string> const& parts, std::index_sequence<I...>) {
    if constexpr (std::is_void_v<R>) {
      (s.*Fn)(ReflectDetail::parseArg<std::decay_t<A>>(parts[I])...);
      return std::string();
    } else {
      return ReflectDetail::text<std::decay_t<R>>((s.*Fn)(ReflectDetail::parseArg<std::decay_t<A>>(parts[I])...));
    }
  }
  static std::string signature() {
    std::string s = "(";
    ((s += (s.size() > 1 ? ", " : "") + valueTypeName<std::decay_t<A>>()), ...);
    s += ")";
    if constexpr (!std::is_void_v<R>) s += " -> " + valueTypeName<std::decay_t<R>>();
    return s;
  }
};

template <class Self, auto Fn>
struct Operation;
template <class Self, class C, class R, class... A, R (C::*Fn)(A...)>
struct Operation<Self, Fn> : OperationOf<Self, Fn, R, A...> {};
template <class Self, class C, class R, class... A, R (C::*Fn)(A...) const>
struct Operation<Self, Fn> : OperationOf<Self const, Fn, R, A...> {};

template <class Self, auto Fn>
Attr operation(std::string_view name) {
  Attr a;
  a.name = name;
  a.kind = AttrKind::operation;
  a.valueType = Operation<Self, Fn>::signature();
  a.invoke = &Operation<Self, Fn>::invoke;
  return a;
}

// Slot N of a class's reflective list; unused slots stay empty.
template <int N>
struct Slot {};

struct Access {
  template <class Self, int... I>
  static std::vector<Attr> collect(std::integer_sequence<int, I...>) {
    std::vector<Attr> all{Self::kivAttr(Slot<I + 1>{})...};
    std::vector<Attr> used;
    for (Attr& a : all)
      if (!a.name.empty()) used.push_back(std::move(a));
    return used;
  }
  // A derived type lists its base's entries first, then its own.
  template <class Self>
  static std::vector<Attr> all() {
    std::vector<Attr> attrs;
    if constexpr (!std::is_void_v<typename Self::KivBase>) attrs = typeInfo<typename Self::KivBase>().attrs();
    for (Attr& a : collect<Self>(std::make_integer_sequence<int, Self::kivAttrEnd - Self::kivAttrBase - 1>{}))
      attrs.push_back(std::move(a));
    return attrs;
  }
  template <class Self>
  static TypeInfo const& typeInfo() {
    static TypeInfo const info(Self::kivTypeName, all<Self>());
    return info;
  }
};

}  // namespace Reflect
}  // namespace Kiv

// Opens a class's reflective list and defines its typeName().
#define KIV_REFLECT_BEGIN(Self, typeNameText) KIV_REFLECT_BEGIN_DERIVED(Self, void, typeNameText)
// The same for a class derived from a reflective Base, whose entries come
// first.
#define KIV_REFLECT_BEGIN_DERIVED(Self, Base, typeNameText)          \
 public:                                                             \
  using KivSelf = Self;                                              \
  using KivBase = Base;                                              \
  static constexpr std::string_view kivTypeName = typeNameText;      \
  std::string_view typeName() const override { return kivTypeName; } \
  friend struct ::Kiv::Reflect::Access;                              \
  static constexpr int kivAttrBase = __COUNTER__;                    \
  template <int N>                                                   \
  static ::Kiv::Attr kivAttr(::Kiv::Reflect::Slot<N>) {              \
    return ::Kiv::Attr();                                            \
  }

#define KIV_REFLECT_SLOT_ static ::Kiv::Attr kivAttr(::Kiv::Reflect::Slot<__COUNTER__ - kivAttrBase>)

// Closes the list; entries are those declared between BEGIN and END.
#define KIV_REFLECT_END                          \
 public:                                         \
  static constexpr int kivAttrEnd = __COUNTER__; \
  ::Kiv::TypeInfo const* kivTypeInfo() const override { return &::Kiv::Reflect::Access::typeInfo<KivSelf>(); }

#define KIV_REFLECT_SCALAR_KIND_(n, kind, ...)                                            \
  KIV_REFLECT_SLOT_ {                                                                     \
    return ::Kiv::Reflect::scalar<KivSelf>(                                               \
        #n, kind, [](KivSelf const& s) -> decltype(auto) { return s.n(); }, __VA_ARGS__); \
  }

// A counter's step by name: its own nInc / nDec when it has one, else the
// setter with the value moved (wrapping at the counter's width).
#define KIV_REFLECT_COUNTER_STEP_(n, Step, op)                         \
  [](auto& s, auto d) {                                                \
    if constexpr (requires { s.n##Step(d); }) {                        \
      s.n##Step(d);                                                    \
    } else {                                                           \
      s.n##Is(static_cast<std::decay_t<decltype(s.n())>>(s.n() op d)); \
    }                                                                  \
  }

// An attribute with a getter n() and a setter nIs(v).
#define KIV_REFLECT_SCALAR(n) \
  KIV_REFLECT_SCALAR_KIND_(n, ::Kiv::AttrKind::scalar, [](KivSelf& s, auto&& v) { s.n##Is(v); })
// An attribute with a getter only: a set through reflection is refused.
#define KIV_REFLECT_SCALAR_RO(n) KIV_REFLECT_SCALAR_KIND_(n, ::Kiv::AttrKind::scalar, nullptr)
#define KIV_REFLECT_COUNTER(n)                                                                                     \
  KIV_REFLECT_SCALAR_KIND_(                                                                                        \
      n, ::Kiv::AttrKind::counter, [](KivSelf& s, auto&& v) { s.n##Is(v); }, KIV_REFLECT_COUNTER_STEP_(n, Inc, +), \
      KIV_REFLECT_COUNTER_STEP_(n, Dec, -))
#define KIV_REFLECT_COUNTER_RO(n) KIV_REFLECT_SCALAR_KIND_(n, ::Kiv::AttrKind::counter, nullptr)

// A keyed collection with n(key), nIs(key, value) and nDel(key); countExpr
// and mapExpr are read on the entity (`vlans()`, `vlan_`): the count and a
// map-like container (find, iteration of pairs) for presence and walks.
#define KIV_REFLECT_COLLECTION(n, K, countExpr, mapExpr)                                 \
  KIV_REFLECT_COLLECTION_WITH_(                                                          \
      n, K, countExpr, mapExpr, [](KivSelf& s, K const& k, auto&& v) { s.n##Is(k, v); }, \
      [](KivSelf& s, K const& k) { s.n##Del(k); })
#define KIV_REFLECT_COLLECTION_RO(n, K, countExpr, mapExpr) \
  KIV_REFLECT_COLLECTION_WITH_(n, K, countExpr, mapExpr, nullptr, nullptr)
// A collection whose entries are made from the key alone (nIs(key)): the
// value given by name must be None.
#define KIV_REFLECT_COLLECTION_BY_KEY(n, K, countExpr, mapExpr)                     \
  KIV_REFLECT_COLLECTION_WITH_(                                                     \
      n, K, countExpr, mapExpr, [](KivSelf& s, K const& k, auto&&) { s.n##Is(k); }, \
      [](KivSelf& s, K const& k) { s.n##Del(k); })
#define KIV_REFLECT_COLLECTION_WITH_(n, K, countExpr, mapExpr, setF, delF)         \
  KIV_REFLECT_SLOT_ {                                                              \
    return ::Kiv::Reflect::collection<KivSelf, K>(                                 \
        #n, [](KivSelf const& s, K const& k) -> decltype(auto) { return s.n(k); }, \
        [](KivSelf const& s) -> decltype(auto) { return (s.mapExpr); },            \
        [](KivSelf const& s) -> std::size_t { return s.countExpr; }, setF, delF,   \
        [](auto& s) -> bool {                                                      \
          if constexpr (requires { s.n##DelAll(); }) {                             \
            s.n##DelAll();                                                         \
            return true;                                                           \
          } else {                                                                 \
            return false;                                                          \
          }                                                                        \
        });                                                                        \
  }

// A collection as KIV_REFLECT_COLLECTION_WITH_ gives it, whose keys a path
// names directly (see the header comment); the type has nDelAll().
#define KIV_REFLECT_PATH_COLLECTION(n, K, countExpr, mapExpr, setF, delF)          \
  KIV_REFLECT_SLOT_ {                                                              \
    ::Kiv::Attr a = ::Kiv::Reflect::collection<KivSelf, K>(                        \
        #n, [](KivSelf const& s, K const& k) -> decltype(auto) { return s.n(k); }, \
        [](KivSelf const& s) -> decltype(auto) { return (s.mapExpr); },            \
        [](KivSelf const& s) -> std::size_t { return s.countExpr; }, setF, delF,   \
        [](auto& s) -> bool {                                                      \
          s.n##DelAll();                                                           \
          return true;                                                             \
        });                                                                        \
    a.pathKeys = true;                                                             \
    return a;                                                                      \
  }

// An operation invocable by name; its arguments are read from text.
#define KIV_REFLECT_OPERATION(n) \
  KIV_REFLECT_SLOT_ { return ::Kiv::Reflect::operation<KivSelf, &KivSelf::n>(#n); }

// One overload of an overloaded operation, chosen by its member pointer
// type: KIV_REFLECT_OPERATION_SIG(handleFastdrop, void (KivSelf::*)()).
#define KIV_REFLECT_OPERATION_SIG(n, sig) \
  KIV_REFLECT_SLOT_ { return ::Kiv::Reflect::operation<KivSelf, static_cast<sig>(&KivSelf::n)>(#n); }

// A pointer attribute whose setter makes its value itself (nIs() with no
// argument) and whose deleter drops it: by name only None is written, and
// it removes, as for every pointer setter.
#define KIV_REFLECT_POINTER_DEL(n)                                                \
  KIV_REFLECT_SCALAR_KIND_(n, ::Kiv::AttrKind::scalar, [](KivSelf& s, auto&& v) { \
    if (!v) s.n##Del();                                                           \
  })

// A Kiv::LinkQueue returned by queueFn(), with nIs(index, payload) and
// nDel(index); payloadName names the payload in each entry's text form.
#define KIV_REFLECT_QUEUE(n, payloadName, queueFn)                                                               \
  KIV_REFLECT_SLOT_ {                                                                                            \
    struct Names {                                                                                               \
      static std::string_view attr() { return #n; }                                                              \
      static std::string_view field() { return #payloadName; }                                                   \
    };                                                                                                           \
    return ::Kiv::Reflect::queue<KivSelf, Names>([](KivSelf const& s) -> decltype(auto) { return s.queueFn(); }, \
                                                 [](KivSelf& s, std::uint32_t i, auto&& v) { s.n##Is(i, v); },   \
                                                 [](KivSelf& s, std::uint32_t i) { s.n##Del(i); });              \
  }

// A hand-built entry (a collection that is not a map, say): expr is an
// expression of type Kiv::Attr.
#define KIV_REFLECT_ENTRY(expr) \
  KIV_REFLECT_SLOT_ { return expr; }

// Declares a scalar attribute once: storage n_, getter n(), a setter nIs(v)
// that notifies NotifieeConst::hook on a real change, and its entry.
#define KIV_ATTR(T, n, hook, init)                             \
 public:                                                       \
  T const& n() const { return n##_; }                          \
  void n##Is(T const& v) {                                     \
    if (::Kiv::changed(n##_, v)) notify(&NotifieeConst::hook); \
  }                                                            \
  KIV_REFLECT_SCALAR(n)                                        \
                                                               \
 private:                                                      \
  T n##_ = init;                                               \
                                                               \
 public:
