// Members of a class by pointer: the type of one, and a call of one with generic arguments. Internal to the
// attribute descriptors.
#pragma once

#include <initializer_list>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/zel/core/export.h"
#include "platform/zel/object/attribute.h"
#include "platform/zel/object/valuetraits.h"

namespace Zel {

class Notifier;

namespace detail {

ZEL_API const Value& argument(Arguments arguments, std::size_t index);
ZEL_API void expectArguments(Arguments arguments, std::size_t count);
ZEL_API Value nameList(const std::vector<Name>& names);

template <class T>
using Plain = std::remove_cvref_t<T>;

template <class R>
Value wrap(R&& result) {
  return ValueTraits<Plain<R>>::toValue(result);
}

// A data member's type; a member function's parameters, and a call with generic arguments.
template <class T>
struct MemberOf;
template <class C, class M>
struct MemberOf<M C::*> {
  using type = M;
};
template <class R, class C, class... A>
struct MemberOf<R (C::*)(A...)> {
  static std::vector<Parameter> parameters(std::initializer_list<const char*> named) {
    std::vector<Parameter> result;
    [[maybe_unused]] auto name = named.begin();
    (result.push_back({name != named.end() && *name ? *name++ : "", &ValueTraits<Plain<A>>::typeName}), ...);
    return result;
  }
  static Value call(C& object, R (C::*function)(A...), Arguments arguments) {
    expectArguments(arguments, sizeof...(A));
    return call(object, function, arguments, std::index_sequence_for<A...>());
  }

 private:
  template <std::size_t... I>
  static Value call(C& object, R (C::*function)(A...), [[maybe_unused]] Arguments arguments,
                    std::index_sequence<I...>) {
    std::tuple<Plain<A>...> values{ValueTraits<Plain<A>>::fromValue(argument(arguments, I))...};
    if constexpr (std::is_void_v<R>) {
      (object.*function)(std::get<I>(values)...);
      return {};
    } else {
      return wrap((object.*function)(std::get<I>(values)...));
    }
  }
};

template <class R, class C, class... A>
struct MemberOf<R (C::*)(A...) const> {
  using result = Plain<R>;
};

}  // namespace detail

}  // namespace Zel
