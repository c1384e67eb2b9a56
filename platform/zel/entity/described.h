// Attributes are declared once: a class's table has a descriptor for each, with name, kind, type, operations
// and handlers. The delivery of notifications, the generic interface and the reading and writing of stored
// values follow from it.
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
//         return std::tuple{attribute::value<&LedConfig::lightSetting_, &NotifieeConst::onLightSetting,
//                                            &NotifieeConst::onLightSettingzelImmediate>("lightSetting")};
//       }
//       const Led::LightSetting& lightSetting() const { return lightSetting_; }
//       void lightSettingIs(const Led::LightSetting& v) { set<&LedConfig::lightSetting_>(v); }
//
// The mutators (set, childIs, announce…) take the member, or the function, that a descriptor names; one that
// no descriptor names does not compile. An object pays nothing for its table.
#pragma once

#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/zel/core/exception.h"
#include "platform/zel/core/keyed.h"
#include "platform/zel/entity/declarations.h"
#include "platform/zel/entity/generic.h"
#include "platform/zel/entity/operations.h"
#include "platform/zel/notify/notifier.h"
#include "platform/zel/notify/slot.h"
#include "platform/zel/object/type.h"

namespace Zel {

// The base of a class with a table. T has `static constexpr auto attributes()`, `static const TypeNode&
// typeNode()` and, for typed reactors, a nested class NotifieeConst. An owner of reactors names their slots
// in `static constexpr auto reactors()` (slot.h).
template <class T, class Base>
class Described : public SlotOwner<T, Typed<T, Base>> {
 public:
  using SlotOwner<T, Typed<T, Base>>::SlotOwner;

  static constexpr AttributeIndex firstAttribute() {
    if constexpr (requires { Base::endAttribute(); })
      return Base::endAttribute();
    else
      return 0;
  }
  static constexpr AttributeIndex endAttribute() {
    return firstAttribute() + static_cast<AttributeIndex>(std::tuple_size_v<decltype(T::attributes())>);
  }
  // The index of the attribute whose descriptor names `What`.
  template <auto What>
  static constexpr AttributeIndex indexOf() {
    constexpr auto found = []<class... Declared>(const std::tuple<Declared...>&) {
      AttributeIndex index = 0;
      const bool any = ((Declared::template has<What> || (++index, false)) || ...);
      return any ? index : AttributeIndex{sizeof...(Declared)};
    }(T::attributes());
    static_assert(firstAttribute() + found < endAttribute(), "no attribute of the class's table names this");
    return firstAttribute() + found;
  }

  // The type's descriptor, for typeNode() to keep. `newEntityForDir` is null if directories can't hold the
  // type.
  static TypeNode describe(const char* name, TypeNode::NewForDir newEntityForDir = nullptr) {
    const TypeNode* base = nullptr;
    if constexpr (requires { Base::typeNode(); }) base = &Base::typeNode();
    std::vector<AttributeInfo> infos;
    std::apply([&](const auto&... each) { (infos.push_back(each.template info<T>()), ...); },
               T::attributes());
    if constexpr (!std::is_base_of_v<Entity, T>)
      for (AttributeInfo& info : infos) info.stored = false;
    return TypeNode(name, base, std::move(infos), &dispatch, newEntityForDir);
  }

  // Performs one generic operation on an attribute in this class's own range; TypeNode::Dispatch.
  static Value dispatch(Notifier& object, Operation operation, AttributeIndex index, Arguments arguments,
                        bool& handled) {
    handled = index >= firstAttribute() && index < endAttribute();
    if (!handled) return {};
    return perform(T::typeNode(), T::typeNode().attribute(index), object, operation, arguments);
  }

  // Call a handler of `notifiee` for the attribute at `index`. For NotifieeOf.
  template <class N>
  static void handleMark(N& notifiee, AttributeIndex index) {
    withAttribute(index, [&]<class A>(const A&) { A::whole(notifiee); });
  }
  template <class N>
  static void handleKey(N& notifiee, AttributeIndex index, const Name& key) {
    withAttribute(index, [&]<class A>(const A&) { A::key(notifiee, key); });
  }
  template <class N>
  static void handleImmediate(N& notifiee, AttributeIndex index) {
    withAttribute(index, [&]<class A>(const A&) { A::immediate(notifiee); });
  }

