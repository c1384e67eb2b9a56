#include "platform/zel/core/name.h"

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

// Texts lie in blocks that never move, so a view of one stays valid, and a reader needs no lock to find it:
// an id is handed out after its entry was written. Looking a text up takes no lock either: places only ever
// fill, and when they are outgrown a larger table replaces the old one, which stays as it was.
class Table {
 public:
  Table() {
    allPlaces_.push_back(std::make_unique<Places>(kChunk));
    places_ = allPlaces_.back().get();
    append("", 0);
  }

  std::optional<std::uint32_t> find(std::string_view text) const {
    return places_.load(std::memory_order_acquire)->find(*this, text, hashOf(text));
  }

  std::uint32_t intern(std::string_view text) {
    const std::uint32_t hash = hashOf(text);
    if (const auto found = places_.load(std::memory_order_acquire)->find(*this, text, hash)) return *found;
    const std::lock_guard lock(mutex_);
    const Places* places = places_.load(std::memory_order_relaxed);
    if (const auto found = places->find(*this, text, hash)) return *found;
    const std::uint32_t id = size_.load(std::memory_order_relaxed);
    if (id == kChunks * kChunk) throwRangeException("the table of names is full");
    if (id >= places->count() / 4 * 3) places = &grow(*places);
    append(text, hash);
    places->put(id, hash);
    return id;
  }

  std::string_view text(std::uint32_t id) const {
    const Entry& found = entry(id);
    return {found.text, found.size};
  }
  std::size_t size() const { return size_.load(std::memory_order_relaxed); }

 private:
  static constexpr std::uint32_t kChunk = 4096;
  static constexpr std::uint32_t kChunks = 16384;
  static constexpr std::size_t kBlock = 64 * 1024;

  struct Entry {
    const char* text;
    std::uint32_t size;
    std::uint32_t hash;
  };
  const Entry& entry(std::uint32_t id) const {
    return chunks_[id / kChunk].load(std::memory_order_acquire)[id % kChunk];
  }

  static std::uint32_t hashOf(std::string_view text) {
    return static_cast<std::uint32_t>(std::hash<std::string_view>()(text));
  }

  // A hash table of ids. A part of the hash beside an id spares looking at most texts that are others.
  class Places {
   public:
    explicit Places(std::size_t count) : places_(count) {}

    std::size_t count() const { return places_.size(); }
    std::optional<std::uint32_t> find(const Table& table, std::string_view text, std::uint32_t hash) const {
      for (std::size_t at = hash;; ++at) {
        const std::uint32_t place = this->at(at).load(std::memory_order_acquire);
        if (place == kFree) return std::nullopt;
        const std::uint32_t id = place & kIds;
        if ((place & ~kIds) != (hash & ~kIds)) continue;
        if (table.entry(id).hash == hash && table.text(id) == text) return id;
      }
    }
    void put(std::uint32_t id, std::uint32_t hash) const {
      std::size_t at = hash;
      while (this->at(at).load(std::memory_order_relaxed) != kFree) ++at;
      this->at(at).store((hash & ~kIds) | id, std::memory_order_release);
    }

   private:
    static constexpr std::uint32_t kIds = kChunks * kChunk - 1;
    static constexpr std::uint32_t kFree = 0;  // what the empty text would be, which is never looked up

    std::atomic<std::uint32_t>& at(std::size_t place) const { return places_[place & (places_.size() - 1)]; }

    mutable std::vector<std::atomic<std::uint32_t>> places_;
  };

  // Gives the text the next id.
  void append(std::string_view text, std::uint32_t hash) {
    const std::uint32_t id = size_.load(std::memory_order_relaxed);
    auto& chunk = chunks_[id / kChunk];
    if (!chunk.load(std::memory_order_relaxed)) chunk.store(new Entry[kChunk], std::memory_order_release);
    const auto size = static_cast<std::uint32_t>(text.size());
    chunk.load(std::memory_order_relaxed)[id % kChunk] = {store(text), size, hash};
    size_.store(id + 1, std::memory_order_release);
  }

  const Places& grow(const Places& places) {
    const Places& grown = *allPlaces_.emplace_back(std::make_unique<Places>(places.count() * 2));
    for (std::uint32_t id = 1; id < size(); ++id) grown.put(id, entry(id).hash);
    places_.store(&grown, std::memory_order_release);
    return grown;
  }

  const char* store(std::string_view text) {
    const std::size_t needed = text.size() + 1;
    if (needed > left_) {
      const std::size_t size = std::max(needed, kBlock);
      free_ = blocks_.emplace_back(std::make_unique_for_overwrite<char[]>(size)).get();
      left_ = size;
    }
    char* place = free_;
    std::memcpy(place, text.data(), text.size());
    place[text.size()] = '\0';
    free_ += needed;
    left_ -= needed;
    return place;
  }

  std::mutex mutex_;                                      // for adding
  std::vector<std::unique_ptr<const Places>> allPlaces_;  // the last one is in use
  std::atomic<const Places*> places_{nullptr};
  std::array<std::atomic<Entry*>, kChunks> chunks_{};
  std::atomic<std::uint32_t> size_{0};
  std::vector<std::unique_ptr<char[]>> blocks_;
  char* free_ = nullptr;
  std::size_t left_ = 0;
};

// Never destroyed: names are used until the last static destructor has run.
Table& table() {
  static Table& instance = *new Table;
  return instance;
}

}  // namespace

namespace {

[[noreturn]] void throwTooLong(std::string_view text) {
  throw ValueError("the name '" + excerpt(text) + "' is longer than " + std::to_string(Name::kLongest) +
                   " bytes");
}

std::uint32_t idOf(std::string_view text) { return text.empty() ? 0 : table().intern(text); }

}  // namespace

Name::Name(std::string_view text) {
  check(text);
  id_ = idOf(text);
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
  name.id_ = idOf(text);
  return name;
}

std::optional<Name> Name::existing(std::string_view text) {
  if (text.empty()) return Name();
  const auto id = table().find(text);
  if (!id) return std::nullopt;
  Name name;
  name.id_ = *id;
  return name;
}

std::size_t Name::count() { return table().size(); }

std::string_view Name::view() const { return table().text(id_); }

std::ostream& operator<<(std::ostream& out, Name name) { return out << name.view(); }

}  // namespace Zel
