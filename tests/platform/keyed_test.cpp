// Keyed collections against std::map, and changes during a walk.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

#include "platform/zel/core/keyed.h"
#include "platform/zel/entity/dir.h"

namespace {

using Map = Zel::PtrMap<Zel::Dir>;

Zel::Name key(unsigned i) { return Zel::Name("key" + std::to_string(i)); }

std::set<Zel::Name> keysOf(const Map& map) {
  std::set<Zel::Name> keys;
  for (auto at = map.begin(); at != map.end(); ++at) EXPECT_TRUE(keys.insert(at.key()).second);
  return keys;
}

TEST(PtrMap, FollowsAMapUnderRandomOperations) {
  std::mt19937 random(7);
  for (const unsigned range : {3U, 12U, 400U}) {
    Map map;
    std::map<Zel::Name, Zel::Ptr<Zel::Dir>> reference;
    for (int step = 0; step < 6000; ++step) {
      const Zel::Name name = key(static_cast<unsigned>(random() % range));
      const auto found = reference.find(name);
      ASSERT_EQ(map.get(name), found == reference.end() ? nullptr : found->second.get());
      if (found != reference.end() && random() % 2 == 0) {
        ASSERT_EQ(map.remove(name), found->second);
        reference.erase(found);
      } else if (found == reference.end()) {
        const auto dir = Zel::allocate<Zel::Dir>(name);
        map.insert(name, dir);
        reference.emplace(name, dir);
      } else {
        ASSERT_EQ(map.remove(key(range)), nullptr);
      }
      ASSERT_EQ(map.size(), reference.size());
      if (step % 500 != 0) continue;
      std::set<Zel::Name> keys;
      for (const auto& [each, dir] : reference) keys.insert(each);
      ASSERT_EQ(keysOf(map), keys);
    }
    map.clear();
    for (const auto& [name, dir] : reference) EXPECT_EQ(dir->references(), 1U);
  }
}

// Each case changes the collection during a walk, which must visit every member once, except those removed
// before their turn.
TEST(PtrMap, AWalkSurvivesEveryChangeFromWithin) {
  for (const unsigned size : {1U, 5U, 40U}) {
    for (unsigned crime = 0; crime < 5; ++crime) {
      auto map = std::make_unique<Map>();
      for (unsigned i = 0; i < size; ++i) map->insert(key(i), Zel::allocate<Zel::Dir>(key(i)));
      std::multiset<Zel::Name> met;
      std::set<Zel::Name> removed;
      for (const auto& dir : *map) {
        EXPECT_FALSE(removed.contains(dir->name()));
        met.insert(dir->name());
        if (crime == 0) map->remove(dir->name());
        if (crime == 1)
          for (unsigned i = 0; i < size; ++i)
            if (key(i) != dir->name() && map->remove(key(i))) removed.insert(key(i));
        if (crime == 2 && met.size() == 1) map->clear();
        if (crime == 3 && met.size() == 1) map.reset();
        if (crime == 4 && met.size() == 1)
          for (unsigned i = 100; i < 200; ++i) map->insert(key(i), Zel::allocate<Zel::Dir>(key(i)));
      }
      const bool all = crime == 0 || crime == 4;
      for (unsigned i = 0; i < size; ++i) {
        EXPECT_LE(met.count(key(i)), 1U);
        EXPECT_TRUE(!all || met.contains(key(i))) << "crime " << crime;
      }
      EXPECT_TRUE(all || met.size() == 1) << "crime " << crime;
    }
  }
}

TEST(NameSet, HoldsNamesWithABooleanEach) {
  Zel::NameSet a{"x", "y"};
  EXPECT_FALSE(a.insert("x"));
  EXPECT_TRUE(a.insert("x", false));
  EXPECT_TRUE(a.contains("x"));
  EXPECT_FALSE(a.value("x"));
  const Zel::NameSet b = a;
  EXPECT_EQ(a, b);
  EXPECT_TRUE(a.remove("y"));
  EXPECT_FALSE(a.remove("y"));
  EXPECT_FALSE(a == b);
  EXPECT_EQ(b.size(), 2U);
}

}  // namespace