 protected:
  friend struct detail::MutatorAccess;

  // A plain member: stores the value and notifies, if it differs.
  template <auto Member, class V>
  void set(const V& value) {
    T& self = static_cast<T&>(*this);
    if (self.*Member == value) return;
    self.*Member = value;
    this->attributeChanged(indexOf<Member>());
  }
  // Notifies of a change that the class made itself.
  template <auto What>
  void announce() {
    this->attributeChanged(indexOf<What>());
  }
  template <auto What>
  void announceKey(const Name& key) {
    this->keyChanged(indexOf<What>(), key);
  }

  // A set of names: one name, or the whole set.
  template <auto Member>
  void nameIs(const Name& name, bool value) {
    if ((static_cast<T&>(*this).*Member).insert(name, value)) announceKey<Member>(name);
  }
  template <auto Member>
  bool nameDel(const Name& name) {
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

  // Owned objects. Create-or-get by name:
  template <auto Member>
  auto childIs(const Name& name) {
    auto& members = static_cast<T&>(*this).*Member;
    using Child = Plain<decltype(*members.get(name))>;
    if (auto found = members.find(name)) return found;
    auto child = allocate<Child>(name);
    adopt(members, child);
    announceKey<Member>(name);
    return child;
  }
  // Adds an existing object under its own name, replacing another of that name in one step.
  template <auto Member, class Child>
  void childIs(const Ptr<Child>& child) {
    auto& members = static_cast<T&>(*this).*Member;
    if (members.get(valid(child)->name()) == child.get()) return;
    const auto old = members.remove(child->name());
    if (old) disown(*old);
    adopt(members, child);
    announceKey<Member>(child->name());
  }
  // Returns the removed object; null if there was none.
  template <auto Member>
  auto childDel(const Name& name) {
    auto child = (static_cast<T&>(*this).*Member).remove(name);
    if (child) {
      disown(*child);
      announceKey<Member>(name);
    }
    return child;
  }
  // Replaces all members; notifies without a key.
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
  // For the destructor of a class with children: children that are still referenced lose their parent.
  template <auto Member>
  void orphanChildren() {
    for (const auto& child : static_cast<T&>(*this).*Member) disown(*child);
  }

  // References to objects, under their own names. Throws RangeException "null ValidPtr".
  template <auto Member, class M>
  void referenceIs(const Ptr<M>& member) {
    auto& members = static_cast<T&>(*this).*Member;
    if (members.get(valid(member)->name()) == member.get()) return;
    const auto old = members.remove(member->name());
    members.insert(member->name(), member);
    announceKey<Member>(member->name());
  }
  template <auto Member>
  auto referenceDel(const Name& name) {
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

  // Calls `function` with the descriptor at `index` if the attribute is one of this class's own.
  template <class Function>
  static void withAttribute(AttributeIndex index, Function&& function) {
    AttributeIndex at = firstAttribute();
    const auto tries = [&](const auto& attribute) {
      const bool found = at++ == index;
      if (found) function(attribute);
      return found;
    };
    std::apply([&](const auto&... each) { static_cast<void>((tries(each) || ...)); }, T::attributes());
  }
};

// The typed base of reactors to X; X::NotifieeConst derives from it and adds the handlers.
template <class X>
class NotifieeOf : public NotifieeBase {
 public:
  NotifieeOf() = default;
  explicit NotifieeOf(const Ptr<const X>& notifier) { NotifieeOf::notifierIs(notifier); }

  // The watched object, to which the reactor holds a reference; null if there is none.
  const X* notifier() const { return static_cast<const X*>(this->notifierBase()); }

 protected:
  bool accepts(const PtrInterface& notifier) const override {
    return dynamic_cast<const X*>(&notifier) != nullptr;
  }
  void handleMark(AttributeIndex index) override { X::handleMark(typed(), index); }
  void handleKey(AttributeIndex index, const Name& key) override { X::handleKey(typed(), index, key); }
  void immediate(AttributeIndex index) override { X::handleImmediate(typed(), index); }

 private:
  auto& typed() { return static_cast<typename X::NotifieeConst&>(*this); }
};

}  // namespace Zel
