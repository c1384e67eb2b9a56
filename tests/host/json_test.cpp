// Values between the framework, the socket and the store file.
#include "host/json.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

using Host::Json;
using Statedb::Change;
using Zel::Value;

TEST(Json, ValuesComeBackAsTheyWere) {
  Value fields = Value::Fields{};
  fields.fieldIs("green", true);
  fields.fieldIs("flashInterval", 0.1);
  for (const Value& value :
       {Value(), Value(true), Value(std::numeric_limits<std::int64_t>::min()), Value(4294967295U),
        Value(1e-300), Value("läng\0st\n"), Value(Value::List{"a", Value::List{}, 3}), fields})
    EXPECT_EQ(Host::toValue(Host::parseJson(Host::jsonText(Host::toJson(value)))), value) << value;
}

TEST(Json, NumbersBeyondJsonBecomeTexts) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(Host::toJson(kInfinity), "inf");
  EXPECT_EQ(Host::toJson(-kInfinity), "-inf");
  EXPECT_EQ(Host::toJson(std::numeric_limits<double>::quiet_NaN()), "nan");
  EXPECT_EQ(Host::toValue(Json("inf")), Value("inf"));
}

TEST(Json, BytesThatAreNoUtf8CantStopAnAnswer) {
  EXPECT_EQ(Host::parseJson(Host::jsonText("a\xff")), "a\xEF\xBF\xBD");
}

TEST(Json, ChangesOfOneEntityStandTogetherAndComeBack) {
  const Statedb::Changes changes = {Change::put("a", "T", "", {}), Change::put("a", "T", "x", 1),
                                    Change::put("a", "T", "y", "z"), Change::del("a"),
                                    Change::put("a", "U", "", {})};
  const Json json = Host::changesJson(changes);
  EXPECT_EQ(json.size(), 3U);
  EXPECT_EQ(Host::changesFromJson(json), changes);
}

}  // namespace
