#include "platform/zel/keyed.h"

#include <algorithm>
#include <bit>
#include <new>

#include "platform/zel/assert.h"

namespace Zel {
namespace detail {

namespace {
constexpr std::uint32_t kInline = 1;   // entries that lie in the block itself
constexpr std::uint32_t kScanned = 8;  // up to this many entries are scanned; more have an index
}  // namespace

// Entries keep their positions while a walk is on: they are only moved together when `walks` is 0.
struct Block {
  using Entry = KeyTable::Entry;

  std::uint32_t walks = 0;
  std::uint32_t live = 0;
  std::uint32_t used = 0;  // live entries and stale ones
  std::uint32_t capacity = kInline;
  bool orphan = false;             // the table has let go; the last walk frees the block
  std::uint8_t indexShift = 0;     // the index has 2^(32 - indexShift) places
  std::uint32_t* index = nullptr;  // position + 1 of the entries, stale ones too; 0 is a free place
  Entry* entries = inlined;
  Entry inlined[kInline];

  ~Block() {
    delete[] index;
    if (entries != inlined) delete[] entries;
  }

  Entry* find(Name key) const {
    if (!index) {
      for (Entry* entry = entries; entry != entries + used; ++entry)
        if (entry->key == key && entry->live) return entry;
      return nullptr;
    }
    for (std::uint32_t place = home(key); index[place] != 0; place = next(place)) {
      Entry& entry = entries[index[place] - 1];
      if (entry.key == key && entry.live) return &entry;
    }
    return nullptr;
  }

  void append(Name key, std::uintptr_t word) {
    if (used == capacity) makeRoom();
    entries[used++] = Entry{key, true, word};
    ++live;
    if (index) addToIndex(used - 1);
  }

  void erase(Entry& entry) {
    entry.live = false;
    --live;
    if (walks == 0 && used > 2 * kScanned && live < used / 4) resize(std::max(live * 2, kScanned));
  }

 private:
  std::uint32_t home(Name key) const { return key.id() * 0x9E3779B1U >> indexShift; }
  std::uint32_t next(std::uint32_t place) const { return (place + 1) & ((1U << (32 - indexShift)) - 1); }

  void addToIndex(std::uint32_t position) {
    std::uint32_t place = home(entries[position].key);
    while (index[place] != 0) place = next(place);
    index[place] = position + 1;
  }

  void makeRoom() { resize(walks == 0 && live <= used / 2 ? capacity : capacity * 2); }

  // Moves the entries to a new place for `size`; stale ones go, unless a walk needs their positions.
  void resize(std::uint32_t size) {
    Entry* moved = new Entry[size];
    std::uint32_t count = 0;
    for (std::uint32_t i = 0; i < used; ++i)
      if (entries[i].live || walks != 0) moved[count++] = entries[i];
    if (entries != inlined) delete[] entries;
    entries = moved;
    capacity = size;
    used = count;
    delete[] index;
    index = nullptr;
    if (capacity <= kScanned) return;
    const std::uint32_t places = std::bit_ceil(capacity * 2);
    indexShift = static_cast<std::uint8_t>(32 - std::countr_zero(places));
    index = new std::uint32_t[places]();
    for (std::uint32_t i = 0; i < used; ++i) addToIndex(i);
  }
};

std::size_t KeyTable::size() const { return block_ ? block_->live : 0; }

const KeyTable::Entry* KeyTable::find(Name key) const { return block_ ? block_->find(key) : nullptr; }

void KeyTable::insert(Name key, std::uintptr_t word) {
  ZEL_REQUIRE(!find(key), "key '" << key << "'");
  if (!block_) block_ = new Block;
  block_->append(key, word);
}

bool KeyTable::remove(Name key, std::uintptr_t* word) {
  Entry* entry = block_ ? block_->find(key) : nullptr;
  if (!entry) return false;
  if (word) *word = entry->word;
  block_->erase(*entry);
  if (block_->live == 0 && block_->walks == 0) clear();
  return true;
}

void KeyTable::clear() {
  Block* block = std::exchange(block_, nullptr);
  if (!block) return;
  if (block->walks == 0) {
    delete block;
    return;
  }
  for (std::uint32_t i = 0; i < block->used; ++i) block->entries[i].live = false;
  block->orphan = true;
}

void KeyTable::Cursor::hold() const {
  if (block_) ++block_->walks;
}

void KeyTable::Cursor::drop() {
  if (block_ && --block_->walks == 0 && block_->orphan) delete block_;
}

const KeyTable::Entry* KeyTable::Cursor::current() {
  if (!block_) return nullptr;
  while (at_ < block_->used && !block_->entries[at_].live) ++at_;
  return at_ < block_->used ? &block_->entries[at_] : nullptr;
}

}  // namespace detail

NameSet& NameSet::operator=(const NameSet& other) {
  if (this == &other) return *this;
  NameSet copy;
  for (auto at = other.begin(); at != other.end(); ++at) copy.insert(at.key(), other.value(at.key()));
  table_.swap(copy.table_);
  return *this;
}

bool NameSet::insert(Name name, bool value) {
  if (const auto* entry = table_.find(name)) {
    if ((entry->word != 0) == value) return false;
    table_.remove(name, nullptr);
  }
  table_.insert(name, value ? 1 : 0);
  return true;
}

bool operator==(const NameSet& a, const NameSet& b) {
  if (a.size() != b.size()) return false;
  for (const Name name : a)
    if (!b.contains(name) || a.value(name) != b.value(name)) return false;
  return true;
}

}  // namespace Zel
