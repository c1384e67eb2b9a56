// The entities of a store in memory, with an undo log. Internal to MemoryStore.
//
// An entity's attributes are the visible ones. A stored value that a volatile one hides lies in a separate
// table, because few entities have any.
#pragma once

#include <deque>
#include <memory>
#include <span>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/statedb/store/row.h"

namespace Statedb {

// An entity as it is kept; without a type where there is none.
struct Entry : Record {
  Durability durability = Durability::stored;  // volatile: nothing of it is stored
};

using Attributes = std::vector<Attribute>;

// Null if there is none.
Attribute* findIn(Attributes& attributes, Zel::Name name);

// Every change is logged for undoTo() until settle().
class EntryTable {
 public:
  // Null where there is none.
  const Entry* find(Path path) const {
    return path.id() < entries_.size() && !entries_[path.id()].type.empty() ? &entries_[path.id()] : nullptr;
  }
  Entry* find(Path path) { return const_cast<Entry*>(std::as_const(*this).find(path)); }
  // Of the entities that are there.
  std::size_t count() const { return count_; }
  std::unordered_map<Zel::Name, std::size_t> countByType() const;
  // Everything under a path, each entity before those under itself.
  Records under(Path path) const;
  // Prefetches what applying some changes reads, so that their cache misses overlap.
  void prefetch(std::span<const Change> changes) const;

  // A new entity. The second logs nothing. REQUIRES: find(path) is null.
  Entry& make(Path path, Zel::Name type, Durability durability);
  Entry& insert(Path path, Zel::Name type, Durability durability);
  void remove(Entry& entry);
  void storedIs(Entry& entry);

  // REQUIRES: the entity has no attribute of that name.
  void add(Entry& entry, Attribute attribute);
  void change(Entry& entry, Attribute& attribute, const Zel::Value& value);
  // Removes the attribute and the value that it hides.
  void remove(Entry& entry, Zel::Name attribute);
  // The stored value that a volatile one hides; null where there is none.
  const Zel::Value* hidden(const Entry& entry, Zel::Name attribute) const;
  // A stored value goes under a volatile one.
  void hide(Entry& entry, Zel::Name attribute, const Zel::Value& value);
  // The stored value of an attribute becomes hidden by a volatile one.
  void cover(Entry& entry, Attribute& attribute, const Zel::Value& value);
  // A hidden value is seen again. REQUIRES: there is one.
  void uncover(Entry& entry, Attribute& attribute);

  bool anyChange() const { return !undo_.empty(); }
  // A mark for undoTo: the changes from here on.
  std::size_t mark() { return mark_ = undo_.size(); }
  void undoTo(std::size_t mark);
  void settle() {
    clearKeeping(undo_);
    mark_ = 0;
  }

 private:
  // Takes one change of an entry back; the last first.
  struct Undo {
    enum class What : std::uint8_t { made, added, changed, replaced };
    struct Whole {
      Entry entry;
      Attributes hidden;
    };
    Undo(What theWhat, Entry& entry) : what(theWhat), at(&entry) {}

    What what;
    std::uint32_t attribute = 0;  // changed: which
    Entry* at;
    Zel::Value before{};             // changed: the value
    std::unique_ptr<Whole> whole{};  // replaced: what it was
  };

  void roomForUndo();
  void note(Entry& entry);
  void takeBack(Undo& last);
  void restore(Entry& entry, Undo::Whole&& whole);
  void removeHidden(Path path, Zel::Name attribute);

  std::deque<Entry> entries_;  // at the number of their paths; they do not move
  std::size_t count_ = 0;
  std::unordered_map<Path, Attributes> hidden_;
  std::vector<Undo> undo_;
  std::size_t mark_ = 0;  // the last that was given
};

}  // namespace Statedb
