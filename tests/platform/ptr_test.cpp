// Counted objects: pointers, typed allocation and its tracker.
#include <gtest/gtest.h>

#include <thread>

#include "platform/zel/core/exception.h"
#include "platform/zel/entity/dir.h"
#include "tests/support.h"

namespace {

using Zel::Ptr;

class Thing : public Support::Plain<Thing, Zel::Entity> {
 public:
  static constexpr const char* kName = "Test::Thing";
  explicit Thing(Zel::Name name, Support::Lines* log = nullptr, bool fails = false) : Plain(name), log_(log) {
    const Ptr<Thing> self(this);  // a constructor may hand out pointers to itself
    if (fails) throw std::runtime_error("no thing");
  }
  void hasNotificationActiveIs(bool active) override {
    if (log_) log_->push_back(active ? "on" : "off");
    Plain::hasNotificationActiveIs(active);
  }

  Ptr<Thing> other;

 protected:
  ~Thing() override {
    const Ptr<Thing> self(this);  // a pointer made in the destructor does not destroy it twice
    if (log_) log_->push_back("gone");
  }

 private:
  Support::Lines* log_;
};

TEST(Ptr, OnlyTheLastReferenceDestroysTheObject) {
  Support::Lines log;
  auto a = Zel::allocate<Thing>("a", &log);
  EXPECT_EQ(a->references(), 1U);
  EXPECT_TRUE(a->hasNotificationActive());
  Ptr<const Thing> b = a;
  auto& self = a;
  a = self;  // its own value
  a = Ptr<Thing>(a.get());
  EXPECT_EQ(a->references(), 2U);
  a = nullptr;
  EXPECT_EQ(log, (Support::Lines{"on"}));
  b = nullptr;
  EXPECT_EQ(log, (Support::Lines{"on", "gone"}));
}

// Code that runs in the destructor of the dropped object sees the new value.
TEST(Ptr, AssignmentStoresBeforeItDrops) {
  Ptr<Thing> slot;
  struct Peek : Thing {
    Peek(Ptr<Thing>& watched, Thing*& saw) : Thing("peek"), slot(watched), seen(saw) {}
    ~Peek() override { seen = slot.get(); }
    Ptr<Thing>& slot;
    Thing*& seen;
  };
  Thing* seen = nullptr;
  slot = Zel::allocate<Peek>(slot, seen);
  const auto next = Zel::allocate<Thing>("next");
  slot = next;
  EXPECT_EQ(seen, next.get());

  slot->other = Zel::allocate<Thing>("tail");
  slot = slot->other;  // the old object owns the reference to the new one
  EXPECT_EQ(slot->name(), Zel::Name("tail"));
}

TEST(Ptr, CountsHoldAcrossThreadsIfThreadSafePointersAreOn) {
  Zel::enableThreadSafePointersIs(true);
  const auto thing = Zel::allocate<Thing>("shared");
  const Zel::String text("a text that is shared");
  const auto copy = [&] {
    for (int i = 0; i < 20000; ++i) {
      const Ptr<Thing> mine = thing;
      const Zel::String words = text;
    }
  };
  std::thread other(copy);
  copy();
  other.join();
  EXPECT_EQ(thing->references(), 1U);
  Zel::enableThreadSafePointersIs(false);
}

TEST(Allocate, TheTrackerIsBalancedAlsoWhenConstructionThrows) {
  const auto& tracker = Thing::typeNode().allocations();
  const auto objects = tracker.objects();
  const auto bytes = tracker.bytes();
  EXPECT_THROW(Zel::allocate<Thing>("a", nullptr, true), std::runtime_error);
  EXPECT_EQ(tracker.objects(), objects);
  {
    const auto thing = Zel::allocate<Thing>("a");
    EXPECT_EQ(tracker.objects(), objects + 1);
    EXPECT_EQ(tracker.bytes(), bytes + sizeof(Thing));
  }
  EXPECT_EQ(tracker.objects(), objects);
  EXPECT_EQ(tracker.bytes(), bytes);
}

TEST(Dir, EntriesAreMadeByTypeNameAndKeepTheirIdentity) {
  const auto dir = Zel::allocate<Zel::Dir>("top");
  const auto made = dir->entryIs("a/b", "Zel::Dir");
  EXPECT_EQ(dir->entryIs("a/b", "Environment::Cooling::Config"), made) << "kept, whatever its type";
  EXPECT_EQ(dir->entityRef("a/b"), made);
  EXPECT_EQ(made->path(), "top/a%2Fb");
  EXPECT_THROW(dir->entryIs("c", "No::Such::Type"), Zel::RangeException);
  EXPECT_THROW(dir->entryIs("c", "Zel::Entity"), Zel::RangeException);
  EXPECT_EQ(dir->entryDel("a/b"), made);
  EXPECT_EQ(dir->entryDel("a/b"), nullptr);
  EXPECT_EQ(made->parent(), nullptr);
}

TEST(Entity, AttachedEntitiesHoldTheirParentAndMembersDoNot) {
  auto parent = Zel::allocate<Zel::Dir>("parent");
  auto attached = Zel::allocate<Thing>("attached");
  attached->parentIs(parent);
  const auto inside = parent->entryIs("inside", "Zel::Dir");
  EXPECT_EQ(parent->references(), 2U);
  EXPECT_EQ(attached->path(), "parent/attached");
  attached->parentIs(nullptr);
  EXPECT_EQ(parent->references(), 1U);
  parent = nullptr;
  EXPECT_EQ(inside->parent(), nullptr) << "an entry outlives its directory without a parent";
}

}  // namespace
