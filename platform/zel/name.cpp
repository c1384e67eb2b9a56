#include "platform/zel/name.h"

#include <array>
#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <vector>

#include "platform/zel/exception.h"

namespace Zel {

namespace {

// Texts lie in blocks that never move, so a view of one stays valid, and a reader needs no lock to find it:
// whoever holds an id got it after the entry was written. Looking a text up takes no lock either: the places
// only ever fill, and when they are outgrown a larger table takes over while the old one stays as it was.
class Table {
 public:
  Table() {
    allPlaces_.push_back(std::make_unique<Places>(kChunk));
    places_ = allPlaces_.back().get();
    append("");
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
    append(text);
    places->put(id, hash);
    return id;
  }

  std::string_view text(std::uint32_t id) const {
    return chunks_[id / kChunk].load(std::memory_order_acquire)[id % kChunk];
  }
  std::size_t size() const { return size_.load(std::memory_order_relaxed); }

 private:
  static constexpr std::uint32_t kChunk = 4096;
  static constexpr std::uint32_t kChunks = 16384;
  static constexpr std::size_t kBlock = 64 * 1024;

  static std::uint32_t hashOf(std::string_view text) {
    return static_cast<std::uint32_t>(std::hash<std::string_view>()(text));
  }

  // A hash table of ids. The hash beside an id spares looking at texts that are others.
  class Places {
   public:
    explicit Places(std::size_t count) : places_(count) {}

    std::size_t count() const { return places_.size(); }
    std::optional<std::uint32_t> find(const Table& table, std::string_view text, std::uint32_t hash) const {
      for (std::size_t at = first(hash);; at = next(at)) {
        const std::uint64_t place = places_[at].load(std::memory_order_acquire);
        if (place == kFree) return std::nullopt;
        const auto id = static_cast<std::uint32_t>(place);
        if (place >> 32 == hash && table.text(id) == text) return id;
      }
    }
    void put(std::uint32_t id, std::uint32_t hash) const {
      std::size_t at = first(hash);
      while (places_[at].load(std::memory_order_relaxed) != kFree) at = next(at);
      places_[at].store(std::uint64_t{hash} << 32 | id, std::memory_order_release);
    }
    void putAllInto(const Places& other) const {
      for (const auto& place : places_)
        if (const std::uint64_t held = place.load(std::memory_order_relaxed); held != kFree)
          other.put(static_cast<std::uint32_t>(held), static_cast<std::uint32_t>(held >> 32));
    }

   private:
    static constexpr std::uint64_t kFree = 0;  // what the empty text would be, which is never looked up

    std::size_t first(std::uint32_t hash) const { return hash & (places_.size() - 1); }
    std::size_t next(std::size_t at) const { return (at + 1) & (places_.size() - 1); }

    mutable std::vector<std::atomic<std::uint64_t>> places_;
  };

  // Gives the text the next id.
  void append(std::string_view text) {
    const std::uint32_t id = size_.load(std::memory_order_relaxed);
    auto& chunk = chunks_[id / kChunk];
    if (!chunk.load(std::memory_order_relaxed))
      chunk.store(new std::string_view[kChunk], std::memory_order_release);
    chunk.load(std::memory_order_relaxed)[id % kChunk] = store(text);
    size_.store(id + 1, std::memory_order_release);
  }

  const Places& grow(const Places& places) {
    const Places& grown = *allPlaces_.emplace_back(std::make_unique<Places>(places.count() * 2));
    places.putAllInto(grown);
    places_.store(&grown, std::memory_order_release);
    return grown;
  }

  std::string_view store(std::string_view text) {
    const std::size_t needed = text.size() + 1;
    if (needed > left_) {
      left_ = needed > kBlock ? needed : kBlock;
      free_ = blocks_.emplace_back(new char[left_]).get();
    }
    char* place = free_;
    std::memcpy(place, text.data(), text.size());
    place[text.size()] = '\0';
    free_ += needed;
    left_ -= needed;
    return {place, text.size()};
  }

  std::mutex mutex_;                                      // of whoever adds
  std::vector<std::unique_ptr<const Places>> allPlaces_;  // the last one is in use
  std::atomic<const Places*> places_{nullptr};
  std::array<std::atomic<std::string_view*>, kChunks> chunks_{};
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

Name::Name(std::string_view text) : id_(text.empty() ? 0 : table().intern(text)) {}

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
