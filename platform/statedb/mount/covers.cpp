#include "platform/statedb/mount/covers.h"

#include <algorithm>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/statedb/mount/mounttable.h"
#include "platform/statedb/mount/refusals.h"
#include "platform/statedb/store/pathset.h"
#include "platform/statedb/store/schema.h"
#include "platform/statedb/store/store.h"

namespace Statedb {

namespace {

using RecordsByPath = std::unordered_map<Path, Record>;

const Record* recordAt(const RecordsByPath& records, Path path) {
  const auto found = records.find(path);
  return found == records.end() ? nullptr : &found->second;
}

void setRow(RecordsByPath& records, const Row& row) {
  Record& record = records.try_emplace(row.path, Record{row.path, row.type, {}}).first->second;
  if (row.attribute.empty()) return;
  const auto found = std::ranges::find(record.attributes, row.attribute, &Attribute::name);
  if (found == record.attributes.end())
    record.attributes.emplace_back(row.attribute, row.value);
  else
    found->value = row.value;
}

void unsetRow(RecordsByPath& records, Path path, Zel::Name attribute) {
  if (const auto found = records.find(path); found != records.end())
    std::erase_if(found->second.attributes, [&](const Attribute& each) { return each.name == attribute; });
}

// The rows at and under a path, without covers.
class BaseRows : public Subscriber, private SnapshotParts {
 public:
  using Changed = std::function<void(Path)>;
  BaseRows(Path path, std::function<void()> onSnapshot, Changed changed)
      : path_(path), onSnapshot_(std::move(onSnapshot)), changed_(std::move(changed)) {}

  Path path() const { return path_; }
  bool hasArrived() const { return hasArrived_; }
  const Record* find(Path path) const { return recordAt(records_, path); }

  Layer layer() const override { return Layer::base; }
  void onSnapshot(const Records& records) override {
    had_.reset();
    records_.clear();
    for (const Record* each : records) records_.emplace(each->path, *each);
    changed_(path_);
    arrived();
  }
  SnapshotParts* snapshotParts() override { return this; }
  void onChanges(const Changes& changes) override {
    for (const Change& each : changes) apply(each);
  }

 private:
  void onBegin() override { had_.emplace(); }
  void onPart(const Records& records) override {
    for (const Record* each : records) {
      records_.insert_or_assign(each->path, *each);
      had_->insert(each->path);
      changed_(each->path);
    }
  }
  bool onEnd() override {
    if (records_.size() > had_->size()) removeOthers();
    had_.reset();
    arrived();
    return true;
  }
  // Takes long where there are many; of a store that notifies of differences there are none.
  void removeOthers() {
    std::erase_if(records_, [this](const auto& each) { return !had_->contains(each.first); });
    changed_(path_);
  }
  void arrived() {
    hasArrived_ = true;
    onSnapshot_();
  }

  void apply(const Change& change) {
    const Row& row = change.row;
    if (change.kind == Change::Kind::put)
      put(row);
    else if (change.kind == Change::Kind::unset)
      unsetRow(records_, row.path, row.attribute);
    else
      row.path.forEachUnder([&](Path each) { remove(each); });
    changed_(row.path);
  }
  void put(const Row& row) {
    setRow(records_, row);
    if (had_) had_->insert(row.path);
  }
  void remove(Path path) {
    records_.erase(path);
    if (had_) had_->erase(path);
  }

  const Path path_;
  const std::function<void()> onSnapshot_;
  const Changed changed_;
  RecordsByPath records_;
  std::optional<PathSet> had_;  // those that a snapshot under way has had
  bool hasArrived_ = false;
};

}  // namespace

struct Covers::State {
  Store& store;
  const MountTable& mounts;
  Refusals& refusals;
  RecordsByPath own{};
  Changes changes{};  // of this pass
  std::vector<std::unique_ptr<BaseRows>> bases{};
  std::vector<std::weak_ptr<BaseRows::Changed>> baseReactors{};

