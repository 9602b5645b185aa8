// Typed JSON from the value text form: every form keeps its type, and
// nothing the converter does not know is lost or turns into invalid JSON.
#include "Kiv/ValueJson.h"

#include <gtest/gtest.h>

#include <string>

#include "Kiv/ValueText.h"

namespace {

TEST(ValueJson, ScalarsKeepTheirType) {
  EXPECT_EQ(Kiv::jsonFromStrep("42"), "42");
  EXPECT_EQ(Kiv::jsonFromStrep("-7"), "-7");
  EXPECT_EQ(Kiv::jsonFromStrep("18446744073709551615"), "18446744073709551615");
  EXPECT_EQ(Kiv::jsonFromStrep(Kiv::valueToStrep(0.25)), "0.25");
  EXPECT_EQ(Kiv::jsonFromStrep("1e+300"), "1e+300");
  EXPECT_EQ(Kiv::jsonFromStrep("True"), "true");
  EXPECT_EQ(Kiv::jsonFromStrep(" False "), "false");
  EXPECT_EQ(Kiv::jsonFromStrep("None"), "null");
  EXPECT_EQ(Kiv::jsonFromStrep(Kiv::valueToStrep(std::string("it's \"x\"\n"))), "\"it's \\\"x\\\"\\n\"");
}

TEST(ValueJson, ValuesEntitiesListsAndDictsNest) {
  Kiv::ValueWriter inner("Ns::Inner");
  inner.field("x", 2).field("on", true);
  Kiv::ValueWriter w("Ns::T");
  w.field("a", 1)
      .field("s", std::string("red"))
      .fieldRaw("inner", inner.str())
      .fieldNone("n")
      .fieldRaw("l", "[1, 'b']");
  EXPECT_EQ(Kiv::jsonFromStrep(w.str()),
            "{\"_type\": \"Ns::T\", \"a\": 1, \"s\": \"red\", \"inner\": {\"_type\": \"Ns::Inner\", \"x\": 2, "
            "\"on\": true}, \"n\": null, \"l\": [1, \"b\"]}");
  EXPECT_EQ(Kiv::jsonFromStrep("Entity('Ns::E', 'red')"), "{\"_entity\": \"Ns::E\", \"_name\": \"red\"}");
  EXPECT_EQ(Kiv::jsonFromStrep("{'a': 1, 2: [], 'c': {}}"), "{\"a\": 1, \"2\": [], \"c\": {}}");
  EXPECT_EQ(Kiv::jsonFromStrep("[]"), "[]");
}

TEST(ValueJson, WhatIsNotAKnownFormBecomesAStringOfItsText) {
  // Pointers, bare addresses, non-finite doubles, numbers JSON forbids.
  EXPECT_EQ(Kiv::jsonFromStrep("0x7f00c0de"), "\"0x7f00c0de\"");
  EXPECT_EQ(Kiv::jsonFromStrep("10.0.0.1"), "\"10.0.0.1\"");
  EXPECT_EQ(Kiv::jsonFromStrep("inf"), "\"inf\"");
  EXPECT_EQ(Kiv::jsonFromStrep("007"), "\"007\"");
  EXPECT_EQ(Kiv::jsonFromStrep("Nonesuch"), "\"Nonesuch\"");
  // A field that does not read keeps its place as a string.
  EXPECT_EQ(Kiv::jsonFromStrep("Value('T', ** {'p': 0x10, 'q': 1})"), "{\"_type\": \"T\", \"p\": \"0x10\", \"q\": 1}");
  // Broken forms as a whole: never invalid JSON.
  EXPECT_EQ(Kiv::jsonFromStrep("Value('T', ** {'a': 1"), "\"Value('T', ** {'a': 1\"");
  EXPECT_EQ(Kiv::jsonFromStrep("[1, 2"), "\"[1, 2\"");
  EXPECT_EQ(Kiv::jsonFromStrep("'unterminated"), "\"'unterminated\"");
  EXPECT_EQ(Kiv::jsonFromStrep("1 2"), "\"1 2\"");
  EXPECT_EQ(Kiv::jsonFromStrep(""), "\"\"");
  EXPECT_EQ(Kiv::jsonKeyFromStrep(" 'a/b' "), "a/b");
  EXPECT_EQ(Kiv::jsonKeyFromStrep("3"), "3");
}

}  // namespace
