#include "platform/zel/core/keyed.h"

#include <algorithm>
#include <bit>
#include <new>

#include "platform/zel/core/assert.h"

namespace Zel {
namespace detail {

namespace {
constexpr std::uint32_t kFirst = 2;    // entries that a new block has room for
constexpr std::uint32_t kScanned = 8;  // up to this many entries are scanned; more have an index
}  // namespace

// A removed entry stays as a tombstone. Tombstones go when the entries are compacted, which waits until no
// walk is on: a walk keeps a position.
struct Block {
  using Entry = KeyTable::Entry;

  std::uint32_t walks = 0;
  std::uint32_t live = 0;
  std::uint32_t used = 0;  // live entries and tombstones
  std::uint32_t capacity = kFirst;
  bool orphan = false;             // the table is gone; the last walk frees the block
  std::uint8_t indexShift = 0;     // the index has 2^(32 - indexShift) places
  std::uint32_t* index = nullptr;  // open addressing: position + 1 of an entry; 0: free
  Entry* entries = new Entry[kFirst];

  ~Block() {
    delete[] index;
    delete[] entries;
  }

  Entry* find(const Name& key) const {
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

  void append(const Name& key, std::uintptr_t word) {
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
  // Names that were made one after another, as those of one collection mostly are, lie in one cache line.
  std::uint32_t home(const Name& key) const {
    return ((key.id() >> 4) * 0x9E3779B1U >> (indexShift + 4)) << 4 | (key.id() & 15U);
  }
  std::uint32_t next(std::uint32_t place) const { return (place + 1) & ((1U << (32 - indexShift)) - 1); }

  void addToIndex(std::uint32_t position) {
    std::uint32_t place = home(entries[position].key);
    while (index[place] != 0) place = next(place);
    index[place] = position + 1;
  }

  void makeRoom() { resize(walks == 0 && live <= used / 2 ? capacity : capacity * 2); }

  // Reallocates to `size` entries, and compacts them unless a walk is on.
  void resize(std::uint32_t size) {
    Entry* moved = new Entry[size];
    std::uint32_t count = 0;
    for (std::uint32_t i = 0; i < used; ++i)
      if (entries[i].live || walks != 0) moved[count++] = std::move(entries[i]);
    delete[] entries;
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

constinit KeyTable::Cursor* KeyTable::Cursor::walksOfOne_ = nullptr;

template <class Function>
void KeyTable::forEachWalkOfOne(Function&& function) const {
  for (Cursor* walk = Cursor::walksOfOne_; walk;) {
    Cursor* const next = walk->next_;
    if (walk->table_ == this) function(*walk);
    walk = next;
  }
}

void KeyTable::swap(KeyTable& other) noexcept {
  std::swap(only_, other.only_);
  for (Cursor* walk = Cursor::walksOfOne_; walk; walk = walk->next_)
    if (walk->table_ == this || walk->table_ == &other) walk->table_ = walk->table_ == this ? &other : this;
}

void failNullMember(const Name& key) {
  assertionFailed("member", __FILE__, __LINE__, __PRETTY_FUNCTION__, key.charPtr());
}

std::size_t KeyTable::sizeOfBlock() const { return block()->live; }

const KeyTable::Entry* KeyTable::findInBlock(const Name& key) const { return block()->find(key); }

void KeyTable::insert(const Name& key, std::uintptr_t word) {
  ZEL_REQUIRE(!find(key), "key '" << key << "'");
  if (!only_.live && only_.word == 0) {
    only_ = {key, true, word};
    return;
  }
  if (only_.live) {
    auto* several = new Block;
    several->append(only_.key, only_.word);
    only_ = {Name(), false, reinterpret_cast<std::uintptr_t>(several)};
    forEachWalkOfOne([several](Cursor& walk) {  // goes on at the first of several
      walk.leave();
      walk.walkBlock(several);
    });
  }
  block()->append(key, word);
}

bool KeyTable::remove(const Name& key, std::uintptr_t* word) {
  auto* entry = const_cast<Entry*>(find(key));
  if (!entry) return false;
  if (word) *word = entry->word;
  if (only_.live) {
    forEachWalkOfOne([](Cursor& walk) { walk.leave(); });
    only_ = {};
    return true;
  }
  block()->erase(*entry);
  if (block()->live == 0 && block()->walks == 0) clear();
  return true;
}

void KeyTable::forgetAll() {
  forEachWalkOfOne([](Cursor& walk) { walk.leave(); });
  const Entry only = std::exchange(only_, {});
  if (only.live) return;
  auto* several = reinterpret_cast<Block*>(only.word);
  if (several->walks == 0) {
    delete several;
    return;
  }
  for (std::uint32_t i = 0; i < several->used; ++i) several->entries[i].live = false;
  several->orphan = true;
}

void KeyTable::Cursor::walkBlock(Block* block) {
  block_ = block;
  ++block_->walks;
}

void KeyTable::Cursor::dropBlock() {
  if (--block_->walks == 0 && block_->orphan) delete block_;
  block_ = nullptr;
}

const KeyTable::Entry* KeyTable::Cursor::currentOfBlock() {
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

bool NameSet::insert(const Name& name, bool value) {
  if (const auto* entry = table_.find(name)) {
    if ((entry->word != 0) == value) return false;
    table_.remove(name, nullptr);
  }
  table_.insert(name, value ? 1 : 0);
  return true;
}

bool operator==(const NameSet& a, const NameSet& b) {
  if (a.size() != b.size()) return false;
  for (const Name& name : a)
    if (!b.contains(name) || a.value(name) != b.value(name)) return false;
  return true;
}

}  // namespace Zel
