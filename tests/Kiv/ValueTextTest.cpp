#include "Kiv/ValueText.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

using Kiv::ParseException;
using Kiv::ValueReader;
using Kiv::ValueWriter;

struct Inner {
  int x = 0;
  std::string valueToStrep() const { return ValueWriter("Ns::Inner").field("x", x).str(); }
  static Inner fromStrep(std::string_view text) {
    ValueReader r(text, "Ns::Inner");
    Inner i;
    i.x = r.get<int>("x");
    r.done();
    return i;
  }
};

enum class Colour { red, green };

}  // namespace

template <>
struct Kiv::ValueText<Colour> {
  static std::string toStrep(Colour c) { return c == Colour::red ? "'red'" : "'green'"; }
  static Colour fromStrep(std::string_view t) {
    std::string s = valueFromStrep<std::string>(t);
    if (s == "red") return Colour::red;
    if (s == "green") return Colour::green;
    throw ParseException("unknown Colour " + s);
  }
};

namespace {

// The message of the ParseException that f throws, or "" when none is thrown.
template <typename F>
std::string parseError(F f) {
  try {
    f();
  } catch (ParseException const& e) {
    return e.what();
  }
  return "";
}

TEST(ValueTextTest, WritesTheCanonicalForm) {
  Inner inner{2};
  std::string t = ValueWriter("Ns::Type")
                      .field("a", 1)
                      .field("b", true)
                      .field("s", "text")
                      .fieldNone("n")
                      .field("inner", inner)
                      .str();
  EXPECT_EQ(t,
            "Value('Ns::Type', ** {'a': 1, 'b': True, 's': 'text', 'n': None, "
            "'inner': Value('Ns::Inner', ** {'x': 2})})");
  EXPECT_EQ(ValueWriter("Ns::Empty").str(), "Value('Ns::Empty', ** {})");
}

TEST(ValueTextTest, EveryFieldKindRoundTrips) {
  std::string const tricky = "it's a \\ path, with }) and {'x': 1}";
  std::optional<int> none;
  std::optional<int> some = -7;
  int probe = 0;
  std::string t = ValueWriter("Ns::Type")
                      .field("i8", std::int8_t(-128))
                      .field("u64", std::numeric_limits<std::uint64_t>::max())
                      .field("i64", std::numeric_limits<std::int64_t>::min())
                      .field("t", true)
                      .field("f", false)
                      .field("d", 0.1)
                      .field("whole", 3.0)
                      .field("s", tricky)
                      .field("empty", std::string())
                      .field("name", Kiv::Name("eth"))
                      .field("none", none)
                      .field("some", some)
                      .field("ptr", &probe)
                      .field("colour", Colour::green)
                      .field("inner", Inner{42})
                      .str();
  ValueReader r(t, "Ns::Type");
  EXPECT_EQ(r.get<std::int8_t>("i8"), -128);
  EXPECT_EQ(r.get<std::uint64_t>("u64"), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(r.get<std::int64_t>("i64"), std::numeric_limits<std::int64_t>::min());
  EXPECT_TRUE(r.get<bool>("t"));
  EXPECT_FALSE(r.get<bool>("f"));
  EXPECT_EQ(r.get<double>("d"), 0.1);
  EXPECT_EQ(r.raw("whole"), "3.0");
  EXPECT_EQ(r.get<double>("whole"), 3.0);
  EXPECT_EQ(r.get<std::string>("s"), tricky);
  EXPECT_EQ(r.get<std::string>("empty"), "");
  EXPECT_EQ(r.get<Kiv::Name>("name"), Kiv::Name("eth"));
  EXPECT_TRUE(r.isNone("none"));
  EXPECT_EQ(r.get<std::optional<int>>("none"), std::nullopt);
  EXPECT_EQ(r.get<std::optional<int>>("some"), -7);
  EXPECT_EQ(r.get<int*>("ptr"), &probe);
  EXPECT_EQ(r.get<Colour>("colour"), Colour::green);
  EXPECT_EQ(r.raw("inner"), "Value('Ns::Inner', ** {'x': 42})");
  EXPECT_EQ(r.get<Inner>("inner").x, 42);
  EXPECT_NO_THROW(r.done());
}

TEST(ValueTextTest, DoublesKeepEveryBit) {
  for (double d : {1e300, -2.5e-308, 1.0 / 3, 123456789.0, -0.0}) {
    EXPECT_EQ(Kiv::valueFromStrep<double>(Kiv::valueToStrep(d)), d) << Kiv::valueToStrep(d);
  }
  EXPECT_TRUE(std::isnan(Kiv::valueFromStrep<double>(Kiv::valueToStrep(std::nan("")))));
  EXPECT_EQ(Kiv::valueFromStrep<double>(Kiv::valueToStrep(HUGE_VAL)), HUGE_VAL);
}

TEST(ValueTextTest, ReaderToleratesBlanksBetweenTokens) {
  ValueReader r(" Value ( 'Ns::T' ,**{ 'a' :1 ,\n'b':  'x y' } ) ", "Ns::T");
  EXPECT_EQ(r.get<int>("a"), 1);
  EXPECT_EQ(r.get<std::string>("b"), "x y");
}

TEST(ValueTextTest, NestedValuesKeepTheirOwnText) {
  std::string deep = ValueWriter("Ns::Outer")
                         .fieldRaw("list", "[1, (2, 3), {'k': ')'}]")
                         .fieldRaw("mid", ValueWriter("Ns::Mid").field("inner", Inner{5}).str())
                         .field("after", 9)
                         .str();
  ValueReader r(deep, "Ns::Outer");
  EXPECT_EQ(r.raw("list"), "[1, (2, 3), {'k': ')'}]");
  ValueReader mid(r.raw("mid"), "Ns::Mid");
  EXPECT_EQ(mid.get<Inner>("inner").x, 5);
  EXPECT_EQ(r.get<int>("after"), 9);
  EXPECT_EQ(ValueReader(deep, "").typeName(), "Ns::Outer");
}

TEST(ValueTextTest, MalformedOuterFormSaysWhatAndWhere) {
  std::string const good = "Value('Ns::T', ** {'a': 1, 's': 'x'})";
  auto error = [](std::string const& text) { return parseError([&] { ValueReader(text, "Ns::T"); }); };
  EXPECT_EQ(error(good), "");

  EXPECT_EQ(error("Value('Ns::T', ** {'a': 1, 's': 'x})"),
            "value text of Ns::T: unterminated string at offset 32 (at \"'x})\")");
  EXPECT_EQ(error("Value('Ns::T', ** {'a': 1"),
            "value text of Ns::T: expected ',' or '}' at offset 25 (at end of text)");
  EXPECT_EQ(error("Value('Ns::U', ** {'a': 1})"),
            "value text of Ns::T: type is 'Ns::U', not 'Ns::T' at offset 6 (at \"'Ns::U', ** {'a': "
            "1})\")");
  EXPECT_EQ(error(good + "x"), "value text of Ns::T: trailing text after the value at offset 37 (at \"x\")");
  EXPECT_EQ(error("Value('Ns::T', ** {'a': 1, 'a': 2})"),
            "value text of Ns::T: duplicate field 'a' at offset 27 (at \"'a': 2})\")");
  EXPECT_EQ(error("Value('Ns::T', ** {'a': })"), "value text of Ns::T: expected a value at offset 24 (at \"})\")");
  EXPECT_EQ(error("Value('Ns::T', ** {'a': Value('X', ** {'b': [1, 2)})})"),
            "value text of Ns::T: mismatched ')' at offset 49 (at \")})})\")");
  EXPECT_EQ(error("Value('Ns::T', ** {'a': (1, 2"), "value text of Ns::T: unbalanced '(' at offset 24 (at \"(1, 2\")");
  EXPECT_EQ(error("Value('Ns::T', ** {'q': x'y'})"), "value text of Ns::T: unexpected ''' at offset 25 (at \"'y'})\")");
  EXPECT_EQ(error("Value('Ns::T', ** {a: 1})"),
            "value text of Ns::T: expected a quoted name at offset 19 (at \"a: 1})\")");
  EXPECT_EQ(error(""), "value text of Ns::T: expected 'Value' at offset 0 (at end of text)");
  std::string const longText = "Value('Ns::T', ** {'a': 1})" + std::string(100, '!');
  EXPECT_EQ(error(longText),
            "value text of Ns::T: trailing text after the value at offset 27 (at \"" + std::string(40, '!') + "...\")");
}

TEST(ValueTextTest, BadFieldsNameTheFieldAndWhatWasFound) {
  ValueReader r("Value('Ns::T', ** {'b': maybe, 'n': 300, 's': 'a\\q', 'e': -1})", "Ns::T");
  EXPECT_EQ(parseError([&] { r.get<bool>("b"); }),
            "value text of Ns::T: field 'b' at offset 24: expected True or False, found \"maybe\"");
  EXPECT_EQ(parseError([&] { r.get<std::uint8_t>("n"); }),
            "value text of Ns::T: field 'n' at offset 36: 300 is out of range 0..255");
  EXPECT_EQ(parseError([&] { r.get<std::uint32_t>("e"); }),
            "value text of Ns::T: field 'e' at offset 58: expected an unsigned integer, found \"-1\"");
  EXPECT_EQ(parseError([&] { r.get<std::string>("s"); }),
            "value text of Ns::T: field 's' at offset 46: unknown escape \\q in string \"'a\\q'\"");
  EXPECT_EQ(parseError([&] { r.get<int>("s"); }),
            "value text of Ns::T: field 's' at offset 46: expected an integer, found \"'a\\q'\"");
  EXPECT_EQ(parseError([&] { r.get<int>("missing"); }), "value text of Ns::T: missing field 'missing'");
  EXPECT_EQ(parseError([&] { r.get<Inner>("n"); }),
            "value text of Ns::T: field 'n' at offset 36: value text of Ns::Inner: expected 'Value' at "
            "offset 0 (at \"300\")");
}

TEST(ValueTextTest, DoneReportsFieldsNobodyRead) {
  ValueReader r("Value('Ns::T', ** {'a': 1, 'extra': 2})", "Ns::T");
  r.get<int>("a");
  EXPECT_EQ(parseError([&] { r.done(); }), "value text of Ns::T: unknown field 'extra' at offset 36");
  EXPECT_FALSE(r.isNone("extra"));
  EXPECT_NO_THROW(r.done());
}

}  // namespace
