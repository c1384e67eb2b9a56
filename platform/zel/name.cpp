#include "platform/zel/name.h"

#include <array>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <ostream>
#include <shared_mutex>
#include <unordered_map>
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
    const auto found = ids_.find(text);
    if (found == ids_.end()) return std::nullopt;
    return found->second;
  }

  std::uint32_t intern(std::string_view text) {
    if (const auto found = find(text)) return *found;
    const std::unique_lock lock(mutex_);
    if (const auto found = ids_.find(text); found != ids_.end()) return found->second;
    const std::uint32_t id = size_.load(std::memory_order_relaxed);
    if (id == kChunks * kChunk) throwRangeException("the table of names is full");
    auto& chunk = chunks_[id / kChunk];
    if (!chunk.load(std::memory_order_relaxed))
      chunk.store(new std::string_view[kChunk], std::memory_order_release);
    const std::string_view stored = store(text);
    chunk.load(std::memory_order_relaxed)[id % kChunk] = stored;
    ids_.emplace(stored, id);
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
  std::unordered_map<std::string_view, std::uint32_t> ids_;
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
