#include "Kiv/ValueText.h"

#include <charconv>
#include <cstdio>
#include <system_error>

namespace {

// What was found, for messages: short, and visibly empty when empty.
std::string shown(std::string_view t) {
  constexpr std::size_t maxShown = 40;
  if (t.empty()) return "nothing";
  std::string s = "\"";
  s.append(t.substr(0, maxShown));
  if (t.size() > maxShown) s += "...";
  s += '"';
  return s;
}

}  // namespace

namespace Kiv {
namespace ValueTextDetail {

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::string_view trim(std::string_view t) {
  while (!t.empty() && isBlank(t.front())) t.remove_prefix(1);
  while (!t.empty() && isBlank(t.back())) t.remove_suffix(1);
  return t;
}

}  // namespace

std::string quote(std::string_view s) {
  std::string out;
  out.reserve(s.size() + 2);
  out += '\'';
  for (char c : s) {
    if (c == '\'' || c == '\\') out += '\\';
    out += c;
  }
  out += '\'';
  return out;
}

std::string boolText(bool b) { return b ? "True" : "False"; }

std::string signedText(long long v) { return std::to_string(v); }

std::string unsignedText(unsigned long long v) { return std::to_string(v); }

std::string doubleText(double v) {
  char buf[64];
  auto res = std::to_chars(buf, buf + sizeof buf, v);
  std::string s(buf, res.ptr);
  // "1" would read back as an integer; keep doubles recognisable.
  if (s.find_first_of(".en") == std::string::npos) s += ".0";
  return s;
}

std::string pointerText(void const* p) {
  char buf[2 + 2 * sizeof(std::uintptr_t) + 1];
  std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(p)));
  return buf;
}

std::string unquote(std::string_view text) {
  std::string_view t = trim(text);
  if (t.size() < 2 || t.front() != '\'' || t.back() != '\'') {
    throw ParseException("expected a quoted string, found " + shown(t));
  }
  std::string out;
  out.reserve(t.size() - 2);
  for (std::size_t i = 1; i + 1 < t.size(); ++i) {
    char c = t[i];
    if (c == '\\') {
      if (i + 2 >= t.size()) throw ParseException("unterminated string " + shown(t));
      char e = t[++i];
      if (e != '\\' && e != '\'') {
        throw ParseException(std::string("unknown escape \\") + e + " in string " + shown(t));
      }
      out += e;
    } else if (c == '\'') {
      throw ParseException("unescaped quote inside string " + shown(t));
    } else {
      out += c;
    }
  }
  return out;
}

bool parseBool(std::string_view text) {
  std::string_view t = trim(text);
  if (t == "True") return true;
  if (t == "False") return false;
  throw ParseException("expected True or False, found " + shown(t));
}

long long parseSigned(std::string_view text, long long lo, long long hi) {
  std::string_view t = trim(text);
  long long v = 0;
  auto res = std::from_chars(t.data(), t.data() + t.size(), v);
  if (t.empty() || res.ptr != t.data() + t.size() ||
      (res.ec != std::errc() && res.ec != std::errc::result_out_of_range)) {
    throw ParseException("expected an integer, found " + shown(t));
  }
  if (res.ec == std::errc::result_out_of_range || v < lo || v > hi) {
    throw ParseException(std::string(t) + " is out of range " + std::to_string(lo) + ".." + std::to_string(hi));
  }
  return v;
}

unsigned long long parseUnsigned(std::string_view text, unsigned long long hi) {
  std::string_view t = trim(text);
  unsigned long long v = 0;
  auto res = std::from_chars(t.data(), t.data() + t.size(), v);
  if (t.empty() || res.ptr != t.data() + t.size() ||
      (res.ec != std::errc() && res.ec != std::errc::result_out_of_range)) {
    throw ParseException("expected an unsigned integer, found " + shown(t));
  }
  if (res.ec == std::errc::result_out_of_range || v > hi) {
    throw ParseException(std::string(t) + " is out of range 0.." + std::to_string(hi));
  }
  return v;
}

