#include <gmock/gmock.h>

#include "platform/zel/core/trace.h"
#include "tests/ctl/testhost.h"
#include "tests/places.h"

namespace Ctl {
namespace {

TEST(Completion, OffersValidContinuations) {
  TestHost host;
  Zel::TraceFacility::named("Pinlamp");
  host.ctl({"load", Places::sourceFolder() + "/examples/switch-1u.json"});
  host.put("hardware/led/request/find", "Hardware::Led::LightRequest", {{"leds", {"Fan1"}}});
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{"le"}, "led\n"},
      {{"led", ""}, "list\noff\nset\n"},
      {{"help", "led", "s"}, "set\n"},
      {{"board", ""}, "apply\nstatus\n"},
      {{"board", "apply", "--folder", ""}, ":files\n"},
      {{"wait", "Fan1", "r"}, "red\n"},
      {{"identify", "Fan1", "Fan2", "Be"}, "Beacon\n"},
      {{"lamp-test", "--skip", "Be"}, "Beacon\n"},
      {{"darken", "--e"}, "--except\n"},
      {{"request", "add", "x", "--priority", "l"}, "lampTest\n"},
      {{"request", "add", "x", "Fan1", "r"}, "red\n"},
      {{"request", "del", "f"}, "find\n"},
      {{"led", "set", "--f"}, "--flash\n"},
      {{"led", "set", "Po"}, "PowerSupply1\nPowerSupply2\n"},
      {{"led", "set", "Fan1", "--flash", "1", "r"}, "red\n"},
      {{"led", "set", "o"}, ""},
      {{"led", "set", "Fan1", "--flash", ""}, ""},
      {{"map", "set", "Fan1", "--green", "fan1_g", "fan2"}, "fan2_g\nfan2_r\n"},
      {{"map", "del", "Ethernet3/"}, "Ethernet3/1\n"},
      {{"get", "h"}, "hardware/\n"},
      {{"get", "hardware/"}, "hardware/gpio/\nhardware/led/\n"},
      {{"get", "hardware/led/config/leds/Ethernet50"}, "hardware/led/config/leds/Ethernet50%2F1\n"},
      {{"set", "hardware/led/config/leds/Status", "li"}, "lightSetting\n"},
      {{"trace", "P"}, "Pinlamp/\n"},
      {{"load", "ex"}, ":files\n"},
      {{"status", "x"}, ""}};
  for (const auto& [words, expected] : cases) {
    std::vector<std::string> arguments{"complete"};
    arguments.insert(arguments.end(), words.begin(), words.end());
    EXPECT_EQ(host.ctl(arguments).out, expected) << testing::PrintToString(words);
  }
}

TEST(Completion, WorksWithoutAHost) {
  const Outcome offered = run({"complete", "--socket", "/nowhere", "led", "set", "Status", ""});
  EXPECT_EQ(offered.out, "green\noff\norange\nred\nyellow\n");
  EXPECT_EQ(offered.err, "");
}

}  // namespace
}  // namespace Ctl
