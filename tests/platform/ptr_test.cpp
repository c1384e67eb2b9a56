// Counted objects: pointers, typed allocation and its tracker; parents and paths of entities.
#include <gtest/gtest.h>

#include <thread>

#include "platform/model/ledconfig.h"
#include "platform/zel/core/exception.h"
#include "platform/zel/entity/dir.h"
#include "tests/support.h"

namespace {

using Zel::Ptr;

class Thing : public Support::Plain<Thing, Zel::Entity> {
 public:
  static constexpr const char* kName = "Test::Thing";
  explicit Thing(Zel::Name name, Support::Lines* log = nullptr) : Plain(name), log_(log) {
    const Ptr<Thing> self(this);  // a constructor may hand out pointers to itself
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
  const auto& tracker = Thing::typeNode().allocations();
  auto a = Zel::allocate<Thing>("a", &log);
  EXPECT_TRUE(tracker.objects() == 1 && tracker.bytes() == sizeof(Thing));
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
  EXPECT_TRUE(tracker.objects() == 0 && tracker.bytes() == 0);
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

// A type with two collections of one member type.
class Shelf : public Zel::Described<Shelf, Zel::Entity> {
 public:
  using Book = Hardware::Led::LedConfig;
  class NotifieeConst : public Zel::NotifieeOf<Shelf> {};
  static constexpr auto attributes() {
    return std::tuple{
        Zel::attribute::children<&Shelf::read_, NotifieeConst, nullptr, nullptr, nullptr>("read"),
        Zel::attribute::children<&Shelf::unread_, NotifieeConst, nullptr, nullptr, nullptr>("unread")};
  }
  static const Zel::TypeNode& typeNode() {
    static const Zel::TypeNode type = describe("Test::Shelf");
    return type;
  }
  explicit Shelf(Zel::Name name) : Described(name) {}
  Ptr<Book> readIs(Zel::Name name) { return childIs<&Shelf::read_>(name); }
  Ptr<Book> unreadIs(Zel::Name name) { return childIs<&Shelf::unread_>(name); }

 private:
  Zel::PtrMap<Book> read_;
  Zel::PtrMap<Book> unread_;
};

TEST(Entity, APathNamesTheCollectionThatHoldsTheEntity) {
  const auto shelf = Zel::allocate<Shelf>("shelf");
  EXPECT_EQ(shelf->readIs("a")->path(), "shelf/read/a");
  EXPECT_EQ(shelf->unreadIs("a")->path(), "shelf/unread/a");
  const auto loose = Zel::allocate<Shelf::Book>("a");
  loose->parentIs(shelf);
  EXPECT_EQ(loose->path(), "shelf/a");
}

}  // namespace
