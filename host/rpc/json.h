// Values as JSON, on the control socket and in the store's file.
//
//     const Zel::Value request = parseJson(line);
//     expectFields(request, {"method", "path"});
//     const std::string& path = textField(request, "path", Needed::yes);
//     reply += jsonText(Zel::Value(42));
//
// The path of every event reads into Zel::Value and writes text directly. The library's own tree, Json,
// serves rare requests.
#pragma once

#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "platform/zel/object/value.h"

namespace Host {

using Json = nlohmann::json;

// Reads one JSON text. Throws Zel::ValueError, which says what is wrong and at which byte, if the text is not
// JSON, is nested deeper than kJsonDepth, or repeats a name in one object. An integer beyond 64 bits becomes
// a double.
inline constexpr int kJsonDepth = 64;
Zel::Value parseJson(std::string_view text);

// Appends a value. Numbers that JSON cannot hold become the strings "inf", "-inf" and "nan"; a reference to
// an object becomes {"object": PATH, "type": TYPE}, with a null path unless it is an entity. Bytes that are
// not UTF-8 are replaced.
void appendJson(std::string& text, const Zel::Value& value);
std::string jsonText(const Zel::Value& value);
// On one line.
std::string jsonText(const Json& json);
// Appends a string. To build one in place, append a quote, at `start`, and the characters, then endQuoted().
void appendQuoted(std::string& text, std::string_view plain);
void endQuoted(std::string& text, std::size_t start);

// Reading the fields of an object by name. All throw Zel::ValueError, which names the field and says what
// would be right.
//
// The fields of an object, the elements of an array. `what` starts the error's text: "'changes': ".
const Zel::Value::Fields& fieldsOf(const std::string& what, const Zel::Value& value);
const Zel::Value::List& listOf(const std::string& what, const Zel::Value& value);
// Refuses anything but an object with these fields alone.
void expectFields(const Zel::Value& value, std::initializer_list<std::string_view> known);
// Whether the field must be there; where it need not, the default is the empty string.
enum class Needed { yes, no };
const std::string& textField(const Zel::Value& value, const char* name, Needed needed = Needed::no);
// A string of at most `longest` bytes.
const std::string& boundedText(const Zel::Value& value, const char* name, std::size_t longest,
                               Needed needed = Needed::no);
bool flagField(const Zel::Value& value, const char* name, bool otherwise);
const Zel::Value::List& listField(const Zel::Value& value, const char* name);

}  // namespace Host
