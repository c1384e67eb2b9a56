#include "host/control/batch.h"

#include <algorithm>
#include <unordered_set>

#include "host/rpc/changes.h"
#include "platform/zel/entity/dir.h"
#include "platform/zel/entity/pathwalker.h"

namespace Host {

using Statedb::Change;
using Zel::ValueError;

namespace {

bool isStrictlyUnder(std::string_view path, std::string_view above) {
  return path.size() > above.size() && path.starts_with(above) && path[above.size()] == '/';
}

// Checks the steps in order, as strings, and makes rows only once all are valid: a refused batch interns
// nothing.
class BatchReader {
 public:
  explicit BatchReader(const BatchContext& context) : context_(context), types_(context.typeAt) {
    for (const auto& mount : context.mounts) mounts_.push_back(mount.path.text());
  }

  void add(const RequestedChange& change) {
    if (errors_.size() > Batch::kMostErrors || isUnderFailed(change.path)) return;
    try {
      Zel::PathWalker::check(change.path);
      checkAccess(change);
      if (change.kind != Change::Kind::put)
        remove(change);
      else if (isCover())
        cover(change);
      else
        put(change);
    } catch (const ValueError& error) {
      failed_.insert(change.path);
      refuse(Zel::excerpt(change.path, Zel::PathWalker::kLongest), error);
    }
  }

  Batch batch() {
    Batch batch;
    batch.errors = std::move(errors_);
    if (!batch.errors.empty()) return batch;
    batch.changes.reserve(rows_);
    for (const auto& [change, type, isMount, isBlind] : taken_) {
      if (isBlind && removesNothing(change)) continue;
      const std::size_t before = batch.changes.size();
      appendChanges(change, type, batch.changes);
      if (isMount) batch.mounts.push_back(batch.changes[before]);
    }
    return batch;
  }

 private:
  struct Taken {
    RequestedChange change;
    Zel::Name type;
    bool isMount = false;
    bool isBlind = false;  // removes what stands at or under a path without an entity that is known here
  };

  bool isCover() const { return context_.durability == Statedb::Durability::cover; }

  // Whether no row can have the path or name that the change removes, as one of them is not interned.
  static bool removesNothing(const RequestedChange& change) {
    return !Statedb::Path::existing(change.path) ||
           (!change.attribute.empty() && !Zel::Name::existing(change.attribute));
  }

  void refuse(const std::string& place, const ValueError& error) {
    if (errors_.size() < Batch::kMostErrors)
      errors_.push_back(place + ": " + error.what());
    else if (errors_.size() == Batch::kMostErrors)
      errors_.push_back("more steps are wrong; what follows was not checked");
  }

  // Errors under an entity that could not be made are consequences and not reported.
  bool isUnderFailed(std::string_view path) const {
    for (; !failed_.empty() && !path.empty(); path = Zel::PathWalker::above(path))
      if (failed_.contains(path)) return true;
    return false;
  }

  void checkAccess(const RequestedChange& change) const {
    const bool removed = change.kind == Change::Kind::del;
    const auto why = isCover() ? context_.announcements.coverRefusal(context_.writer, change.path)
                               : context_.announcements.refusal(context_.writer, change.path, removed);
    if (!why.empty()) throw ValueError(why);
  }

  void put(const RequestedChange& change) {
    const Place* place = knownPlace(change.path);
    if (!place) addMounts(change.path);
    const Zel::Name present = types_.typeAt(change.path);
    if (change.existing && present.empty()) throw ValueError("there is no entity at this path");
    const Zel::TypeNode& type = typeOf(change, present);
    if (present.empty())
      place && place->takes(change.path, type.name()) ? Zel::PathWalker::checkComponents(change.path)
                                                      : checkNew(change.path, type);
    else if (type.name() != present)
      throw ValueError("exists as a " + present.stdString() + "; delete it before putting a " +
                       type.name().stdString());
    checkAttributes(change, type);
    take(change, type.name());
    if (present.empty()) typeIs(change.path, type.name());
    if (!place && present.empty()) notePlace(change.path);
  }

  void cover(const RequestedChange& change) {
    const Zel::TypeNode& type = typeOf(change, types_.typeAt(change.path));
    checkAttributes(change, type);
    take(change, type.name());
  }

  void take(const RequestedChange& change, Zel::Name type) {
    taken_.push_back({change, type});
    rows_ += 1 + (change.attributes ? change.attributes->size() : 0);
  }

