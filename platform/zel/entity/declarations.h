// How a class declares its attributes: one attribute descriptor for each, in the tuple that attributes()
// returns. A descriptor names the attribute's member or functions, its operations, and its handlers.
//
//     static constexpr auto attributes() {
//       return std::tuple{attribute::value<&Fan::speed_, &NotifieeConst::onSpeed>("speed"),
//                         attribute::accessor<&Fan::label>("label"),
//                         attribute::procedure<&Fan::test>("test", "seconds")};
//     }
#pragma once

#include <array>
#include <type_traits>

#include "platform/zel/core/name.h"
#include "platform/zel/entity/member.h"
#include "platform/zel/object/attribute.h"

namespace Zel {

namespace detail {

template <auto>
struct Constant {};

// Whether `What` is one of the things that a descriptor names.
template <auto What, auto... Named>
inline constexpr bool names = (std::is_same_v<Constant<What>, Constant<Named>> || ...);

// Common to all descriptors. Names nothing and has no handlers by default.
struct DeclaredAttribute {
  const char* name;
  Operations operations;

  template <auto>
  static constexpr bool has = false;
  template <class N>
  static void whole(N&) {}
  template <class N>
  static void key(N&, Name) {}
  template <class N>
  static void immediate(N&) {}

  AttributeInfo start(Kind kind, TypeText type) const {
    AttributeInfo info;
    info.name = name;
    info.kind = kind;
    info.operations = operations;
    info.type = type;
    return info;
  }
  bool may(Operation operation) const { return allows(operations, operation); }
};

template <auto Member, auto On, auto Immediate>
struct ValueAttribute : DeclaredAttribute {
  using M = typename MemberOf<decltype(Member)>::type;

  template <auto What>
  static constexpr bool has = names<What, Member>;
  template <class N>
  static void whole([[maybe_unused]] N& notifiee) {
    if constexpr (!std::is_null_pointer_v<decltype(On)>) (notifiee.*On)();
  }
  template <class N>
  static void immediate([[maybe_unused]] N& notifiee) {
    if constexpr (!std::is_null_pointer_v<decltype(Immediate)>) (notifiee.*Immediate)();
  }

  template <class T>
  AttributeInfo info() const;
};

template <auto Member, class NotifieeClass, void (NotifieeClass::*OnKey)(Name),
          void (NotifieeClass::*Immediate)(), void (NotifieeClass::*On)()>
struct CollectionAttribute : DeclaredAttribute {
  using M = typename MemberOf<decltype(Member)>::type;

  template <auto What>
  static constexpr bool has = names<What, Member>;
  template <class N>
  static void whole(N& notifiee) {
    if constexpr (On != nullptr) (notifiee.*On)();
  }
  template <class N>
  static void key(N& notifiee, const Name& name) {
    if constexpr (OnKey != nullptr) (notifiee.*OnKey)(name);
  }
  template <class N>
  static void immediate(N& notifiee) {
    if constexpr (Immediate != nullptr) (notifiee.*Immediate)();
  }
};

// A set of names.
template <auto Member, class N, void (N::*OnKey)(Name), void (N::*Immediate)(), void (N::*On)()>
struct NamesAttribute : CollectionAttribute<Member, N, OnKey, Immediate, On> {
  template <class T>
  AttributeInfo info() const;
};

// Objects that the collection owns (`Owned`) or refers to.
template <bool Owned, auto Member, class N, void (N::*OnKey)(Name), void (N::*Immediate)(), void (N::*On)()>
struct MembersAttribute : CollectionAttribute<Member, N, OnKey, Immediate, On> {
  template <class T>
  AttributeInfo info() const;
};

// An attribute with accessor functions. `Set` and `Del` may be null.
template <auto Get, auto Set, auto Del>
struct AccessorAttribute : DeclaredAttribute {
  template <auto What>
  static constexpr bool has = names<What, Get, Set, Del>;
  template <class T>
  AttributeInfo info() const;
};

// A collection whose class has its own functions to add and remove members.
template <auto Member, auto Is, auto Del>
struct KeyedAttribute : DeclaredAttribute {
  template <auto What>
  static constexpr bool has = names<What, Member, Is, Del>;
  template <class T>
  AttributeInfo info() const;
};

template <auto Function>
struct ProcedureAttribute : DeclaredAttribute {
  std::array<const char*, 4> parameters;
  template <class T>
  AttributeInfo info() const;
};

struct ReservedAttribute : DeclaredAttribute {
  template <class T>
  AttributeInfo info() const {
    return start(Kind::reserved, nullptr);
  }
};

}  // namespace detail

namespace attribute {

inline constexpr Operations kGet = only(Operation::get);
inline constexpr Operations kGetSet = Operation::get | Operation::set;
inline constexpr Operations kGetSetDelete = kGetSet | Operation::del;
inline constexpr Operations kCollection = kGetSetDelete | Operation::iterate;

// A plain member: a value, or a pointer to an object.
template <auto Member, auto On = nullptr, auto Immediate = nullptr>
constexpr detail::ValueAttribute<Member, On, Immediate> value(const char* name,
                                                              Operations operations = kGetSet) {
  return {{name, operations}};
}
template <auto Member, class N, void (N::*OnKey)(Name), void (N::*Immediate)(), void (N::*On)()>
constexpr detail::NamesAttribute<Member, N, OnKey, Immediate, On> nameSet(const char* name) {
  return {{{name, kGetSet | Operation::iterate}}};
}
template <auto Member, class N, void (N::*OnKey)(Name), void (N::*Immediate)(), void (N::*On)()>
constexpr detail::MembersAttribute<true, Member, N, OnKey, Immediate, On> children(const char* name) {
  return {{{name, kCollection}}};
}
template <auto Member, class N, void (N::*OnKey)(Name), void (N::*Immediate)(), void (N::*On)()>
constexpr detail::MembersAttribute<false, Member, N, OnKey, Immediate, On> references(const char* name) {
  return {{{name, kCollection}}};
}
template <auto Get, auto Set = nullptr, auto Del = nullptr>
constexpr detail::AccessorAttribute<Get, Set, Del> accessor(const char* name) {
  Operations operations = kGet;
  if (!std::is_null_pointer_v<decltype(Set)>) operations = operations | only(Operation::set);
  if (!std::is_null_pointer_v<decltype(Del)>) operations = operations | only(Operation::del);
  return {{name, operations}};
}
template <auto Member, auto Is, auto Del>
constexpr detail::KeyedAttribute<Member, Is, Del> keyed(const char* name) {
  return {{name, kCollection}};
}
template <auto Function, class... Names>
constexpr detail::ProcedureAttribute<Function> procedure(const char* name, Names... parameters) {
  return {{name, only(Operation::invoke)}, {parameters...}};
}
// A position in the table that has no published entry.
constexpr detail::ReservedAttribute reserved() { return {{"", 0}}; }

}  // namespace attribute

}  // namespace Zel
