#include "platform/zel/object/value.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <ostream>

#include "platform/zel/object/type.h"

namespace Zel {

Value::Value(Fields value) : value_(std::make_shared<Shared>(std::move(value))) {}

const Value* Value::field(std::string_view name) const {
  const auto* fields = as<Fields>();
  if (!fields) return nullptr;
  const auto found = std::ranges::find(*fields, name, &Field::first);
  return found == fields->end() ? nullptr : &found->second;
}

void Value::fieldIs(std::string_view name, Value value) {
  if (!ownFields()) *this = Fields{};
  auto& fields = *ownFields();
  const auto found = std::ranges::find(fields, name, &Field::first);
  if (found == fields.end())
    fields.emplace_back(std::string(name), std::move(value));
  else
    found->second = std::move(value);
}

// Unshares the fields, and forgets their conversion: the caller is about to change them.
Value::Fields* Value::ownFields() {
  auto* found = std::get_if<SharedPtr>(&value_);
  if (!found || !*found) return nullptr;
  if (found->use_count() > 1) *found = std::make_shared<Shared>(Fields((*found)->fields));
  (*found)->convertedTo = 0;
  return &const_cast<Shared&>(**found).fields;
}

const char* Value::kindText() const {
  static constexpr const char* kTexts[] = {"null",     "true or false", "a whole number", "a number",
                                           "a string", "an array",      "an object",      "a reference"};
  return kTexts[value_.index()];
}

bool operator==(const Value& a, const Value& b) {
  const auto* fields = a.as<Value::Fields>();
  const auto* others = b.as<Value::Fields>();
  if (!fields || !others) return a.value_ == b.value_;
  return fields->size() == others->size() && std::ranges::all_of(*fields, [&](const Value::Field& field) {
           const Value* other = b.field(field.first);
           return other && *other == field.second;
         });
}

namespace {

struct Printer {
  std::ostream& out;

  void operator()(std::monostate) const { out << "null"; }
  void operator()(bool value) const { out << (value ? "true" : "false"); }
  void operator()(std::int64_t value) const { out << value; }
  void operator()(double value) const {
    char text[32];
    const auto end = std::to_chars(text, text + sizeof text, value).ptr;
    out << std::string_view(text, static_cast<std::size_t>(end - text));
  }
  void operator()(const std::string& value) const {
    out << '"';
    for (const char c : value) {
      if (c == '"' || c == '\\') out << '\\';
      out << c;
    }
    out << '"';
  }
  void operator()(const Value::List& list) const {
    out << '[';
    const char* separator = "";
    for (const Value& value : list) out << std::exchange(separator, ", ") << value;
    out << ']';
  }
  void operator()(const Value::Fields& fields) const {
    out << '{';
    const char* separator = "";
    for (const auto& [name, value] : fields) {
      out << std::exchange(separator, ", ");
      (*this)(name);
      out << ": " << value;
    }
    out << '}';
  }
  void operator()(const Value::Object& object) const {
    if (!object.pointer)
      out << "null";
    else
      out << '<' << object.pointer->fwkType().name() << ' ' << static_cast<const void*>(object.pointer.get())
          << '>';
  }
};

}  // namespace

std::ostream& operator<<(std::ostream& out, const Value& value) {
  value.visit(Printer{out});
  return out;
}

}  // namespace Zel
