// Each case is a talk between the follower and a server, a line an event with what the follower then asks for
// and notifies.
#include "host/store/redis/follower.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>

namespace {

using namespace Host::Redis;

const char* text(Outcome outcome) {
  constexpr const char* kTexts[] = {"applied", "not applied", "unknown"};
  return kTexts[static_cast<int>(outcome)];
}

class Talk : public Follower::Output {
 public:
  // An event, as "push g1 7" or "log g1 8: 6 7 8"; own entries are written "7=1" for the write 1. Returns
  // what came of it.
  std::string operator()(const std::string& event) {
    said_.clear();
    std::istringstream in(event);
    std::string what, generation, entry;
    in >> what;
    Revision tip = 0;
    if (what == "connected") follower_.onConnected();
    if (what == "disconnected") follower_.onDisconnected();
    if (what == "subscribed") follower_.onSubscribed();
    if (what == "scanned") follower_.onScanned();
    if (what == "check") follower_.check();
    if (what == "accept-wiped") follower_.acceptWiped();
    if (what == "write") said_ = "write " + std::to_string(follower_.writing());
    if (what == "written") {
      Sequence write = 0;
      in >> write >> tip;
      follower_.onWritten(write, tip);
    }
    if (what == "state") {
      std::string server;
      in >> server >> generation >> tip;
      follower_.onState({{server, generation == "-" ? "" : generation}, tip});
    }
    if (what == "push") {
      in >> generation >> entry;
      std::string origin;
      follower_.onPush(generation, entryOf(entry, origin));
    }
    if (what == "log") {
      std::string colon;
      in >> generation >> tip >> colon;
      std::vector<std::string> origins(20);
      if (generation == "-") generation.clear();
      LogPage page{generation, tip, {}};
      while (in >> entry) page.entries.push_back(entryOf(entry, origins[page.entries.size()]));
      follower_.onLog(page);
    }
    return said_;
  }

 private:
  Entry entryOf(const std::string& entry, std::string& origin) {
    const std::size_t mark = entry.find('=');
    origin = mark == std::string::npos ? "other:1" : follower_.originOf(std::stoull(entry.substr(mark + 1)));
    return {std::stoull(entry), origin, ""};
  }

  void say(const std::string& what) { said_ += (said_.empty() ? "" : ", ") + what; }
  void subscribe() override { say("subscribe"); }
  void askState(Sequence fence) override { say(fence ? "state? fence " + std::to_string(fence) : "state?"); }
  void askLog(Revision after) override { say("log? " + std::to_string(after)); }
  void scan() override { say("scan"); }
  void replay(const Entry& entry) override { say("replay " + std::to_string(entry.revision)); }
  void accept(const State& state) override {
    say("accept " + state.timeline.server + "/" + state.timeline.generation + " " +
        std::to_string(state.tip));
  }
  void apply(const Entry& entry, Sequence own) override {
    say("apply " + std::to_string(entry.revision) + (own ? "=" + std::to_string(own) : ""));
  }
  void settle(Sequence write, Outcome outcome) override { say(std::to_string(write) + " " + text(outcome)); }
  void wiped() override { say("wiped"); }
  void reconnect(std::string_view) override { say("reconnect"); }

