// The store in memory, and paths.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

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
  EXPECT_EQ(Path("a/b/c").parent().parent(), Path("a"));
  std::vector<std::string> under;
  Path("a").forEachUnder([&](Path path) { under.push_back(path.text()); });
  EXPECT_EQ(std::ranges::count(under, "a/b/c"), 1);
  EXPECT_LT(std::ranges::find(under, "a/b"), std::ranges::find(under, "a/b/c"));
  EXPECT_EQ(std::ranges::count(under, "a-b"), 0);
  for (int i = 0; i < 5000; ++i) Path("many/" + std::to_string(i));
  for (int i = 0; i < 5000; ++i)
    ASSERT_EQ(Path::existing("many/" + std::to_string(i))->component(), Zel::Name(std::to_string(i)));
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
    const auto error = Support::errorOf<Zel::ValueError>([&] { return Path(text); });
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
