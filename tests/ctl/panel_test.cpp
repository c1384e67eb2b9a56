#include "ctl/panel.h"

#include <gmock/gmock.h>

#include <regex>

#include "ctl/text.h"

namespace Ctl {
namespace {

using testing::HasSubstr;

Lamp lamp(const std::string& name, const PerColour<bool>& shows = {}) {
  Lamp made;
  made.name = name;
  made.driven = made.configured = made.mapped = true;
  made.shows = shows;
  return made;
}
constexpr PerColour<bool> kGreen{false, true, false, false};
constexpr PerColour<bool> kGreenRed{false, true, true, false};

std::vector<Lamp> lampsNamed(const std::vector<std::string>& names) {
  std::vector<Lamp> lamps;
  for (const std::string& name : names) lamps.push_back(lamp(name));
  return lamps;
}

std::vector<std::string> frameOf(const std::vector<Lamp>& lamps, const std::string& title, const Look& look,
                                 const PanelSize& size, Scroll scroll = {}) {
  return panelFrame(lamps, title, look, size, scroll);
}

TEST(PanelLayout, DerivedFromTheNames) {
  // Names, blocks as TITLE: NUMBER.LANE …, and the number of other LEDs.
  const std::tuple<std::vector<std::string>, std::vector<std::string>, std::size_t> cases[] = {
      {{"Ethernet1", "Ethernet2", "Ethernet3", "Ethernet49/1", "Status"}, {"Ethernet: 1.0 2.0 3.0 49.1"}, 1},
      {{"Ethernet1/1", "Ethernet1/2", "Ethernet2/1", "Ethernet2/2"}, {"Ethernet: 1.1 1.2 2.1 2.2"}, 0},
      {{"Ethernet3/1", "Ethernet3/9", "Ethernet4/1", "Ethernet4/2"},
       {"Ethernet3/: 1.0 9.0", "Ethernet4/: 1.0 2.0"},
       0},
      {{"Ethernet3/1/1", "Ethernet3/1/2", "Ethernet3/2/1", "Ethernet10/1/1"},
       {"Ethernet3/: 1.1 1.2 2.1", "Ethernet10/: 1.1"},
       0},
      {{"Fan1", "Fan2", "Status", "5", "Ethernet1/"}, {}, 5}};
  for (const auto& [names, expected, others] : cases) {
    const auto lamps = lampsNamed(names);
    const PanelLayout layout = panelLayout(lamps);
    std::vector<std::string> blocks;
    for (const PortBlock& block : layout.blocks) {
      blocks.push_back(block.title + ':');
      for (const Port& port : block.ports)
        blocks.back() += ' ' + std::to_string(port.number) + '.' + std::to_string(port.lane);
    }
    EXPECT_EQ(blocks, expected);
    EXPECT_EQ(layout.others.size(), others) << names.front();
  }
}

TEST(PanelFrame, OddPortsAreAboveEvenOnesAndOtherLedsBeside) {
  auto lamps = lampsNamed({"Ethernet1", "Ethernet2", "Ethernet3", "Ethernet4", "Ethernet10", "Status"});
  lamps[2].shows = kGreen;
  lamps[4].shows = kGreenRed;
  lamps[5].driven = false;
  const auto frame = frameOf(lamps, "title", {}, {80, 24});
  EXPECT_THAT(frame,
              testing::ElementsAre(" title", "", " 1 3       - Status", " . G   ", " . .  *", " 2 4 10", "",
                                   HasSubstr("6 LEDs: 2 lit now, 0 flashing, 1 not driven")));
}

TEST(PanelFrame, FitsAScreenOfAnySize) {
  std::vector<Lamp> lamps = lampsNamed({"Status", "AVeryLongNameOfAnLedThatIsInTheWay"});
  for (int i = 1; i <= 52; ++i) lamps.push_back(lamp("Ethernet" + std::to_string(i) + "/1", kGreen));
  const std::regex escape("\x1b\\[[0-9;]*m");
  for (std::size_t columns = 1; columns < 140; ++columns)
    for (const auto depth : {Look::Colours::none, Look::Colours::truecolor}) {
      const auto frame = frameOf(lamps, "a title", {depth, false}, {columns, 9});
      EXPECT_LE(frame.size(), 9U);
      for (const std::string& line : frame) EXPECT_LE(std::regex_replace(line, escape, "").size(), columns);
    }
}

TEST(PanelFrame, ScrollsWhatDoesNotFit) {
  std::vector<Lamp> lamps;
  for (int i = 1; i <= 1000; ++i) lamps.push_back(lamp("Ethernet" + std::to_string(i), kGreen));
  Scroll scroll;
  auto frame = panelFrame(lamps, "title", {}, {80, 24}, scroll);
  ASSERT_EQ(frame.size(), 24U);
  EXPECT_EQ(frame[0], " title");
  EXPECT_THAT(frame[1], testing::StartsWith(" 1 3 5 7  9 11"));
  EXPECT_THAT(frame[22], testing::StartsWith(" ... 774 more  ("));
  EXPECT_THAT(frame[23], HasSubstr("1000 LEDs: 1000 lit now"));
  scroll.from = 1'000'000;
  frame = panelFrame(lamps, "title", {}, {80, 24}, scroll);
  EXPECT_THAT(frame[21], HasSubstr("1000"));
  EXPECT_THAT(frame[22], testing::ContainsRegex("^ ... [0-9]+ more above  "));
}

TEST(PanelFrame, CountsColumnsNotBytes) {
  EXPECT_EQ(columnsOf("é☃日本"), 6U);
  EXPECT_EQ(firstColumns("日本語", 5), "日本");
  EXPECT_EQ(plainLine(lamp("Lüfter")), "Lüfter          dark          off");
}

TEST(PanelFrame, UsesTheColoursOfTheTerminal) {
  const std::pair<Look::Colours, const char*> cases[] = {{Look::Colours::truecolor, "\x1b[38;2;255;215;75m●"},
                                                         {Look::Colours::ansi256, "\x1b[38;5;221m●"},
                                                         {Look::Colours::ansi16, "\x1b[97m●"},
                                                         {Look::Colours::none, "*"}};
  for (const auto& [depth, expected] : cases)
    EXPECT_THAT(frameOf({lamp("Status", kGreenRed)}, "", {depth, true}, {})[2], HasSubstr(expected));
}

TEST(Look, FollowsTheEnvironment) {
  static std::map<std::string, const char*> environment;
  const auto variable = [](const char* name) -> const char* {
    return environment.contains(name) ? environment[name] : nullptr;
  };
  const std::pair<std::map<std::string, const char*>, Look::Colours> cases[] = {
      {{}, Look::Colours::none},
      {{{"TERM", "dumb"}}, Look::Colours::none},
      {{{"TERM", "xterm"}}, Look::Colours::ansi16},
      {{{"TERM", "tmux-256color"}}, Look::Colours::ansi256},
      {{{"TERM", "xterm"}, {"COLORTERM", "truecolor"}}, Look::Colours::truecolor},
      {{{"TERM", "xterm"}, {"COLORTERM", "truecolor"}, {"NO_COLOR", "1"}}, Look::Colours::none}};
  for (const auto& [variables, expected] : cases) {
    environment = variables;
    EXPECT_EQ(lookOf(variable).colours, expected);
  }
  environment = {{"LC_ALL", "C"}, {"LANG", "C.UTF-8"}};
  EXPECT_FALSE(lookOf(variable).unicode);
  environment.erase("LC_ALL");
  EXPECT_TRUE(lookOf(variable).unicode);
}

}  // namespace
}  // namespace Ctl
