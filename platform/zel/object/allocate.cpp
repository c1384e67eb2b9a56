// The framework's allocator: a bump allocator with a LIFO free list for each size, and no header before an
// object.
//
// Objects that are made together are used together (a machine and its reactors), so they share cache lines
// and pages. Freed memory serves the freeing thread's next object of that size; it never returns to the
// system.
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>

#include "platform/zel/object/type.h"

namespace Zel {

namespace {

constexpr std::size_t kGrain = 8;
constexpr std::size_t kLargest = 256;  // larger objects come from operator new
constexpr std::size_t kFirstBlock = 2 * 1024;
constexpr std::size_t kLastBlock = 64 * 1024;
// Beyond this size TLB misses dominate: use huge pages, if the system has them.
constexpr std::size_t kManyBytes = 2 << 20;
constexpr std::size_t kHugePage = 2 << 20;

constinit std::atomic<std::size_t> hugeBytes = 0;

class Pool {
 public:
  void* take(std::size_t grains) {
    if (Free* place = free_[grains]) {
      free_[grains] = place->next;
      return place;
    }
    const std::size_t size = grains * kGrain;
    if (left_ < size) newBlock();
    std::byte* place = fresh_;
    fresh_ += size;
    left_ -= size;
    return place;
  }
  void giveBack(void* memory, std::size_t grains) { free_[grains] = ::new (memory) Free{free_[grains]}; }

 private:
  struct Free {
    Free* next;
  };

  void newBlock() {
    std::byte* const huge = taken_ < kManyBytes ? nullptr : newHugePage();
    fresh_ = huge ? huge : static_cast<std::byte*>(::operator new(nextBlock_));
    left_ = huge ? kHugePage : nextBlock_;  // only now: operator new may throw
    taken_ += left_;
    if (!huge) nextBlock_ = std::min(nextBlock_ * 2, kLastBlock);
  }

  // Null if the system has none. Maps twice the size and cuts out an aligned page.
  static std::byte* newHugePage() {
    constexpr int kProtection = PROT_READ | PROT_WRITE;
    void* const mapped = ::mmap(nullptr, 2 * kHugePage, kProtection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) return nullptr;
    auto* const begin = static_cast<std::byte*>(mapped);
    const std::size_t before = (kHugePage - reinterpret_cast<std::uintptr_t>(begin) % kHugePage) % kHugePage;
    if (before != 0) ::munmap(begin, before);
    ::munmap(begin + before + kHugePage, kHugePage - before);
    static_cast<void>(::madvise(begin + before, kHugePage, MADV_HUGEPAGE));  // a hint: failure is harmless
    hugeBytes.fetch_add(kHugePage, std::memory_order_relaxed);
    return begin + before;
  }

  std::array<Free*, kLargest / kGrain + 1> free_{};  // by size
  std::byte* fresh_ = nullptr;
  std::size_t left_ = 0;
  std::size_t nextBlock_ = kFirstBlock;
  std::size_t taken_ = 0;  // bytes of all blocks
};

constinit thread_local Pool pool;

// GCC defines a macro, clang a feature.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZEL_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(memory_sanitizer) || __has_feature(thread_sanitizer)
#define ZEL_SANITIZED 1
#endif
#endif

// Sanitizers need one allocation per object.
#ifdef ZEL_SANITIZED
constexpr bool kPooled = false;
#else
constexpr bool kPooled = true;
#endif

constexpr bool pooled(std::size_t size) { return kPooled && size <= kLargest; }
constexpr std::size_t grains(std::size_t size) { return (size + kGrain - 1) / kGrain; }

}  // namespace

std::size_t fwkHugeBytes() { return hugeBytes.load(std::memory_order_relaxed); }

void* fwkAllocate(std::size_t size) {
  if (!pooled(size)) return ::operator new(size);
  return pool.take(grains(size));
}

void fwkDeallocate(void* memory, std::size_t size) noexcept {
  if (!pooled(size)) return ::operator delete(memory, size);
  pool.giveBack(memory, grains(size));
}

}  // namespace Zel
