// What a process does at each answer.
#include "host/store/redis/claims.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support.h"

namespace {

using namespace Host::Redis;
using Support::Lines;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

Claim held(const Token& token, std::uint64_t beat, const std::string& synced = "") {
  return {"g", token, beat, token.substr(token.find(' ') + 1) + "'s host", synced};
}
const Claim kAbsent{.generation = "g"}, kReleased{"g", "3 ", 9, "he's host", ""};

// A process that is reached, and polls once a second.
class Process : public Claims::Output {
 public:
  explicit Process(Milliseconds lease = Milliseconds(5'000), Milliseconds hold = Milliseconds(30'000))
      : claims("me", lease, hold, *this) {
    claims.onReached("t1");
    notes.clear();
  }
  // What it does at an answer that arrives so much later.
  Lines at(const ClaimList& answer, Claims::Now later = 1'000) {
    claims.tick();
    std::erase(notes, "read");
    claims.onClaims(answer, now += later);
    return std::exchange(notes, {});
  }
  Lines at(const Claim& claim, Claims::Now later = 1'000) {
    if (claim.token.empty()) return at(ClaimList{claim.generation, {}}, later);
    return at(ClaimList{claim.generation, {{"m", claim}}}, later);
  }
  Lines answered(const Claim& claim) {
    claims.onClaim("m", claim, now);
    std::erase(notes, "read");
    return std::exchange(notes, {});
  }
  // The answers until it does something, and this.
  Lines until(const Claim& claim) {
    for (int count = 1; count <= 60; ++count)
      if (Lines done = at(claim); !done.empty()) {
        done[0] = std::to_string(count) + ": " + done[0];
        return done;
      }
    return {"never"};
  }
  Lines reached(const std::string& timeline) {
    claims.onLost();
    claims.onReached(timeline);
    EXPECT_EQ(notes.back(), "read");
    notes.back() = claims.ownedToken("m");
    return std::exchange(notes, {});
  }
  void own() {
    claims.mountsAre({"m"});
    at(kAbsent);
    answered(held("1 me", 1));
    EXPECT_EQ(claims.ownedToken("m"), "1 me");
  }

  Claims::Now now = 1;
  Lines notes;
  Claims claims;
  Revision has = 10;  // of the log

