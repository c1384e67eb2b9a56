#include "platform/zel/core/name.h"

#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>
#endif

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <vector>

#include "platform/zel/core/exception.h"

namespace Zel {

namespace {

bool isOnlyThread() {
#if __has_include(<sys/single_threaded.h>)
  return __libc_single_threaded != 0;
#else
  return false;
#endif
}

// The copies of a name. Counts without locked instructions while the process has one thread.
class Users {
 public:
  static constexpr std::uint32_t kPermanent = ~0U;

  bool isPermanent() const { return count_.load(std::memory_order_relaxed) == kPermanent; }
  bool any() const { return count_.load(std::memory_order_acquire) != 0; }  // after the last one's drop()
  void start(std::uint32_t count) { count_.store(count, std::memory_order_relaxed); }
  void add() {
    if (isOnlyThread())
      count_.store(count_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    else
      count_.fetch_add(1, std::memory_order_relaxed);
  }
  // Returns whether it was the last.
  bool drop() {
    if (!isOnlyThread()) return count_.fetch_sub(1, std::memory_order_acq_rel) == 1;
    const std::uint32_t left = count_.load(std::memory_order_relaxed) - 1;
    count_.store(left, std::memory_order_relaxed);
    return left == 0;
  }

 private:
  std::atomic<std::uint32_t> count_{0};
};

using Position = std::uint32_t;  // of an entry; 0: the empty text

struct Entry {
  char* text = nullptr;    // after its size; null: the entry is free
  std::uint32_t hash = 0;  // of a free entry: the position of the next free one, or 0
  Users users{};
};

// A hash table of positions, by linear probing. A part of the hash beside a position spares looking at most
// texts that are others.
class Places {
 public:
  static constexpr Position kMost = 1U << 26;  // positions are less

  // The position of an entry with that hash for which `matches` is true; 0 if there is none.
  template <class Matches>
  Position find(std::uint32_t hash, Matches matches) const {
    for (std::size_t at = hash;; ++at) {
      const std::uint32_t place = places_[wrapped(at)];
      if (place == 0) return 0;
      if ((place & ~kPositions) == (hash & ~kPositions) && matches(place & kPositions))
        return place & kPositions;
    }
  }
  void put(Position position, std::uint32_t hash) {
    std::size_t at = wrapped(hash);
    while (places_[at] != 0) at = wrapped(at + 1);
    places_[at] = (hash & ~kPositions) | position;
  }
  // Moves back what follows, so that no probe ends early. `hashAt` gives the hash of a position.
  template <class HashAt>
  void take(Position position, std::uint32_t hash, HashAt hashAt) {
    std::size_t gap = wrapped(hash);
    while ((places_[gap] & kPositions) != position) gap = wrapped(gap + 1);
    for (std::size_t at = wrapped(gap + 1); places_[at] != 0; at = wrapped(at + 1)) {
      const std::size_t home = wrapped(hashAt(places_[at] & kPositions));
      if (wrapped(at - home) < wrapped(at - gap)) continue;
      places_[std::exchange(gap, at)] = places_[at];
    }
    places_[gap] = 0;
  }
  bool isFull(std::size_t count) const { return count >= places_.size() / 4 * 3; }
  template <class HashAt>
  void grow(HashAt hashAt) {
    const auto old = std::exchange(places_, std::vector<std::uint32_t>(places_.size() * 2));
    for (const std::uint32_t place : old)
      if (place != 0) put(place & kPositions, hashAt(place & kPositions));
  }

 private:
  static constexpr std::uint32_t kPositions = kMost - 1;

  std::size_t wrapped(std::size_t at) const { return at & (places_.size() - 1); }

  std::vector<std::uint32_t> places_ = std::vector<std::uint32_t>(4096);  // 0: free
};

// A text is found by its position without a lock: entries never move, and the reader's copy of the name keeps
// the text. Texts are looked up, added and freed under a lock.
class Table {
 public:
  Table() { append("", 0, Users::kPermanent); }

  // Counts the copy that the caller makes. 0 if the text is not there.
  Position find(std::string_view text) {
    const std::lock_guard lock(mutex_);
    return used(text, hashOf(text));
  }

  // The same for a text that is added if it is missing.
  Position intern(std::string_view text, std::uint32_t users) {
    const std::uint32_t hash = hashOf(text);
    const std::lock_guard lock(mutex_);
    if (const Position found = used(text, hash)) return found;
    if (places_.isFull(count_)) places_.grow([this](Position at) { return entry(at).hash; });
    const Position added = append(text, hash, users);
    places_.put(added, hash);
    return added;
  }

  Users& users(Position at) const { return entry(at).users; }

