// Attributes are declared once: a class's table of rows says name, kind, type, operations and handlers, and
// the delivery of notifications, the generic interface and the reading and writing of stored values follow
// from it.
//
//     class LedConfig : public Described<LedConfig, Entity> {
//      public:
//       class NotifieeConst : public NotifieeOf<LedConfig> {
//        public:
//         using NotifieeOf::NotifieeOf;
//         virtual void onLightSetting() {}
//         virtual void onLightSettingzelImmediate() { declineImmediate(); }
//       };
//       static constexpr auto attributes() {
//         return std::tuple{row::value<&LedConfig::lightSetting_, &NotifieeConst::onLightSetting,
//                                      &NotifieeConst::onLightSettingzelImmediate>("lightSetting")};
//       }
//       const Led::LightSetting& lightSetting() const { return lightSetting_; }
//       void lightSettingIs(const Led::LightSetting& v) { set<&LedConfig::lightSetting_>(v); }
//
// The mutators (set, childIs, announce…) take the member, or the function, that a row names; one that no row
// names does not compile. An object pays nothing for its table.
#pragma once

#include <array>
#include <initializer_list>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/zel/core/assert.h"
#include "platform/zel/core/exception.h"
#include "platform/zel/core/keyed.h"
#include "platform/zel/entity/generic.h"
#include "platform/zel/notify/notifier.h"
#include "platform/zel/object/attribute.h"
#include "platform/zel/object/type.h"
#include "platform/zel/object/valuetraits.h"

namespace Zel {

namespace detail {

template <auto>
struct Constant {};

// Whether `What` is one of the things that a row names.
template <auto What, auto... Named>
inline constexpr bool names = (std::is_same_v<Constant<What>, Constant<Named>> || ...);

ZEL_API const Value& argument(Arguments arguments, std::size_t index);
ZEL_API void expectArguments(Arguments arguments, std::size_t count);
ZEL_API Value nameList(const std::vector<Name>& names);

template <class T>
using Plain = std::remove_cvref_t<T>;

template <class R>
Value wrap(R&& result) {
  return ValueTraits<Plain<R>>::toValue(result);
}

// What a member pointer points to, and what a member function takes.
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

template <class T, auto Function>
Value callMember(Notifier& object, Arguments arguments) {
  return MemberOf<decltype(Function)>::call(static_cast<T&>(object), Function, arguments);
}

// What every row has: which things it names, and no handlers.
struct Row {
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
struct ValueRow : Row {
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
struct CollectionRow : Row {
  using M = typename MemberOf<decltype(Member)>::type;

