// The generic operations of declared attributes: each descriptor's info() builds the AttributeInfo for the
// generic interface, the stores and the documentation. Internal to Described.
#pragma once

#include <string>
#include <type_traits>
#include <vector>

#include "platform/zel/core/keyed.h"
#include "platform/zel/entity/declarations.h"
#include "platform/zel/entity/member.h"
#include "platform/zel/notify/notifier.h"
#include "platform/zel/object/type.h"
#include "platform/zel/object/valuetraits.h"

namespace Zel {

class Entity;

namespace detail {

// Reaches a class's protected mutators.
struct MutatorAccess {
  template <auto Member, class T, class V>
  static void set(T& object, const V& value) {
    object.template set<Member>(value);
  }
  template <auto Member, class T>
  static void namesAre(T& object, const NameSet& names) {
    object.template namesAre<Member>(names);
  }
  template <auto Member, class T>
  static Value childIs(T& object, const Name& name) {
    return wrap(object.template childIs<Member>(name));
  }
  template <auto Member, class T>
  static Value childDel(T& object, const Name& name) {
    return wrap(object.template childDel<Member>(name));
  }
  template <auto Member, class T, class M>
  static void referenceIs(T& object, const Ptr<M>& member) {
    object.template referenceIs<Member>(member);
  }
  template <auto Member, class T>
  static Value referenceDel(T& object, const Name& name) {
    return wrap(object.template referenceDel<Member>(name));
  }
};

template <class T, auto Function>
Value callMember(Notifier& object, Arguments arguments) {
  return MemberOf<decltype(Function)>::call(static_cast<T&>(object), Function, arguments);
}

template <class T>
T onlyArgument(Arguments arguments) {
  expectArguments(arguments, 1);
  return ValueTraits<T>::fromValue(arguments[0]);
}

template <class T, auto Member>
const auto& memberOf(const Notifier& object) {
  return static_cast<const T&>(object).*Member;
}

template <class T, auto Member>
std::vector<Name> memberKeys(const Notifier& object) {
  const auto& members = memberOf<T, Member>(object);
  std::vector<Name> keys;
  keys.reserve(members.size());
  for (auto at = members.begin(); at != members.end(); ++at) keys.push_back(at.key());
  return keys;
}
// The member under a key; without a key, an array of the keys.
template <class T, auto Member>
Value memberGet(const Notifier& object, Arguments arguments) {
  if (arguments.empty()) return nameList(memberKeys<T, Member>(object));
  return wrap(memberOf<T, Member>(object).find(ValueTraits<Name>::fromValue(argument(arguments, 0))));
}

template <auto Member, auto On, auto Immediate>
template <class T>
AttributeInfo ValueAttribute<Member, On, Immediate>::info() const {
  constexpr bool pointer = requires { typename M::element_type; };
  AttributeInfo info = start(pointer ? Kind::pointer : Kind::value, &ValueTraits<M>::typeName);
  info.get = [](const Notifier& object, Arguments) { return wrap(memberOf<T, Member>(object)); };
  if (!may(Operation::set)) return info;
  info.set = [](Notifier& object, Arguments arguments) {
    MutatorAccess::set<Member>(static_cast<T&>(object), onlyArgument<M>(arguments));
    return Value();
  };
  info.stored = !pointer;
  info.reset = [](Notifier& object) { MutatorAccess::set<Member>(static_cast<T&>(object), M{}); };
  info.check = [](const Value& value) { checkValue<M>(value); };
  return info;
}

template <auto Member, class N, void (N::*OnKey)(Name), void (N::*Immediate)(), void (N::*On)()>
template <class T>
AttributeInfo NamesAttribute<Member, N, OnKey, Immediate, On>::info() const {
  AttributeInfo info = this->start(Kind::names, &ValueTraits<NameSet>::typeName);
  info.get = [](const Notifier& object, Arguments) { return wrap(memberOf<T, Member>(object)); };
  info.set = [](Notifier& object, Arguments arguments) {
    MutatorAccess::namesAre<Member>(static_cast<T&>(object), onlyArgument<NameSet>(arguments));
    return Value();
  };
  info.keys = &memberKeys<T, Member>;
  info.stored = true;
  info.reset = [](Notifier& object) { MutatorAccess::namesAre<Member>(static_cast<T&>(object), NameSet{}); };
  info.check = [](const Value& value) { checkValue<NameSet>(value); };
  return info;
}

template <class T, auto Member>
Entity* childAt(const Notifier& object, Name key) {
  return memberOf<T, Member>(object).get(key);
}
template <class T, auto Member>
Value childIs(Notifier& object, Arguments arguments) {
  return MutatorAccess::childIs<Member>(static_cast<T&>(object), onlyArgument<Name>(arguments));
}
template <class T, auto Member>
Value childDel(Notifier& object, Arguments arguments) {
  return MutatorAccess::childDel<Member>(static_cast<T&>(object), onlyArgument<Name>(arguments));
}
// An entry of a directory: its name, then its type.
template <class T>
Value entryIs(Notifier& object, Arguments arguments) {
  expectArguments(arguments, 2);
  return wrap(static_cast<T&>(object).entryIs(ValueTraits<Name>::fromValue(arguments[0]),
                                              ValueTraits<String>::fromValue(arguments[1])));
}

template <class T, auto Member, class Element>
Value referenceIs(Notifier& object, Arguments arguments) {
  MutatorAccess::referenceIs<Member>(static_cast<T&>(object), onlyArgument<Ptr<Element>>(arguments));
  return {};
}
template <class T, auto Member>
Value referenceDel(Notifier& object, Arguments arguments) {
  return MutatorAccess::referenceDel<Member>(static_cast<T&>(object), onlyArgument<Name>(arguments));
}

template <class T, auto Member, class Element>
void ownedOperations(AttributeInfo& info) {
  info.stored = true;
  info.member = &childAt<T, Member>;
  info.del = &childDel<T, Member>;
  if constexpr (std::is_same_v<Element, Entity>) {
    info.direct = true;
    info.set = &entryIs<T>;
  } else {
    info.memberType = &Element::typeNode;
    info.set = &childIs<T, Member>;
  }
}

template <bool Owned, auto Member, class N, void (N::*OnKey)(Name), void (N::*Immediate)(), void (N::*On)()>
template <class T>
AttributeInfo MembersAttribute<Owned, Member, N, OnKey, Immediate, On>::info() const {
  using Element = typename MemberOf<decltype(Member)>::type::member_type;
  AttributeInfo info = this->start(Kind::collection, &ValueTraits<Ptr<Element>>::typeName);
  info.get = &memberGet<T, Member>;
  info.keys = &memberKeys<T, Member>;
  if constexpr (Owned) {
    ownedOperations<T, Member, Element>(info);
  } else {
    info.set = &referenceIs<T, Member, Element>;
    info.del = &referenceDel<T, Member>;
  }
  return info;
}

template <auto Get, auto Set, auto Del>
template <class T>
AttributeInfo AccessorAttribute<Get, Set, Del>::info() const {
  using R = typename MemberOf<decltype(Get)>::result;
  constexpr bool pointer = requires { typename R::element_type; };
  AttributeInfo info = start(pointer ? Kind::pointer : Kind::value, &ValueTraits<R>::typeName);
  info.get = [](const Notifier& object, Arguments) { return wrap((static_cast<const T&>(object).*Get)()); };
  if constexpr (!std::is_null_pointer_v<decltype(Set)>) {
    info.set = &callMember<T, Set>;
    info.parameters = MemberOf<decltype(Set)>::parameters({});
  }
  if constexpr (!std::is_null_pointer_v<decltype(Del)>) info.del = &callMember<T, Del>;
  return info;
}

template <auto Member, auto Is, auto Del>
template <class T>
AttributeInfo KeyedAttribute<Member, Is, Del>::info() const {
  using Element = typename MemberOf<decltype(Member)>::type::member_type;
  AttributeInfo info = start(Kind::collection, &ValueTraits<Ptr<Element>>::typeName);
  info.get = &memberGet<T, Member>;
  info.keys = &memberKeys<T, Member>;
  info.set = &callMember<T, Is>;
  info.del = &callMember<T, Del>;
  info.parameters = MemberOf<decltype(Is)>::parameters({});
  return info;
}

template <auto Function>
template <class T>
AttributeInfo ProcedureAttribute<Function>::info() const {
  AttributeInfo info = start(Kind::procedure, nullptr);
  info.invoke = &callMember<T, Function>;
  info.parameters =
      MemberOf<decltype(Function)>::parameters({parameters[0], parameters[1], parameters[2], parameters[3]});
  return info;
}

}  // namespace detail

}  // namespace Zel
