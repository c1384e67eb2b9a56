// The trace facility.
#include <gtest/gtest.h>

#include <memory>
#include <regex>

#include "platform/zel/core/trace.h"
#include "platform/zel/object/value.h"

namespace {

struct Trace : testing::Test {
  Trace() {
    Zel::traceSinkIs([this](std::string_view line) { lines.emplace_back(line); });
  }
  ~Trace() override { Zel::traceSinkIs(nullptr); }
  std::vector<std::string> lines;
};

TEST_F(Trace, FormatsOnlyWhatIsEnabled) {
  const Zel::TraceHandle handle("TraceTest", false);
  int printed = 0;
  const auto record = [&](unsigned level) {
    Zel::traceRecord(handle, level, "Source", 263, "aFunction", [&](std::ostream& out) {
      out << "counted" << ++printed << "\nline \x1b[2J\xc2\x9b\xc3\xa4";
    });
  };
  record(6);
  EXPECT_EQ(printed, 0);
  Zel::traceLevelsIs("TraceTest/3,6-7");
  for (const unsigned level : {2U, 3U, 5U, 6U, 7U, 8U}) record(level);
  EXPECT_EQ(printed, 3);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_TRUE(std::regex_match(
      lines[1],
      std::regex(
          R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6} TraceTest 6 Source:263 aFunction: counted2\\x0Aline .*)")))
      << lines[1];
  EXPECT_TRUE(lines[1].ends_with("counted2\\x0Aline \\x1B[2J\\x9B\xc3\xa4")) << lines[1];
}

TEST_F(Trace, EveryHandleFollowsItsFacilityFromTheStart) {
  Zel::traceLevelsIs("TraceTest/2");
  const Zel::TraceHandle first("TraceTest", false);
  auto second = std::make_unique<Zel::TraceHandle>("TraceTest", true);
  EXPECT_TRUE(first.enabled(2) && second->enabled(2));
  Zel::traceLevelsIs("TraceTest/31");
  EXPECT_TRUE(first.enabled(31) && second->enabled(31));
  EXPECT_FALSE(first.enabled(2) || second->enabled(2));
  second = nullptr;
  Zel::traceLevelsIs("TraceTest/");
  EXPECT_FALSE(first.enabled(31));
}

TEST_F(Trace, AHelperIsReleasedAlsoWhenStreamingThrows) {
  Zel::traceLevelsIs("TraceTest/*");
  const Zel::TraceHandle handle("TraceTest", false);
  const auto fail = [](std::ostream&) { throw std::runtime_error("no text"); };
  EXPECT_THROW(Zel::traceRecord(handle, 1, "S", 1, "f", fail), std::runtime_error);
  EXPECT_TRUE(lines.empty());
  Zel::TraceHelperStorage storage;
  EXPECT_EQ(Zel::TraceHelper::createIfEnabled(handle, 32, storage), nullptr) << "there is no such level";
  Zel::traceLevelsIs("TraceTest/");
  EXPECT_EQ(Zel::TraceHelper::createIfEnabled(handle, 1, storage), nullptr);
}

TEST_F(Trace, LevelsAreReadAndWrittenBack) {
  for (const std::string text : {"3,6-9", "*", "", "0,31", "0-3"}) {
    Zel::traceLevelsIs("TraceTest/" + text);
    EXPECT_EQ(Zel::traceLevelsText(Zel::TraceFacility::named("TraceTest").mask()), text);
  }
  for (const std::string wrong :
       {"TraceTest", "/3", "TraceTest/x", "TraceTest/32", "TraceTest/9-6", "TraceTest/1,,2"})
    EXPECT_THROW(Zel::traceLevelsIs(wrong), Zel::ValueError) << wrong;
  EXPECT_EQ(Zel::traceLevelsText(Zel::TraceFacility::named("TraceTest").mask()), "0-3")
      << "a refused text changes nothing";
  EXPECT_EQ(Zel::TraceFacility::existing("NeverNamed"), nullptr);
}

}  // namespace