  template <auto What>
  static constexpr bool has = names<What, Member>;
  template <class N>
  static void whole(N& notifiee) {
    if constexpr (On != nullptr) (notifiee.*On)();
  }
  template <class N>
  static void key(N& notifiee, Name name) {
    if constexpr (OnKey != nullptr) (notifiee.*OnKey)(name);
  }
  template <class N>
  static void immediate(N& notifiee) {
    if constexpr (Immediate != nullptr) (notifiee.*Immediate)();
  }
};

// A set of names.
template <auto Member, class N, void (N::*OnKey)(Name), void (N::*Immediate)(), void (N::*On)()>
struct NamesRow : CollectionRow<Member, N, OnKey, Immediate, On> {
  template <class T>
  AttributeInfo info() const;
};

// Objects that live in the collection (`Owned`), or that it only refers to.
template <bool Owned, auto Member, class N, void (N::*OnKey)(Name), void (N::*Immediate)(), void (N::*On)()>
struct MembersRow : CollectionRow<Member, N, OnKey, Immediate, On> {
  template <class T>
  AttributeInfo info() const;
};

// An attribute that is reached through functions. `Set` and `Del` may be null.
template <auto Get, auto Set, auto Del>
struct AccessorRow : Row {
  template <auto What>
  static constexpr bool has = names<What, Get, Set, Del>;
  template <class T>
  AttributeInfo info() const;
};

// A collection whose members are made and removed by functions of the class.
template <auto Member, auto Is, auto Del>
struct KeyedRow : Row {
  template <auto What>
  static constexpr bool has = names<What, Member, Is, Del>;
  template <class T>
  AttributeInfo info() const;
};

template <class R, class C, class... A>
struct MemberOf<R (C::*)(A...) const> {
  using result = Plain<R>;
};

template <auto Function>
struct ProcedureRow : Row {
  std::array<const char*, 4> parameters;
  template <class T>
  AttributeInfo info() const;
};

struct ReservedRow : Row {
  template <class T>
  AttributeInfo info() const {
    return start(Kind::reserved, nullptr);
  }
};

// Lets the rows reach a class's protected mutators.
struct RowAccess;

}  // namespace detail

// The rows
// ---------------------------------------------------------------------------------------------------

namespace row {

inline constexpr Operations kGet = only(Operation::get);
inline constexpr Operations kGetSet = Operation::get | Operation::set;
inline constexpr Operations kGetSetDelete = kGetSet | Operation::del;
inline constexpr Operations kCollection = kGetSetDelete | Operation::iterate;

// A plain member: a value, or a pointer to an object.
template <auto Member, auto On = nullptr, auto Immediate = nullptr>
constexpr detail::ValueRow<Member, On, Immediate> value(const char* name, Operations operations = kGetSet) {
  return {{name, operations}};
}
template <auto Member, class N, void (N::*OnKey)(Name), void (N::*Immediate)(), void (N::*On)()>
constexpr detail::NamesRow<Member, N, OnKey, Immediate, On> nameSet(const char* name) {
  return {{{name, kGetSet | Operation::iterate}}};
}
template <auto Member, class N, void (N::*OnKey)(Name), void (N::*Immediate)(), void (N::*On)()>
constexpr detail::MembersRow<true, Member, N, OnKey, Immediate, On> children(const char* name) {
  return {{{name, kCollection}}};
}
template <auto Member, class N, void (N::*OnKey)(Name), void (N::*Immediate)(), void (N::*On)()>
constexpr detail::MembersRow<false, Member, N, OnKey, Immediate, On> references(const char* name) {
  return {{{name, kCollection}}};
}
template <auto Get, auto Set = nullptr, auto Del = nullptr>
constexpr detail::AccessorRow<Get, Set, Del> accessor(const char* name) {
  Operations operations = kGet;
  if (!std::is_null_pointer_v<decltype(Set)>) operations = operations | only(Operation::set);
  if (!std::is_null_pointer_v<decltype(Del)>) operations = operations | only(Operation::del);
  return {{name, operations}};
}
template <auto Member, auto Is, auto Del>
constexpr detail::KeyedRow<Member, Is, Del> keyed(const char* name) {
  return {{name, kCollection}};
}
template <auto Function, class... Names>
constexpr detail::ProcedureRow<Function> procedure(const char* name, Names... parameters) {
  return {{name, only(Operation::invoke)}, {parameters...}};
}
// A position in the table that has no published entry.
constexpr detail::ReservedRow reserved() { return {{"", 0}}; }

}  // namespace row

// Described
// --------------------------------------------------------------------------------------------------

// The base of a class with a table. T has `static constexpr auto attributes()`, `static const TypeNode&
// typeNode()` and, where it is watched by typed reactors, a nested class NotifieeConst.
template <class T, class Base>
class Described : public Typed<T, Base> {
 public:
  using Typed<T, Base>::Typed;

  static constexpr AttributeIndex firstAttribute() {
    if constexpr (requires { Base::endAttribute(); })
      return Base::endAttribute();
    else
      return 0;
  }
  static constexpr AttributeIndex endAttribute() {
    return firstAttribute() + static_cast<AttributeIndex>(std::tuple_size_v<decltype(T::attributes())>);
  }
  // The index of the attribute whose row names `What`.
  template <auto What>
  static constexpr AttributeIndex indexOf() {
    constexpr auto found = []<class... Rows>(const std::tuple<Rows...>&) {
      AttributeIndex index = 0;
      const bool any = ((Rows::template has<What> || (++index, false)) || ...);
      return any ? index : AttributeIndex{sizeof...(Rows)};
    }(T::attributes());
    static_assert(firstAttribute() + found < endAttribute(), "no row of the class's table names this");
    return firstAttribute() + found;
  }

  // The descriptor, for typeNode() to keep. `newEntityForDir` is null for types that no directory makes.
  static TypeNode describe(const char* name, TypeNode::NewForDir newEntityForDir = nullptr) {
    const TypeNode* base = nullptr;
    if constexpr (requires { Base::typeNode(); }) base = &Base::typeNode();
    std::vector<AttributeInfo> rows;
    std::apply([&](const auto&... row) { (rows.push_back(row.template info<T>()), ...); }, T::attributes());
    if constexpr (!std::is_base_of_v<Entity, T>)
      for (AttributeInfo& row : rows) row.stored = false;
    return TypeNode(name, base, std::move(rows), &dispatch, newEntityForDir);
  }

