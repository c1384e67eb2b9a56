// A value of any type: carries attributes between objects, stores and sockets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "platform/zel/core/exception.h"
#include "platform/zel/core/export.h"
#include "platform/zel/core/ptr.h"

namespace Zel {

// JSON's kinds (null, boolean, integer, number, string, array: List, object: Fields) and a reference to an
// object of this process. Fields keep their order of insertion, which comparison ignores. Copies share their
// fields until one of them changes (copy on write).
class ZEL_API Value {
 public:
  using List = std::vector<Value>;
  using Field = std::pair<std::string, Value>;
  using Fields = std::vector<Field>;
  // A counted reference; `isConst` if the object must not be changed through it.
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
  Value(Fields value);
  Value(Object value) : value_(std::move(value)) {}

  bool isNull() const { return std::holds_alternative<std::monostate>(value_); }
  // The alternative (bool, std::int64_t, double, std::string, List, Fields or Object); null if the value is
  // of another kind.
  template <class T>
  const T* as() const {
    if constexpr (std::is_same_v<T, Fields>)
      return shared() ? &shared()->fields : nullptr;
    else
      return std::get_if<T>(&value_);
  }
  // To change it in place.
  template <class T>
  T* as() {
    if constexpr (std::is_same_v<T, Fields>)
      return ownFields();
    else
      return std::get_if<T>(&value_);
  }
  // The field of that name; null if there is none or the value is no object.
  const Value* field(std::string_view name) const;
  // Adds or replaces a field. A value of another kind becomes an object first.
  void fieldIs(std::string_view name, Value value);

  // The struct that the fields were converted to, if noteConverted() noted one of that type; else null.
  // Copies share it, so a value that was checked at the socket is not converted again when it is applied.
  template <class S>
  const S* converted() const {
    static_assert(std::is_trivially_copyable_v<S> && sizeof(S) <= kLargestStruct);
    const Shared* fields = shared();
    if (!fields || fields->convertedTo != fingerprint(S::kTypeName) || fields->size != sizeof(S))
      return nullptr;
    return std::launder(reinterpret_cast<const S*>(fields->bytes));
  }
  template <class S>
  void noteConverted(const S& result) const {
    static_assert(std::is_trivially_copyable_v<S> && sizeof(S) <= kLargestStruct);
    if (!shared()) return;
    ::new (shared()->bytes) S(result);
    shared()->size = sizeof(S);
    shared()->convertedTo = fingerprint(S::kTypeName);
  }
  static constexpr std::size_t kLargestStruct = 48;

  // The kind, for messages: "null", "true or false", "a whole number", "a number", "a string", "an array",
  // "an object", "a reference".
  const char* kindText() const;

  template <class Visitor>
  decltype(auto) visit(Visitor&& visitor) const {
    return std::visit(
        [&visitor]<class T>(const T& value) -> decltype(auto) {
          if constexpr (std::is_same_v<T, SharedPtr>)
            return value ? visitor(value->fields) : visitor(std::monostate());  // null: moved from
          else
            return visitor(value);
        },
        value_);
  }

  friend ZEL_API bool operator==(const Value& a, const Value& b);

 private:
  // The fields, and the struct they were last converted to, as plain bytes. A plug-in that makes a value may
  // be unloaded before the value ends, so nothing in here is code of its library: neither the struct nor the
  // counter of the shared pointer, which is made in this library alone.
  struct Shared {
    explicit Shared(Fields&& theFields) : fields(std::move(theFields)) {}
    Fields fields;
    mutable std::uint64_t convertedTo = 0;  // the fingerprint of its type; 0: nothing was noted
    mutable std::size_t size = 0;
    alignas(8) mutable std::byte bytes[kLargestStruct];
  };
  using SharedPtr = std::shared_ptr<const Shared>;

  static constexpr std::uint64_t fingerprint(std::string_view name) {  // FNV-1a
    std::uint64_t hash = 0xCBF29CE484222325U;
    for (const char c : name) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3U;
    return hash;
  }
  const Shared* shared() const {
    const auto* found = std::get_if<SharedPtr>(&value_);
    return found ? found->get() : nullptr;
  }
  Fields* ownFields();

  std::variant<std::monostate, bool, std::int64_t, double, std::string, List, SharedPtr, Object> value_;
};

// Prints as JSON; a reference prints as the object's type and address. For messages and traces.
ZEL_API std::ostream& operator<<(std::ostream& out, const Value& value);

}  // namespace Zel
