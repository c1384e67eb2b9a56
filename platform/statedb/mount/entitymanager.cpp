#include "platform/statedb/mount/entitymanager.h"

#include <utility>

#include "platform/statedb/mount/mounts.h"

namespace Statedb {

EntityManager::EntityManager(Store& store) : mounts_(std::make_shared<Mounts>(store)) {}
EntityManager::~EntityManager() = default;

const Zel::TypeNode& EntityManager::typeNode() {
  static const Zel::TypeNode type("Statedb::EntityManager", nullptr, {}, nullptr, nullptr);
  return type;
}

Zel::Ptr<MountGroup> EntityManager::getMountGroup(const Zel::Ptr<Mounter>& mounter) {
  auto& group = mounts_->openGroup(mounter.get());
  if (!group) group = Zel::allocate<MountGroup>(Zel::Ptr<EntityManager>(this), mounter);
  return group;
}

Zel::Ptr<Zel::Entity> EntityManager::getEntity(Zel::String path) const {
  const auto known = Path::existing(path.view());
  return known ? mounts_->table().entityAt(*known) : nullptr;
}

Zel::Ptr<Zel::Entity> EntityManager::entityAt(Path path) const { return mounts_->tree().entityAt(path); }

Covers& EntityManager::covers() const { return mounts_->covers(); }

const Zel::Ptr<Zel::Dir>& EntityManager::root() const { return mounts_->tree().root(); }

std::vector<Path> EntityManager::membersOf(Path path) const { return mounts_->applier().membersOf(path); }

bool EntityManager::showLocally(Path path, Zel::Name attribute, const Zel::Value& value) {
  return mounts_->applier().show(path, attribute, value);
}

void EntityManager::readAgain(Path path) { mounts_->readAgain(path); }

const std::vector<EntityManager::MountInfo>& EntityManager::mounts() const { return mounts_->table().all(); }

void EntityManager::reportIs(std::function<void(const std::string&)> report) {
  mounts_->refusals().logIs(std::move(report));
}
std::uint64_t EntityManager::refusals() const { return mounts_->refusals().count(); }
std::uint64_t EntityManager::published() const { return mounts_->publishers().rows(); }

void EntityManager::close(const Zel::Ptr<MountGroup>& group) { mounts_->close(group); }

void EntityManager::stop() { mounts_->stop(); }

}  // namespace Statedb
