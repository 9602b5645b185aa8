#include "Kiv/ValueJson.h"

#include <cctype>
#include <cstddef>

#include "Kiv/Exception.h"
#include "Kiv/ValueText.h"
#include "Kiv/detail/ValueTextScanner.h"

namespace Kiv {

namespace {

// A recursive reader over one text; a form it cannot read is copied out as
// a string up to the next delimiter of the enclosing form.
class Converter : public detail::ValueTextScanner {
 public:
  explicit Converter(std::string_view t) : ValueTextScanner(t) {}

  std::string value() {
    skip();
    if (at("None")) return word("None", "null");
    if (at("True")) return word("True", "true");
    if (at("False")) return word("False", "false");
    if (peek() == '\'') return jsonString(quoted());
    if (at("Value(")) return valueForm();
    if (at("Entity(")) return entityForm();
    if (peek() == '[') return list();
    if (peek() == '{') return dict();
    return scalar();
  }

 private:
  // A bare word is only that word when a delimiter follows it.
  std::string word(std::string_view w, std::string_view json) {
    if (ValueTextScanner::word(w)) return std::string(json);
    return scalar();
  }
  std::string scalar() {
    std::string_view r = raw();
    if (r.empty()) throw ParseException("empty value");
    if (isJsonNumber(r)) return std::string(r);
    return jsonString(r);
  }
  std::string valueForm() {
    std::size_t const start = i_;
    try {
      i_ += 6;
      skip();
      if (peek() != '\'') throw ParseException("expected a type name");
      std::string out = "{\"_type\": " + jsonString(quoted());
      expect(',');
      expect('*');
      expect('*');
      expect('{');
      skip();
      while (peek() != '}') {
        if (peek() != '\'') throw ParseException("expected a field name");
        std::string name = quoted();
        expect(':');
        out += ", " + jsonString(name) + ": " + value();
        skip();
        if (peek() == ',') ++i_;
        skip();
        if (i_ >= t_.size()) throw ParseException("unterminated value");
      }
      ++i_;
      expect(')');
      return out + "}";
    } catch (ParseException const&) {
      i_ = start;
      return jsonString(raw());
    }
  }
  std::string entityForm() {
    std::size_t const start = i_;
    try {
      i_ += 7;
      skip();
      if (peek() != '\'') throw ParseException("expected a type name");
      std::string out = "{\"_entity\": " + jsonString(quoted());
      expect(',');
      skip();
      if (peek() != '\'') throw ParseException("expected a name");
      out += ", \"_name\": " + jsonString(quoted());
      expect(')');
      return out + "}";
    } catch (ParseException const&) {
      i_ = start;
      return jsonString(raw());
    }
  }
  std::string list() {
    ++i_;
    std::string out = "[";
    skip();
    bool first = true;
    while (peek() != ']') {
      if (i_ >= t_.size()) throw ParseException("unterminated list");
      out += (first ? "" : ", ") + value();
      first = false;
      skip();
      if (peek() == ',') ++i_;
      skip();
    }
    ++i_;
    return out + "]";
  }
  std::string dict() {
    ++i_;
    std::string out = "{";
    skip();
    bool first = true;
    while (peek() != '}') {
      if (i_ >= t_.size()) throw ParseException("unterminated dictionary");
      std::string key = jsonKeyFromStrep(raw());
      expect(':');
      out += std::string(first ? "" : ", ") + jsonString(key) + ": " + value();
      first = false;
      skip();
      if (peek() == ',') ++i_;
      skip();
    }
    ++i_;
    return out + "}";
  }
};

}  // namespace

std::string jsonFromStrep(std::string_view text) {
  try {
    Converter c(text);
    std::string out = c.value();
    if (c.done()) return out;
  } catch (ParseException const&) {
  }
  std::size_t b = 0, e = text.size();
  while (b < e && std::isspace(static_cast<unsigned char>(text[b]))) ++b;
  while (e > b && std::isspace(static_cast<unsigned char>(text[e - 1]))) --e;
  return jsonString(text.substr(b, e - b));
}

std::string jsonKeyFromStrep(std::string_view text) {
  std::size_t b = 0, e = text.size();
  while (b < e && std::isspace(static_cast<unsigned char>(text[b]))) ++b;
  while (e > b && std::isspace(static_cast<unsigned char>(text[e - 1]))) --e;
  std::string_view t = text.substr(b, e - b);
  if (t.size() >= 2 && t.front() == '\'' && t.back() == '\'') {
    try {
      return ValueTextDetail::unquote(t);
    } catch (ParseException const&) {
    }
  }
  return std::string(t);
}

}  // namespace Kiv
