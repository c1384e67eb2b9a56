#include "host/rpc/json.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <unordered_set>

#include "platform/zel/entity/entity.h"
#include "platform/zel/object/type.h"

namespace Host {

using Zel::Value;
using Zel::ValueError;

// Reading
// ----------------------------------------------------------------------------------------------------

namespace {

// Builds a value from the events of the library's SAX parser.
class Reader {
 public:
  Value result;

  bool null() { return add({}); }
  bool boolean(bool value) { return add(value); }
  bool number_integer(std::int64_t value) { return add(value); }
  bool number_unsigned(std::uint64_t value) {
    return value <= INT64_MAX ? add(static_cast<std::int64_t>(value)) : add(static_cast<double>(value));
  }
  bool number_float(double value, const std::string&) { return add(value); }
  bool string(std::string& value) { return add(std::move(value)); }
  bool binary(Json::binary_t&) { return false; }
  bool start_object(std::size_t) {
    constexpr std::size_t kUsual = 4;  // reserved, to avoid most reallocations
    Value::Fields fields;
    fields.reserve(kUsual);
    return begin(std::move(fields));
  }
  bool key(std::string& name) {
    open_.back()->as<Value::Fields>()->emplace_back(std::move(name), Value());
    return true;
  }
  bool end_object() {
    checkNames(*open_.back()->as<Value::Fields>());
    return end();
  }
  bool start_array(std::size_t) { return begin(Value::List{}); }
  bool end_array() { return end(); }
  bool parse_error(std::size_t position, const std::string&, const Json::exception& error) {
    constexpr int kOutOfRange = 406;  // of a number
    if (error.id == kOutOfRange) throw ValueError("not JSON: a number is out of range");
    throw ValueError("not JSON at byte " + std::to_string(position));
  }

 private:
  bool begin(Value value) {
    if (open_.size() == kJsonDepth)
      throw ValueError("nested deeper than " + std::to_string(kJsonDepth) + " levels");
    open_.push_back(&place(std::move(value)));
    return true;
  }
  bool end() {
    open_.pop_back();
    return true;
  }
  bool add(Value value) {
    place(std::move(value));
    return true;
  }
  // Adds a value at the current position.
  Value& place(Value value) {
    if (open_.empty()) return result = std::move(value);
    if (auto* list = open_.back()->as<Value::List>()) return list->emplace_back(std::move(value));
    return open_.back()->as<Value::Fields>()->back().second = std::move(value);
  }

  static void checkNames(const Value::Fields& fields) {
    constexpr std::size_t kFew = 16;
    if (fields.size() <= kFew) {
      for (auto each = fields.begin(); each != fields.end(); ++each)
        if (std::find_if(fields.begin(), each, [&](auto& one) { return one.first == each->first; }) != each)
          throwTwice(each->first);
      return;
    }
    std::unordered_set<std::string_view> names;
    for (const auto& [name, value] : fields)
      if (!names.insert(name).second) throwTwice(name);
  }
  [[noreturn]] static void throwTwice(const std::string& name) {
    throw ValueError("the name '" + Zel::excerpt(name) + "' appears twice in one object");
  }

  std::vector<Value*> open_;  // unfinished arrays and objects, outermost first
};

}  // namespace

Value parseJson(std::string_view text) {
  Reader reader;
  Json::sax_parse(text, &reader);
  return std::move(reader.result);
}

// Writing
// ----------------------------------------------------------------------------------------------------

std::string jsonText(const Json& json) { return json.dump(-1, ' ', false, Json::error_handler_t::replace); }

namespace {

bool isPlain(char c) { return c >= ' ' && c < 0x7F && c != '"' && c != '\\'; }

}  // namespace

// Fast path: nearly all strings are plain ASCII and need no escape.
void endQuoted(std::string& text, std::size_t start) {
  if (std::all_of(text.begin() + static_cast<std::ptrdiff_t>(start) + 1, text.end(), &isPlain)) {
    text += '"';
    return;
  }
  const std::string quoted = jsonText(Json(text.substr(start + 1)));
  text.replace(start, std::string::npos, quoted);
}

void appendQuoted(std::string& text, std::string_view plain) {
  const std::size_t start = text.size();
  text += '"';
  text += plain;
  endQuoted(text, start);
}

namespace {

struct Writer {
  std::string& text;

