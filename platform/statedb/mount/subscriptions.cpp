#include "platform/statedb/mount/subscriptions.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "platform/statedb/mount/partialsnapshot.h"

namespace Statedb {

namespace {
constexpr std::size_t kMostLookedAt = 256;  // entities that the end of a snapshot looks at
}  // namespace

class Subscriptions::Subscription : public Subscriber, private SnapshotParts {
 public:
  Subscription(Subscriptions& owner, Path path) : path_(path), owner_(owner) {}

  Path path() const { return path_; }
  bool hasArrived() const { return hasArrived_; }

  void onSnapshot(const Records& records) override {
    partial_.reset();
    owner_.applier_.applySnapshot(path_, records);
    arrived();
  }
  SnapshotParts* snapshotParts() override { return this; }
  void onChanges(const Changes& changes) override { owner_.applier_.apply(changes); }
  bool publishes(Path path) const override { return owner_.mounts_.publishes(path); }

 private:
  void onBegin() override { partial_.emplace(owner_.applier_, path_); }
  void onPart(const Records& records) override { partial_->take(records); }
  bool onEnd() override {
    if (!partial_->removeOthers(kMostLookedAt)) return false;
    partial_.reset();
    arrived();
    return true;
  }
  void arrived() {
    hasArrived_ = true;
    owner_.onSnapshot_();
  }

  const Path path_;
  Subscriptions& owner_;
  std::optional<PartialSnapshot> partial_;  // under way
  bool hasArrived_ = false;
};

Subscriptions::Subscriptions(Store& store, const MountTable& mounts, RowApplier& applier,
                             std::function<void()> onSnapshot)
    : store_(store), mounts_(mounts), applier_(applier), onSnapshot_(std::move(onSnapshot)) {}

Subscriptions::~Subscriptions() {
  for (const auto& subscription : subscriptions_) store_.unsubscribe(*subscription);
}

Subscriptions::Subscription* Subscriptions::covering(Path path) const {
  for (const auto& subscription : subscriptions_)
    if (path.isUnder(subscription->path())) return subscription.get();
  return nullptr;
}

void Subscriptions::readAgain(Path path) {
  if (Subscription* subscription = covering(path)) store_.subscribe(subscription->path(), *subscription);
}

Subscriber* Subscriptions::subscriberOf(Path path) const { return covering(path); }

bool Subscriptions::haveArrived(Path path) const {
  const Subscription* subscription = covering(path);
  return subscription && subscription->hasArrived();
}

// Outer paths first: one subscription then covers those under it.
void Subscriptions::add(const std::vector<Mount>& mounts) {
  std::vector<Path> paths;
  for (const Mount& mount : mounts) paths.emplace_back(mount.path().view());
  std::ranges::sort(paths, &readsBefore);
  for (const Path& path : paths)
    if (!covering(path)) add(path);
}

// Replaces the subscriptions under the path.
void Subscriptions::add(Path path) {
  std::vector<std::unique_ptr<Subscription>> covered;
  for (auto& subscription : subscriptions_)
    if (subscription->path().isUnder(path)) covered.push_back(std::move(subscription));
  std::erase(subscriptions_, nullptr);
  subscriptions_.push_back(std::make_unique<Subscription>(*this, path));
  for (const auto& old : covered) store_.unsubscribe(*old);
  store_.subscribe(path, *subscriptions_.back());
}

}  // namespace Statedb
