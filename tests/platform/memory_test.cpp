// Out of memory: failed allocations leave no trace.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "platform/zel/core/name.h"
#include "tests/support.h"

namespace {

constinit thread_local bool exhausted = false;

// Calls `take` until it fails for want of memory; then every call must fail until there is memory again.
template <class Take>
void expectToFail(const char* what, Take take) {
  const auto fails = [&] {
    try {
      take();
    } catch (const std::bad_alloc&) {
      return true;
    }
    return false;
  };
  exhausted = true;
  int calls = 0;
  while (calls < 5000 && !fails()) ++calls;
  const bool failsAgain = fails() && fails();
  exhausted = false;
  EXPECT_TRUE(failsAgain) << what << " after " << calls << " calls";
  EXPECT_FALSE(fails()) << what;
}

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
  void* const memory = exhausted ? nullptr : std::malloc(size);
  return memory ? memory : throw std::bad_alloc();
}
// Needed under the address sanitizer, whose nothrow new does not call the one above and rejects the delete
// below.
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return exhausted ? nullptr : std::malloc(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

TEST(Memory, AFailedAllocationIsNotCounted) {
  std::vector<void*> objects;
  objects.reserve(6000);
  expectToFail("objects", [&] { objects.push_back(Zel::fwkAllocate(256)); });
  for (void* const object : objects) Zel::fwkDeallocate(object, 256);

  std::string text(250, 'x');
  std::vector<Zel::Name> names;
  names.reserve(6000);
  int count = 0;
  expectToFail("names", [&] {
    ++count;
    text[0] = static_cast<char>('a' + count % 26);
    text[1] = static_cast<char>('a' + count / 26);
    names.emplace_back(text);
  });

  const auto clock = Zel::allocate<Zel::Clock>();
  std::vector<Zel::Ptr<Support::Waker>> wakers;
  for (int i = 0; i < 6000; ++i) wakers.push_back(Zel::allocate<Support::Waker>(clock));
  auto next = wakers.begin();
  expectToFail("wake-ups", [&] { (*next++)->timeMinIs(1e9); });
}

}  // namespace