  Follower follower_{"me", *this};
  std::string said_;
};

struct Line {
  const char* event;
  const char* expected;
};
struct Case {
  const char* name;
  std::vector<Line> lines;
};

// The mirror is that of s1/g1 at 5.
const std::vector<Line> kStart{{"connected", "subscribe"},
                               {"subscribed", "state?"},
                               {"state s1 g1 5", "scan"},
                               {"scanned", "log? 5"},
                               {"log g1 5:", "accept s1/g1 5"}};

TEST(Follower, MirrorsTheLog) {
  const Case cases[] = {
      {"next, duplicate",
       {{"push g1 6", "apply 6"}, {"push g1 6", ""}, {"push g1 5", ""}, {"push g1 7", "apply 7"}}},
      {"gap",
       {{"push g1 8", "log? 5"},
        {"push g1 9", ""},
        {"log g1 8: 6 7 8", "apply 6, apply 7, apply 8, log? 8"},
        {"log g1 9: 9", "apply 9"}}},
      {"a next one while the log is read",
       {{"push g1 7", "log? 5"}, {"push g1 6", "apply 6"}, {"log g1 7: 6 7", "apply 7"}}},
      {"a log of several pages",
       {{"push g1 9", "log? 5"},
        {"log g1 9: 6 7", "apply 6, apply 7, log? 7"},
        {"log g1 9: 8 9", "apply 8, apply 9"}}},
      {"trimmed",
       {{"push g1 9", "log? 5"},
        {"log g1 9: 8 9", "scan"},
        {"scanned", "log? 9"},
        {"log g1 10: 10", "replay 10, accept s1/g1 10"}}},
      {"trimmed to nothing", {{"push g1 9", "log? 5"}, {"log g1 9:", "scan"}}},
      {"a gap within a page", {{"push g1 9", "log? 5"}, {"log g1 9: 6 8 9", "apply 6, scan"}}},
      {"a lost push shows at the check",
       {{"check", "state?"}, {"state s1 g1 6", "log? 5"}, {"log g1 6: 6", "apply 6"}}},
      {"a check that an entry overtook",
       {{"check", "state?"}, {"push g1 6", "apply 6"}, {"state s1 g1 5", ""}}},
      {"a log that went backwards",
       {{"check", "state?"},
        {"state s1 g1 4", "scan"},
        {"scanned", "log? 4"},
        {"log g1 4:", "accept s1/g1 4"}}},
      {"a page from a log that went backwards", {{"push g1 9", "log? 5"}, {"log g1 3:", "scan"}}},
      {"wiped and written again",
       {{"push g2 1", "state?"},
        {"state s1 g2 1", "scan"},
        {"scanned", "log? 1"},
        {"log g2 1:", "accept s1/g2 1"},
        {"push g1 6", "state?"},
        {"state s1 g2 1", ""}}},
      {"wiped under the log", {{"push g1 7", "log? 5"}, {"log g2 7: 6 7", "state?"}}},
      {"wiped and left alone",
       {{"check", "state?"},
        {"state s1 - 0", "wiped"},
        {"check", "state?"},
        {"state s1 - 0", ""},
        {"push g2 1", "state?"},
        {"state s1 g2 1", "scan"}}},
      {"wiped for good",
       {{"check", "state?"},
        {"state s1 - 0", "wiped"},
        {"accept-wiped", "state?"},
        {"state s1 - 0", "scan"},
        {"scanned", "log? 0"},
        {"log - 0:", "accept s1/ 0"}}},
      {"another server's log", {{"check", "state?"}, {"state s2 g1 9", "scan"}}},
      {"back on the same log",
       {{"disconnected", ""},
        {"connected", "subscribe"},
        {"push g1 7", ""},
        {"subscribed", "state?"},
        {"push g1 8", ""},
        {"state s1 g1 7", "log? 5"},
        {"log g1 8: 6 7 8", "apply 6, apply 7, apply 8"}}},
      {"pushed while the state is asked",
       {{"disconnected", ""},
        {"connected", "subscribe"},
        {"subscribed", "state?"},
        {"push g1 6", ""},
        {"state s1 g1 5", "log? 5"}}},
      {"half a snapshot leaves everything",
       {{"check", "state?"},
        {"state s2 g1 7", "scan"},
        {"disconnected", ""},
        {"connected", "subscribe"},
        {"subscribed", "state?"},
        {"state s1 g1 6", "log? 5"}}},
      {"written during a scan",
       {{"check", "state?"},
        {"state s2 g1 7", "scan"},
        {"push g1 8", ""},
        {"scanned", "log? 7"},
        {"push g1 9", ""},
        {"log g1 8: 8", "replay 8, accept s2/g1 8, log? 8"}}},
      {"wiped during a scan",
       {{"check", "state?"},
        {"state s2 g1 7", "scan"},
        {"scanned", "log? 7"},
        {"log g2 7:", "state?"},
        {"state s2 g2 8", "scan"}}},
      {"a log that went backwards during a scan",
       {{"check", "state?"}, {"state s2 g1 7", "scan"}, {"scanned", "log? 7"}, {"log g1 3:", "state?"}}},
      {"trimmed during a scan",
       {{"check", "state?"},
        {"state s2 g1 7", "scan"},
        {"scanned", "log? 7"},
        {"log g1 10: 9 10", "state?"}}},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.name);
    Talk talk;
    for (const Line& line : kStart) EXPECT_EQ(talk(line.event), line.expected) << line.event;
    for (const Line& line : each.lines) EXPECT_EQ(talk(line.event), line.expected) << line.event;
  }
}

