// The neutral value: what an attribute's value is on its way between an object, a store and a socket.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/zel/core/exception.h"
#include "platform/zel/core/export.h"
#include "platform/zel/core/ptr.h"

namespace Zel {

// Null, a truth value, a whole number, a number, a text, a list, named fields, or a reference to an object.
// Fields keep the order in which they were added; two sets of fields are equal whatever their order.
class ZEL_API Value {
 public:
  using List = std::vector<Value>;
  using Field = std::pair<std::string, Value>;
  using Fields = std::vector<Field>;
  // A counted reference; `isConst` where the object may be read only.
  struct Object {
    Ptr<const PtrInterface> pointer;
    bool isConst = true;
    bool operator==(const Object&) const = default;
  };

  Value() = default;
  Value(bool value) : value_(value) {}
  Value(int value) : value_(std::int64_t{value}) {}
  Value(std::int64_t value) : value_(value) {}
  Value(std::uint32_t value) : value_(std::int64_t{value}) {}
  Value(double value) : value_(value) {}
  Value(const char* value) : value_(std::string(value)) {}
  Value(std::string value) : value_(std::move(value)) {}
  Value(std::string_view value) : value_(std::string(value)) {}
  Value(List value) : value_(std::move(value)) {}
  Value(Fields value) : value_(std::move(value)) {}
  Value(Object value) : value_(std::move(value)) {}

  bool isNull() const { return std::holds_alternative<std::monostate>(value_); }
  // The alternative asked for (bool, std::int64_t, double, std::string, List, Fields, Object); null where the
  // value is of another kind.
  template <class T>
  const T* as() const {
    return std::get_if<T>(&value_);
  }
  template <class T>
  T* as() {
    return std::get_if<T>(&value_);
  }
  // The field of that name; null where there is none or the value has no fields.
  const Value* field(std::string_view name) const;
  // Adds a field, or replaces the one of that name. A value that is not made of fields becomes one that is.
  void fieldIs(std::string_view name, Value value);

  // What kind it is, as a person says it: "null", "true or false", "a whole number", "a number", "a text",
  // "a list", "fields", "an object".
  const char* kindText() const;

  template <class Visitor>
  decltype(auto) visit(Visitor&& visitor) const {
    return std::visit(std::forward<Visitor>(visitor), value_);
  }

  friend ZEL_API bool operator==(const Value& a, const Value& b);

 private:
  std::variant<std::monostate, bool, std::int64_t, double, std::string, List, Fields, Object> value_;
};

// As JSON would print it; a reference prints as the object's type and address. For messages and traces.
ZEL_API std::ostream& operator<<(std::ostream& out, const Value& value);

}  // namespace Zel
