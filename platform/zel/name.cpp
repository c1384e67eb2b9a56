#include "platform/zel/name.h"

#include <array>
#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <shared_mutex>
#include <vector>

#include "platform/zel/exception.h"

namespace Zel {

namespace {

// Texts lie in blocks that never move, so a view of one stays valid, and a reader needs no lock to find it:
// whoever holds an id got it after the entry was written.
class Table {
 public:
  Table() { intern(""); }

  std::optional<std::uint32_t> find(std::string_view text) {
    const std::shared_lock lock(mutex_);
    const std::uint32_t id = places_[place(text)];
    if (id == kFree) return std::nullopt;
    return id;
  }

  std::uint32_t intern(std::string_view text) {
    if (const auto found = find(text)) return *found;
    const std::unique_lock lock(mutex_);
    if (const std::uint32_t found = places_[place(text)]; found != kFree) return found;
    const std::uint32_t id = size_.load(std::memory_order_relaxed);
    if (id == kChunks * kChunk) throwRangeException("the table of names is full");
    if (id >= places_.size() / 4 * 3) grow();
    auto& chunk = chunks_[id / kChunk];
    if (!chunk.load(std::memory_order_relaxed))
      chunk.store(new std::string_view[kChunk], std::memory_order_release);
    places_[place(text)] = id;
    chunk.load(std::memory_order_relaxed)[id % kChunk] = store(text);
    size_.store(id + 1, std::memory_order_release);
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
  static constexpr std::uint32_t kFree = ~0U;

  // Where the id of `text` stands among the places, or is to stand. There is always a free place.
  std::size_t place(std::string_view text) const {
    std::size_t at = std::hash<std::string_view>()(text) & (places_.size() - 1);
    while (places_[at] != kFree && this->text(places_[at]) != text) at = (at + 1) & (places_.size() - 1);
    return at;
  }

  void grow() {
    places_.assign(places_.size() * 2, kFree);
    for (std::uint32_t id = 0; id < size(); ++id) places_[place(text(id))] = id;
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

  std::shared_mutex mutex_;
  std::vector<std::uint32_t> places_ = std::vector<std::uint32_t>(kChunk, kFree);  // a hash table of ids
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
