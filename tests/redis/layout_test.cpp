#include "host/store/redis/layout.h"

#include <gtest/gtest.h>

#include "host/rpc/json.h"
#include "host/store/redis/rows.h"
#include "tests/support.h"

namespace {

using namespace Host::Redis;
using Statedb::Change;
using Statedb::Changes;
using Statedb::Path;
using Support::errorOf;

TEST(RedisLayout, ADeltaHasItsBatch) {
  const Changes changes{
      Change::put("hardware/led/config/leds/Ethernet3%2F1", "T", "theme", std::string("a\tb\nc")),
      Change::put("hardware/led/config/leds/Ethernet3%2F1", "T", "limit", 3),
      Change::put("hardware/led/config/leds/Ethernet4", "T", {}, {}),
      Change::unset("hardware/led/config/leds/Ethernet4", "theme"),
      Change::del("hardware/led"),
      Change::put("top", "U", "list", Zel::Value(Zel::Value::List{1, true, 2.5})),
      Change::put(Path(), "U", {}, {}),
      Change::del(Path()),
  };
  const std::string delta = deltaText(changes);
  EXPECT_EQ(changesOf(delta), changes);
  EXPECT_TRUE(delta.starts_with(
      "@hardware/led/config/leds\n:T\n+Ethernet3%2F1\ttheme\t\"a\\tb\\nc\"\n+Ethernet3%2F1\tlimit\t3\n"))
      << delta;
}

TEST(RedisLayout, ADeltaOfAnotherFormIsRefused) {
  struct Case {
    std::string delta;
    const char* error;
  };
  const Case cases[] = {{"?x\n", "a step of a change that begins with none of @ : ! + -: '?x'"},
                        {"\n", "a step of a change that begins with none"},
                        {"+a\tb\t1\n", "a put without a type"},
                        {":T\n+a\tb\t{\n", "JSON"},
                        {":T\n+" + std::string(300, 'n') + "\n", "255"},
                        {":T\n+/led\n", "the name '/led' has a slash"},
                        {"!" + std::string(5000, '/') + "\n", "path"}};
  for (const Case& each : cases) {
    const std::string error = errorOf<Zel::ValueError>([&] { changesOf(each.delta); });
    EXPECT_NE(error.find(each.error), std::string::npos) << each.delta.substr(0, 40) << ": " << error;
  }
  EXPECT_NE(errorOf<Zel::ValueError>([] { deltaText({Change::put("a", "T\tU", {}, {})}); }), "none");
}

// A scan finds an entity's parts one by one, while they change.
TEST(RedisLayout, AScanAndTheLogSinceMakeTheRows) {
  Rows rows;
  const Directory d("d");
  rows.scanned(d, "a/late", "1");  // its entity was read before it was made
  rows.scanned(d, "b", "T\tx\ty");
  rows.scanned(d, "b/y", "2");
  rows.scanned(d, "b/x", "1");
  rows.scanned(d, "b/x", "3");  // a hash that grows is read twice in places
  rows.endScan();
  EXPECT_EQ(rows.find("d/a"), nullptr);
  EXPECT_FALSE(Path::existing("d/a")) << "values without an entity leave nothing";
  EXPECT_EQ(entityText(*rows.find("d/b")), "T\tx\ty");
  EXPECT_EQ(*rows.find("d/b")->find("x"), Zel::Value(3));
  rows.carry({Change::put("d/a", "U", "late", 1), Change::unset("d/b", "x"),
              Change::put("d/b/c", "T", "z", 4), Change::unset("d/gone", "x")});
  EXPECT_EQ(entityText(*rows.find("d/a")), "U\tlate");
  EXPECT_EQ(entityText(*rows.find("d/b")), "T\ty");
  rows.carry({Change::del("d/b"), Change::put("d/b", "U", {}, {})});
  EXPECT_EQ(rows.all().size(), 2U);
  EXPECT_EQ(entityText(*rows.find("d/b")), "U");
}

}  // namespace
