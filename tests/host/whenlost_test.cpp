// Parsing of --when-lost. processes_test.sh checks that a host shows the settings.
#include "host/whenlost.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "host/io/starterror.h"

namespace {

using ::testing::HasSubstr;

std::string shown(const Host::Fallback& fallback, const std::string& led) {
  const Zel::Value* setting = fallback.settingOf(led);
  if (!setting) return "nothing";
  std::string lit;
  for (const char* colour : {"red", "green", "orange", "yellow"})
    if (*setting->field(colour)->as<bool>()) lit += std::string(colour) + ' ';
  std::ostringstream text;
  text << lit << *setting->field("flashInterval");
  return text.str();
}

TEST(WhenLost, ReadsATimeAndTheSettingsOfLeds) {
  const auto fallback =
      Host::Fallback::parse(" 1.5m = Status = red flash 0.5 ; Fan*=off;Fan2=green  orange;");
  EXPECT_EQ(fallback.after, 90000U);
  EXPECT_EQ(shown(fallback, "Status"), "red 0.5");
  EXPECT_EQ(shown(fallback, "Fan1"), "0");
  EXPECT_EQ(shown(fallback, "Fan2"), "green orange 0") << "the last that fits";
  EXPECT_EQ(shown(fallback, "Beacon"), "nothing");
  EXPECT_EQ(Host::Fallback::parse("0s=a=off").after, 0U);
  EXPECT_EQ(Host::Fallback::parse("250ms=a=off").after, 250U);
}

TEST(WhenLost, RefusesWhatIsNoSettingAndSaysWhy) {
  const std::pair<std::string, const char*> cases[] = {
      {"10s", "has no '='"},
      {"10=Status=red", "'10' is no time"},
      {"-1s=Status=red", "'-1s' is no time"},
      {"nans=Status=red", "is no time"},
      {"25000m=Status=red", "a day at the most"},
      {"10s=", "no LED is named"},
      {"10s=Status", "'Status' names no LED"},
      {"10s==red", "names no LED"},
      {"10s=Status=blue", "LED 'Status': 'blue' is no colour"},
      {"10s=Status=", "no colour is given"},
      {"10s=Status=red off", "'off' is no colour"},
      {"10s=Status=off red", "'off' stands alone"},
      {"10s=Status=off flash 1", "'off' stands alone"},
      {"10s=Status=red flash", "'flash ' is no interval"},
      {"10s=Status=red flash -1", "'flash -1' is no interval"},
      {"10s=Status=red flash inf", "'flash inf' is no interval"},
      {"10s=Status=red flash 1 2", "nothing follows the interval"},
      {"10s=" + std::string(5000, 'a') + "=red", "longer than 4096 bytes"},
  };
  for (const auto& [text, why] : cases) {
    try {
      Host::Fallback::parse(text);
      ADD_FAILURE() << text;
    } catch (const Host::StartError& error) {
      EXPECT_THAT(error.what(), HasSubstr(why)) << text;
    }
  }
}

}  // namespace
