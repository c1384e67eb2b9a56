// The reactors on facts.
#pragma once

#include "policy/facttree.h"

namespace Policy {

class FactFollower::DirectoryReactor
    : public Zel::NestedReactor<DirectoryReactor, Zel::Dir::NotifieeConst, FactFollower> {
 public:
  static constexpr const char* kTypeName = "Policy::FactFollower::DirectoryReactor";
  using NestedReactor::NestedReactor;
  void onEntry(Zel::Name fact) override { notifyOwner(&FactFollower::entryChanged, fact); }
};

// A fact's attributes, whatever its type is.
class AnyEntityNotifiee : public Zel::RawNotifiee {
 public:
  explicit AnyEntityNotifiee(const Zel::Ptr<const Zel::Entity>& entity) { RawNotifiee::notifierIs(entity); }
  const Zel::Entity* notifier() const { return static_cast<const Zel::Entity*>(notifierBase()); }
};

class FactFollower::FactReactor : public Zel::NestedReactor<FactReactor, AnyEntityNotifiee, FactFollower> {
 public:
  static constexpr const char* kTypeName = "Policy::FactFollower::FactReactor";
  using NestedReactor::NestedReactor;
  void onRawAttribute(Zel::AttributeIndex index, Zel::Name) override {
    const Zel::Name attribute = notifier()->fwkType().attribute(index).label;
    notifyOwner(&FactFollower::valueChanged, notifier()->name(), attribute);
  }
};

}  // namespace Policy
