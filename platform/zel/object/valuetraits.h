// Converts between C++ types and Value.
//
// ValueTraits<T> has `toValue(const T&)`, `fromValue(const Value&)` (throws ValueError: "found X, expected
// Y") and `typeName()`. A struct gets them from a table of its fields:
//
//     struct LightSetting {
//       static constexpr const char* kTypeName = "Led::LightSetting";
//       static constexpr auto fields() { return std::tuple{Zel::field<&LightSetting::green>("green"), …}; }
#pragma once

#include <cstdint>
#include <limits>
#include <sstream>
#include <string>
#include <tuple>

#include "platform/zel/core/keyed.h"
#include "platform/zel/core/name.h"
#include "platform/zel/core/string.h"
#include "platform/zel/object/type.h"
#include "platform/zel/object/value.h"

namespace Zel {

template <class T>
struct ValueTraits;

// Throws what `fromValue` would, but interns no names: traits of types that hold names have their own
// `check(const Value&)`.
template <class T>
void checkValue(const Value& value) {
  if constexpr (requires { ValueTraits<T>::check(value); })
    ValueTraits<T>::check(value);
  else
    static_cast<void>(ValueTraits<T>::fromValue(value));
}

// Throws ValueError "found a string (…), expected …".
[[noreturn]] ZEL_API void throwWrongKind(const Value& found, const char* expected);

namespace detail {

template <class Alternative>
const Alternative& expect(const Value& value, const char* expected) {
  const auto* found = value.as<Alternative>();
  if (!found) throwWrongKind(value, expected);
  return *found;
}

ZEL_API std::int64_t wholeNumber(const Value& value, std::int64_t least, std::int64_t most,
                                 const char* expected);
ZEL_API double number(const Value& value);

}  // namespace detail

template <>
struct ValueTraits<bool> {
  static std::string typeName() { return "bool"; }
  static Value toValue(bool value) { return value; }
  static bool fromValue(const Value& value) { return detail::expect<bool>(value, "true or false"); }
};
template <>
struct ValueTraits<std::uint32_t> {
  static std::string typeName() { return "U32"; }
  static Value toValue(std::uint32_t value) { return value; }
  static std::uint32_t fromValue(const Value& value) {
    return static_cast<std::uint32_t>(detail::wholeNumber(value, 0, std::numeric_limits<std::uint32_t>::max(),
                                                          "a whole number from 0 to 4294967295"));
  }
};
template <>
struct ValueTraits<double> {
  static std::string typeName() { return "double"; }
  static Value toValue(double value) { return value; }
  static double fromValue(const Value& value) { return detail::number(value); }
};
template <>
struct ValueTraits<std::string> {
  static std::string typeName() { return "text"; }
  static Value toValue(const std::string& value) { return value; }
  static std::string fromValue(const Value& value) { return detail::expect<std::string>(value, "a string"); }
};
template <>
struct ValueTraits<String> {
  static std::string typeName() { return "Zel::String"; }
  static Value toValue(const String& value) { return value.stdString(); }
  static String fromValue(const Value& value) {
    return String(detail::expect<std::string>(value, "a string"));
  }
};
template <>
struct ValueTraits<Name> {
  static std::string typeName() { return "Zel::Name"; }
  static Value toValue(Name value) { return value.view(); }
  static Name fromValue(const Value& value) { return Name(detail::expect<std::string>(value, "a name")); }
  static void check(const Value& value) { Name::check(detail::expect<std::string>(value, "a name")); }
};
// An array of names, or an object {NAME: true or false} if any name's value is false.
template <>
struct ZEL_API ValueTraits<NameSet> {
  static std::string typeName() { return "set of Zel::Name"; }
  static Value toValue(const NameSet& names);
  static NameSet fromValue(const Value& value);
  static void check(const Value& value);
};
template <class T>
struct ValueTraits<Ptr<T>> {
  static std::string typeName() { return std::remove_const_t<T>::typeNode().name().stdString(); }
  static Value toValue(const Ptr<T>& pointer) { return Value::Object{pointer, std::is_const_v<T>}; }
  // Null gives a null pointer.
  static Ptr<T> fromValue(const Value& value) {
    if (value.isNull()) return nullptr;
    const auto& object = detail::expect<Value::Object>(value, "a reference");
    if (!object.pointer) return nullptr;
    auto* found = dynamic_cast<const T*>(object.pointer.get());
    if (!found) throwWrongKind(value, typeName().c_str());
    if (object.isConst && !std::is_const_v<T>) throw ValueError("the object may be read only");
    return Ptr<T>(const_cast<T*>(found));
  }
};

// One field of a struct: its name, its member, and a further check of its value.
template <auto Member>
struct Field {
  const char* name;
  const char* (*refuse)(const Value& value);  // null if the value is fine, else what would be right
};
template <auto Member>
constexpr Field<Member> field(const char* name, const char* (*refuse)(const Value&) = nullptr) {
  return {name, refuse};
}

[[noreturn]] ZEL_API void throwUnknownField(const std::string& found, const std::string& known);
[[noreturn]] ZEL_API void throwInField(const char* field, const std::string& text);

template <class S>
concept HasFields = requires {
  S::fields();
};

template <HasFields S>
struct ValueTraits<S> {
  static std::string typeName() { return S::kTypeName; }

  static Value toValue(const S& value) {
    Value result = Value::Fields{};
    each([&]<auto Member>(const Field<Member>& field) {
      result.fieldIs(field.name, ValueTraits<std::decay_t<decltype(value.*Member)>>::toValue(value.*Member));
    });
    return result;
  }

  // Missing fields keep their default.
  static S fromValue(const Value& value) {
    if constexpr (kIsNoted)
      if (const S* known = value.converted<S>()) return *known;
    const S result = convert(value);
    if constexpr (kIsNoted) value.noteConverted(result);
    return result;
  }

 private:
  static constexpr bool kIsNoted = std::is_trivially_copyable_v<S> && sizeof(S) <= Value::kLargestStruct;

  static S convert(const Value& value) {
    S result;
    for (const Value::Field& given : detail::expect<Value::Fields>(value, "an object")) {
      bool known = false;
      each([&]<auto Member>(const Field<Member>& field) {
        if (known || given.first != field.name) return;
        known = true;
        result.*Member = read<Member>(field, given.second);
      });
      if (!known) throwUnknownField(given.first, names());
    }
    return result;
  }
  static std::string names() {
    std::string names;
    each([&](const auto& field) { names += (names.empty() ? "" : ", ") + std::string(field.name); });
    return names;
  }

  template <class Function>
  static void each(Function&& function) {
    std::apply([&](const auto&... fields) { (function(fields), ...); }, S::fields());
  }
  template <auto Member>
  static auto read(const Field<Member>& field, const Value& value) {
    try {
      auto result = ValueTraits<std::decay_t<decltype(std::declval<S>().*Member)>>::fromValue(value);
      if (const char* right = field.refuse ? field.refuse(value) : nullptr) throwWrongKind(value, right);
      return result;
    } catch (const ValueError& error) {
      throwInField(field.name, error.what());
    }
  }
};

}  // namespace Zel