  void baseChanged(Path path) {
    std::erase_if(baseReactors, [](const auto& each) { return each.expired(); });
    for (const auto& each : std::vector(baseReactors))
      if (const auto changed = each.lock()) (*changed)(path);
  }

  void drop(Path path, Zel::Name attribute) {
    unsetRow(own, path, attribute);
    if (const Record* left = recordAt(own, path); left && left->attributes.empty()) own.erase(path);
  }
  // Bisects a refused batch down to the covers at fault.
  void write(const Changes& batch) {
    try {
      store.write(batch, Durability::cover);
    } catch (const StoreError& error) {
      if (batch.size() == 1) return refuse(batch.front().row, error.what());
      const auto [first, second] = halves(batch);
      write(first);
      write(second);
    }
  }
  void refuse(const Row& row, const std::string& why) {
    refusals.add(row, "could not be covered: " + why);
    drop(row.path, row.attribute);
  }
  const BaseRows* baseOf(Path path) const {
    const auto found = std::ranges::find_if(bases, [&](auto& each) { return path.isUnder(each->path()); });
    return found == bases.end() ? nullptr : found->get();
  }
};

Covers::Covers(Store& store, const MountTable& mounts, Refusals& refusals)
    : state_(new State{store, mounts, refusals}) {}

Covers::~Covers() {
  for (const auto& base : state_->bases) state_->store.unsubscribe(*base);
}

void Covers::follow(Path path, std::function<void()> onSnapshot) {
  if (state_->baseOf(path)) return;
  state_->bases.push_back(std::make_unique<BaseRows>(path, std::move(onSnapshot),
                                                     [this](Path each) { state_->baseChanged(each); }));
  state_->store.subscribe(path, *state_->bases.back());
}

bool Covers::hasArrived(Path path) const {
  const BaseRows* base = state_->baseOf(path);
  return base && base->hasArrived();
}

void Covers::put(Path path, Zel::Name type, Zel::Name attribute, const Zel::Value& value) {
  const Change change = Change::put(path, type, attribute, value);
  if (!state_->mounts.covers(path))
    Zel::throwRangeException(
        ("cover of '" + placeText(change.row) + "': no agent mounted it, or a path above it, with mode \"c\"")
            .c_str());
  if (attribute.empty()) throw Zel::ValueError("a cover needs an attribute");
  checkRow(type, attribute, value);
  if (const Record* there = recordAt(state_->own, path); there && there->type != type) removeUnder(path);
  if (const Zel::Value* known = find(path, attribute); known && *known == value) return;
  setRow(state_->own, change.row);
  state_->changes.push_back(change);
}

void Covers::remove(Path path, Zel::Name attribute) {
  if (!find(path, attribute)) return;
  state_->drop(path, attribute);
  state_->changes.push_back(Change::unset(path, attribute));
}

void Covers::removeUnder(Path path) {
  std::vector<std::pair<Path, Zel::Name>> places;
  for (const auto& [each, record] : state_->own)
    if (each.isUnder(path))
      for (const Attribute& attribute : record.attributes) places.emplace_back(each, attribute.name);
  for (const auto& [each, attribute] : places) remove(each, attribute);
}

const Zel::Value* Covers::find(Path path, Zel::Name attribute) const {
  const Record* record = recordAt(state_->own, path);
  return record ? record->find(attribute) : nullptr;
}

const Zel::Value* Covers::base(Path path, Zel::Name attribute) const {
  const BaseRows* base = state_->baseOf(path);
  const Record* record = base ? base->find(path) : nullptr;
  return record ? record->find(attribute) : nullptr;
}

std::shared_ptr<void> Covers::baseReactorIs(std::function<void(Path)> changed) {
  const auto reactor = std::make_shared<BaseRows::Changed>(std::move(changed));
  state_->baseReactors.push_back(reactor);
  return reactor;
}

void Covers::write() {
  if (!state_->changes.empty()) state_->write(std::exchange(state_->changes, {}));
}

}  // namespace Statedb