 private:
  Revision revision() const override { return has; }
  void read() override { notes.push_back("read"); }
  void take(const std::string& mount, const Claim& seen) override { note("take", mount, seen.token); }
  void beat(const std::string& mount, const Token& token, std::string_view synced) override {
    note("beat", mount, token + " " + std::string(synced));
  }
  void release(const std::string& mount, const Token& token) override { note("release", mount, token); }
  void sweep(const std::string& mount, const Claim& seen) override { note("sweep", mount, seen.token); }
  void onOwned(const std::string& mount) override { notes.push_back("owned " + mount); }
  void onStandby(const std::string& mount, std::string_view who) override {
    note("standby", mount, std::string(who));
  }
  void onKept(const std::string& mount) override { notes.push_back("kept " + mount); }
  void onCurrent(const std::string& mount) override { notes.push_back("current " + mount); }
  void note(const std::string& what, const std::string& mount, const std::string& with) {
    notes.push_back(what + " " + mount + " " + with);
  }
};

TEST(Claims, ACandidateTakesAtOnceWhatIsFreeAndAfterTheLeaseWhatIsSilent) {
  struct Case {
    const char* title;
    std::vector<Claim> before;
    Claim then;
    const char* does;
  };
  const Claim heldNow = held("3 he", 7);
  const Claim wiped{.generation = "g2"}, older{"g", "2 ", 9, "", ""};
  const Case cases[] = {
      {"nobody ever had it", {}, kAbsent, "1: take m "},
      {"it was released earlier", {}, kReleased, "1: take m 3 "},
      {"it is released", {heldNow}, kReleased, "1: take m 3 "},
      {"its owner is silent", {heldNow}, heldNow, "5: take m 3 he"},
      {"its owner gave a sign of life", {heldNow, heldNow, heldNow}, held("3 he", 8), "6: take m 3 he"},
      {"the server lost it: its owner goes first", {heldNow}, kAbsent, "6: take m "},
      {"also where others write there already", {heldNow, kAbsent, kAbsent}, wiped, "4: take m "},
      {"also where it has an older one", {heldNow}, older, "6: take m 2 "},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.title);
    Process process;
    process.claims.mountsAre({"m"});
    for (const Claim& claim : each.before) process.at(claim);
    EXPECT_THAT(process.until(each.then), ElementsAre(each.does));
  }
  Process hasty(Milliseconds(1'000));
  hasty.claims.mountsAre({"m"});
  EXPECT_THAT(hasty.at(heldNow), ElementsAre("standby m he's host"));
  EXPECT_THAT(hasty.until(heldNow), ElementsAre("2: take m 3 he")) << "two heartbeats are missing";
}

TEST(Claims, TimeThatWasNotWatchedIsNoSilence) {
  Process process;
  process.claims.mountsAre({"m"});
  const Claim claim = held("3 he", 7);
  for (int i = 0; i < 5; ++i) process.at(claim);
  EXPECT_THAT(process.at(claim, 60'000), IsEmpty()) << "this process was stopped";
  EXPECT_THAT(process.until(claim), ElementsAre("2: take m 3 he"));
  process.claims.onFailed("m", process.now);
  EXPECT_THAT(process.until(claim), ElementsAre("5: take m 3 he")) << "its owner was refused as well";
  process.reached("t1");
  EXPECT_THAT(process.until(claim), ElementsAre("6: take m 3 he")) << "its owner reconnects as well";
}

TEST(Claims, OfTwoThatTakeOneIsOwnerAndTheOtherStandsBy) {
  Process process;
  process.claims.mountsAre({"m"});
  EXPECT_THAT(process.at(kReleased), ElementsAre("take m 3 "));
  EXPECT_THAT(process.at(kReleased), IsEmpty()) << "the answer is under way";
  EXPECT_THAT(process.answered(held("4 he", 1)), ElementsAre("standby m he's host"));
  EXPECT_THAT(process.at(held("4 he", 2)), IsEmpty());
  EXPECT_THAT(process.at(held("5 she", 3)), ElementsAre("standby m she's host"));
  EXPECT_THAT(process.at({"g", "5 ", 4, "", ""}), ElementsAre("take m 5 "));
  EXPECT_THAT(process.answered(held("6 me", 4)), ElementsAre("owned m"));
  EXPECT_THAT(process.at(held("6 me", 4)), ElementsAre("beat m 6 me "));
}

TEST(Claims, AnOwnerHasATokenWhileTheServerShowsItsClaim) {
  Process process;
  process.own();
  process.claims.synced("m");
  EXPECT_THAT(process.at(held("1 me", 1)), ElementsAre("beat m 1 me t1 10"));
  EXPECT_THAT(process.reached("t1"), ElementsAre(""));
  process.claims.synced("m");
  EXPECT_TRUE(process.claims.status()[0].isOwn);
  EXPECT_THAT(process.at(held("1 me", 2)), ElementsAre("owned m")) << "to write what changed meanwhile";
  EXPECT_THAT(process.at(held("1 me", 2)), ElementsAre("beat m 1 me t1 10"));
  EXPECT_THAT(process.reached("t2"), ElementsAre(""));
  process.claims.synced("m");
  EXPECT_THAT(process.at(held("1 me", 2)), ElementsAre("owned m"));
  EXPECT_THAT(process.at(held("1 me", 2)), ElementsAre("beat m 1 me "))
      << "not published in this timeline yet";

  process.reached("t3");
  EXPECT_THAT(process.at(kAbsent), ElementsAre("kept m", "take m ")) << "the server lost it";
  EXPECT_THAT(process.answered(held("1 me", 1)), ElementsAre("owned m"));
  EXPECT_THAT(process.at(held("1 me", 1)), ElementsAre("beat m 1 me "));
  EXPECT_THAT(process.answered(held("2 he", 4)), ElementsAre("kept m", "standby m he's host"))
      << "it was stopped";
  EXPECT_EQ(process.claims.ownedToken("m"), "");

  Process fenced;
  fenced.own();
  fenced.claims.onFenced("m");
  EXPECT_EQ(fenced.claims.ownedToken("m"), "");
  EXPECT_THAT(fenced.notes, ElementsAre("read"));
  EXPECT_THAT(fenced.at(held("2 he", 1)), ElementsAre("kept m", "standby m he's host"));

  Process lost;
  lost.own();
  lost.claims.onLost();
  lost.claims.tick();
  EXPECT_THAT(lost.notes, IsEmpty()) << "no heartbeat without a server";
}

TEST(Claims, AMountThatIsNoLongerPublishedIsReleased) {
  Process process;
  process.own();
  process.claims.tick();
  process.notes.clear();
  process.claims.mountsAre({});
  EXPECT_THAT(std::exchange(process.notes, {}), ElementsAre("release m 1 me"));
  EXPECT_EQ(process.claims.ownedToken("m"), "");
  EXPECT_THAT(process.answered(held("1 me", 2)), IsEmpty()) << "to the heartbeat before";
  EXPECT_THAT(process.answered({"g", "1 ", 3, "", ""}), IsEmpty());

  process.claims.mountsAre({"m"});
  process.at({"g", "1 ", 3, "", ""});
  process.claims.mountsAre({});
  EXPECT_THAT(process.answered(held("2 me", 4)), ElementsAre("release m 2 me")) << "taken too late";
}

TEST(Claims, RowsWithoutAPublisherAreRemovedAfterHold) {
  struct Case {
    Milliseconds hold;
    Claim claim;
    const char* does;
  };
  const Milliseconds kHold(30'000), kNone(0);
  const Claim silent = held("3 he", 7), swept{"g", "3 ", 0, "", ""};
  const Case cases[] = {
      {kHold, silent, "31: sweep m 3 he"},
      {kHold, kReleased, "31: sweep m 3 "},
      {kNone, silent, "6: sweep m 3 he"},
      {kNone, kReleased, "1: sweep m 3 "},
      {Url::kNever, silent, "never"},
      {Url::kNever, kReleased, "never"},
      {kNone, swept, "never"},
      {kNone, kAbsent, "never"},
  };
  for (const Case& each : cases) {
    Process process(Milliseconds(5'000), each.hold);
    EXPECT_THAT(process.until(each.claim), ElementsAre(each.does));
  }

  Process limited(Milliseconds(5'000), kNone);
  EXPECT_THAT(limited.until(kReleased), ElementsAre("1: sweep m 3 "));
  limited.claims.onMayNotSweep("m", limited.now);
  EXPECT_THAT(limited.until(kReleased), ElementsAre("never")) << "others have the right";

  Process reader(Milliseconds(5'000), kNone);
  const auto see = [&](std::uint64_t beat) {
    return reader.at(ClaimList{"g", {{"m", silent}, {"m/n", held("1 she", beat)}}});
  };
  for (std::uint64_t beat = 1; beat < 10; ++beat) EXPECT_THAT(see(beat), IsEmpty()) << "rows under m live";
  EXPECT_TRUE(reader.claims.status()[0].isOrphan);
  EXPECT_FALSE(reader.claims.status()[1].isOrphan);
  for (int i = 0; i < 4; ++i) see(9);
  EXPECT_THAT(see(9), ElementsAre("sweep m 3 he", "sweep m/n 1 she"));
}

TEST(Claims, RowsAreKeptInANewTimelineUntilTheirPublisherIsDoneOrHoldIsOver) {
  Process reader;
  const Claim before = held("3 he", 7, "t1 9");
  reader.at(before);
  EXPECT_THAT(reader.reached("t1"), ElementsAre(""));
  reader.at(kAbsent);  // wiped: the timeline follows
  reader.claims.onReached("t2");
  EXPECT_THAT(std::exchange(reader.notes, {}), ElementsAre("kept m", "read"));
  EXPECT_THAT(reader.at(kAbsent), IsEmpty());
  EXPECT_THAT(reader.at(held("1 he", 1, "t1 9")), IsEmpty());
  EXPECT_THAT(reader.at(held("1 he", 2, "t2 11")), IsEmpty()) << "the last entries are still on their way";
  reader.has = 11;
  EXPECT_THAT(reader.at(held("1 he", 3, "t2 11")), ElementsAre("current m"));
  EXPECT_THAT(reader.reached("t3"), ElementsAre("kept m", ""));
  EXPECT_THAT(reader.until(kAbsent), ElementsAre("31: current m"));
  EXPECT_THAT(reader.claims.status(), IsEmpty());
  EXPECT_TRUE(reader.claims.isIdle());
  reader.claims.onPublished("n");  // the server is lost before its claim is read
  EXPECT_THAT(reader.reached("t4"), ElementsAre("kept n", ""));

  Process ofCovers(Milliseconds(5'000), Milliseconds(0));
  ofCovers.at(before);
  EXPECT_THAT(ofCovers.reached("t2"), ElementsAre("kept m", ""));
  EXPECT_THAT(ofCovers.until(kAbsent), ElementsAre("6: current m")) << "the lease, without a hold";

  Process owner;
  owner.own();
  owner.reached("t2");
  EXPECT_THAT(owner.at(held("1 me", 1)), ElementsAre("owned m"));
  owner.claims.synced("m");
  EXPECT_THAT(std::exchange(owner.notes, {}), ElementsAre("current m", "beat m 1 me t2 10"));
  owner.claims.onReached("t3");  // on the same connection
  EXPECT_EQ(owner.claims.ownedToken("m"), "");
  EXPECT_THAT(owner.answered(held("1 me", 2)), ElementsAre("owned m"));

  for (const Claim& then : {held("2 he", 1), Claim{"g2", "1 he", 1, "he's host", ""}}) {
    Process former;
    former.own();
    former.claims.synced("m");
    former.notes.clear();
    const Lines done = former.answered(then);
    EXPECT_EQ(done.back(), "standby m he's host");
    EXPECT_EQ(done.size(), then.generation == "g" ? 1U : 2U)
        << "its successor adopted all, unless it was wiped";
  }
}

}  // namespace
