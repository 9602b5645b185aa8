// The value text form: one printable, parsable form for every value type.
//
//   Value('Ns::Type', ** {'a': 1, 'b': True, 's': 'it\'s', 'n': None,
//                         'inner': Value('Ns::Inner', ** {'x': 2})})
//
// Booleans are True/False, strings are single-quoted with backslash escapes
// for ' and \ only, integers are decimal, doubles are the shortest text that
// reads back to the same double (always with a '.' or an exponent), raw
// pointers are hexadecimal ("0x7f00c0de"), an absent value is None, and a
// nested value is its own text form.
//
// Writing:
//   Kiv::ValueWriter w("Ns::Type");
//   w.field("a", 1).field("b", true).field("s", str).fieldRaw("inner", innerText);
//   std::string t = w.str();
//
// Reading (every error is a Kiv::ParseException saying what and where):
//   Kiv::ValueReader r(t, "Ns::Type");      // checks the form and the type name
//   int a = r.get<int>("a");                // missing field, wrong kind: throws
//   std::string inner = r.raw("inner");     // a nested value parses itself
//   r.done();                               // a field nobody read: throws
//
// Kiv::valueToStrep(x) and Kiv::valueFromStrep<T>(text) work for the scalars
// above, for std::string, Kiv::Name, std::optional<T> (None when empty) and
// raw pointers, and for any type that either
//   - has members `std::string valueToStrep() const` and
//     `static T fromStrep(std::string_view)`, or
//   - specialises Kiv::ValueText<T> with static `toStrep(T const&)` and
//     `fromStrep(std::string_view)` (for enumerations and foreign types).
// A type may offer only the writing half; reading it then does not compile.
#pragma once

#include <concepts>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "Kiv/Exception.h"
#include "Kiv/Name.h"

namespace Kiv {

// The customisation point. The primary template is empty on purpose.
template <typename T>
struct ValueText {};

namespace ValueTextDetail {

std::string quote(std::string_view s);
std::string boolText(bool b);
std::string signedText(long long v);
std::string unsignedText(unsigned long long v);
std::string doubleText(double v);
std::string pointerText(void const* p);

// Each parser takes the whole trimmed text of one value and throws
// ParseException naming what it expected and what it found.
std::string unquote(std::string_view text);
bool parseBool(std::string_view text);
long long parseSigned(std::string_view text, long long lo, long long hi);
unsigned long long parseUnsigned(std::string_view text, unsigned long long hi);
double parseDouble(std::string_view text);
std::uintptr_t parsePointer(std::string_view text);

template <typename T>
concept HasTraitsTo = requires(T const& x) {
  { ValueText<T>::toStrep(x) } -> std::convertible_to<std::string>;
};
template <typename T>
concept HasTraitsFrom = requires(std::string_view s) {
  { ValueText<T>::fromStrep(s) } -> std::convertible_to<T>;
};
template <typename T>
concept HasMemberTo = requires(T const& x) {
  { x.valueToStrep() } -> std::convertible_to<std::string>;
};
template <typename T>
concept HasMemberFrom = requires(std::string_view s) {
  { T::fromStrep(s) } -> std::convertible_to<T>;
};

template <typename T>
struct IsOptional : std::false_type {};
template <typename T>
struct IsOptional<std::optional<T>> : std::true_type {};

template <typename T>
inline constexpr bool alwaysFalse = false;

}  // namespace ValueTextDetail

// The text form of x. String-like arguments (std::string, string_view,
// string literals) print as quoted strings.
template <typename T>
std::string valueToStrep(T const& x) {
  using namespace ValueTextDetail;
  if constexpr (HasTraitsTo<T>) {
    return ValueText<T>::toStrep(x);
  } else if constexpr (HasMemberTo<T>) {
    return x.valueToStrep();
  } else if constexpr (std::is_same_v<T, bool>) {
    return boolText(x);
  } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
    return signedText(x);
  } else if constexpr (std::is_integral_v<T>) {
    return unsignedText(x);
  } else if constexpr (std::is_floating_point_v<T>) {
    return doubleText(static_cast<double>(x));
  } else if constexpr (std::is_same_v<T, Name>) {
    return quote(x.str());
  } else if constexpr (std::is_convertible_v<T const&, std::string_view>) {
    return quote(std::string_view(x));
  } else if constexpr (std::is_same_v<T, std::nullptr_t> || std::is_same_v<T, std::nullopt_t>) {
    return "None";
  } else if constexpr (IsOptional<T>::value) {
    return x ? valueToStrep(*x) : std::string("None");
  } else if constexpr (std::is_pointer_v<T>) {
    return pointerText(static_cast<void const*>(x));
  } else {
    static_assert(alwaysFalse<T>, "no value text form: add valueToStrep() or specialise Kiv::ValueText");
  }
}

