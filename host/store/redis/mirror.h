// The rows of a state database on Redis as this process sees them: the stored and the volatile space and the
// covers in one table, and this process's stored writes that the server has not answered yet.
//
//     Mirror mirror;
//     mirror.replace(Durability::stored, wanted);
//     while (!mirror.proceed(Durability::stored, 1000, visible)) …  // notify the subscribers of `visible`
//     mirror.carry(Durability::volatile_, changes, visible);
//     const Mirror::Pending pending = mirror.pend(changes);    // the table shows them, nobody is notified
//     mirror.settle(pending);                                  // carried meanwhile, or refused
//
// Each space changes by itself, in the order of its own log: a del or an unset of the stored space leaves
// volatile values alone, and one of the volatile space reveals the stored ones. Covers are a space of their
// own, over both: they show while an entity of their type is there, which no other space's step changes. A
// pending stored write behaves as Statedb::Store says for stored steps.
//
// A snapshot replaces the rows of a space in portions, entity by entity, because a large one takes long:
//
// - An entity is shown as it was until it is shown as it is wanted, never in between.
// - It comes before those under it, and goes after them.
// - Between portions the space changes as at other times, and `wanted` must have changed before. An entity
// that
//   such a change concerns is as wanted at once.
// - When the last portion is done, the space is as wanted, whatever was carried meanwhile.
//
// `visible` gets what subscribers of each layer are to be notified of, in order, appended. Nothing that did
// not change is in it, except that a del is followed by puts of what stays under its path.
//
// Activity thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <unordered_map>

#include "host/store/redis/layeredchanges.h"
#include "platform/statedb/store/row.h"
#include "platform/statedb/store/table.h"

namespace Host::Redis {

class Mirror final : public Statedb::Table {
 public:
  using Pending = std::uint64_t;

  Mirror();
  ~Mirror();

  // Carries changes of one space. An entity put with another type replaces the one that is there in that
  // space; while the stored and the volatile space have different types at a path, the stored one is visible.
  // Covers of another type take the place of those at the path alone.
  void carry(Statedb::Durability space, const Statedb::Changes& changes, LayeredChanges& visible);
  // The same for changes of the volatile space that a stored write made: a del or an unset takes volatile
  // values along. Shows and reveals nothing until release(), because the entry of the stored space follows.
  void carryHidden(const Statedb::Changes& changes);
  void release(LayeredChanges& visible);
  // The entity that a space shall have at a path, null for none; nothing where it shall stay as it is. Valid
  // until the next call.
  using Wanted = std::function<std::optional<const Statedb::Record*>(Statedb::Path path)>;

  // Begins to replace the rows of one space, from the start where that is under way.
  void replace(Statedb::Durability space, Wanted wanted);
  // Replaces at so many paths at most, or, where one of another type replaces an entity, at all under it.
  // Returns whether all are replaced; the last portion releases.
  bool proceed(Statedb::Durability space, std::size_t most, LayeredChanges& visible);

  // Puts a stored batch on top, also of what is carried later, until it is settled.
  Pending pend(const Statedb::Changes& changes);
  void settle(Pending pending);

  // An entity in a layer without the pending writes: what subscribers were notified of. Null if there is
  // none; valid until something changes.
  const Statedb::Record* shown(Statedb::Path path, Statedb::Layer layer) const;
  // All of them at and under a path, each entity before those under itself. The records are valid during the
  // call.
  void withShown(Statedb::Path path, Statedb::Layer layer,
                 const std::function<void(const Statedb::Records&)>& take) const;
  // Puts of the effective value of an attribute, or with the empty attribute of the whole entity, without the
  // pending writes. Appends nothing where there is none.
  void appendShown(Statedb::Path path, Zel::Name attribute, Statedb::Changes& changes) const;
  // The effective values at the places of a batch, without the pending writes, that differ from what it
  // wrote, and the covers of the entities that it put.
  Statedb::Changes revealedBy(const Statedb::Changes& changes) const;
  // Throws RefusedError where a volatile put would take the place of stored rows of another type.
  void checkTypes(const Statedb::Changes& changes) const;
  // Whether there ever was a cover.
  bool hasCovers() const;
  // Whether anything at or under a path is stored, pending writes included.
  bool anyStored(Statedb::Path path) const;

  // With the pending writes.
  Statedb::Records read(Statedb::Path path) const override { return read(path, Statedb::Layer::effective); }
  Statedb::Records readBase(Statedb::Path path) const override { return read(path, Statedb::Layer::base); }
  Statedb::Records readCovers(Statedb::Path path) const override;
  Zel::Name typeAt(Statedb::Path path) const override;
  std::size_t entities() const override;
  std::unordered_map<Zel::Name, std::size_t> entitiesByType() const override;

 private:
  Statedb::Records read(Statedb::Path path, Statedb::Layer layer) const;
  void appendShownAt(const Statedb::Change& change, Statedb::Changes& shown) const;

  struct State;
  const std::unique_ptr<State> state_;
};

}  // namespace Host::Redis
