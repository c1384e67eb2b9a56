// Replaces the rows of one space of a mirror in portions. Internal to Mirror, whose header states the rules.
//
//     Replacement replacement(Durability::stored, wanted);
//     while (!replacement.isDone()) replacement.proceed(spaces, 1000, visible);
//
// Activity thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "host/store/redis/mirror.h"
#include "host/store/redis/spaces.h"

namespace Host::Redis {

// Two walks over all paths: forth, which has an entity before those under it, for what is wanted, and back
// for what is not. Paths come and go between portions. One that a walk does not meet, because it was made
// behind it, has no entity but one that was carried, which is as wanted already; one that it meets after that
// is left as it is.
class Replacement {
 public:
  Replacement() = default;
  Replacement(Statedb::Durability space, Mirror::Wanted wanted)
      : space_(space), wanted_(std::move(wanted)), walk_(Walk::forth) {}

  bool isDone() const { return walk_ == Walk::done; }
  void proceed(Spaces& spaces, std::size_t most, LayeredChanges& visible) {
    for (; most > 0 && !isDone(); --most)
      walk_ == Walk::forth ? stepForth(spaces, visible) : stepBack(spaces, visible);
  }

  // Carries a change that is wanted already, as may be others that follow.
  void carry(Spaces& spaces, const Statedb::Change& change, LayeredChanges& visible) const {
    const Statedb::Row& row = change.row;
    const bool isPut = change.kind == Statedb::Change::Kind::put;
    if (change.kind == Statedb::Change::Kind::del || (isPut && isOther(spaces.at(row.path), row.type)))
      renewUnder(spaces, row.path, visible);
    else
      renew(spaces, row.path, visible);
  }
  void hide(Spaces& spaces, const Statedb::Change& change) const {
    if (change.kind == Statedb::Change::Kind::del)
      hideUnder(spaces, change.row.path);
    else
      hideAt(spaces, change.row.path);
  }

 private:
  enum class Walk : std::uint8_t { forth, back, done };

  void stepForth(Spaces& spaces, LayeredChanges& visible) {
    put(spaces, at_, visible);
    at_ = at_.next();
    if (at_.empty()) walk_ = Walk::back;
  }
  void stepBack(Spaces& spaces, LayeredChanges& visible) {
    at_ = at_.previous();
    if (at_.empty())
      walk_ = Walk::done;
    else
      remove(spaces, at_, visible);
  }
  void put(Spaces& spaces, Statedb::Path path, LayeredChanges& visible) const {
    const auto wanted = wanted_(path);
    if (wanted && *wanted) renew(spaces, path, *wanted, visible);
  }
  void remove(Spaces& spaces, Statedb::Path path, LayeredChanges& visible) const {
    if (!own(spaces.at(path))) return;
    const auto wanted = wanted_(path);
    if (wanted && !*wanted) spaces.renew(space_, path, nullptr, visible);
  }

  void renew(Spaces& spaces, Statedb::Path path, LayeredChanges& visible) const {
    if (const auto wanted = wanted_(path)) renew(spaces, path, *wanted, visible);
  }
  // An entity of another type takes along what is under it.
  void renew(Spaces& spaces, Statedb::Path path, const Statedb::Record* wanted,
             LayeredChanges& visible) const {
    const bool isReplaced = wanted && isOther(spaces.at(path), wanted->type);
    isReplaced ? renewUnder(spaces, path, visible) : spaces.renew(space_, path, wanted, visible);
  }
  const Statedb::Record* own(const Layers& layers) const {
    return space_ == Statedb::Durability::stored      ? layers.stored
           : space_ == Statedb::Durability::volatile_ ? layers.volatile_
                                                      : layers.covers;
  }
  // Covers take nothing along.
  bool isOther(const Layers& layers, Zel::Name type) const {
    if (space_ == Statedb::Durability::cover) return false;
    const Statedb::Record* there = own(layers);
    return (there && there->type != type) || (!layers.type().empty() && layers.type() != type);
  }
  void renewUnder(Spaces& spaces, Statedb::Path path, LayeredChanges& visible) const {
    hideUnder(spaces, path);
    spaces.showUnder(path, visible);
  }
  void hideUnder(Spaces& spaces, Statedb::Path path) const {
    path.forEachUnder([&](Statedb::Path each) { hideAt(spaces, each); });
  }
  void hideAt(Spaces& spaces, Statedb::Path path) const {
    if (const auto wanted = wanted_(path)) spaces.renewHidden(space_, path, *wanted);
  }

  Statedb::Durability space_ = Statedb::Durability::stored;
  Mirror::Wanted wanted_{};
  Walk walk_ = Walk::done;
  Statedb::Path at_{};  // forth: the next one; back: the last one
};

}  // namespace Host::Redis