// Reads the text form of one T (surrounding blanks allowed).
template <typename T>
T valueFromStrep(std::string_view text) {
  using namespace ValueTextDetail;
  if constexpr (HasTraitsFrom<T>) {
    return ValueText<T>::fromStrep(text);
  } else if constexpr (HasMemberFrom<T>) {
    return T::fromStrep(text);
  } else if constexpr (std::is_same_v<T, bool>) {
    return parseBool(text);
  } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
    return static_cast<T>(parseSigned(text, std::numeric_limits<T>::min(), std::numeric_limits<T>::max()));
  } else if constexpr (std::is_integral_v<T>) {
    return static_cast<T>(parseUnsigned(text, std::numeric_limits<T>::max()));
  } else if constexpr (std::is_floating_point_v<T>) {
    return static_cast<T>(parseDouble(text));
  } else if constexpr (std::is_same_v<T, std::string>) {
    return unquote(text);
  } else if constexpr (std::is_same_v<T, Name>) {
    return Name(unquote(text));
  } else if constexpr (IsOptional<T>::value) {
    std::string_view t = text;
    while (!t.empty() && (t.front() == ' ' || t.front() == '\t' || t.front() == '\n')) t.remove_prefix(1);
    while (!t.empty() && (t.back() == ' ' || t.back() == '\t' || t.back() == '\n')) t.remove_suffix(1);
    if (t == "None") return T();
    return T(valueFromStrep<typename T::value_type>(t));
  } else if constexpr (std::is_pointer_v<T>) {
    return reinterpret_cast<T>(parsePointer(text));
  } else {
    static_assert(alwaysFalse<T>, "no constructor from text: add fromStrep() or specialise Kiv::ValueText");
  }
}

class ValueWriter {
 public:
  explicit ValueWriter(std::string_view typeName);

  template <typename T>
  ValueWriter& field(std::string_view name, T const& value) {
    return fieldRaw(name, valueToStrep(value));
  }
  // Inserts text as it is: a nested value's own text form.
  ValueWriter& fieldRaw(std::string_view name, std::string_view text);
  ValueWriter& fieldNone(std::string_view name) { return fieldRaw(name, "None"); }

  std::string str() const { return text_ + "})"; }

 private:
  std::string text_;
  bool first_ = true;
};

class ValueReader {
 public:
  // Parses the outer form at once. An empty typeName accepts any type.
  ValueReader(std::string_view text, std::string_view typeName);

  std::string const& typeName() const { return typeName_; }
  bool has(std::string_view name) const { return find(name) != nullptr; }
  std::vector<std::string> fieldNames() const;

  // The field's text exactly as written (a nested value, a list, a scalar).
  std::string raw(std::string_view name) const { return std::string(textOf(require(name))); }
  bool isNone(std::string_view name) const { return textOf(require(name)) == "None"; }

  template <typename T>
  T get(std::string_view name) const {
    Field const& f = require(name);
    try {
      return valueFromStrep<T>(textOf(f));
    } catch (ParseException const& e) {
      throw ParseException(where(f) + e.what());
    }
  }

  // Throws naming the first field that no get/raw/isNone has read: the text
  // carries a field that this type does not know.
  void done() const;

 private:
  struct Field {
    std::string name;
    std::size_t offset;  // of the value's text in text_
    std::size_t length;
    mutable bool read = false;
  };
  std::string_view textOf(Field const& f) const { return std::string_view(text_).substr(f.offset, f.length); }
  Field const* find(std::string_view name) const;
  Field const& require(std::string_view name) const;
  std::string where(Field const& f) const;

  std::string text_;
  std::string expected_;
  std::string typeName_;
  std::vector<Field> fields_;
};

// A JSON string literal for s, quotes included (RFC 8259 escapes: quote,
// backslash, and control characters), for tools that print JSON.
std::string jsonString(std::string_view s);

}  // namespace Kiv
