// Keyed collections: hash maps from Zel::Name.
//
// Members lie densely in the order in which they came; a collection of a few is scanned, a larger one has a
// hash index. An empty collection is one pointer.
//
// A walk tolerates every change of the collection while it runs, its destruction included: a member that was
// removed is skipped, and a member that was added during the walk may or may not be met. The order carries no
// meaning for callers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <utility>

#include "platform/zel/export.h"
#include "platform/zel/name.h"
#include "platform/zel/ptr.h"

namespace Zel {

namespace detail {

struct Block;

// The collection without its types: a word for each name. What a word means, and what must happen when it
// goes, is the typed collection's to know.
class ZEL_API KeyTable {
 public:
  struct Entry {
    Name key;
    bool live;
    std::uintptr_t word;
  };

  KeyTable() = default;
  KeyTable(KeyTable&& other) noexcept : block_(std::exchange(other.block_, nullptr)) {}
  KeyTable(const KeyTable&) = delete;
  KeyTable& operator=(const KeyTable&) = delete;
  ~KeyTable() { clear(); }

  void swap(KeyTable& other) noexcept { std::swap(block_, other.block_); }
  std::size_t size() const;

  const Entry* find(Name key) const;
  // Adds a member. REQUIRES: the key is not there.
  void insert(Name key, std::uintptr_t word);
  // Takes a member out. Returns whether there was one, and its word in `word`.
  bool remove(Name key, std::uintptr_t* word);
  // Leaves every walk without members and the table empty. The words are simply forgotten.
  void clear();

  // A position in a walk; holds the block alive.
  class ZEL_API Cursor {
   public:
    Cursor() = default;
    explicit Cursor(const KeyTable& table) : block_(table.block_) { hold(); }
    Cursor(const Cursor& other) : block_(other.block_), at_(other.at_) { hold(); }
    Cursor(Cursor&& other) noexcept : block_(std::exchange(other.block_, nullptr)), at_(other.at_) {}
    Cursor& operator=(Cursor other) noexcept {
      std::swap(block_, other.block_);
      std::swap(at_, other.at_);
      return *this;
    }
    ~Cursor() { drop(); }

    // Skips members that went stale; null at the end.
    const Entry* current();
    void advance() { ++at_; }

   private:
    void hold() const;
    void drop();

    Block* block_ = nullptr;
    std::uint32_t at_ = 0;
  };

 private:
  Block* block_ = nullptr;
};

// Walks a table as values that Get makes of its entries.
template <class Get>
class KeyIterator {
 public:
  using value_type = decltype(Get::value(std::declval<const KeyTable::Entry&>()));
  using difference_type = std::ptrdiff_t;

  KeyIterator() = default;
  explicit KeyIterator(const KeyTable& table) : cursor_(table) {}

  value_type operator*() const { return Get::value(*cursor_.current()); }
  Name key() const { return cursor_.current()->key; }
  KeyIterator& operator++() {
    cursor_.advance();
    return *this;
  }
  void operator++(int) { cursor_.advance(); }
  bool operator==(std::default_sentinel_t) const { return !cursor_.current(); }

 private:
  mutable KeyTable::Cursor cursor_;
};

}  // namespace detail

// A set of names, each with a truth value beside it that most readers ignore.
class ZEL_API NameSet {
 public:
  NameSet() = default;
  NameSet(std::initializer_list<Name> names) {
    for (const Name name : names) insert(name);
  }
  NameSet(const NameSet& other) { *this = other; }
  NameSet(NameSet&&) noexcept = default;
  NameSet& operator=(const NameSet& other);
  NameSet& operator=(NameSet&& other) noexcept {
    table_.swap(other.table_);
    return *this;
  }

  std::size_t size() const { return table_.size(); }
  bool empty() const { return size() == 0; }
  bool contains(Name name) const { return table_.find(name) != nullptr; }
  // The value beside `name`; false where the name is not in the set.
  bool value(Name name) const {
    const auto* entry = table_.find(name);
    return entry && entry->word != 0;
  }
  // Adds `name` with `value`, or sets the value of one that is there. Returns whether anything changed.
  bool insert(Name name, bool value = true);
  // Returns whether the name was there.
  bool remove(Name name) { return table_.remove(name, nullptr); }

  struct Get {
    static Name value(const detail::KeyTable::Entry& entry) { return entry.key; }
  };
  detail::KeyIterator<Get> begin() const { return detail::KeyIterator<Get>(table_); }
  std::default_sentinel_t end() const { return {}; }

  friend ZEL_API bool operator==(const NameSet& a, const NameSet& b);

 private:
  detail::KeyTable table_;
};

// Counted pointers to objects, each under its key. Walking it yields counted pointers.
template <class T>
class PtrMap {
 public:
  using member_type = T;

  PtrMap() = default;
  PtrMap(const PtrMap&) = delete;
  PtrMap& operator=(const PtrMap&) = delete;
  ~PtrMap() { clear(); }

  std::size_t size() const { return table_.size(); }
  bool empty() const { return size() == 0; }
  // Null where the key is unknown.
  Ptr<T> find(Name key) const { return Ptr<T>(get(key)); }
  // The same without counting a reference.
  T* get(Name key) const {
    const auto* entry = table_.find(key);
    return entry ? object(entry->word) : nullptr;
  }
  // REQUIRES: the key is not there and the member is not null.
  void insert(Name key, Ptr<T> member) {
    table_.insert(key, reinterpret_cast<std::uintptr_t>(member.release()));
  }
  // Returns the member that was there; null where the key is unknown.
  Ptr<T> remove(Name key) {
    std::uintptr_t word = 0;
    return table_.remove(key, &word) ? Ptr<T>::adopt(object(word)) : nullptr;
  }
  void swap(PtrMap& other) noexcept { table_.swap(other.table_); }
  // The collection is empty before the first reference is dropped.
  void clear() {
    detail::KeyTable old;
    old.swap(table_);
    for (detail::KeyTable::Cursor cursor(old); const auto* entry = cursor.current(); cursor.advance())
      Ptr<T>::adopt(object(entry->word));
  }

  struct Get {
    static Ptr<T> value(const detail::KeyTable::Entry& entry) { return Ptr<T>(object(entry.word)); }
  };
  detail::KeyIterator<Get> begin() const { return detail::KeyIterator<Get>(table_); }
  std::default_sentinel_t end() const { return {}; }

 private:
  static T* object(std::uintptr_t word) { return reinterpret_cast<T*>(word); }

  detail::KeyTable table_;
};

}  // namespace Zel
