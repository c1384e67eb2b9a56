#include "platform/zel/object/valuetraits.h"

#include <cmath>

namespace Zel {

void throwWrongKind(const Value& found, const char* expected) {
  std::ostringstream text;
  text << found;
  throw ValueError(std::string("found ") + found.kindText() + " (" + excerpt(text.str()) + "), expected " +
                   expected);
}

void throwUnknownField(const std::string& found, const std::string& known) {
  throw ValueError("unknown field '" + excerpt(found) + "'; the fields are " + known);
}

void throwInField(const char* field, const std::string& text) { throw ValueError(field + (": " + text)); }

namespace detail {

std::int64_t wholeNumber(const Value& value, std::int64_t least, std::int64_t most, const char* expected) {
  const auto& number = expect<std::int64_t>(value, expected);
  if (number < least || number > most) throwWrongKind(value, expected);
  return number;
}

double number(const Value& value) {
  if (const auto* whole = value.as<std::int64_t>()) return static_cast<double>(*whole);
  return expect<double>(value, "a number");
}

}  // namespace detail

Value ValueTraits<NameSet>::toValue(const NameSet& names) {
  bool plain = true;
  for (const Name& name : names) plain &= names.value(name);
  if (plain) {
    Value::List list;
    for (const Name& name : names) list.emplace_back(name.view());
    return list;
  }
  Value::Fields fields;
  for (const Name& name : names) fields.emplace_back(name.stdString(), names.value(name));
  return fields;
}

namespace {

// Calls `take` with each name of a set and its value.
template <class Take>
void forEachName(const Value& value, Take take) {
  const auto add = [&](const std::string& text, bool beside) {
    if (text.empty()) throwWrongKind(value, "names that are not empty");
    take(text, beside);
  };
  if (const auto* fields = value.as<Value::Fields>()) {
    for (const auto& [name, beside] : *fields)
      add(name, detail::expect<bool>(beside, "true or false beside a name"));
    return;
  }
  for (const Value& name : detail::expect<Value::List>(value, "an array of names"))
    add(detail::expect<std::string>(name, "a name"), true);
}

}  // namespace

NameSet ValueTraits<NameSet>::fromValue(const Value& value) {
  NameSet names;
  forEachName(value, [&](const std::string& text, bool beside) { names.insert(Name(text), beside); });
  return names;
}

void ValueTraits<NameSet>::check(const Value& value) {
  forEachName(value, [](const std::string& text, bool) { Name::check(text); });
}

}  // namespace Zel
