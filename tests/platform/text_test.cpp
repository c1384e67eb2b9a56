// Names, strings, values, and the encoding of names in paths.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <sstream>
#include <thread>

#include "platform/model/led.h"
#include "platform/zel/core/exception.h"
#include "platform/zel/core/printable.h"
#include "platform/zel/entity/entity.h"
#include "tests/support.h"

namespace {

TEST(Name, EqualStringsAreOneNameAndLookUpsAddNothing) {
  const std::string text = "Ethernet3/1";
  const Zel::Name name(text);
  EXPECT_EQ(name, Zel::Name("Ethernet3/1"));
  EXPECT_EQ(std::hash<Zel::Name>()(name), std::hash<Zel::Name>()(Zel::Name(text)));
  EXPECT_EQ(sizeof(name), 4U);
  const auto count = Zel::Name::count();
  EXPECT_FALSE(Zel::Name::existing("a text that was not interned"));
  EXPECT_EQ(Zel::Name::existing(text), name);
  EXPECT_EQ(Zel::Name::count(), count);
  EXPECT_LT(Zel::Name("a"), Zel::Name("b"));
  EXPECT_TRUE(Zel::Name("").empty());
}

// Threads make, copy and drop the same few names. Also for the thread sanitizer.
TEST(Name, IsFreedWithItsLastCopyOnAnyThread) {
  const auto count = Zel::Name::count();
  const auto work = [](unsigned seed) {
    std::mt19937 random(seed);
    std::vector<Zel::Name> kept(8);
    for (int i = 0; i < 5000; ++i) {
      const std::string text = "of a thread " + std::to_string(random() % 16);
      const Zel::Name name(text);
      kept[random() % kept.size()] = name;
      const Zel::Name other = kept[random() % kept.size()];
      ASSERT_EQ(name.view(), text);
      ASSERT_TRUE(other.empty() || Zel::Name::existing(other.view()) == other);
    }
  };
  {
    std::vector<std::jthread> threads;
    for (unsigned seed = 1; seed <= 4; ++seed) threads.emplace_back(work, seed);
  }
  EXPECT_EQ(Zel::Name::count(), count);
}

TEST(String, SharesComparesAndJoins) {
  const Zel::String a("one", 3);
  const Zel::String b = a;
  EXPECT_EQ(a.charPtr(), b.charPtr());
  EXPECT_EQ(a + b, "oneone");
  EXPECT_EQ("<" + a + ">", Zel::String(std::string("<one>")));
  EXPECT_LT(Zel::String("a"), Zel::String("b"));
  EXPECT_EQ(Zel::String("a\0b", 3).length(), 3U);
  Zel::String c;
  c = std::string("text");
  EXPECT_EQ(c.stdString(), "text");
  EXPECT_STREQ(Zel::String().charPtr(), "");
  EXPECT_EQ(Zel::format("Active%d of %s", 12, "x"), "Active12 of x");
  EXPECT_EQ(Zel::format("%s", ""), "");
}

TEST(Printable, EscapesWhateverATerminalWouldActOn) {
  const std::pair<std::string_view, const char*> cases[] = {
      {"Ethernet3/1", "Ethernet3/1"},
      {"Grün ✓ 灯 \xf0\x9f\x92\xa1", "Grün ✓ 灯 \xf0\x9f\x92\xa1"},
      {"a\x1b[2Jb\nc\td\x7f", R"(a\x1B[2Jb\x0Ac\x09d\x7F)"},
      {{"a\0b", 3}, R"(a\x00b)"},
      {"\xc2\x9b"
       "31m",
       R"(\x9B31m)"},                                       // CSI in one character
      {"\x9b\xff\xe2\x82", R"(\x9B\xFF\xE2\x82)"},          // not UTF-8; the last sequence is cut off
      {"\xc0\x8a\xed\xa0\x80", R"(\xC0\x8A\xED\xA0\x80)"},  // an overlong line end, half a surrogate pair
      {"a\u202egpj\u2028b", R"(a\u202Egpj\u2028b)"}};
  for (const auto& [text, shown] : cases) {
    EXPECT_EQ(Zel::printable(text), shown);
    EXPECT_EQ(Zel::printable(shown), shown);
  }
}

TEST(Path, EveryNameRoundTripsAsOneComponent) {
  for (const std::string name : {"Ethernet3/1", "100%", "a\nb", ".", "..", "plain name", "\x7f", "é"}) {
    const std::string component = Zel::escapeComponent(name);
    EXPECT_EQ(component.find('/'), std::string::npos);
    EXPECT_NE(component, "..");
    EXPECT_EQ(Zel::unescapeComponent(component), name);
  }
  for (const std::string wrong : {"a%2", "a%zz", "%41", "%2f", "a/b", ".."})
    EXPECT_THROW(Zel::unescapeComponent(wrong), Zel::ValueError) << wrong;
}

TEST(Value, FieldsAreEqualWhateverTheirOrder) {
  using Fields = Zel::Value::Fields;
  const Zel::Value a = Fields{{"x", 1}, {"y", true}};
  EXPECT_EQ(a, Zel::Value(Fields{{"y", true}, {"x", 1}}));
  EXPECT_NE(a, Zel::Value(Fields{{"x", 1}}));
  EXPECT_NE(Zel::Value(1), Zel::Value(true));
}

TEST(LightSetting, ReadsItsFieldsAndNamesTheFaultyOne) {
  using Traits = Zel::ValueTraits<Led::LightSetting>;
  const auto setting = Traits::fromValue(Zel::Value::Fields{{"green", true}, {"flashInterval", 1}});
  EXPECT_TRUE(setting.green);
  EXPECT_EQ(setting.flashInterval, 1.0);
  EXPECT_EQ(setting.brightness, 100U);
  EXPECT_EQ(Traits::fromValue(Traits::toValue(setting)), setting);

  const std::pair<Zel::Value, const char*> wrong[] = {
      {Zel::Value::Fields{{"blue", true}}, "unknown field 'blue'; the fields are orange, green, red, yellow"},
      {Zel::Value::Fields{{"green", 1}}, "green: found a whole number (1), expected true or false"},
      {Zel::Value::Fields{{"flashInterval", -0.5}},
       "flashInterval: found a number (-0.5), expected seconds, finite"},
      {Zel::Value::Fields{{"flashInterval", std::nan("")}}, "expected seconds, finite and not negative"},
      {Zel::Value::Fields{{"flashInterval", INFINITY}}, "expected seconds, finite and not negative"},
      {Zel::Value::Fields{{"brightness", 101}}, "expected a whole number from 0 to 100"},
      {"green", "found a string (\"green\"), expected an object"},
  };
  for (const auto& [value, message] : wrong) {
    const auto text =
        Support::errorOf<Zel::ValueError>([&value = value] { return Traits::fromValue(value); });
    EXPECT_NE(text.find(message), std::string::npos) << text;
  }
}

TEST(LightSetting, IsConvertedOnceForAllCopiesOfAValueUntilOneChanges) {
  using Traits = Zel::ValueTraits<Led::LightSetting>;
  const Zel::Value first = Zel::Value::Fields{{"green", true}};
  Zel::Value second = first;
  EXPECT_EQ(second.converted<Led::LightSetting>(), nullptr);
  EXPECT_TRUE(Traits::fromValue(first).green);
  ASSERT_NE(second.converted<Led::LightSetting>(), nullptr);
  EXPECT_TRUE(second.converted<Led::LightSetting>()->green);
  second.fieldIs("red", true);
  EXPECT_EQ(second.converted<Led::LightSetting>(), nullptr);
  EXPECT_TRUE(Traits::fromValue(second).red);
  EXPECT_EQ(first.field("red"), nullptr);
  EXPECT_FALSE(Traits::fromValue(first).red);
}

TEST(LightSetting, PrintsNonDefaultFields) {
  const auto text = [](const Led::LightSetting& setting) {
    std::ostringstream out;
    out << setting;
    return out.str();
  };
  Led::LightSetting setting;
  EXPECT_EQ(text(setting), "{off}");
  setting.red = setting.orange = true;
  setting.flashInterval = 0.5;
  EXPECT_EQ(text(setting), "{orange red, flash 0.5 s}");
  setting.flashInterval = std::nan("");
  EXPECT_EQ(setting, Led::LightSetting(setting)) << "an interval that is no number equals itself";
}

}  // namespace
