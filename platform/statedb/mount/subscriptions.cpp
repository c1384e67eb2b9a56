#include "platform/statedb/mount/subscriptions.h"

#include <algorithm>
#include <utility>

namespace Statedb {

class Subscriptions::Subscription : public Subscriber {
 public:
  Subscription(Subscriptions& owner, Path path) : path_(path), owner_(owner) {}

  Path path() const { return path_; }
  bool hasArrived() const { return hasArrived_; }

  void onSnapshot(const Records& records) override {
    hasArrived_ = true;
    owner_.applier_.applySnapshot(path_, records);
    owner_.onSnapshot_();
  }
  void onChanges(const Changes& changes) override { owner_.applier_.apply(changes); }
  bool publishes(Path path) const override { return owner_.mounts_.publishes(path); }

 private:
  const Path path_;
  Subscriptions& owner_;
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
