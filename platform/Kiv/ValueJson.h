// Typed JSON from the value text form, for tools that hand values to
// scripts: numbers stay numbers, True/False become booleans, None null, a
// quoted string a JSON string, and a value with fields an object.
//
//   Kiv::jsonFromStrep("Value('Ns::T', ** {'a': 1, 'b': True, 's': 'x'})");
//   // {"_type": "Ns::T", "a": 1, "b": true, "s": "x"}
//   Kiv::jsonFromStrep("Entity('Ns::E', 'red')");   // {"_entity": "Ns::E", "_name": "red"}
//   Kiv::jsonFromStrep("[1, 2]");                     // [1, 2]
//   Kiv::jsonFromStrep("0x7f00c0de");                 // "0x7f00c0de"
//
// Whatever does not read as one of these forms (an address printed bare,
// a double that is not finite, a hexadecimal pointer) becomes a JSON string
// of its text, so the result is always valid JSON and loses nothing. A
// dictionary's keys are JSON strings: a quoted key unquoted, any other key
// as its text.
#pragma once

#include <string>
#include <string_view>

namespace Kiv {

std::string jsonFromStrep(std::string_view text);

// The key of a JSON object for a key's text form: a quoted string without
// its quotes, anything else as written.
std::string jsonKeyFromStrep(std::string_view text);

}  // namespace Kiv