TEST(Follower, GivesUpAConnectionOnWhichNoSnapshotEnds) {
  Talk talk;
  for (const char* event : {"connected", "subscribed", "state s1 g1 5"}) talk(event);
  for (int i = 1; i < Follower::kAttempts; ++i) {
    EXPECT_EQ(talk("scanned"), "log? 5");
    EXPECT_EQ(talk("log g1 9: 8 9"), "state?");
    EXPECT_EQ(talk("state s1 g1 5"), "scan") << i;
  }
  talk("scanned");
  talk("log g1 9: 8 9");
  EXPECT_EQ(talk("state s1 g1 5"), "reconnect");
  EXPECT_EQ(talk("push g1 6"), "");
}

TEST(Follower, SettlesWrites) {
  const std::vector<Line> lost{{"write", "write 1"},
                               {"write", "write 2"},
                               {"disconnected", ""},
                               {"connected", "subscribe"},
                               {"subscribed", "state? fence 2"}};
  const auto after = [&](std::vector<Line> lines) {
    lines.insert(lines.begin(), lost.begin(), lost.end());
    return lines;
  };
  const Case cases[] = {
      {"answered, then pushed",
       {{"write", "write 1"}, {"written 1 6", ""}, {"push g1 6=1", "apply 6=1, 1 applied"}}},
      {"pushed, then answered",
       {{"write", "write 1"}, {"push g1 6=1", "apply 6=1, 1 applied"}, {"written 1 6", ""}}},
      {"answered, then lost with its history",
       {{"write", "write 1"},
        {"written 1 6", ""},
        {"check", "state?"},
        {"state s2 g1 5", "scan"},
        {"scanned", "log? 0"},
        {"log g1 5: 4 5", "accept s2/g1 5, 1 unknown"}}},
      {"answered, then found in the new history",
       {{"write", "write 1"},
        {"written 1 6", ""},
        {"check", "state?"},
        {"state s2 g1 7", "scan"},
        {"scanned", "log? 0"},
        {"log g1 7: 6=1 7", "accept s2/g1 7, 1 applied"}}},
      {"unanswered, one of two was carried out",
       after({{"state s1 g1 7", "log? 5"},
              {"log g1 7: 6 7=1", "apply 6, apply 7=1, 1 applied, 2 not applied"}})},
      {"unanswered, none was", after({{"state s1 g1 5", "1 not applied, 2 not applied"}})},
      {"unanswered, seen in a snapshot",
       after({{"push g1 8", ""},
              {"state s1 g1 9", "log? 5"},
              {"log g1 9: 8 9", "scan"},
              {"scanned", "log? 5"},
              {"log g1 9: 8 9=2", "accept s1/g1 9, 1 unknown, 2 applied"}})},
      {"unanswered, and the log of the new history tells all",
       after({{"state s2 g1 2", "scan"},
              {"scanned", "log? 0"},
              {"log g1 2: 1 2=1", "accept s2/g1 2, 1 applied, 2 not applied"}})},
      {"unanswered, and the new history is empty",
       after({{"state s2 - 0", "wiped"},
              {"check", "state? fence 2"},
              {"state s2 g2 1", "scan"},
              {"scanned", "log? 0"},
              {"log g2 1: 1", "accept s2/g2 1, 1 not applied, 2 not applied"}})},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.name);
    Talk talk;
    for (const Line& line : kStart) EXPECT_EQ(talk(line.event), line.expected) << line.event;
    for (const Line& line : each.lines) EXPECT_EQ(talk(line.event), line.expected) << line.event;
  }
}

}  // namespace