  // Performs one generic operation on an attribute of this class's own range.
  static Value dispatch(Notifier& object, Operation operation, AttributeIndex index, Arguments arguments,
                        bool& handled);

  // Call a handler of `notifiee` for the attribute at `index`. For NotifieeOf.
  template <class N>
  static void handleMark(N& notifiee, AttributeIndex index) {
    withRow(index, [&]<class R>(const R&) { R::whole(notifiee); });
  }
  template <class N>
  static void handleKey(N& notifiee, AttributeIndex index, Name key) {
    withRow(index, [&]<class R>(const R&) { R::key(notifiee, key); });
  }
  template <class N>
  static void handleImmediate(N& notifiee, AttributeIndex index) {
    withRow(index, [&]<class R>(const R&) { R::immediate(notifiee); });
  }

 protected:
  friend struct detail::RowAccess;

  // A plain member: stores and announces a value that differs.
  template <auto Member, class V>
  void set(const V& value) {
    T& self = static_cast<T&>(*this);
    if (self.*Member == value) return;
    self.*Member = value;
    this->attributeChanged(indexOf<Member>());
  }
  // Announces a change that the class made by itself.
  template <auto What>
  void announce() {
    this->attributeChanged(indexOf<What>());
  }
  template <auto What>
  void announceKey(Name key) {
    this->keyChanged(indexOf<What>(), key);
  }

  // A set of names: one name, or the whole set.
  template <auto Member>
  void nameIs(Name name, bool value) {
    if ((static_cast<T&>(*this).*Member).insert(name, value)) announceKey<Member>(name);
  }
  template <auto Member>
  bool nameDel(Name name) {
    if (!(static_cast<T&>(*this).*Member).remove(name)) return false;
    announceKey<Member>(name);
    return true;
  }
  template <auto Member>
  void namesAre(const NameSet& names) {
    auto& member = static_cast<T&>(*this).*Member;
    if (member == names) return;
    member = names;
    announce<Member>();
  }

  // Objects that live in the collection. Create-or-get by name:
  template <auto Member>
  auto childIs(Name name) {
    auto& members = static_cast<T&>(*this).*Member;
    using Child = Plain<decltype(*members.get(name))>;
    if (auto found = members.find(name)) return found;
    auto child = allocate<Child>(name);
    adopt(members, child);
    announceKey<Member>(name);
    return child;
  }
  // An object made elsewhere, under its own name; it takes the place of another one of that name in one step.
  template <auto Member, class Child>
  void childIs(const Ptr<Child>& child) {
    if (!child) throwRangeException("null ValidPtr");
    auto& members = static_cast<T&>(*this).*Member;
    if (members.get(child->name()) == child.get()) return;
    const auto old = members.remove(child->name());
    if (old) disown(*old);
    adopt(members, child);
    announceKey<Member>(child->name());
  }
  // Returns the object that left; null where the name is unknown.
  template <auto Member>
  auto childDel(Name name) {
    auto child = (static_cast<T&>(*this).*Member).remove(name);
    if (child) {
      disown(*child);
      announceKey<Member>(name);
    }
    return child;
  }
  // Replaces all members; announced as a change of the whole.
  template <auto Member, class Children>
  void childrenAre(const Children& children) {
    Plain<decltype(static_cast<T&>(*this).*Member)> old;
    auto& members = static_cast<T&>(*this).*Member;
    if (members.empty() && std::empty(children)) return;
    old.swap(members);
    for (const auto& child : old) disown(*child);
    for (const auto& child : children) adopt(members, child);
    announce<Member>();
  }
  template <auto Member>
  void childDelAll() {
    childrenAre<Member>(std::vector<decltype((static_cast<T&>(*this).*Member).find(Name()))>{});
  }
  // For the destructor of a class with children: they outlive it without a parent where somebody holds them.
  template <auto Member>
  void orphanChildren() {
    for (const auto& child : static_cast<T&>(*this).*Member) disown(*child);
  }

  // Objects that the collection refers to, under their own names. Throws RangeException "null ValidPtr".
  template <auto Member, class M>
  void referenceIs(const Ptr<M>& member) {
    if (!member) throwRangeException("null ValidPtr");
    auto& members = static_cast<T&>(*this).*Member;
    if (members.get(member->name()) == member.get()) return;
    const auto old = members.remove(member->name());
    members.insert(member->name(), member);
    announceKey<Member>(member->name());
  }
  template <auto Member>
  auto referenceDel(Name name) {
    auto member = (static_cast<T&>(*this).*Member).remove(name);
    if (member) announceKey<Member>(name);
    return member;
  }

