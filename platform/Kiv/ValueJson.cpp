#include "Kiv/ValueJson.h"

#include <cctype>
#include <cstddef>

#include "Kiv/Exception.h"
#include "Kiv/ValueText.h"

namespace Kiv {

namespace {

// A recursive reader over one text; a form it cannot read is copied out as
// a string up to the next delimiter of the enclosing form.
class Converter {
 public:
  explicit Converter(std::string_view t) : t_(t) {}

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

  bool done() {
    skip();
    return i_ >= t_.size();
  }

 private:
  char peek() const { return i_ < t_.size() ? t_[i_] : '\0'; }
  bool at(std::string_view w) const { return t_.substr(i_, w.size()) == w; }
  void skip() {
    while (i_ < t_.size() && std::isspace(static_cast<unsigned char>(t_[i_]))) ++i_;
  }
  void expect(char c) {
    skip();
    if (peek() != c) throw ParseException(std::string("expected ") + c);
    ++i_;
  }
  // A bare word is only that word when a delimiter follows it.
  std::string word(std::string_view w, std::string_view json) {
    std::size_t const start = i_;
    i_ += w.size();
    if (delimiterAhead()) return std::string(json);
    i_ = start;
    return scalar();
  }
  bool delimiterAhead() {
    std::size_t j = i_;
    while (j < t_.size() && std::isspace(static_cast<unsigned char>(t_[j]))) ++j;
    return j >= t_.size() || t_[j] == ',' || t_[j] == ')' || t_[j] == ']' || t_[j] == '}' || t_[j] == ':';
  }
  std::string quoted() {
    std::size_t const start = i_++;
    while (i_ < t_.size() && t_[i_] != '\'') i_ += t_[i_] == '\\' ? 2 : 1;
    if (i_ >= t_.size()) throw ParseException("unterminated string");
    ++i_;
    return ValueTextDetail::unquote(t_.substr(start, i_ - start));
  }
  // Up to the next top-level delimiter, brackets and quotes respected.
  std::string_view raw() {
    std::size_t const start = i_;
    int depth = 0;
    while (i_ < t_.size()) {
      char c = t_[i_];
      if (c == '\'') {
        quoted();
        continue;
      }
      if (c == '(' || c == '[' || c == '{') ++depth;
      if (c == ')' || c == ']' || c == '}') {
        if (depth == 0) break;
        --depth;
      }
      if ((c == ',' || c == ':') && depth == 0) break;
      ++i_;
    }
    std::string_view r = t_.substr(start, i_ - start);
    while (!r.empty() && std::isspace(static_cast<unsigned char>(r.back()))) r.remove_suffix(1);
    return r;
  }
  std::string scalar() {
    std::string_view r = raw();
    if (r.empty()) throw ParseException("empty value");
    if (isNumber(r)) return std::string(r);
    return jsonString(r);
  }
  // JSON's own number grammar: what passes is copied as it stands.
  static bool isNumber(std::string_view r) {
    std::size_t i = 0;
    auto digits = [&] {
      std::size_t const s = i;
      while (i < r.size() && std::isdigit(static_cast<unsigned char>(r[i]))) ++i;
      return i > s;
    };
    if (i < r.size() && r[i] == '-') ++i;
    if (i < r.size() && r[i] == '0' && i + 1 < r.size() && std::isdigit(static_cast<unsigned char>(r[i + 1])))
      return false;
    if (!digits()) return false;
    if (i < r.size() && r[i] == '.') {
      ++i;
      if (!digits()) return false;
    }
    if (i < r.size() && (r[i] == 'e' || r[i] == 'E')) {
      ++i;
      if (i < r.size() && (r[i] == '+' || r[i] == '-')) ++i;
      if (!digits()) return false;
    }
    return i == r.size();
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

  std::string_view t_;
  std::size_t i_ = 0;
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
