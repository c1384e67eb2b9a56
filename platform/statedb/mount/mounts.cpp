#include "platform/statedb/mount/mounts.h"

#include <algorithm>
#include <utility>

namespace Statedb {

namespace {

constexpr const char* kRemedy = "; delete that entity from a host without this agent";

}  // namespace

Mounts::Mounts(Store& store)
    : store_(store),
      publishers_(store, refusals_),
      covers_(store, table_, refusals_),
      applier_(tree_, table_, publishers_, refusals_),
      subscriptions_(store, table_, applier_, [this] { completeLater(); }) {
  Zel::activityManager().passEndIs(*this);
}

Mounts::~Mounts() { Zel::activityManager().passEndDel(*this); }

// Runs `task` in the next pass, unless this object has been destroyed.
template <class Task>
void Mounts::post(Task task) {
  Zel::activityManager().post([weak = weak_from_this(), task = std::move(task)] {
    if (const auto self = weak.lock()) task(*self);
  });
}

void Mounts::close(const Zel::Ptr<MountGroup>& group) {
  std::erase_if(open_, [&](const auto& entry) { return entry.second == group; });
  closed_.push_back(group);
  post([group](Mounts& self) { self.mount(group); });
}

void Mounts::stop() {
  open_.clear();
  for (const auto& group : std::exchange(closed_, {})) {
    group->mounter_ = nullptr;
    group->entityManager_ = nullptr;
  }
}

void Mounts::mount(const Zel::Ptr<MountGroup>& group) {
  if (std::ranges::find(closed_, group) == closed_.end()) return;
  for (const Mount& mount : group->mounts()) table_.add(mount);
  subscriptions_.add(group->mounts());
  for (const Mount& mount : group->mounts())
    if (mount.mode() == "c") covers_.follow(Path(mount.path().view()), [this] { completeLater(); });
  completeLater();
}

void Mounts::completeLater() {
  post([](Mounts& self) { self.complete(); });
}

void Mounts::complete() {
  for (const auto& group : std::vector(closed_)) {
    if (!isReady(*group)) continue;
    std::erase(closed_, group);
    finish(*group);
  }
}

bool Mounts::isReady(const MountGroup& group) const {
  return !applier_.isWaiting() && std::ranges::all_of(group.mounts(), [&](const Mount& mount) {
    const Path path(mount.path().view());
    return subscriptions_.haveArrived(path) && (mount.mode() != "c" || covers_.hasArrived(path));
  });
}

void Mounts::finish(MountGroup& group) {
  for (const Mount& mount : group.mounts()) {
    try {
      finish(mount);
    } catch (const std::exception& error) {
      group.failures_.push_back("mount of '" + mount.path().stdString() + "': " + error.what());
      refusals_.log(group.failures_.back());
    }
  }
  const auto mounter = std::exchange(group.mounter_, nullptr);
  const auto manager = std::exchange(group.entityManager_, nullptr);
  const MountStatus status = group.failures_.empty() ? mountSuccess_ : mountFailure_;
  Zel::runForAgent(mounter->name(), "doMountsComplete", [&] { mounter->doMountsComplete(status, manager); });
}

void Mounts::finish(const Mount& mount) {
  const Path path(mount.path().view());
  const Zel::Name asked(mount.typeName());
  if (!Zel::typeNode(asked))
    throw Zel::ValueError("the type asked for, " + asked.stdString() + ", is unknown");
  checkRefused(path, asked);
  checkMode(mount);
  const auto entity = applier_.ensure(path, asked);
  const Zel::Name found = entity->fwkType().name();
  if (found != asked)
    throw Zel::ValueError("found an entity of type " + found.stdString() + ", asked for " +
                          asked.stdString() + kRemedy);
  table_.complete(path, entity);
  if (Mount::publishes(mount.mode().view())) publishers_.add(entity, path);
}

// Throws if the store has an entity at the path, or above it, that could not be made here.
void Mounts::checkRefused(Path path, Zel::Name asked) const {
  const auto* refused = applier_.refusedAtOrAbove(path);
  if (!refused) return;
  throw Zel::ValueError("found an entity of type " + refused->type.stdString() +
                        (refused->path == path ? "" : " at '" + refused->path.text() + "'") +
                        " that can't be made (" + refused->why + "), asked for " + asked.stdString() +
                        kRemedy);
}

void Mounts::checkMode(const Mount& mount) const {
  const std::string mode = mount.mode().stdString();
  if (const auto* other = table_.conflictOf(mount))
    throw Zel::ValueError("mode \"" + mode + "\", but '" + other->path.text() + "' is mounted with \"" +
                          other->mode + "\" in this process, and only its agent writes under a \"" +
                          (Mount::publishes(mode) ? mode : other->mode) + "\" mount");
  if (mount.mode() == "c" && !store_.takesCovers())
    throw Zel::ValueError("this store has no covers: " + store_.url() +
                          "; keep the state in memory: or sqlite:, or reach such a host through unix:");
}

void Mounts::onPassEnd() {
  covers_.write();
  publishers_.forEachBatch([this](const Changes& changes) { applier_.overtake(changes); });
  publishers_.write([this](Path path) { return subscriptions_.subscriberOf(path); });
  applier_.removalsDelivered();
  if (!closed_.empty() && !applier_.isWaiting()) complete();
}

}  // namespace Statedb