 private:
  template <class X>
  using Plain = detail::Plain<X>;

  template <class Members, class Child>
  void adopt(Members& members, const Ptr<Child>& child) {
    child->zelGoneIs(false);
    child->ownerIs(static_cast<T*>(this));
    members.insert(child->name(), child);
  }
  template <class Child>
  static void disown(Child& child) {
    child.zelGoneIs(true);
    child.ownerIs(nullptr);
  }

  // Calls `function` with the row at `index`, where it is one of this class's own.
  template <class Function>
  static void withRow(AttributeIndex index, Function&& function) {
    AttributeIndex at = firstAttribute();
    const auto tries = [&](const auto& row) {
      const bool found = at++ == index;
      if (found) function(row);
      return found;
    };
    std::apply([&](const auto&... row) { static_cast<void>((tries(row) || ...)); }, T::attributes());
  }
};

// The typed base of reactors to X; X::NotifieeConst derives from it and adds the handlers.
template <class X>
class NotifieeOf : public NotifieeBase {
 public:
  NotifieeOf() = default;
  explicit NotifieeOf(const Ptr<const X>& notifier) { NotifieeOf::notifierIs(notifier); }

  // The object that is watched; null where there is none. This reactor holds a reference to it.
  const X* notifier() const { return static_cast<const X*>(this->notifierBase()); }

 protected:
  bool accepts(const PtrInterface& notifier) const override {
    return dynamic_cast<const X*>(&notifier) != nullptr;
  }
  void handleMark(AttributeIndex index) override { X::handleMark(typed(), index); }
  void handleKey(AttributeIndex index, Name key) override { X::handleKey(typed(), index, key); }
  void immediate(AttributeIndex index) override { X::handleImmediate(typed(), index); }

