// The requests of the follower, and how it settles writes. The chaos run (tests/redis/chaos) checks on a real
// server that no entry is lost, comes twice or comes too late.
#include "host/store/redis/follower.h"

#include <gtest/gtest.h>

#include <deque>
#include <iterator>
#include <sstream>

namespace {

using namespace Host::Redis;

// A talk is "EVENT > OUTPUT | EVENT": what happens, and all that the follower does then. "7=1" is the entry
// 7, that of the follower's own write 1; "-" is no generation.
class Talk : public Follower::Output {
 public:
  void operator()(std::string_view talk) {
    while (!talk.empty()) {
      std::string_view output = take(talk, " | ");
      const std::string event(take(output, " > "));
      done_.clear();
      happen(event);
      EXPECT_EQ(done_, output) << event;
    }
  }

 private:
  static std::string_view take(std::string_view& text, std::string_view mark) {
    const std::size_t end = std::min(text.find(mark), text.size());
    const std::string_view part = text.substr(0, end);
    text.remove_prefix(std::min(end + mark.size(), text.size()));
    return part;
  }

  void happen(const std::string& event) {
    std::istringstream in(event);
    const std::vector<std::string> words{std::istream_iterator<std::string>(in), {}};
    const std::string& what = words.at(0);
    const auto number = [&](std::size_t i) { return std::stoull(words.at(i)); };
    const auto generation = [&](std::size_t i) { return words.at(i) == "-" ? "" : words.at(i); };
    if (what == "disconnected") return follower_.onDisconnected();
    if (what == "connected") return follower_.onConnected(), follower_.onSubscribed();
    if (what == "scanned") return follower_.onScanned();
    if (what == "check") return follower_.check();
    if (what == "accept-wiped") return follower_.acceptWiped();
    if (what == "write") return static_cast<void>(follower_.writing());
    if (what == "resending") return follower_.resending(number(1));
    if (what == "written") return follower_.onWritten(number(1), number(2));
    if (what == "state") return follower_.onState({{words.at(1), generation(2)}, number(3)});
    const std::string its = generation(1);
    if (what == "push") return follower_.onPush(its, entryOf(words.at(2)));
    LogPage page{its, number(2), {}};
    for (std::size_t i = 3; i < words.size(); ++i) page.entries.push_back(entryOf(words[i]));
    follower_.onLog(page);
  }
  Entry entryOf(const std::string& word) {
    const std::size_t mark = word.find('=');
    const bool isOwn = mark != std::string::npos;
    origins_.push_back(isOwn ? follower_.originOf(std::stoull(word.substr(mark + 1))) : "other:1");
    return {std::stoull(word), origins_.back(), ""};
  }

  void add(const std::string& what) { done_ += (done_.empty() ? "" : ", ") + what; }
  void subscribe() override { add("subscribe"); }
  void askState(Sequence fence) override { add(fence ? "state? fence " + std::to_string(fence) : "state?"); }
  void askLog(Revision after) override { add("log? " + std::to_string(after)); }
  void scan() override { add("scan"); }
  void replay(const Entry& entry) override { add("replay " + std::to_string(entry.revision)); }
  void accept(const State& state) override {
    add("accept " + state.timeline.server + "/" + state.timeline.generation + " " +
        std::to_string(state.tip));
  }
  void apply(const Entry& entry, Sequence own) override {
    add("apply " + std::to_string(entry.revision) + (own ? "=" + std::to_string(own) : ""));
  }
  void settle(Sequence write, Outcome outcome) override {
    constexpr const char* kTexts[] = {" applied", " not applied", " unknown"};
    add(std::to_string(write) + kTexts[static_cast<int>(outcome)]);
  }
  void wiped() override { add("wiped"); }
  void reconnect(std::string_view) override { add("reconnect"); }

