// A source and its directory.
#include "facts/kept.h"

#include <gmock/gmock.h>

namespace {

using Facts::Sink;
using Facts::UnitFact;

// A source that a test drives.
struct Source {
  explicit Source(Sink<UnitFact>& given) : sink(given) { ++alive; }
  ~Source() { --alive; }
  Sink<UnitFact>& sink;
  static inline int alive = 0;
};

class Kept : public testing::Test {
 protected:
  void start() {
    kept.emplace(
        *facts,
        [this](Sink<UnitFact>& sink) {
          if (!refusal.empty()) throw Facts::SourceError(refusal);
          auto made = std::make_unique<Source>(sink);
          source = made.get();
          return made;
        },
        [this](const std::string& text) { log.push_back(text); });
    status = Facts::entryOf<Facts::SourceStatus>(*Facts::entryOf<Zel::Dir>(*facts, "source"), "units");
  }
  std::vector<std::string> units() const {
    std::vector<std::string> names;
    for (const auto& each : Facts::entryOf<Zel::Dir>(*facts, "unit")->entries())
      names.push_back(each->name().stdString());
    return names;
  }
  void pass(double seconds = 0) {
    time.advance(seconds);
    activity.step();
  }

  Zel::System::ManualTime time{100};
  Zel::ActivityManager activity;
  const Zel::Ptr<Zel::Dir> facts = Zel::allocate<Zel::Dir>("facts");
  std::string refusal;
  std::vector<std::string> log;
  Source* source = nullptr;
  std::optional<Facts::Kept<UnitFact, Source>> kept;
  Zel::Ptr<Facts::SourceStatus> status;
};

TEST_F(Kept, FactsOfAnEarlierRunGoOnceTheSourceIsComplete) {
  const auto old = Facts::entryOf<Zel::Dir>(*facts, "unit");
  const auto stays = Facts::entryOf<Facts::Unit>(*old, "stays");
  Facts::entryOf<Facts::Unit>(*old, "goes");
  Facts::entryOf<Facts::Link>(*old, "alien");
  start();
  source->sink.factIs("stays", {"failed", "exit-code"});
  source->sink.factIs("alien", {"failed", "failed"});
  EXPECT_THAT(units(), testing::UnorderedElementsAre("stays", "goes", "alien"));
  EXPECT_FALSE(status->working());
  source->sink.complete();
  source->sink.errorIs("");
  EXPECT_THAT(units(), testing::UnorderedElementsAre("stays", "alien"));
  EXPECT_EQ(old->entityRef("stays"), stays) << "it is the same entity";
  EXPECT_EQ(stays->subState().view(), "exit-code");
  EXPECT_TRUE(Zel::dynamicPtrCast<Facts::Unit>(old->entityRef("alien"))) << "of the right type now";
  EXPECT_TRUE(status->working() && status->facts() == 2);
}

TEST_F(Kept, AFailedSourceIsEndedAndMadeAgainLater) {
  start();
  source->sink.factIs("disk.mount", {"failed", "failed"});
  source->sink.complete();
  source->sink.errorIs("");
  source->sink.failed("the bus is gone");
  EXPECT_TRUE(units().empty());
  EXPECT_TRUE(!status->working() && status->facts() == 0 && status->error().view() == "the bus is gone");
  EXPECT_EQ(Source::alive, 1) << "it may still run";
  pass();
  EXPECT_EQ(Source::alive, 0);
  refusal = "the bus is gone";
  pass(29);
  for (int i = 0; i < 3; ++i) pass(31);
  EXPECT_THAT(log, testing::ElementsAre("units: the bus is gone")) << "however often it is tried";
  refusal.clear();
  pass(29);
  EXPECT_EQ(Source::alive, 0);
  pass(2);
  ASSERT_EQ(Source::alive, 1);
  source->sink.complete();
  source->sink.errorIs("");
  EXPECT_TRUE(status->working() && status->error().empty());
}

}  // namespace