  // Frees a text that has lost its last copy, unless a look-up has found it since.
  void freeUnused(Position at) {
    const std::lock_guard lock(mutex_);
    Entry& unused = entry(at);
    if (!unused.text || unused.users.any()) return;
    places_.take(at, unused.hash, [this](Position each) { return entry(each).hash; });
    delete[](std::exchange(unused.text, nullptr) - sizeof(Size));
    unused.hash = std::exchange(firstFree_, at);
    --count_;
  }

  std::string_view text(Position at) const {
    const char* const text = entry(at).text;
    Size size;
    std::memcpy(&size, text - sizeof size, sizeof size);
    return {text, size};
  }
  std::size_t count() {
    const std::lock_guard lock(mutex_);
    return count_;
  }

 private:
  using Size = std::uint16_t;
  static constexpr Position kChunk = 4096;

  Entry& entry(Position at) const {
    return chunks_[at / kChunk].load(std::memory_order_acquire)[at % kChunk];
  }

  static std::uint32_t hashOf(std::string_view text) {
    return static_cast<std::uint32_t>(std::hash<std::string_view>()(text));
  }

  Position used(std::string_view text, std::uint32_t hash) {
    const Position found =
        places_.find(hash, [&](Position at) { return entry(at).hash == hash && this->text(at) == text; });
    if (found != 0 && !users(found).isPermanent()) users(found).add();
    return found;
  }

  Position append(std::string_view text, std::uint32_t hash, std::uint32_t users) {
    auto stored = store(text);
    const Position at = firstFree_ != 0 ? firstFree_ : newEntry();
    Entry& added = entry(at);
    if (at == firstFree_) firstFree_ = added.hash;
    added.text = stored.release() + sizeof(Size);
    added.hash = hash;
    added.users.start(users);
    ++count_;
    return at;
  }

  Position newEntry() {
    if (size_ == Places::kMost) throwRangeException("the table of names is full");
    auto& chunk = chunks_[size_ / kChunk];
    if (!chunk.load(std::memory_order_relaxed)) chunk.store(new Entry[kChunk], std::memory_order_release);
    return size_++;
  }

  static std::unique_ptr<char[]> store(std::string_view text) {
    const auto size = static_cast<Size>(text.size());
    auto stored = std::make_unique_for_overwrite<char[]>(sizeof size + text.size() + 1);
    std::memcpy(stored.get(), &size, sizeof size);
    std::memcpy(stored.get() + sizeof size, text.data(), text.size());
    stored[sizeof size + text.size()] = '\0';
    return stored;
  }

  std::mutex mutex_;
  Places places_;
  std::array<std::atomic<Entry*>, Places::kMost / kChunk> chunks_{};
  Position size_ = 0;  // entries, free ones included
  Position firstFree_ = 0;
  std::size_t count_ = 0;
};

// Never destroyed: names are used until the last static destructor has run.
Table& table() {
  static Table& instance = *new Table;
  return instance;
}

[[noreturn]] void throwTooLong(std::string_view text) {
  throw ValueError("the name '" + excerpt(text) + "' is longer than " + std::to_string(Name::kLongest) +
                   " bytes");
}

}  // namespace

Name::Name(const char* text) : Name(std::string_view(text), Users::kPermanent) {}

Name::Name(std::string_view text) : Name(text, 1) {}

Name::Name(std::string_view text, std::uint32_t users) {
  check(text);
  if (!text.empty()) id_ = idAt(table().intern(text, users));
}

std::uint32_t Name::idAt(std::uint32_t position) {
  return table().users(position).isPermanent() ? position : position | kCounted;
}

void Name::addUser(std::uint32_t id) noexcept { table().users(id & ~kCounted).add(); }

void Name::dropUser(std::uint32_t id) noexcept {
  if (table().users(id & ~kCounted).drop()) table().freeUnused(id & ~kCounted);
}

void Name::check(std::string_view text) {
  if (text.size() > kLongest) throwTooLong(text);
}

void Name::checkEscaped(std::string_view text) {
  if (text.size() <= kLongest) return;
  const auto escapes = static_cast<std::size_t>(std::ranges::count(text, '%'));  // each a byte as three
  if (text.size() > kLongest + 2 * std::min(escapes, kLongest)) throwTooLong(text);
}

Name Name::escaped(std::string_view text) {
  checkEscaped(text);
  Name name;
  if (!text.empty()) name.id_ = idAt(table().intern(text, 1));
  return name;
}

std::optional<Name> Name::existing(std::string_view text) {
  Name name;
  if (text.empty()) return name;
  const Position found = table().find(text);
  if (found == 0) return std::nullopt;
  name.id_ = idAt(found);
  return name;
}

std::size_t Name::count() { return table().count(); }

std::string_view Name::view() const { return table().text(id_ & ~kCounted); }

std::ostream& operator<<(std::ostream& out, const Name& name) { return out << name.view(); }

}  // namespace Zel
