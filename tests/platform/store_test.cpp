// The store in memory, and paths.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "platform/statedb/store/memorystore.h"
#include "storemodel.h"
#include "tests/support.h"

namespace {

using namespace StoreModel;
using Statedb::Path;

// For any components, escaped or not.
TEST(Path, RoundTripsAsAStringAndIsATree) {
  const std::vector<std::string> texts = {"",  "a",  "a/b", "a/b/c", "a-b", "a//b",
                                          "/", "/a", "a/",  "a%2Fb", "ä"};
  for (const std::string& text : texts) EXPECT_EQ(Path(text).text(), text);
  const std::vector<Path> kept(texts.begin(), texts.end());
  const std::size_t count = Path::count();
  for (const std::string& text : texts) EXPECT_EQ(Path::existing(text), Path(text)) << text;
  EXPECT_FALSE(Path::existing("a/never"));
  EXPECT_FALSE(Path::existing("never/made/b"));
  EXPECT_EQ(Path::count(), count) << "looking up adds nothing";
  for (const std::string& text : texts)
    for (const std::string& above : texts)
      EXPECT_EQ(Path(text).isUnder(above), above.empty() || text == above || text.starts_with(above + '/'))
          << text << " under " << above;
  EXPECT_EQ(Path("a").childNamed("x/y"), Path("a/x%2Fy"));
  // Three times as long in a path as the longest name.
  EXPECT_EQ(Path("a").childNamed(std::string(255, '/')).component().view().size(), 765U);
  EXPECT_EQ(Path("a/b/c").parent().parent(), Path("a"));
  std::vector<std::string> under;
  Path("a").forEachUnder([&](Path path) { under.push_back(path.text()); });
  EXPECT_EQ(std::ranges::count(under, "a/b/c"), 1);
  EXPECT_LT(std::ranges::find(under, "a/b"), std::ranges::find(under, "a/b/c"));
  EXPECT_EQ(std::ranges::count(under, "a-b"), 0);
  std::vector<Path> many;
  for (int i = 0; i < 5000; ++i) many.emplace_back("many/" + std::to_string(i));
  for (int i = 0; i < 5000; ++i)
    ASSERT_EQ(Path::existing("many/" + std::to_string(i))->component(), Zel::Name(std::to_string(i)));
}

// Paths and names are there as long as anything has a copy of them, or of a path under them.
TEST(Path, IsFreedWithItsLastCopy) {
  std::mt19937 random(1);
  const auto text = [](std::size_t i) {
    return "freed" + std::to_string(i % 7) + "/n" + std::to_string(i) + "/x";
  };
  std::vector<Path> copies(4000);
  const Path other("other/x");  // what the last look-up was under is kept
  const std::size_t paths = Path::count();
  const std::size_t names = Zel::Name::count();
  for (int step = 0; step < 40'000; ++step) {
    const std::size_t i = random() % copies.size();
    copies[i] = random() % 2 == 0 ? Path(text(i)) : Path();
    const std::size_t j = random() % copies.size();
    const auto found = Path::existing(text(j));
    ASSERT_EQ(found.has_value(), !copies[j].empty()) << text(j);
    ASSERT_TRUE(!found || (*found == copies[j] && found->text() == text(j)));
  }
  copies.clear();
  EXPECT_TRUE(Path::existing("other/x"));
  EXPECT_EQ(Path::count(), paths);
  EXPECT_EQ(Zel::Name::count(), names);
}

// Both ways, a walk meets the paths that are there throughout once, and a parent on the right side of its
// children, while others come and go.
TEST(Path, WalksMeetEachOnceWhilePathsComeAndGo) {
  std::mt19937 random(1);
  const auto any = [&] {
    std::string text = "walk";
    while (text.size() < 12 && random() % 4 != 0) text += '/' + std::to_string(random() % 5);
    return Path(text);
  };
  for (int walk = 0; walk < 200; ++walk) {
    const bool isForth = random() % 2 == 0;
    std::vector<Path> lasting(random() % 20), passing(20);
    std::ranges::generate(lasting, any);
    std::ranges::generate(passing, any);
    std::vector<Path> met;
    for (Path at = isForth ? Path().next() : Path().previous(); !at.empty();
         at = isForth ? at.next() : at.previous()) {
      if (std::ranges::count(lasting, at) != 0) met.push_back(at);
      for (int i = 0; i < 3 && met.size() < 1000; ++i)
        passing[random() % passing.size()] = random() % 3 == 0 ? any() : Path();
    }
    if (!isForth) std::ranges::reverse(met);
    for (auto each = met.begin(); each != met.end(); ++each)
      ASSERT_TRUE(std::none_of(each + 1, met.end(), [&](const Path& later) { return each->isUnder(later); }))
          << *each << " is met twice or before what is above it";
    for (const Path& each : lasting)
      ASSERT_TRUE(each.empty() || std::ranges::count(met, each) == 1) << each << " is missing";
  }
}

TEST(Path, IsNotInternedBeyondItsLimits) {
  const auto repeated = [](const char* text, int times) {
    std::string all;
    while (--times >= 0) all += text;
    return all;
  };
  const auto deep = [&](int components) { return "limit" + repeated("/limit", components - 1); };
  const std::string name(255, 'n'), escaped = repeated("%2F", 255);
  for (const std::string& text : {deep(64), "limit/" + name, "limit/" + escaped})
    EXPECT_EQ(Path(text).text(), text);
  const std::pair<std::string, const char*> refused[] = {
      {deep(65), "has more than 64 components"},
      {deep(150000), "is longer than 4096 bytes"},
      {"limit/" + name + "o", "is longer than 255 bytes"},
      {"limit/" + escaped + "o/x", "is longer than 255 bytes"},
      {"limit/new" + std::string(5000, 'x'), "is longer than 4096 bytes"},
  };
  const std::size_t paths = Path::count();
  const std::size_t names = Zel::Name::count();
  for (const auto& [text, why] : refused) {
    const auto error = Support::errorOf<Zel::ValueError>([&text = text] { return Path(text); });
    EXPECT_THAT(error, testing::HasSubstr(why));
    EXPECT_LT(error.size(), 400U);
    EXPECT_FALSE(Path::existing(text));
  }
  EXPECT_THROW(Zel::Name(name + "o"), Zel::ValueError);
  EXPECT_EQ(Path::count(), paths);
  EXPECT_EQ(Zel::Name::count(), names);
}

// Agents' own paths have no depth limit, so nothing may recurse by depth.
TEST(Path, HasNoDepthLimitForAgents) {
  const Path top("deep");
  Path bottom = top;
  for (int i = 0; i < 200000; ++i) bottom = bottom.child("d");
  EXPECT_EQ(bottom.text().size(), 4U + 2 * 200000);
  int count = 0;
  top.forEachUnder([&](Path) { ++count; });
  EXPECT_EQ(count, 200001);
}

TEST(MemoryStore, AnUnchangedValueNotifiesNobody) {
  Failing<Statedb::MemoryStore> store;
  Mirror mirror("");
  store.subscribe("", mirror);
  store.write({Change::put("a", "T", "x", 1)}, Durability::stored);
  store.flush();
  EXPECT_EQ(mirror.batches, 1);
  EXPECT_EQ(store.persisted, 2U) << "the entity's own row, and the attribute's";
  store.write({Change::put("a", "T", "x", 1), Change::del("b"), Change::unset("a", "y")}, Durability::stored);
  store.write({Change::put("a", "T", "x", 1)}, Durability::volatile_);
  store.flush();
  EXPECT_EQ(mirror.batches, 1);
  EXPECT_EQ(store.persisted, 2U);
  store.write({Change::put("a", "T", "x", 2)}, Durability::stored);
  store.flush();
  EXPECT_EQ(mirror.batches, 1) << "hidden by the volatile value";
  EXPECT_EQ(store.persisted, 3U);
}

}  // namespace
