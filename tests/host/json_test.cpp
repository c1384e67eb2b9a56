// Values between the framework, the socket and the store file.
#include "host/rpc/json.h"

#include <gtest/gtest.h>

#include <limits>

#include "host/rpc/changes.h"
#include "tests/support.h"

namespace {

using Statedb::Change;
using Zel::Value;

TEST(Json, ValuesRoundTrip) {
  Value fields = Value::Fields{};
  fields.fieldIs("green", true);
  fields.fieldIs("flashInterval", 0.1);
  for (const Value& value :
       {Value(), Value(true), Value(std::numeric_limits<std::int64_t>::min()), Value(4294967295U),
        Value(1e-300), Value("läng\0st\n"), Value(Value::List{"a", Value::List{}, 3}), fields})
    EXPECT_EQ(Host::parseJson(Host::jsonText(value)), value) << value;
}

TEST(Json, NonFiniteNumbersBecomeStrings) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(Host::jsonText(Value(kInfinity)), "\"inf\"");
  EXPECT_EQ(Host::jsonText(Value(-kInfinity)), "\"-inf\"");
  EXPECT_EQ(Host::jsonText(Value(std::numeric_limits<double>::quiet_NaN())), "\"nan\"");
  EXPECT_EQ(Host::jsonText(Value(1.0)), "1.0") << "stays a number that need not be whole";
}

TEST(Json, InvalidUtf8IsReplaced) {
  EXPECT_EQ(Host::parseJson(Host::jsonText(Value("a\xff"))), "a\xEF\xBF\xBD");
}

TEST(Json, ChangesOfOneEntityAreGroupedAndRoundTrip) {
  const Statedb::Changes changes = {Change::put("a", "T", "", {}), Change::put("a", "T", "x", 1),
                                    Change::put("a", "T", "y", "z"), Change::del("a"),
                                    Change::put("a", "U", "", {})};
  const std::string text = Host::changesText(changes);
  EXPECT_EQ(text, R"([{"attributes":{"x":1,"y":"z"},"op":"put","path":"a","type":"T"},)"
                  R"({"op":"del","path":"a"},{"attributes":{},"op":"put","path":"a","type":"U"}])");
  EXPECT_EQ(Host::changesFrom(Host::parseJson(text)), changes);
  const std::string twice =
      Host::changesText({Change::put("\"q/\\", "T", "x", 1), Change::put("\"q/\\", "T", "x", 2)});
  const auto back = Host::changesFrom(Host::parseJson(twice));
  EXPECT_EQ(back.back(), Change::put("\"q/\\", "T", "x", 2)) << "the last word on one attribute";
}

TEST(Json, AnEntityOfNoTypeIsRefused) {
  const Value entities = Host::parseJson(R"([{"path":"a","type":"","attributes":{}}])");
  EXPECT_EQ(Support::errorOf([&] { Host::entityRecords(entities); }), "'type' of 'a' is empty");
}

TEST(Json, InvalidJsonIsRefusedWithTheReason) {
  const std::string deep(Host::kJsonDepth + 1, '[');
  std::string many = "{";
  for (int i = 0; i < 40; ++i) many += '"' + std::to_string(i % 39) + "\":0,";
  const std::pair<std::string, const char*> cases[] = {
      {"{\"a\":", "not JSON at byte 6"},
      {"1 2", "not JSON at byte 3"},
      {"\"\xff\"", "not JSON at byte 2"},
      {"1e999", "a number is out of range"},
      {deep, "nested deeper than 64"},
      {"{\"a\":1,\"b\":2,\"a\":3}", "the name 'a' appears twice"},
      {many + "\"x\":0}", "the name '0' appears twice"},
  };
  for (const auto& [text, reason] : cases) {
    const auto error = Support::errorOf<Zel::ValueError>([&text = text] { return Host::parseJson(text); });
    EXPECT_NE(error.find(reason), std::string::npos) << text << ": " << error;
  }
}

}  // namespace