double parseDouble(std::string_view text) {
  std::string_view t = trim(text);
  double v = 0;
  auto res = std::from_chars(t.data(), t.data() + t.size(), v);
  if (t.empty() || res.ec != std::errc() || res.ptr != t.data() + t.size()) {
    throw ParseException("expected a number, found " + shown(t));
  }
  return v;
}

std::uintptr_t parsePointer(std::string_view text) {
  std::string_view t = trim(text);
  std::uintptr_t v = 0;
  if (t.size() > 2 && t[0] == '0' && t[1] == 'x') {
    auto res = std::from_chars(t.data() + 2, t.data() + t.size(), v, 16);
    if (res.ec == std::errc() && res.ptr == t.data() + t.size()) return v;
  }
  throw ParseException("expected a pointer (0x...), found " + shown(t));
}

}  // namespace ValueTextDetail

ValueWriter::ValueWriter(std::string_view typeName) : text_("Value(" + ValueTextDetail::quote(typeName) + ", ** {") {}

ValueWriter& ValueWriter::fieldRaw(std::string_view name, std::string_view text) {
  if (!first_) text_ += ", ";
  first_ = false;
  text_ += ValueTextDetail::quote(name);
  text_ += ": ";
  text_ += text;
  return *this;
}

namespace {

// Reads the outer form "Value('T', ** {'k': v, ...})". Values are only
// delimited here, not interpreted: strings and bracketed text are skipped as
// a whole so that commas and braces inside them do not end the value.
class OuterParser {
 public:
  OuterParser(std::string_view text, std::string const& context) : s_(text), context_(context) {}

  [[noreturn]] void fail(std::size_t at, std::string const& what) const {
    std::string near = at >= s_.size() ? std::string("end of text") : shown(s_.substr(at));
    throw ParseException(context_ + what + " at offset " + std::to_string(at) + " (at " + near + ")");
  }

  void skipBlanks() {
    while (pos_ < s_.size() && (s_[pos_] == ' ' || s_[pos_] == '\t' || s_[pos_] == '\n' || s_[pos_] == '\r')) {
      ++pos_;
    }
  }

  void expect(std::string_view token) {
    skipBlanks();
    if (s_.substr(pos_, token.size()) != token) fail(pos_, "expected '" + std::string(token) + "'");
    pos_ += token.size();
  }

  bool peekIs(char c) {
    skipBlanks();
    return pos_ < s_.size() && s_[pos_] == c;
  }

  // Returns the position just past the closing quote of the string at `at`.
  std::size_t stringEnd(std::size_t at) const {
    for (std::size_t i = at + 1; i < s_.size(); ++i) {
      if (s_[i] == '\\') {
        ++i;
      } else if (s_[i] == '\'') {
        return i + 1;
      }
    }
    fail(at, "unterminated string");
  }

  std::size_t balancedEnd(std::size_t at) const {
    std::string closers;
    for (std::size_t i = at; i < s_.size(); ++i) {
      char c = s_[i];
      if (c == '\'') {
        i = stringEnd(i) - 1;
      } else if (c == '(') {
        closers += ')';
      } else if (c == '[') {
        closers += ']';
      } else if (c == '{') {
        closers += '}';
      } else if (c == ')' || c == ']' || c == '}') {
        if (closers.back() != c) fail(i, std::string("mismatched '") + c + "'");
        closers.pop_back();
        if (closers.empty()) return i + 1;
      }
    }
    fail(at, std::string("unbalanced '") + s_[at] + "'");
  }

  std::string quotedString() {
    skipBlanks();
    if (pos_ >= s_.size() || s_[pos_] != '\'') fail(pos_, "expected a quoted name");
    std::size_t begin = pos_;
    pos_ = stringEnd(pos_);
    try {
      return ValueTextDetail::unquote(s_.substr(begin, pos_ - begin));
    } catch (ParseException const& e) {
      fail(begin, e.what());
    }
  }

