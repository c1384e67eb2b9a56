// Lines on simulated chips: finding, taking, writing and giving back, and every way in which that fails.
#include <gmock/gmock.h>

#include <cerrno>

#include "gpio/simprovider.h"

namespace {

using Gpio::Line;
using Gpio::LineError;
using Gpio::LineExit;
using Gpio::LineValues;
using Gpio::LineWrite;
using Kind = LineError::Kind;

// The error of a call; a call that succeeds fails the test.
template <typename Call>
LineError errorOf(Call&& call) {
  try {
    call();
  } catch (const LineError& error) {
    return error;
  }
  ADD_FAILURE() << "no error";
  return {Kind::failed, ""};
}

// gpiochip0 "front" with 8 lines, two of them named; gpiochip1 and gpiochip2, both "psu"; "locked" cannot be
// opened.
struct Board : testing::Test {
  Board() {
    board.chipIs("front", 8);
    board.chipIs("psu", 4);
    board.chipIs("psu", 4);
    board.openErrorIs(board.chipIs("locked", 1), EACCES);
    board.lineNameIs("gpiochip0", 3, "LED_G");
    board.lineNameIs("gpiochip0", 4, "LED_R");
    board.lineNameIs("gpiochip1", 0, "LED_R");
  }
  Line line(const std::string& which, bool activeLow = false, LineExit onExit = LineExit::keep) const {
    return {board.survey().find("front", which), activeLow, onExit};
  }
  std::string levels(const std::string& chip = "gpiochip0") const {
    std::string text;
    for (unsigned i = 0; i < 8; ++i) text += board.level(chip, i) ? '1' : '0';
    return text;
  }
  Gpio::SimProvider board{"lamps"};
};

TEST_F(Board, LinesAreFoundByChipAndLine) {
  const std::tuple<const char*, const char*, const char*> found[] = {
      {"front", "0", "line 0 of gpiochip0 'front'"},
      {"gpiochip0", "LED_G", "line 3 'LED_G' of gpiochip0 'front'"},
      {"front", "LED_R", "line 4 'LED_R' of gpiochip0 'front'"},
      {"gpiochip2", "3", "line 3 of gpiochip2 'psu'"},
      {"", "LED_G", "line 3 'LED_G' of gpiochip0 'front'"},
  };
  for (const auto& [chip, which, place] : found) EXPECT_EQ(describe(board.survey().find(chip, which)), place);
}

TEST_F(Board, WhatCannotBeFoundIsRefusedWithTheReason) {
  const std::string there =
      "(there are gpiochip0 'front', gpiochip1 'psu', gpiochip2 'psu', gpiochip3 (Permission denied))";
  const std::tuple<const char*, const char*, Kind, std::string> refused[] = {
      {"rear", "0", Kind::absent, "no GPIO chip has the label or the name 'rear' " + there},
      {"0", "0", Kind::absent,
       "no GPIO chip has the label or the name '0' " + there + "; a number is no name, give the label"},
      {"psu", "0", Kind::ambiguous,
       "the GPIO chip 'psu' may be gpiochip1 'psu' or gpiochip2 'psu'; give the name of the right one"},
      {"front", "8", Kind::absent, "gpiochip0 'front' has no line 8, only 0 to 7"},
      {"front", "99999999999", Kind::absent, "gpiochip0 'front' has no line 99999999999, only 0 to 7"},
      {"front", "LED_X", Kind::absent, "no line is named 'LED_X' (looked at gpiochip0 'front')"},
      {"front", "", Kind::absent, "no line is given; give its offset or its name"},
      {"", "LED_R", Kind::ambiguous,
       "the line 'LED_R' may be line 4 'LED_R' of gpiochip0 'front' or line 0 'LED_R' of gpiochip1 'psu'; "
       "give the chip and the offset of the right one"},
      {"", "3", Kind::absent, "line 3 of which GPIO chip? An offset needs the chip's label or name"},
  };
  for (const auto& [chip, which, kind, text] : refused) {
    const LineError error = errorOf([&, &chip = chip, &which = which] { board.survey().find(chip, which); });
    EXPECT_EQ(error.kind(), kind) << text;
    EXPECT_EQ(error.what(), text);
  }
}

TEST_F(Board, AStartDoesNotBlink) {
  auto first = board.request({line("0"), line("1", true)}, 0b01);
  EXPECT_EQ(levels(), "11000000");
  first.reset();
  EXPECT_EQ(levels(), "11000000") << "as after kill -9";
  board.writesDel();
  const auto second = board.request({line("0"), line("1", true)}, 0b01);
  EXPECT_THAT(board.writes(),
              testing::ElementsAre(LineWrite{2, "front", 0, true}, LineWrite{2, "front", 1, true}));
  EXPECT_EQ(second->values(), LineValues(0b01));
  board.writesDel();
  second->set(LineValues(0b01) | LineValues(1) << 20U);
  EXPECT_TRUE(board.writes().empty()) << "a bit beyond the lines is none";
}

TEST_F(Board, ReleasedLinesAreLeftAsWired) {
  for (const auto& [keeps, after] : {std::pair{true, "10010000"}, {false, "00000000"}}) {
    board.keepsLevelsIs("gpiochip0", keeps);
    auto request = board.request(
        {line("0"), line("1", false, LineExit::off), line("2", true), line("3", true, LineExit::off)},
        0b1111);
    EXPECT_EQ(levels(), "11000000");
    request->release();
    EXPECT_EQ(levels(), after);
    request->release();
    EXPECT_NO_THROW(board.request({line("0")}, 0)) << "given back";
  }
}

TEST_F(Board, ABusyLineNamesItsHolderAndLeavesTheOthersFree) {
  board.holderIs("gpiochip0", 3, "gpioset");
  const auto own = board.request({line("5")}, 0);
  const LineError error = errorOf([&] { board.request({line("0"), line("3"), line("5")}, 0b111); });
  EXPECT_EQ(error.kind(), Kind::busy);
  EXPECT_STREQ(error.what(),
               "line 3 'LED_G' of gpiochip0 'front' is busy: held by 'gpioset'; "
               "line 5 of gpiochip0 'front' is busy: held by 'lamps'");
  ASSERT_EQ(error.faults().size(), 2U);
  EXPECT_EQ(error.faults()[0].place, line("3").place);
  EXPECT_EQ(levels(), "00000000");
  const auto rest = board.request({line("0")}, 1);
  board.holderIs("gpiochip0", 3, "");
  EXPECT_NO_THROW(board.request({line("3")}, 1));
}

TEST_F(Board, AFailedReleaseStillGivesTheLinesBack) {
  const auto request = board.request({line("0", false, LineExit::off)}, 1);
  board.setErrorIs("gpiochip0", EIO);
  EXPECT_EQ(errorOf([&] { request->release(); }).kind(), Kind::failed);
  EXPECT_NO_THROW(board.request({line("0")}, 1));
}

TEST_F(Board, RequestsThatCannotBeMadeStopTheProcess) {
  const Line other{board.survey().find("gpiochip1", "0")};
  EXPECT_DEATH(board.request({}, 0), "0 lines");
  EXPECT_DEATH(board.request({line("0"), other}, 0), "oneChip");
  EXPECT_DEATH(board.request({line("0"), line("0")}, 0), "allDifferent");
}

}  // namespace
