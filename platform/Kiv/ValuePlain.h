// The plain form of a value: what an operator reads, beside the value text
// form (Kiv/ValueText.h) that programs write and read back. Tools and
// bindings show values in it; the text form stays available beside it.
//
//   Kiv::Plain p = Kiv::plainFromStrep("Value('Wirly::IpGenPrefix', ** {'prefix': '10.1.0.2/32'})");
//   p.text();   // 10.1.0.2/32
//   p.json();   // "10.1.0.2/32"
//   // a route key: text "(10.1.0.2, 239.1.1.1)", JSON {"source": "10.1.0.2", "group": "239.1.1.1"}
//
// A plain value is null, a boolean, a number, a string, a list or an object
// (named fields in order). In text, null is "none", booleans are true and
// false, strings stand without quotes, a list is "[a, b]" and an object
// "{name: value, ...}" unless the value names a shorter text of its own
// (textIs: a route key's "(S, G)"). In JSON each is its JSON kind, so
// addresses are strings, numbers are numbers and compound values objects.
//
// A value type that has a plain form of its own registers it under its type
// name, in the source file that writes its text form, from the fields of
// that text form:
//
//   Kiv::PlainForm const prefixPlain("Wirly::IpGenPrefix", [](Kiv::ValueReader const& r) {
//     return Kiv::Plain::string(r.get<std::string>("prefix"));
//   });
//
// Every other form reads as itself: a value with fields as an object of its
// fields, each read the same way; True/False, numbers, quoted strings, None,
// lists and dictionaries as their kinds; an entity as its name; and what
// does not read as any of these (an address printed bare, a pointer) as a
// string of its text. A registered form that refuses a text (any Kiv error)
// leaves it to that generic reading, so nothing is ever lost or thrown.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Kiv/ValueText.h"

namespace Kiv {

class Plain {
 public:
  enum class Kind { null, boolean, number, string, list, object };

  Plain() = default;
  static Plain none() { return Plain(); }
  static Plain boolean(bool b) { return Plain(Kind::boolean, b ? "true" : "false"); }
  // A number as its decimal text ("42", "-7", "0.25").
  static Plain number(std::string text) { return Plain(Kind::number, std::move(text)); }
  template <typename T>
  requires std::is_integral_v<T> &&(!std::is_same_v<T, bool>)static Plain number(T v) {
    return Plain(Kind::number, std::to_string(v));
  }
  static Plain string(std::string s) { return Plain(Kind::string, std::move(s)); }
  static Plain list() { return Plain(Kind::list, std::string()); }
  static Plain object() { return Plain(Kind::object, std::string()); }

  // Appends to a list; adds a field to an object (in order).
  Plain& add(Plain v);
  Plain& field(std::string name, Plain v);
  // The text a list or an object shows instead of its elements.
  Plain& textIs(std::string t);

  Kind kind() const { return kind_; }
  bool isNull() const { return kind_ == Kind::null; }
  // A scalar's text ("42", "true", the string itself); empty for the rest.
  std::string const& scalar() const { return scalar_; }
  std::vector<Plain> const& elements() const { return elements_; }
  std::vector<std::pair<std::string, Plain>> const& fields() const { return fields_; }
  // An object's field, or null when it has none of that name.
  Plain const* find(std::string_view name) const;

  std::string text() const;
  std::string json() const;

 private:
  Plain(Kind k, std::string s) : kind_(k), scalar_(std::move(s)) {}

  Kind kind_ = Kind::null;
  std::string scalar_;
  std::vector<Plain> elements_;
  std::vector<std::pair<std::string, Plain>> fields_;
  std::string text_;
  bool hasText_ = false;
};

// The plain form of any text form (see the header comment).
Plain plainFromStrep(std::string_view text);

// The plain form of a value, through its text form.
template <typename T>
Plain valueToPlain(T const& x) {
  return plainFromStrep(valueToStrep(x));
}

// Registers the plain form of the values whose text form is
// Value('<typeName>', ...). One registration per type name; the last one
// made wins.
class PlainForm {
 public:
  using Fn = Plain (*)(ValueReader const& fields);
  PlainForm(std::string_view typeName, Fn fn);
};

}  // namespace Kiv
