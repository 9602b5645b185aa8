#include "Kiv/ValuePlain.h"

#include <gtest/gtest.h>

namespace {

// A kind with a plain form of its own, as a value type registers it.
Kiv::PlainForm const portPlain("KivTest::Port", [](Kiv::ValueReader const& r) {
  Kiv::Plain p = Kiv::Plain::object();
  p.field("name", Kiv::Plain::string(r.get<std::string>("name")))
      .field("speed", Kiv::Plain::number(r.get<int>("speed")));
  return p.textIs(r.get<std::string>("name") + "@" + std::to_string(r.get<int>("speed")));
});

std::string text(std::string_view strep) { return Kiv::plainFromStrep(strep).text(); }
std::string json(std::string_view strep) { return Kiv::plainFromStrep(strep).json(); }

TEST(ValuePlainTest, ScalarsLoseTheirTextFormMarks) {
  EXPECT_EQ(text("'it\\'s'"), "it's");
  EXPECT_EQ(json("'say \"x\"'"), "\"say \\\"x\\\"\"");
  EXPECT_EQ(text("True") + json("False"), "truefalse");
  EXPECT_EQ(text("None") + json("None"), "nonenull");
  EXPECT_EQ(json("-7") + json(Kiv::valueToStrep(0.25)), "-70.25");
  // What is no JSON number stays text, and a word only counts when whole.
  EXPECT_EQ(json("007"), "\"007\"");
  EXPECT_EQ(json("Nonesuch"), "\"Nonesuch\"");
  EXPECT_EQ(json("10.0.0.1"), "\"10.0.0.1\"");
  EXPECT_EQ(json("Entity('Ns::E', 'red')"), "\"red\"");
  EXPECT_EQ(text("Entity('Ns::E', '')"), "Ns::E");
}

TEST(ValuePlainTest, AValueReadsThroughItsRegisteredFormElseAsItsFields) {
  std::string const port = "Value('KivTest::Port', ** {'name': 'et1', 'speed': 100})";
  EXPECT_EQ(text(port), "et1@100");
  EXPECT_EQ(json(port), "{\"name\": \"et1\", \"speed\": 100}");
  // Nested in an unregistered value, in lists and in dictionaries.
  std::string const outer = "Value('Ns::Link', ** {'a': " + port + ", 'up': True, 'vlans': [10, 20], 'peer': None})";
  EXPECT_EQ(text(outer), "{a: et1@100, up: true, vlans: [10, 20], peer: none}");
  EXPECT_EQ(json(outer),
            "{\"a\": {\"name\": \"et1\", \"speed\": 100}, \"up\": true, \"vlans\": [10, 20], \"peer\": null}");
  EXPECT_EQ(json("{" + port + ": 1, 'x': 2}"), "{\"et1@100\": 1, \"x\": 2}");
  // A text the registered form refuses still shows every field.
  EXPECT_EQ(text("Value('KivTest::Port', ** {'name': 'et1', 'speed': 'fast'})"), "{name: et1, speed: fast}");
}

TEST(ValuePlainTest, MalformedTextIsShownAsItIsNeverThrown) {
  EXPECT_EQ(json("Value('T', ** {'a': 1"), "\"Value('T', ** {'a': 1\"");
  EXPECT_EQ(json("[1, 2"), "\"[1, 2\"");
  EXPECT_EQ(json("'unterminated"), "\"'unterminated\"");
  EXPECT_EQ(json("  "), "\"\"");
  EXPECT_EQ(text("1 2"), "1 2");
}

}  // namespace