  void operator()(std::monostate) const { text += "null"; }
  void operator()(bool value) const { text += value ? "true" : "false"; }
  void operator()(std::int64_t value) const {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    text.append(digits, end);
  }
  void operator()(double value) const {
    if (std::isnan(value))
      text += "\"nan\"";
    else if (std::isinf(value))
      text += value > 0 ? "\"inf\"" : "\"-inf\"";
    else
      text += jsonText(Json(value));
  }
  void operator()(const std::string& value) const { appendQuoted(text, value); }
  void operator()(const Value::List& list) const {
    text += '[';
    for (const Value& value : list) {
      if (&value != &list.front()) text += ',';
      appendJson(text, value);
    }
    text += ']';
  }
  void operator()(const Value::Fields& fields) const {
    text += '{';
    for (const auto& field : fields) {
      if (&field != &fields.front()) text += ',';
      appendQuoted(text, field.first);
      text += ':';
      appendJson(text, field.second);
    }
    text += '}';
  }
  void operator()(const Value::Object& object) const {
    if (!object.pointer) return (*this)(std::monostate());
    const auto* entity = dynamic_cast<const Zel::Entity*>(object.pointer.get());
    (*this)(Value::Fields{{"object", entity ? Value(entity->path()) : Value()},
                          {"type", object.pointer->fwkType().name().view()}});
  }
};

}  // namespace

void appendJson(std::string& text, const Value& value) { value.visit(Writer{text}); }

std::string jsonText(const Value& value) {
  std::string text;
  appendJson(text, value);
  return text;
}

// Fields
// -----------------------------------------------------------------------------------------------------

namespace {

[[noreturn]] void throwWrongKind(std::string_view what, const Value& found, const char* wanted) {
  throw ValueError(std::string(what) + "found " + found.kindText() + ", expected " + wanted);
}

std::string inQuotes(std::string_view name) { return "'" + Zel::excerpt(name) + "'"; }

// The field of that name; null if it is optional and missing.
const Value* fieldOf(const Value& value, const char* name, Needed needed) {
  const Value* found = value.field(name);
  if (!found && needed == Needed::yes) throw ValueError(inQuotes(name) + " is missing");
  return found;
}

}  // namespace

const Value::Fields& fieldsOf(std::string_view what, const Value& value) {
  const auto* fields = value.as<Value::Fields>();
  if (!fields) throwWrongKind(what, value, "an object");
  return *fields;
}

const Value::List& listOf(std::string_view what, const Value& value) {
  const auto* list = value.as<Value::List>();
  if (!list) throwWrongKind(what, value, "an array");
  return *list;
}

void expectFields(const Value& value, std::initializer_list<std::string_view> known) {
  for (const auto& [name, each] : fieldsOf("", value)) {
    if (std::ranges::find(known, std::string_view(name)) != known.end()) continue;
    std::string names;
    for (const std::string_view one : known) names += (names.empty() ? "" : ", ") + std::string(one);
    throw ValueError(inQuotes(name) + " is unknown; known: " + (names.empty() ? "none" : names));
  }
}

const std::string& textField(const Value& value, const char* name, Needed needed) {
  static const std::string kEmpty;
  const Value* field = fieldOf(value, name, needed);
  if (!field) return kEmpty;
  const auto* text = field->as<std::string>();
  if (!text) throwWrongKind(inQuotes(name) + ": ", *field, "a string");
  return *text;
}

const std::string& boundedText(const Value& value, const char* name, std::size_t longest, Needed needed) {
  const std::string& text = textField(value, name, needed);
  if (text.size() > longest)
    throw ValueError(inQuotes(name) + " is longer than " + std::to_string(longest) + " bytes");
  return text;
}

bool flagField(const Value& value, const char* name, bool otherwise) {
  const Value* field = fieldOf(value, name, Needed::no);
  if (!field) return otherwise;
  const auto* flag = field->as<bool>();
  if (!flag) throwWrongKind(inQuotes(name) + ": ", *field, "true or false");
  return *flag;
}

const Value::List& listField(const Value& value, const char* name) {
  return listOf(inQuotes(name) + ": ", *fieldOf(value, name, Needed::yes));
}

}  // namespace Host