 private:
  auto& typed() { return static_cast<typename X::NotifieeConst&>(*this); }
};

// How the rows do what they do
// --------------------------------------------------------------------------------

namespace detail {

struct RowAccess {
  template <auto Member, class T, class V>
  static void set(T& object, const V& value) {
    object.template set<Member>(value);
  }
  template <auto Member, class T>
  static void namesAre(T& object, const NameSet& names) {
    object.template namesAre<Member>(names);
  }
  template <auto Member, class T>
  static Value childIs(T& object, Name name) {
    return wrap(object.template childIs<Member>(name));
  }
  template <auto Member, class T>
  static Value childDel(T& object, Name name) {
    return wrap(object.template childDel<Member>(name));
  }
  template <auto Member, class T, class M>
  static void referenceIs(T& object, const Ptr<M>& member) {
    object.template referenceIs<Member>(member);
  }
  template <auto Member, class T>
  static Value referenceDel(T& object, Name name) {
    return wrap(object.template referenceDel<Member>(name));
  }
};

template <class T, auto Member>
const auto& memberOf(const Notifier& object) {
  return static_cast<const T&>(object).*Member;
}

// One member of a keyed collection, or with no key the list of the keys.
template <class T, auto Member>
std::vector<Name> memberKeys(const Notifier& object) {
  const auto& members = memberOf<T, Member>(object);
  std::vector<Name> keys;
  keys.reserve(members.size());
  for (auto at = members.begin(); at != members.end(); ++at) keys.push_back(at.key());
  return keys;
}
template <class T, auto Member>
Value memberGet(const Notifier& object, Arguments arguments) {
  if (arguments.empty()) return nameList(memberKeys<T, Member>(object));
  return wrap(memberOf<T, Member>(object).find(ValueTraits<Name>::fromValue(argument(arguments, 0))));
}

template <auto Member, auto On, auto Immediate>
template <class T>
AttributeInfo ValueRow<Member, On, Immediate>::info() const {
  constexpr bool pointer = requires { typename M::element_type; };
  AttributeInfo info = start(pointer ? Kind::pointer : Kind::value, &ValueTraits<M>::typeName);
  info.get = [](const Notifier& object, Arguments) { return wrap(memberOf<T, Member>(object)); };
  if (!may(Operation::set)) return info;
  info.set = [](Notifier& object, Arguments arguments) {
    expectArguments(arguments, 1);
    RowAccess::set<Member>(static_cast<T&>(object), ValueTraits<M>::fromValue(arguments[0]));
    return Value();
  };
  info.stored = !pointer;
  info.reset = [](Notifier& object) { RowAccess::set<Member>(static_cast<T&>(object), M{}); };
  info.check = [](const Value& value) { checkValue<M>(value); };
  return info;
}

template <auto Member, class N, void (N::*OnKey)(Name), void (N::*Immediate)(), void (N::*On)()>
template <class T>
AttributeInfo NamesRow<Member, N, OnKey, Immediate, On>::info() const {
  AttributeInfo info = this->start(Kind::names, &ValueTraits<NameSet>::typeName);
  info.get = [](const Notifier& object, Arguments) { return wrap(memberOf<T, Member>(object)); };
  info.set = [](Notifier& object, Arguments arguments) {
    expectArguments(arguments, 1);
    RowAccess::namesAre<Member>(static_cast<T&>(object), ValueTraits<NameSet>::fromValue(arguments[0]));
    return Value();
  };
  info.keys = &memberKeys<T, Member>;
  info.stored = true;
  info.reset = [](Notifier& object) { RowAccess::namesAre<Member>(static_cast<T&>(object), NameSet{}); };
  info.check = [](const Value& value) { checkValue<NameSet>(value); };
  return info;
}

template <bool Owned, auto Member, class N, void (N::*OnKey)(Name), void (N::*Immediate)(), void (N::*On)()>
template <class T>
AttributeInfo MembersRow<Owned, Member, N, OnKey, Immediate, On>::info() const {
  using Element = typename MemberOf<decltype(Member)>::type::member_type;
  AttributeInfo info = this->start(Kind::collection, &ValueTraits<Ptr<Element>>::typeName);
  info.get = &memberGet<T, Member>;
  info.keys = &memberKeys<T, Member>;
  if constexpr (Owned) {
    info.stored = true;
    info.member = [](const Notifier& object, Name key) -> Entity* {
      return memberOf<T, Member>(object).get(key);
    };
    if constexpr (std::is_same_v<Element, Entity>) {  // entries of any type: the caller says which
      info.direct = true;
      info.set = [](Notifier& object, Arguments arguments) {
        expectArguments(arguments, 2);
        return wrap(static_cast<T&>(object).entryIs(ValueTraits<Name>::fromValue(arguments[0]),
                                                    ValueTraits<String>::fromValue(arguments[1])));
      };
    } else {
      info.memberType = &Element::typeNode;
      info.set = [](Notifier& object, Arguments arguments) {
        expectArguments(arguments, 1);
        return RowAccess::childIs<Member>(static_cast<T&>(object),
                                          ValueTraits<Name>::fromValue(arguments[0]));
      };
    }
    info.del = [](Notifier& object, Arguments arguments) {
      expectArguments(arguments, 1);
      return RowAccess::childDel<Member>(static_cast<T&>(object), ValueTraits<Name>::fromValue(arguments[0]));
    };
  } else {
    info.set = [](Notifier& object, Arguments arguments) {
      expectArguments(arguments, 1);
      RowAccess::referenceIs<Member>(static_cast<T&>(object),
                                     ValueTraits<Ptr<Element>>::fromValue(arguments[0]));
      return Value();
    };
    info.del = [](Notifier& object, Arguments arguments) {
      expectArguments(arguments, 1);
      return RowAccess::referenceDel<Member>(static_cast<T&>(object),
                                             ValueTraits<Name>::fromValue(arguments[0]));
    };
  }
  return info;
}

template <auto Get, auto Set, auto Del>
template <class T>
AttributeInfo AccessorRow<Get, Set, Del>::info() const {
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
AttributeInfo KeyedRow<Member, Is, Del>::info() const {
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
AttributeInfo ProcedureRow<Function>::info() const {
  AttributeInfo info = start(Kind::procedure, nullptr);
  info.invoke = &callMember<T, Function>;
  info.parameters =
      MemberOf<decltype(Function)>::parameters({parameters[0], parameters[1], parameters[2], parameters[3]});
  return info;
}

}  // namespace detail

template <class T, class Base>
Value Described<T, Base>::dispatch(Notifier& object, Operation operation, AttributeIndex index,
                                   Arguments arguments, bool& handled) {
  handled = index >= firstAttribute() && index < endAttribute();
  if (!handled) return {};
  return perform(T::typeNode(), T::typeNode().attribute(index), object, operation, arguments);
}

}  // namespace Zel
