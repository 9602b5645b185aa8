// Kiv::detail::ValueTextScanner: the cursor, tokens and delimiters of the
// value text form (Value('Type', ** {...}), Entity(...), lists, dicts,
// quoted strings), shared by the readers that turn it into plain text and
// into JSON. A reader derives from it and adds what it builds.
#pragma once

#include <cctype>
#include <cstddef>
#include <string>
#include <string_view>

#include "Kiv/Exception.h"
#include "Kiv/ValueText.h"

namespace Kiv::detail {

class ValueTextScanner {
 public:
  // JSON's own number grammar: what passes may be written as a JSON number
  // as it stands; anything else is a string.
  static bool isJsonNumber(std::string_view r) {
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

  bool done() {
    skip();
    return i_ >= t_.size();
  }

 protected:
  explicit ValueTextScanner(std::string_view t) : t_(t) {}

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
  // The end, or a delimiter of the enclosing form, after white space.
  bool delimiterAhead() const {
    std::size_t j = i_;
    while (j < t_.size() && std::isspace(static_cast<unsigned char>(t_[j]))) ++j;
    return j >= t_.size() || t_[j] == ',' || t_[j] == ')' || t_[j] == ']' || t_[j] == '}' || t_[j] == ':';
  }
  // A bare word (None, True, ...) is only that word when a delimiter
  // follows it; then it is consumed.
  bool word(std::string_view w) {
    if (!at(w)) return false;
    i_ += w.size();
    if (delimiterAhead()) return true;
    i_ -= w.size();
    return false;
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

  std::string_view t_;
  std::size_t i_ = 0;
};

}  // namespace Kiv::detail
