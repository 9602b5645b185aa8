#include "Kiv/Reflect.h"

#include <cxxabi.h>

#include <cctype>
#include <cstdlib>
#include <memory>

namespace Kiv {

std::string_view attrKindName(AttrKind kind) {
  switch (kind) {
    case AttrKind::scalar:
      return "scalar";
    case AttrKind::pointer:
      return "pointer";
    case AttrKind::collection:
      return "collection";
    case AttrKind::counter:
      return "counter";
    case AttrKind::operation:
      return "operation";
  }
  return "unknown";
}

TypeInfo::TypeInfo(std::string_view typeName, std::vector<Attr> attrs)
    : typeName_(typeName), attrs_(std::move(attrs)) {}

Attr const* TypeInfo::attr(std::string_view name) const {
  for (Attr const& a : attrs_)
    if (a.name == name) return &a;
  return nullptr;
}

Attr const* TypeInfo::pathCollection() const {
  for (Attr const& a : attrs_)
    if (a.pathKeys) return &a;
  return nullptr;
}

TypeInfo const& typeInfo(Entity const& e) {
  TypeInfo const* info = e.kivTypeInfo();
  if (info == nullptr) throw RangeException(std::string(e.typeName()) + " has no reflective attributes");
  return *info;
}

Attr const& attrOf(Entity const& e, std::string_view name) {
  Attr const* a = typeInfo(e).attr(name);
  if (a == nullptr) throw RangeException(std::string(e.typeName()) + " has no attribute " + std::string(name));
  return *a;
}

namespace {

std::string what(Entity const& e, Attr const& a) { return std::string(e.typeName()) + "::" + a.name; }

Attr const& collectionOf(Entity const& e, std::string_view name) {
  Attr const& a = attrOf(e, name);
  if (a.kind != AttrKind::collection) throw RangeException(what(e, a) + " is not a collection");
  return a;
}

// The parse errors of the value text form name what was expected; say also
// which attribute was being written.
template <class F>
auto withContext(Entity const& e, Attr const& a, F&& f) {
  try {
    return f();
  } catch (ParseException const& ex) {
    throw ParseException(what(e, a) + ": " + ex.what());
  }
}

}  // namespace

std::string attrGet(Entity const& e, std::string_view name) {
  Attr const& a = attrOf(e, name);
  if (a.get == nullptr)
    throw RangeException(what(e, a) + " is a " + std::string(attrKindName(a.kind)) + ", not a value");
  return a.get(e);
}

void attrSet(Entity const& e, std::string_view name, std::string_view text) {
  Attr const& a = attrOf(e, name);
  if (a.get == nullptr)
    throw RangeException(what(e, a) + " is a " + std::string(attrKindName(a.kind)) + ", not a value");
  if (a.set == nullptr) throw RangeException(what(e, a) + " is read-only");
  withContext(e, a, [&] {
    a.set(const_cast<Entity&>(e), text);
    return 0;
  });
}

DerivedOperation derivedOperation(Entity const& e, std::string_view name) {
  TypeInfo const& info = typeInfo(e);
  for (std::string_view suffix : {std::string_view("DelAll"), std::string_view("Inc"), std::string_view("Dec")}) {
    if (name.size() <= suffix.size() || name.substr(name.size() - suffix.size()) != suffix) continue;
    Attr const* a = info.attr(name.substr(0, name.size() - suffix.size()));
    if (a == nullptr) continue;
    if (suffix == "DelAll" ? a->entryDelAll != nullptr : (suffix == "Inc" ? a->inc : a->dec) != nullptr)
      return {a, suffix};
  }
  return {};
}

std::string attrInvoke(Entity const& e, std::string_view name, std::string_view args) {
  if (typeInfo(e).attr(name) == nullptr) {
    // nDelAll, nInc, nDec: the entry's own edits, by name.
    DerivedOperation op = derivedOperation(e, name);
    if (op.attr != nullptr) {
      std::vector<std::string> parts = splitArgs(args);
      if (op.suffix == "DelAll") {
        if (!parts.empty())
          throw RangeException(std::string(name) + " takes 0 argument(s), given " + std::to_string(parts.size()));
        attrDelAll(e, op.attr->name);
        return std::string();
      }
      if (parts.size() > 1)
        throw RangeException(std::string(name) + " takes 0 or 1 argument(s), given " + std::to_string(parts.size()));
      std::string const amount = parts.empty() ? std::string("1") : parts[0];
      return op.suffix == "Inc" ? attrInc(e, op.attr->name, amount) : attrDec(e, op.attr->name, amount);
    }
  }
  Attr const& a = attrOf(e, name);
  if (a.invoke == nullptr) throw RangeException(what(e, a) + " is not an operation");
  return withContext(e, a, [&] { return a.invoke(const_cast<Entity&>(e), args); });
}

void attrDelAll(Entity const& e, std::string_view name) {
  Attr const& a = collectionOf(e, name);
  if (a.entryDelAll == nullptr) throw RangeException(what(e, a) + " is read-only");
  a.entryDelAll(const_cast<Entity&>(e));
}

namespace {

std::string counterStep(Entity const& e, std::string_view name, std::string_view amount, bool up) {
  Attr const& a = attrOf(e, name);
  if (a.kind != AttrKind::counter) throw RangeException(what(e, a) + " is not a counter");
  auto step = up ? a.inc : a.dec;
  if (step == nullptr) throw RangeException(what(e, a) + " is read-only");
  withContext(e, a, [&] {
    step(const_cast<Entity&>(e), amount);
    return 0;
  });
  return a.get(e);
}

}  // namespace

std::string attrInc(Entity const& e, std::string_view name, std::string_view amount) {
  return counterStep(e, name, amount, true);
}

std::string attrDec(Entity const& e, std::string_view name, std::string_view amount) {
  return counterStep(e, name, amount, false);
}

std::string attrLookup(Entity const& e, std::string_view name, std::string_view key) {
  Attr const& a = collectionOf(e, name);
  return withContext(e, a, [&] { return a.lookup(e, key); });
}

bool attrHas(Entity const& e, std::string_view name, std::string_view key) {
  Attr const& a = collectionOf(e, name);
  return withContext(e, a, [&] { return a.has(e, key); });
}

std::size_t attrCount(Entity const& e, std::string_view name) { return collectionOf(e, name).count(e); }

void attrEntryIs(Entity const& e, std::string_view name, std::string_view key, std::string_view value) {
  Attr const& a = collectionOf(e, name);
  if (a.entryIs == nullptr) throw RangeException(what(e, a) + " is read-only");
  withContext(e, a, [&] {
    a.entryIs(const_cast<Entity&>(e), key, value);
    return 0;
  });
}

void attrEntryDel(Entity const& e, std::string_view name, std::string_view key) {
  Attr const& a = collectionOf(e, name);
  if (a.entryDel == nullptr) throw RangeException(what(e, a) + " is read-only");
  withContext(e, a, [&] {
    a.entryDel(const_cast<Entity&>(e), key);
    return 0;
  });
}

std::vector<std::pair<std::string, std::string>> attrEntries(Entity const& e, std::string_view name) {
  Attr const& a = collectionOf(e, name);
  std::vector<std::pair<std::string, std::string>> out;
  a.forEach(e, [&](std::string const& k, std::string const& v) { out.emplace_back(k, v); });
  return out;
}

std::vector<std::string> splitArgs(std::string_view args) {
  std::vector<std::string> out;
  std::string cur;
  int depth = 0;
  bool quoted = false;
  bool any = false;
  auto flush = [&] {
    std::size_t b = cur.find_first_not_of(" \t\n");
    std::size_t e = cur.find_last_not_of(" \t\n");
    out.push_back(b == std::string::npos ? std::string() : cur.substr(b, e - b + 1));
    cur.clear();
  };
  for (std::size_t i = 0; i < args.size(); ++i) {
    char c = args[i];
    if (c != ' ' && c != '\t' && c != '\n') any = true;
    if (quoted) {
      cur += c;
      if (c == '\\' && i + 1 < args.size()) {
        cur += args[++i];
      } else if (c == '\'') {
        quoted = false;
      }
      continue;
    }
    if (c == '\'') quoted = true;
    if (c == '(' || c == '[' || c == '{') ++depth;
    if (c == ')' || c == ']' || c == '}') --depth;
    if (c == ',' && depth == 0) {
      flush();
      continue;
    }
    cur += c;
  }
  if (quoted || depth != 0) throw ParseException("unbalanced argument list: " + std::string(args));
  if (any) flush();
  return out;
}

namespace ReflectDetail {

std::string demangle(char const* mangled) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> d(abi::__cxa_demangle(mangled, nullptr, nullptr, &status), std::free);
  return status == 0 && d ? std::string(d.get()) : std::string(mangled);
}

void requireNone(std::string_view t) {
  std::size_t b = t.find_first_not_of(" \t\n");
  std::size_t e = t.find_last_not_of(" \t\n");
  if (b == std::string_view::npos || t.substr(b, e - b + 1) != "None")
    throw ParseException("an entity is not read from text; expected None, found " + std::string(t));
}

std::string entityText(Entity const* e) {
  if (e == nullptr) return "None";
  return "Entity(" + ValueTextDetail::quote(e->typeName()) + ", " + ValueTextDetail::quote(e->name().str()) + ")";
}

}  // namespace ReflectDetail
}  // namespace Kiv

namespace Kiv::Reflect {

std::string queueEntryText(std::string_view typeName, std::string_view attr, std::string_view field,
                           std::uint32_t index, std::string const& payload) {
  std::string entryType = std::string(typeName) + "::Kiv" + std::string(attr);
  entryType[typeName.size() + 5] =
      static_cast<char>(std::toupper(static_cast<unsigned char>(entryType[typeName.size() + 5])));
  ValueWriter w(entryType);
  w.field("index", index).fieldRaw(field, payload);
  return w.str();
}

}  // namespace Kiv::Reflect
