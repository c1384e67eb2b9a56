// Values as JSON, on the control socket and in the store's file.
//
//     const Zel::Value request = parseJson(line);
//     expectFields(request, {"method", "path"});
//     const std::string& path = textField(request, "path", Needed::yes);
//     reply += jsonText(Zel::Value(42));
//
// Frequent requests read into Zel::Value and append to strings directly. The library's own tree, Json, serves
// rare requests.
#pragma once

#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "platform/zel/object/value.h"

namespace Host {

using Json = nlohmann::json;

// Parses one JSON value. Throws Zel::ValueError with the fault and its byte offset if the text is not JSON,
// is nested deeper than kJsonDepth, or repeats a name in one object. An integer beyond 64 bits becomes a
// double.
inline constexpr int kJsonDepth = 64;
Zel::Value parseJson(std::string_view text);

// Appends a value. Numbers that JSON cannot hold become the strings "inf", "-inf" and "nan"; a reference to
// an object becomes {"object": PATH, "type": TYPE}, with a null path unless it is an entity. Bytes that are
// not UTF-8 are replaced.
void appendJson(std::string& text, const Zel::Value& value);
std::string jsonText(const Zel::Value& value);
// On one line.
std::string jsonText(const Json& json);
// Appends a string. To build one in place, append a quote (its offset is `start`), then the characters, then
// call endQuoted().
void appendQuoted(std::string& text, std::string_view plain);
void endQuoted(std::string& text, std::size_t start);

// Read objects by field name. All throw Zel::ValueError: "'FIELD': found X, expected Y".
//
// The fields of an object, the elements of an array. `what` starts the message: "'changes': ".
const Zel::Value::Fields& fieldsOf(std::string_view what, const Zel::Value& value);
const Zel::Value::List& listOf(std::string_view what, const Zel::Value& value);
// Throws unless the value is an object with no other fields than these.
void expectFields(const Zel::Value& value, std::initializer_list<std::string_view> known);
// Whether the field is required. An optional string defaults to the empty string.
enum class Needed { yes, no };
const std::string& textField(const Zel::Value& value, const char* name, Needed needed = Needed::no);
// A string of at most `longest` bytes.
const std::string& boundedText(const Zel::Value& value, const char* name, std::size_t longest,
                               Needed needed = Needed::no);
bool flagField(const Zel::Value& value, const char* name, bool otherwise);
const Zel::Value::List& listField(const Zel::Value& value, const char* name);

}  // namespace Host