  Follower follower_{"me", *this};
  std::deque<std::string> origins_;
  std::string done_;
};

// The mirror is that of s1/g1 at 5 after the first; two writes are without an answer after the second.
const std::string kStart =
    "connected > subscribe, state? | state s1 g1 5 > scan | scanned > log? 5 | log g1 5 > accept s1/g1 5 | ";
const std::string kLost = "write | write | disconnected | connected > subscribe, state? fence 2 | ";

TEST(Follower, AsksForWhatIsMissingAndSettlesEachWrite) {
  struct Case {
    const char* name;
    std::string talk;
  };
  const Case cases[] = {
      {"next, duplicate", "push g1 6 > apply 6 | push g1 6 | push g1 5 | push g1 7 > apply 7"},
      {"gap, several pages",
       "push g1 9 > log? 5 | push g1 6 > apply 6 | log g1 9 6 7 > apply 7, log? 7 | push g1 10 | "
       "log g1 9 8 9 > apply 8, apply 9, log? 9 | log g1 10 10 > apply 10"},
      {"trimmed, written during the scan",
       "push g1 9 > log? 5 | log g1 9 8 9 > scan | push g1 10 | scanned > log? 9 | push g1 11 | "
       "log g1 10 10 > replay 10, accept s1/g1 10, log? 10"},
      {"trimmed to nothing", "push g1 9 > log? 5 | log g1 9 > scan"},
      {"a lost push shows at the check", "check > state? | state s1 g1 6 > log? 5 | log g1 6 6 > apply 6"},
      {"a check that an entry overtook", "check > state? | push g1 6 > apply 6 | state s1 g1 5"},
      {"a log that went backwards",
       "check > state? | state s1 g1 4 > scan | scanned > log? 4 | log g1 4 > accept s1/g1 4"},
      {"a page from a log that went backwards", "push g1 9 > log? 5 | log g1 3 > scan"},
      {"wiped and written again",
       "push g2 1 > state? | state s1 g2 1 > scan | scanned > log? 1 | log g2 1 > accept s1/g2 1 | "
       "push g1 6 > state? | state s1 g2 1"},
      {"wiped under the log", "push g1 7 > log? 5 | log g2 7 6 7 > state?"},
      {"another server, whose log went backwards during the scan",
       "check > state? | state s2 g1 9 > scan | scanned > log? 9 | log g1 3 > state?"},
      {"wiped and written again during the scan",
       "check > state? | state s2 g1 9 > scan | scanned > log? 9 | log g2 9 > state?"},
      {"back on the same timeline, half a snapshot later",
       "check > state? | state s2 g1 7 > scan | disconnected | connected > subscribe, state? | push g1 6 | "
       "state s1 g1 5 > log? 5"},
      {"wiped, and written later",
       "check > state? | state s1 - 0 > wiped | check > state? | state s1 - 0 | push g2 1 > state? | "
       "state s1 g2 1 > scan"},
      {"wiped for good",
       "check > state? | state s1 - 0 > wiped | accept-wiped > state? | state s1 - 0 > scan | "
       "scanned > log? 0 | log - 0 > accept s1/ 0"},
      {"accepted, but somebody wrote first; then wiped once more",
       "check > state? | state s1 - 0 > wiped | accept-wiped > state? | state s1 g2 0 > scan | "
       "scanned > log? 0 | log g2 0 > accept s1/g2 0 | check > state? | state s1 - 0 > wiped"},
      {"sent again into a new history, then unanswered",
       "write | check > state? | state s1 g2 1 > scan | scanned > log? 0 | log g2 1 1 > accept s1/g2 1 | "
       "resending 1 | disconnected | connected > subscribe, state? fence 1 | state s1 g2 4 > log? 1 | "
       "log g2 4 4 > scan | scanned > log? 1 | log g2 4 2=1 3 4 > accept s1/g2 4, 1 applied"},
      {"answered, then pushed", "write | written 1 6 | push g1 6=1 > apply 6=1, 1 applied"},
      {"pushed, then answered", "write | push g1 6=1 > apply 6=1, 1 applied | written 1 6"},
      {"answered, then lost with its history",
       "write | written 1 6 | check > state? | state s2 g1 5 > scan | scanned > log? 0 | "
       "log g1 5 4 5 > accept s2/g1 5, 1 unknown"},
      {"answered, then found in the new history",
       "write | written 1 6 | check > state? | state s2 g1 7 > scan | scanned > log? 0 | "
       "log g1 7 6=1 7 > accept s2/g1 7, 1 applied"},
      {"unanswered, one of two was carried out",
       kLost + "state s1 g1 7 > log? 5 | log g1 7 6 7=1 > apply 6, apply 7=1, 1 applied, 2 not applied"},
      {"unanswered, none was", kLost + "state s1 g1 5 > 1 not applied, 2 not applied"},
      {"unanswered, seen in a snapshot",
       kLost + "push g1 8 | state s1 g1 9 > log? 5 | log g1 9 8 9 > scan | scanned > log? 5 | "
               "log g1 9 8 9=2 > accept s1/g1 9, 1 unknown, 2 applied"},
      {"unanswered, and the log of the new history tells all",
       kLost + "state s2 g1 2 > scan | scanned > log? 0 | "
               "log g1 2 1 2=1 > accept s2/g1 2, 1 applied, 2 not applied"},
      {"unanswered, and the new history is empty", kLost + "state s2 - 0 > 1 unknown, 2 unknown, wiped"},
      {"answered, then wiped before the push",
       "write | written 1 6 | write | check > state? | state s1 - 0 > 1 unknown, wiped | check > state? | "
       "state s1 g2 1 > scan | scanned > log? 0 | log g2 1 1=2 > accept s1/g2 1, 2 applied"},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.name);
    Talk{}(kStart + each.talk);
  }
}

TEST(Follower, GivesUpAConnectionOnWhichNoSnapshotEnds) {
  std::string talk = "connected > subscribe, state? | state s1 g1 5 > scan | ";
  for (int i = 1; i <= Follower::kAttempts; ++i)
    talk += "scanned > log? 5 | log g1 9 8 9 > state? | state s1 g1 5 > " +
            std::string(i < Follower::kAttempts ? "scan | " : "reconnect | ");
  Talk{}(talk + "push g1 6");
}

}  // namespace
