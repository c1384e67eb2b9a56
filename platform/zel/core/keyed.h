// Keyed collections: hash maps from Zel::Name.
//
//     PtrMap<LedConfig> leds;
//     leds.insert("Status", allocate<LedConfig>("Status"));
//     if (const auto led = leds.find("Status")) led->themeIs("night");
//     for (const auto& led : leds) leds.remove(led->name());  // allowed during the walk
//     NameSet pins{"gpio17", "gpio27"};
//
// A collection of one member, the usual case, holds it inline and allocates nothing. More members stand in a
// dense array in the order of insertion: a few are scanned, many have a hash index.
//
// A walk tolerates every change of the collection, its destruction included: it skips removed members, and
// may or may not meet added ones. The order carries no meaning for callers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <utility>

#include "platform/zel/core/export.h"
#include "platform/zel/core/name.h"
#include "platform/zel/core/ptr.h"

namespace Zel {

namespace detail {

struct Block;

[[noreturn]] ZEL_API void failNullMember(const Name& key);

// The untyped collection: a word for each name. The typed collection knows what a word means and how to
// release it.
class ZEL_API KeyTable {
 public:
  struct Entry {
    Name key;
    bool live;
    std::uintptr_t word;
  };

  KeyTable() = default;
  KeyTable(KeyTable&& other) noexcept { swap(other); }
  KeyTable(const KeyTable&) = delete;
  KeyTable& operator=(const KeyTable&) = delete;
  ~KeyTable() { clear(); }

  // Walks follow their members into the other table.
  void swap(KeyTable& other) noexcept;
  std::size_t size() const { return only_.live ? 1 : only_.word == 0 ? 0 : sizeOfBlock(); }

  const Entry* find(const Name& key) const {
    if (only_.live) return only_.key == key ? &only_ : nullptr;
    return only_.word == 0 ? nullptr : findInBlock(key);
  }
  // Calls `function` with the word of every member.
  template <class Function>
  void forEach(Function&& function) const {
    if (only_.live) return function(only_.word);  // no cursor: nothing is read after the call
    for (Cursor cursor(*this); const Entry* entry = cursor.current(); cursor.advance()) function(entry->word);
  }
  // Adds a member. REQUIRES: the key is not there.
  void insert(const Name& key, std::uintptr_t word);
  // Takes a member out. Returns whether there was one, and its word in `word`.
  bool remove(const Name& key, std::uintptr_t* word);
  // Empties the table and ends every walk. The words are forgotten, not released.
  void clear() {
    if (only_.live || only_.word != 0) forgetAll();
  }

  // A position in a walk. In a table of several it keeps the block alive. In a table of one it joins a list
  // of such walks, where the table finds it when the member is removed or gets company.
  class ZEL_API Cursor {
   public:
    Cursor() = default;
    explicit Cursor(const KeyTable& table) {
      if (table.only_.live)
        walkOne(table);
      else if (table.only_.word != 0)
        walkBlock(table.block());
    }
    Cursor(const Cursor& other) { copy(other); }
    Cursor& operator=(const Cursor& other) {
      if (this == &other) return *this;
      drop();
      copy(other);
      return *this;
    }
    ~Cursor() { drop(); }

    // Skips members that went stale; null at the end. Valid until the table changes.
    const Entry* current() { return block_ ? currentOfBlock() : table_ ? &table_->only_ : nullptr; }
    void advance() {
      ++at_;
      if (table_) leave();
    }

   private:
    friend class KeyTable;

    // A walk leaves the list when it ends, so what the list holds is alive.
#pragma GCC diagnostic push
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wdangling-pointer"
#endif
    void walkOne(const KeyTable& table) {
      table_ = &table;
      next_ = walksOfOne_;
      link_ = &walksOfOne_;
      if (next_) next_->link_ = &next_;
      walksOfOne_ = this;
    }
#pragma GCC diagnostic pop
    void leave() {
      table_ = nullptr;
      *link_ = next_;
      if (next_) next_->link_ = link_;
    }
    void walkBlock(Block* block);
    void dropBlock();
    const Entry* currentOfBlock();
    void copy(const Cursor& other) {
      at_ = other.at_;
      if (other.table_) walkOne(*other.table_);
      if (other.block_) walkBlock(other.block_);
    }
    void drop() {
      if (table_) leave();
      if (block_) dropBlock();
    }

    static constinit Cursor* walksOfOne_;

    Block* block_ = nullptr;
    std::uint32_t at_ = 0;
    const KeyTable* table_ = nullptr;  // while this is in the list
    Cursor* next_ = nullptr;
    Cursor** link_ = nullptr;
  };

 private:
  Block* block() const { return reinterpret_cast<Block*>(only_.word); }
  std::size_t sizeOfBlock() const;
  const Entry* findInBlock(const Name& key) const;
  void forgetAll();
  // Calls `function`, which may let the walk leave, with every walk of the only member.
  template <class Function>
  void forEachWalkOfOne(Function&& function) const;

  // The only member, where it is live. Else the word is the block of a table of several, or 0.
  Entry only_{};
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
    for (const Name& name : names) insert(name);
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
  bool contains(const Name& name) const { return table_.find(name) != nullptr; }
  // The value beside `name`; false where the name is not in the set.
  bool value(const Name& name) const {
    const auto* entry = table_.find(name);
    return entry && entry->word != 0;
  }
  // Adds `name` with `value`, or sets the value of one that is there. Returns whether anything changed.
  bool insert(const Name& name, bool value = true);
  // Returns whether the name was there.
  bool remove(const Name& name) { return table_.remove(name, nullptr); }

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
  Ptr<T> find(const Name& key) const { return Ptr<T>(get(key)); }
  // The same without counting a reference.
  T* get(const Name& key) const {
    const auto* entry = table_.find(key);
    return entry ? object(entry->word) : nullptr;
  }
  // Calls `function` with every member, as a walk does but without counting references: one that may remove
  // the member takes a pointer first.
  template <class Function>
  void forEach(Function&& function) const {
    table_.forEach([&](std::uintptr_t word) { function(*object(word)); });
  }
  // REQUIRES: the key is not there and the member is not null.
  void insert(const Name& key, Ptr<T> member) {
    if (!member) [[unlikely]]
      detail::failNullMember(key);
    table_.insert(key, reinterpret_cast<std::uintptr_t>(member.release()));
  }
  // Returns the member that was there; null where the key is unknown.
  Ptr<T> remove(const Name& key) {
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