  void remove(const RequestedChange& change) {
    const Zel::Name present = types_.typeAt(change.path);
    if (present.empty() && context_.durability == Statedb::Durability::stored)
      throw ValueError("there is no entity at this path");
    if (change.kind == Change::Kind::unset && !present.empty() && !isCover())
      Statedb::storedAttribute(Statedb::typeNamed(present.view()), change.attribute);
    taken_.push_back({change, {}, false, present.empty()});
    places_.clear();
    if (change.kind == Change::Kind::del && !isCover()) types_.del(change.path);
  }

  // The parent of an entity that was put: all above it exists, and nothing under it is mounted or published.
  // Most steps of a large batch are at a few places.
  struct Place {
    std::string_view path;
    Zel::Name memberType;  // empty: any

    bool takes(std::string_view member, Zel::Name type) const {
      return memberType == type && member.size() > path.size() + 1;
    }
  };
  static constexpr std::size_t kMostPlaces = 8;

  // Null if it is not known.
  const Place* knownPlace(std::string_view path) const {
    const auto found = std::ranges::find(places_, Zel::PathWalker::above(path), &Place::path);
    return found == places_.end() ? nullptr : &*found;
  }
  void notePlace(std::string_view path) {
    const std::string_view above = Zel::PathWalker::above(path);
    if (isOnTheWay(above)) return;
    if (places_.size() == kMostPlaces) places_.clear();
    places_.push_back({above, Statedb::placeType(path, types_)});
  }
  // Forgets the places that stand on it.
  void typeIs(std::string_view path, Zel::Name type) {
    types_.put(path, type);
    std::erase_if(places_, [path](const Place& place) {
      return place.path == path || isStrictlyUnder(place.path, path);
    });
  }

  const Zel::TypeNode& typeOf(const RequestedChange& change, Zel::Name present) const {
    if (!change.type.empty()) return Statedb::typeNamed(change.type);
    const Zel::Name type = present.empty() ? Statedb::placeType(change.path, types_) : present;
    if (type.empty()) throw ValueError("'type' is missing, and there is no entity to take it from");
    return Statedb::typeNamed(type.view());
  }

  void checkNew(std::string_view path, const Zel::TypeNode& type) const {
    Statedb::checkPlace(path, type, types_);
    if (&type != &Zel::Dir::typeNode() && isOnTheWay(path))
      throw ValueError("leads to what agents mount; put a Zel::Dir there");
  }

  // Whether agents mount or publish something under the path: they take it for a directory until it has a
  // row.
  bool isOnTheWay(std::string_view path) const {
    const auto isUnder = [path](const std::string& mount) { return isStrictlyUnder(mount, path); };
    return std::ranges::any_of(mounts_, isUnder) || context_.announcements.leadsToPublished(path);
  }

  void checkAttributes(const RequestedChange& change, const Zel::TypeNode& type) {
    if (!change.attributes) return;
    for (const auto& [name, value] : *change.attributes) {
      try {
        Statedb::checkAttribute(type, name, value);
      } catch (const ValueError& error) {
        refuse(std::string(change.path) + ' ' + Zel::excerpt(name), error);
      }
    }
  }

  void addMounts(std::string_view path) {
    for (std::size_t i = 0; i < mounts_.size(); ++i) {
      const std::string_view mount = mounts_[i];
      if (path != mount && !isStrictlyUnder(path, mount)) continue;
      if (!types_.typeAt(mount).empty()) continue;
      taken_.push_back({{.path = mount}, context_.mounts[i].type, true});
      typeIs(mount, context_.mounts[i].type);
    }
  }

  const BatchContext& context_;
  Statedb::TypesAfter types_;
  std::vector<std::string> mounts_;  // the paths of the context's
  std::unordered_set<std::string_view> failed_;
  std::vector<Taken> taken_;
  std::size_t rows_ = 0;  // of the puts that were taken, about
  std::vector<Place> places_;
  std::vector<std::string> errors_;
};

RequestedChange readChange(const Zel::Value& change, std::size_t position) {
  try {
    return requestedChange(change);
  } catch (const ValueError& error) {
    throw ValueError("'changes'[" + std::to_string(position) + "]: " + error.what());
  }
}

}  // namespace

Batch readBatch(const Zel::Value::List& changes, const BatchContext& context) {
  BatchReader reader(context);
  for (std::size_t i = 0; i < changes.size(); ++i) reader.add(readChange(changes[i], i));
  return reader.batch();
}

Batch readBatch(const GatheredChanges& changes, const BatchContext& context) {
  BatchReader reader(context);
  for (const GatheredChange& change : changes) reader.add(change.requested());
  return reader.batch();
}

}  // namespace Host
