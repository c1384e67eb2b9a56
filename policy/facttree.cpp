#include "policy/facttree.h"

#include "platform/model/paths.h"
#include "platform/zel/core/exception.h"
#include "policy/factreactors.h"

namespace Policy {

using Zel::Name;
using Zel::Ptr;

Ptr<const Zel::Dir> FactTree::find(Name directory) const {
  const std::string above = std::string(Paths::kFacts) + '/';
  if (!root_ || !directory.view().starts_with(above)) return nullptr;
  const auto name = Name::existing(directory.view().substr(above.size()));
  return name ? Zel::dynamicPtrCast<const Zel::Dir>(root_->entityRef(*name)) : nullptr;
}

Ptr<const Zel::Entity> FactTree::entity(Name directory, Name fact) const {
  const auto found = find(directory);
  return found ? Ptr<const Zel::Entity>(found->entityRef(fact)) : nullptr;
}

void FactTree::forEachFact(Name directory, const std::function<void(Name)>& call) const {
  const auto found = find(directory);
  if (!found) return;
  for (const auto& fact : found->entries()) call(fact->name());
}

std::optional<Zel::Value> FactTree::value(Name directory, Name fact, Name attribute) const {
  const auto found = entity(directory, fact);
  if (!found) return std::nullopt;
  const Zel::AttributeInfo* info = found->fwkType().find(attribute);
  if (!info || !info->get || info->kind == Zel::Kind::collection)
    throw Zel::ValueError("a " + found->fwkType().name().stdString() + " has no such attribute");
  return info->get(*found, {});
}

FactFollower::FactFollower(const Ptr<const Zel::Dir>& directory, Rules& rules, const Ptr<Work>& work)
    : name_(std::string(Paths::kFacts) + '/' + Zel::escapeComponent(directory->name().view())),
      rules_(rules),
      work_(work) {
  directory_.make(*this, directory);
  for (const auto& fact : directory->entries()) entryChanged(fact->name());
}

FactFollower::~FactFollower() = default;

void FactFollower::reportAll() {
  for (const auto& fact : facts_) rules_.factChanged(name_, fact->notifier()->name());
  work_->request();
}

void FactFollower::entryChanged(Name fact) {
  facts_.watch(fact, *this, Ptr<const Zel::Entity>(directory_.notifier()->entityRef(fact)));
  rules_.factChanged(name_, fact);
  work_->request();
}

void FactFollower::valueChanged(Name fact, Name attribute) {
  rules_.valueChanged(name_, fact, attribute);
  work_->request();
}

}  // namespace Policy
