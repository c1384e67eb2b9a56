// The entities of a store in memory, with an undo log. Internal to MemoryStore.
//
// An entry has the visible values. Stored values that a volatile one hides are in a separate table, because
// few entities have any.
#pragma once

#include <deque>
#include <memory>
#include <span>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/statedb/store/row.h"

namespace Statedb {

// An entity; a free entry has no type.
struct Entry : Record {
  Durability durability = Durability::stored;  // volatile: nothing of it is stored
};

using Attributes = std::vector<Attribute>;

// Null if there is none.
Attribute* findIn(Attributes& attributes, const Zel::Name& name);

// Logs every change for undoTo() until settle().
class EntryTable {
 public:
  // Null if there is none.
  const Entry* find(const Path& path) const {
    return path.id() < entries_.size() && !entries_[path.id()].type.empty() ? &entries_[path.id()] : nullptr;
  }
  Entry* find(const Path& path) { return const_cast<Entry*>(std::as_const(*this).find(path)); }
  std::size_t count() const { return count_; }
  std::unordered_map<Zel::Name, std::size_t> countByType() const;
  // Everything under a path, each entity before those under itself.
  Records under(const Path& path) const;
  // Prefetches what applying some changes reads, so that their cache misses overlap.
  void prefetch(std::span<const Change> changes) const;

  // Add an entity; the second without logging. REQUIRES: find(path) is null.
  Entry& make(const Path& path, const Zel::Name& type, Durability durability);
  Entry& insert(const Path& path, const Zel::Name& type, Durability durability);
  void remove(Entry& entry);
  void storedIs(Entry& entry);

  // REQUIRES: the entity has no attribute of that name.
  void add(Entry& entry, Attribute attribute);
  void change(Entry& entry, Attribute& attribute, const Zel::Value& value);
  // Removes the attribute, and its hidden value.
  void remove(Entry& entry, Zel::Name attribute);
  // The stored value that a volatile one hides; null if there is none.
  const Zel::Value* hidden(const Entry& entry, const Zel::Name& attribute) const;
  // Sets the hidden value of a volatile attribute.
  void hide(Entry& entry, Zel::Name attribute, const Zel::Value& value);
  // Sets a volatile value, which hides the attribute's stored one.
  void shadow(Entry& entry, Attribute& attribute, const Zel::Value& value);
  // Makes the hidden value visible again. REQUIRES: there is one.
  void reveal(Entry& entry, Attribute& attribute);

  bool anyChange() const { return !undo_.empty(); }
  // For undoTo, which undoes the changes after the mark.
  std::size_t mark() { return mark_ = undo_.size(); }
  void undoTo(std::size_t mark);
  void settle() {
    clearKeeping(undo_);
    mark_ = 0;
  }

 private:
  // Undoes one change of an entry. Applied in reverse order.
  struct Undo {
    enum class What : std::uint8_t { made, added, changed, replaced };
    struct Whole {
      Entry entry;
      Attributes hidden;
    };
    Undo(What theWhat, Entry& entry) : what(theWhat), at(&entry) {}

    What what;
    std::uint32_t attribute = 0;  // changed: its position
    Entry* at;
    Zel::Value before{};             // changed: the old value
    std::unique_ptr<Whole> whole{};  // replaced: the old entity
  };

  void roomForUndo();
  void note(Entry& entry);
  void takeBack(Undo& last);
  void restore(Entry& entry, Undo::Whole&& whole);
  void removeHidden(Path path, Zel::Name attribute);

  std::deque<Entry> entries_;  // by Path::id(); a deque, because Undo points to them
  std::size_t count_ = 0;
  std::unordered_map<Path, Attributes> hidden_;
  std::vector<Undo> undo_;
  std::size_t mark_ = 0;  // the latest
};

}  // namespace Statedb
