// The line driver on chips in memory.
#include "gpio/linedriver.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "gpio/simprovider.h"

namespace {

using Gpio::LineExit;
using Lines = std::vector<std::string>;

class Driver : public testing::Test {
 protected:
  void wire(const char* pin, const char* line, bool activeLow = false, LineExit onExit = LineExit::keep,
            const char* label = "front") {
    driver.wiringIs(pin, Gpio::Wiring{label, line, activeLow, onExit});
  }
  // The writes of a pass at that time: the lines of each bulk set, as offset=level.
  Lines drive(double now) {
    driver.drive(now);
    Lines sets;
    std::uint64_t last = 0;
    for (const Gpio::LineWrite& write : board.writes()) {
      if (sets.empty() || write.set != last) sets.emplace_back();
      last = write.set;
      sets.back() +=
          (sets.back().empty() ? "" : " ") + std::to_string(write.offset) + "=" + (write.level ? "1" : "0");
    }
    board.writesDel();
    return sets;
  }
  Lines said() { return std::exchange(reports, {}); }
  std::string error(const char* pin) { return driver.state(pin) ? driver.state(pin)->error : "no line"; }
  bool driven(const char* pin) { return driver.state(pin) && driver.state(pin)->driven; }

  Gpio::SimProvider board;
  std::string chip = board.chipIs("front", 100);
  Lines reports;
  Gpio::LineDriver driver{board, [this](const std::string& text) { reports.push_back(text); }};
};

TEST_F(Driver, TakesLinesWithTheirValuesAndWritesWhatChangedAtOnce) {
  wire("a", "0");
  wire("b", "1", true);
  wire("c", "2");
  driver.valueIs("a", true);
  driver.valueIs("b", true);
  EXPECT_EQ(drive(0), Lines{"0=1 1=0"}) << "one request; the low level lights b; c has no value";
  driver.valueIs("a", false);
  driver.valueIs("a", true);
  EXPECT_EQ(drive(1), Lines{}) << "back where it was within the pass";
  driver.valueIs("a", false);
  driver.valueIs("b", false);
  EXPECT_EQ(drive(2), Lines{"0=0 1=1"});
  driver.valueIs("c", true);
  EXPECT_EQ(drive(3), Lines{"2=1"}) << "a line that comes later does not touch the others";
  EXPECT_EQ(driver.state("a")->place, "line 0 of gpiochip0 'front'");
  EXPECT_EQ(driver.nextTry(), std::numeric_limits<double>::infinity());
  EXPECT_TRUE(said().empty());
}

TEST_F(Driver, MoreLinesThanARequestHoldsAreTakenInSeveral) {
  for (int i = 0; i < 100; ++i) {
    const std::string pin = "p" + std::to_string(i);
    wire(pin.c_str(), std::to_string(i).c_str());
    driver.valueIs(pin, true);
  }
  EXPECT_EQ(drive(0).size(), 2U);
  for (unsigned i = 0; i < 100; ++i) EXPECT_TRUE(board.level(chip, i)) << i;
}

TEST_F(Driver, ABusyLineIsNamedWithItsHolderAndTheOthersGoOn) {
  board.holderIs(chip, 1, "heartbeat");
  for (const char* line : {"0", "1", "2"}) {
    wire(line, line);
    driver.valueIs(line, true);
  }
  EXPECT_EQ(drive(0), Lines{"0=1 2=1"});
  EXPECT_EQ(said(), Lines{"line 1 of gpiochip0 'front' is busy: held by 'heartbeat'"});
  EXPECT_FALSE(driven("1"));
  EXPECT_EQ(driver.nextTry(), 0.5);
  for (double now = 0; now < 59; now = driver.nextTry()) drive(now);
  EXPECT_EQ(said(), Lines{}) << "once, and not again within a minute";
  drive(driver.nextTry());
  drive(driver.nextTry());
  EXPECT_EQ(said().size(), 1U);
  const double next = driver.nextTry();
  board.holderIs(chip, 1, "");
  EXPECT_EQ(drive(next - 1), Lines{});
  EXPECT_EQ(drive(next), Lines{"1=1"});
  EXPECT_TRUE(driven("1"));
  EXPECT_EQ(error("1"), "line 1 of gpiochip0 'front' is busy: held by 'heartbeat'")
      << "the last error stays to be read";
  EXPECT_EQ(said(), Lines{"line 1 of gpiochip0 'front': driven again"});
}

TEST_F(Driver, AChipThatComesLateOrComesBackIsDriven) {
  wire("a", "3", false, LineExit::keep, "psu");
  driver.valueIs("a", true);
  drive(0);
  EXPECT_NE(error("a").find("no GPIO chip has the label or the name 'psu'"), std::string::npos) << error("a");
  std::string psu;
  for (const bool comesBack : {false, true}) {
    if (comesBack) {
      board.chipDel(psu);
      driver.valueIs("a", false);
      drive(1);
      EXPECT_FALSE(driven("a"));
      driver.valueIs("a", true);
      drive(1.1);
    }
    psu = board.chipIs("psu", 8);
    drive(driver.nextTry());
    EXPECT_TRUE(driven("a") && board.level(psu, 3));
  }
}

// Errors of pins that are gone are not remembered without end, and the others still are.
TEST_F(Driver, ErrorsOfEverNewLinesTakeBoundedMemory) {
  const auto fail = [&](int i) {
    wire("a", "0", false, LineExit::keep, ("chip" + std::to_string(i)).c_str());
    driver.valueIs("a", true);
    drive(i * 0.001);
    return said().size();
  };
  for (int i = 0; i < 5000; ++i) ASSERT_EQ(fail(i), 1U);
  EXPECT_EQ(fail(4999), 0U) << "reported lately";
  EXPECT_EQ(fail(0), 1U) << "forgotten";
}

TEST_F(Driver, ASetThatFailsIsTriedAgainWithTheLatestValues) {
  wire("a", "0");
  wire("b", "0", false, LineExit::keep, "other");
  board.chipIs("other", 1);
  driver.valueIs("a", false);
  driver.valueIs("b", false);
  drive(0);
  board.setErrorIs(chip, EIO);
  driver.valueIs("a", true);
  driver.valueIs("b", true);
  EXPECT_EQ(drive(1), Lines{"0=1"}) << "the other chip's";
  EXPECT_FALSE(driven("a"));
  EXPECT_NE(error("a").find("Input/output error"), std::string::npos) << error("a");
  driver.valueIs("a", false);
  EXPECT_EQ(drive(1.2), Lines{}) << "not before its time";
  board.setErrorIs(chip, 0);
  driver.valueIs("a", true);
  EXPECT_EQ(drive(driver.nextTry()), Lines{"0=1"});
  EXPECT_TRUE(driven("a"));
}

TEST_F(Driver, APinThatGoesLeavesItsLineAsItsWiringSays) {
  wire("keep", "0");
  wire("off", "1", false, LineExit::off);
  wire("stays", "2");
  for (const char* pin : {"keep", "off", "stays"}) driver.valueIs(pin, true);
  drive(0);
  driver.valueIs("keep", std::nullopt);
  driver.valueIs("off", std::nullopt);
  EXPECT_EQ(drive(1), Lines{"0=1 1=0 2=1"}) << "one set; no line is released, so none blinks";
  EXPECT_FALSE(driver.state("off"));
  driver.valueIs("off", true);
  EXPECT_EQ(drive(2), Lines{"0=1 1=1 2=1"}) << "and is there to be used again";
  wire("off", "1", true, LineExit::off);
  drive(3);
  EXPECT_FALSE(board.level(chip, 1)) << "with its new wiring the low level lights it";
  EXPECT_TRUE(board.level(chip, 2));
  driver.release();
  EXPECT_TRUE(board.level(chip, 1)) << "off is the high level now";
  EXPECT_TRUE(board.level(chip, 0) && board.level(chip, 2)) << "kept";
}

TEST_F(Driver, ALineIsForOnePin) {
  wire("a", "5");
  wire("b", "5");
  driver.valueIs("a", true);
  driver.valueIs("b", false);
  drive(0);
  EXPECT_TRUE(driven("a") && board.level(chip, 5));
  EXPECT_EQ(error("b"),
            "line 5 of gpiochip0 'front' is wired to pin 'a' and to pin 'b'; only one of them can have it");
  driver.wiringIs("a", std::nullopt);
  drive(0.1);
  drive(driver.nextTry());
  EXPECT_TRUE(driven("b") && !board.level(chip, 5));
}

}  // namespace
