#include "Kiv/ValuePlain.h"

#include <cctype>
#include <map>

#include "Kiv/Exception.h"
#include "Kiv/detail/ValueTextScanner.h"

namespace Kiv {

namespace {

std::map<std::string, PlainForm::Fn, std::less<>>& forms() {
  static std::map<std::string, PlainForm::Fn, std::less<>> m;
  return m;
}

using detail::ValueTextScanner;

// A recursive reader over one text form. A part it cannot read becomes a
// string of its text, up to the next delimiter of the enclosing form.
class Reader : public ValueTextScanner {
 public:
  explicit Reader(std::string_view t) : ValueTextScanner(t) {}

  Plain value() {
    skip();
    if (word("None")) return Plain::none();
    if (word("True")) return Plain::boolean(true);
    if (word("False")) return Plain::boolean(false);
    if (peek() == '\'') return Plain::string(quoted());
    if (at("Value(")) return valueForm();
    if (at("Entity(")) return entityForm();
    if (peek() == '[') return list();
    if (peek() == '{') return dict();
    return scalar();
  }

 private:
  Plain scalar() {
    std::string_view r = raw();
    if (r.empty()) throw ParseException("empty value");
    if (ValueTextScanner::isJsonNumber(r)) return Plain::number(std::string(r));
    return Plain::string(std::string(r));
  }
  Plain valueForm() {
    std::size_t const start = i_;
    try {
      i_ += 6;
      skip();
      if (peek() != '\'') throw ParseException("expected a type name");
      std::string const type = quoted();
      expect(',');
      expect('*');
      expect('*');
      expect('{');
      skip();
      Plain fields = Plain::object();
      while (peek() != '}') {
        if (peek() != '\'') throw ParseException("expected a field name");
        std::string name = quoted();
        expect(':');
        fields.field(std::move(name), value());
        skip();
        if (peek() == ',') ++i_;
        skip();
        if (i_ >= t_.size()) throw ParseException("unterminated value");
      }
      ++i_;
      expect(')');
      auto const& m = forms();
      if (auto it = m.find(type); it != m.end()) {
        try {
          return it->second(ValueReader(t_.substr(start, i_ - start), type));
        } catch (Exception const&) {
          // The generic reading below still shows every field.
        }
      }
      return fields;
    } catch (ParseException const&) {
      i_ = start;
      return Plain::string(std::string(raw()));
    }
  }
  Plain entityForm() {
    std::size_t const start = i_;
    try {
      i_ += 7;
      skip();
      if (peek() != '\'') throw ParseException("expected a type name");
      std::string type = quoted();
      expect(',');
      skip();
      if (peek() != '\'') throw ParseException("expected a name");
      std::string name = quoted();
      expect(')');
      return Plain::string(name.empty() ? type : name);
    } catch (ParseException const&) {
      i_ = start;
      return Plain::string(std::string(raw()));
    }
  }
  Plain list() {
    ++i_;
    Plain out = Plain::list();
    skip();
    while (peek() != ']') {
      if (i_ >= t_.size()) throw ParseException("unterminated list");
      out.add(value());
      skip();
      if (peek() == ',') ++i_;
      skip();
    }
    ++i_;
    return out;
  }
  Plain dict() {
    ++i_;
    Plain out = Plain::object();
    skip();
    while (peek() != '}') {
      if (i_ >= t_.size()) throw ParseException("unterminated dictionary");
      std::string key = plainFromStrep(raw()).text();
      expect(':');
      out.field(std::move(key), value());
      skip();
      if (peek() == ',') ++i_;
      skip();
    }
    ++i_;
    return out;
  }
};

}  // namespace

Plain& Plain::add(Plain v) {
  elements_.push_back(std::move(v));
  return *this;
}

Plain& Plain::field(std::string name, Plain v) {
  fields_.emplace_back(std::move(name), std::move(v));
  return *this;
}

Plain& Plain::textIs(std::string t) {
  text_ = std::move(t);
  hasText_ = true;
  return *this;
}

Plain const* Plain::find(std::string_view name) const {
  for (auto const& [n, v] : fields_)
    if (n == name) return &v;
  return nullptr;
}

std::string Plain::text() const {
  if (hasText_) return text_;
  switch (kind_) {
    case Kind::null:
      return "none";
    case Kind::boolean:
    case Kind::number:
    case Kind::string:
      return scalar_;
    case Kind::list: {
      std::string out = "[";
      for (std::size_t i = 0; i < elements_.size(); ++i) out += (i ? ", " : "") + elements_[i].text();
      return out + "]";
    }
    case Kind::object: {
      std::string out = "{";
      for (std::size_t i = 0; i < fields_.size(); ++i)
        out += (i ? ", " : "") + fields_[i].first + ": " + fields_[i].second.text();
      return out + "}";
    }
  }
  return scalar_;
}

std::string Plain::json() const {
  switch (kind_) {
    case Kind::null:
      return "null";
    case Kind::boolean:
      return scalar_;
    case Kind::number:
      return ValueTextScanner::isJsonNumber(scalar_) ? scalar_ : jsonString(scalar_);
    case Kind::string:
      return jsonString(scalar_);
    case Kind::list: {
      std::string out = "[";
      for (std::size_t i = 0; i < elements_.size(); ++i) out += (i ? ", " : "") + elements_[i].json();
      return out + "]";
    }
    case Kind::object: {
      std::string out = "{";
      for (std::size_t i = 0; i < fields_.size(); ++i)
        out += (i ? ", " : "") + jsonString(fields_[i].first) + ": " + fields_[i].second.json();
      return out + "}";
    }
  }
  return "null";
}

Plain plainFromStrep(std::string_view text) {
  try {
    Reader r(text);
    Plain out = r.value();
    if (r.done()) return out;
  } catch (ParseException const&) {
  }
  std::size_t b = 0, e = text.size();
  while (b < e && std::isspace(static_cast<unsigned char>(text[b]))) ++b;
  while (e > b && std::isspace(static_cast<unsigned char>(text[e - 1]))) --e;
  return Plain::string(std::string(text.substr(b, e - b)));
}

PlainForm::PlainForm(std::string_view typeName, Fn fn) { forms()[std::string(typeName)] = fn; }

}  // namespace Kiv
