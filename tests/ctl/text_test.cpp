#include "ctl/text.h"

#include <gmock/gmock.h>

namespace Ctl {
namespace {

using testing::ElementsAre;

TEST(Components, EscapeAndReadBack) {
  const std::pair<const char*, const char*> cases[] = {
      {"Ethernet3/1", "Ethernet3%2F1"}, {"100%", "100%25"}, {"a\tb\x7f", "a%09b%7F"}, {"..", "%2E%2E"},
      {".hidden", ".hidden"},           {"Grün", "Grün"},   {"%2F", "%252F"}};
  for (const auto& [name, component] : cases) {
    EXPECT_EQ(escapeComponent(name), component);
    EXPECT_EQ(unescapeComponent(component), name);
  }
  EXPECT_EQ(lastName("a/leds/Ethernet3%2F1"), "Ethernet3/1");
  EXPECT_EQ(parentPath("a/b/c"), "a/b");
  EXPECT_EQ(parentPath("a"), "");
}

TEST(Components, StandUnderWholeComponentsOnly) {
  EXPECT_TRUE(isUnder("a/b", "a"));
  EXPECT_TRUE(isUnder("a", "a"));
  EXPECT_TRUE(isUnder("a", ""));
  EXPECT_FALSE(isUnder("ab", "a"));
}

TEST(NaturalOrder, ComparesNumbersAsNumbers) {
  std::vector<std::string> names{"Fan",         "Ethernet10/1", "Ethernet2/10",
                                 "Ethernet2/9", "Ethernet",     "Ethernet02/9"};
  std::sort(names.begin(), names.end(), naturallyBefore);
  EXPECT_THAT(names,
              ElementsAre("Ethernet", "Ethernet02/9", "Ethernet2/9", "Ethernet2/10", "Ethernet10/1", "Fan"));
}

TEST(Nearest, FindsTyposAndNothingElse) {
  const std::set<std::string> known{"Status", "Fan1", "Fan2", "PowerSupply1"};
  EXPECT_THAT(nearest("statsu", known), ElementsAre("Status"));
  EXPECT_THAT(nearest("PowrSuply1", known), ElementsAre("PowerSupply1"));
  const std::string longest(200, 'x');
  EXPECT_THAT(nearest(longest, {longest + 'y'}), ElementsAre(longest + 'y'));
  EXPECT_THAT(nearest(longest + 'x', {longest}), testing::IsEmpty()) << "it would take long";
  EXPECT_THAT(nearest("fan3", known), ElementsAre("Fan1", "Fan2"));
  EXPECT_THAT(nearest("Locator", known), testing::IsEmpty());
  EXPECT_THAT(hint("Locator", known), testing::HasSubstr("known: Fan1"));
  EXPECT_EQ(hint("Locator", {}), "; there are none");
}

TEST(Text, TimesWithUnitsAreSeconds) {
  const std::pair<const char*, const char*> cases[] = {{"500ms", "0.5"}, {"2s", "2"},  {"1.5min", "90"},
                                                       {"1h", "3600"},   {"3", "3"},   {"-1ms", "-0.001"},
                                                       {"5x", "5x"},     {"ms", "ms"}, {"inf", "inf"}};
  for (const auto& [text, seconds] : cases) EXPECT_EQ(inSeconds(text), seconds);
}

}  // namespace
}  // namespace Ctl