  // Delimits one field value; returns its offset and length.
  std::pair<std::size_t, std::size_t> value() {
    skipBlanks();
    std::size_t begin = pos_;
    if (pos_ >= s_.size()) fail(pos_, "expected a value");
    char c = s_[pos_];
    if (c == '\'') {
      pos_ = stringEnd(pos_);
    } else if (c == '(' || c == '[' || c == '{') {
      pos_ = balancedEnd(pos_);
    } else {
      while (pos_ < s_.size()) {
        char d = s_[pos_];
        if (d == ',' || d == '}' || d == ']' || d == ')' || d == ' ' || d == '\t' || d == '\n' || d == '\r') {
          break;
        }
        if (d == '(') {  // a call such as Value(...)
          pos_ = balancedEnd(pos_);
          break;
        }
        if (d == '\'' || d == '[' || d == '{') fail(pos_, "unexpected '" + std::string(1, d) + "'");
        ++pos_;
      }
      if (pos_ == begin) fail(begin, "expected a value");
    }
    return {begin, pos_ - begin};
  }

  void atEnd() {
    skipBlanks();
    if (pos_ != s_.size()) fail(pos_, "trailing text after the value");
  }

  std::size_t pos() const { return pos_; }

 private:
  std::string_view s_;
  std::string const& context_;
  std::size_t pos_ = 0;
};

std::string contextFor(std::string_view typeName) {
  return typeName.empty() ? std::string("value text: ") : "value text of " + std::string(typeName) + ": ";
}

}  // namespace

ValueReader::ValueReader(std::string_view text, std::string_view typeName)
    : text_(text), expected_(typeName), typeName_(typeName) {
  std::string context = contextFor(typeName);
  OuterParser p(text_, context);
  p.expect("Value");
  p.expect("(");
  std::size_t typeAt = p.pos();
  std::string found = p.quotedString();
  if (!expected_.empty() && found != expected_) {
    p.fail(typeAt, "type is '" + found + "', not '" + expected_ + "'");
  }
  typeName_ = found;
  context = contextFor(typeName_);
  p.expect(",");
  p.expect("**");
  p.expect("{");
  if (!p.peekIs('}')) {
    for (;;) {
      p.skipBlanks();
      std::size_t nameAt = p.pos();
      std::string name = p.quotedString();
      if (find(name)) p.fail(nameAt, "duplicate field '" + name + "'");
      p.expect(":");
      auto [offset, length] = p.value();
      fields_.push_back(Field{std::move(name), offset, length});
      if (p.peekIs(',')) {
        p.expect(",");
        continue;
      }
      if (p.peekIs('}')) break;
      p.fail(p.pos(), "expected ',' or '}'");
    }
  }
  p.expect("}");
  p.expect(")");
  p.atEnd();
}

std::vector<std::string> ValueReader::fieldNames() const {
  std::vector<std::string> names;
  for (Field const& f : fields_) names.push_back(f.name);
  return names;
}

ValueReader::Field const* ValueReader::find(std::string_view name) const {
  for (Field const& f : fields_) {
    if (f.name == name) return &f;
  }
  return nullptr;
}

ValueReader::Field const& ValueReader::require(std::string_view name) const {
  Field const* f = find(name);
  if (!f) throw ParseException(contextFor(typeName_) + "missing field '" + std::string(name) + "'");
  f->read = true;
  return *f;
}

std::string ValueReader::where(Field const& f) const {
  return contextFor(typeName_) + "field '" + f.name + "' at offset " + std::to_string(f.offset) + ": ";
}

void ValueReader::done() const {
  for (Field const& f : fields_) {
    if (!f.read) {
      throw ParseException(contextFor(typeName_) + "unknown field '" + f.name + "' at offset " +
                           std::to_string(f.offset));
    }
  }
}

std::string jsonString(std::string_view s) {
  std::string out = "\"";
  for (char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
          out += buf;
        } else {
          out += c;
        }
    }
  }
  return out + "\"";
}

}  // namespace Kiv
