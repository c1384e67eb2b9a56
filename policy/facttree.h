// The facts in the state database: "facts/DIRECTORY/FACT", entities of any type.
//
// Activity thread only.
#pragma once

#include "platform/zel/entity/dir.h"
#include "platform/zel/notify/slot.h"
#include "policy/rules.h"
#include "policy/work.h"

namespace Policy {

// Reads them where they are.
class FactTree final : public FactReader {
 public:
  // Null: there are none.
  void rootIs(const Zel::Ptr<const Zel::Dir>& root) { root_ = root; }

  bool hasFact(Zel::Name directory, Zel::Name fact) const override {
    return entity(directory, fact) != nullptr;
  }
  void forEachFact(Zel::Name directory, const std::function<void(Zel::Name)>& call) const override;
  std::optional<Zel::Value> value(Zel::Name directory, Zel::Name fact, Zel::Name attribute) const override;

 private:
  Zel::Ptr<const Zel::Dir> find(Zel::Name directory) const;
  Zel::Ptr<const Zel::Entity> entity(Zel::Name directory, Zel::Name fact) const;

  Zel::Ptr<const Zel::Dir> root_;
};

// Follows the facts of one directory, and reports their changes to the rules. Owned by the agent.
class FactFollower : public Zel::Described<FactFollower, Zel::Notifier> {
 public:
  static constexpr auto attributes() { return std::tuple{}; }
  static constexpr auto reactors() { return std::tuple{&FactFollower::directory_, &FactFollower::facts_}; }
  static const Zel::TypeNode& typeNode() {
    static const Zel::TypeNode type = describe("Policy::FactFollower");
    return type;
  }

  // The rules must outlive it, switched off at the latest.
  FactFollower(const Zel::Ptr<const Zel::Dir>& directory, Rules& rules, const Zel::Ptr<Work>& work);

  // Reports all facts again, after the tree has lost or got them.
  void reportAll();

 protected:
  ~FactFollower() override;

 private:
  class DirectoryReactor;
  class FactReactor;

  void entryChanged(Zel::Name fact);
  void valueChanged(Zel::Name fact, Zel::Name attribute);

  const Zel::Name name_;
  Rules& rules_;
  const Zel::Ptr<Work> work_;
  Zel::Slot<DirectoryReactor> directory_;
  Zel::SlotMap<FactReactor> facts_;
};

}  // namespace Policy
