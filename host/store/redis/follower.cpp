#include "host/store/redis/follower.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "platform/zel/core/assert.h"

namespace Host::Redis {

Follower::Follower(std::string uuid, Output& output) : uuid_(std::move(uuid)), output_(output) {}

void Follower::onConnected() {
  phase_ = Phase::subscribing;
  output_.subscribe();
}

void Follower::onDisconnected() {
  phase_ = Phase::offline;
  asked_ = Asked::nothing;
  pushed_ = 0;
  attempts_ = 0;
  for (auto& [sequence, write] : writes_) write.isOrphan = !write.answer;
}

void Follower::onSubscribed() {
  phase_ = Phase::deciding;
  askState();
}

void Follower::askState() {
  asked_ = Asked::state;
  askedAt_ = mirrored_ ? mirrored_->tip : 0;
  pushed_ = 0;
  output_.askState(lastOrphan());
}

void Follower::askLog(Revision after) {
  asked_ = Asked::log;
  askedAt_ = mirrored_ ? mirrored_->tip : 0;
  pushed_ = 0;
  output_.askLog(after);
}

void Follower::check() {
  if (asked_ == Asked::nothing && (phase_ == Phase::following || phase_ == Phase::wiped)) askState();
}

void Follower::acceptWiped() {
  if (phase_ != Phase::wiped) return;
  acceptsWiped_ = true;
  check();
}

void Follower::onState(const State& state) {
  ZEL_REQUIRE(asked_ == Asked::state, "a state that was not asked for");
  asked_ = Asked::nothing;
  decide(state);
}

// Entries may have been applied since the question, so the tip is compared with the revision of then.
void Follower::decide(const State& state) {
  const bool accepts = std::exchange(acceptsWiped_, false);
  if (mirrored_ && mirrored_->timeline == state.timeline && state.tip >= askedAt_) {
    phase_ = Phase::following;
    return state.tip > mirrored_->tip ? askLog(mirrored_->tip) : follow();
  }
  const bool isWiped =
      state.timeline.generation.empty() && mirrored_ && !mirrored_->timeline.generation.empty();
  if (!isWiped || accepts) return takeSnapshot(state);
  if (std::exchange(phase_, Phase::wiped) == Phase::wiped) return;
  settleWiped();
  output_.wiped();
}

// The mirror has everything up to the last answer: what was pushed meanwhile is next.
void Follower::follow() {
  settleOrphans(Outcome::notApplied);
  if (pushed_ == 0) return;
  if (pushedGeneration_ != mirrored_->timeline.generation) {
    phase_ = Phase::deciding;
    return askState();
  }
  if (pushed_ > mirrored_->tip) return askLog(mirrored_->tip);
  pushed_ = 0;
}

void Follower::onPush(std::string_view generation, const Entry& entry) {
  if (phase_ == Phase::offline || phase_ == Phase::subscribing) return;
  const bool isFollowed = phase_ == Phase::following && generation == mirrored_->timeline.generation;
  if (isFollowed && entry.revision <= mirrored_->tip) return;
  if (isFollowed && entry.revision == mirrored_->tip + 1) return applyOne(entry);
  pushed_ = generation == pushedGeneration_ ? std::max(pushed_, entry.revision) : entry.revision;
  pushedGeneration_ = generation;
  if (asked_ != Asked::nothing) return;
  phase_ == Phase::following ? follow() : askState();
}

void Follower::applyOne(const Entry& entry) {
  mirrored_->tip = entry.revision;
  const Sequence own = ownSequence(entry.origin);
  output_.apply(entry, own);
  if (writes_.erase(own) > 0) output_.settle(own, Outcome::applied);
}

void Follower::onLog(const LogPage& page) {
  ZEL_REQUIRE(asked_ == Asked::log, "a page of the log that was not asked for");
  asked_ = Asked::nothing;
  phase_ == Phase::following ? takePage(page) : replayPage(page);
}

void Follower::takePage(const LogPage& page) {
  if (page.generation != mirrored_->timeline.generation) {
    phase_ = Phase::deciding;
    return askState();
  }
  const Revision before = mirrored_->tip;
  bool isLost = page.tip < askedAt_;  // the log went backwards
  for (const Entry& entry : page.entries) {
    isLost = isLost || entry.revision > mirrored_->tip + 1;
    if (isLost) break;
    if (entry.revision > mirrored_->tip) applyOne(entry);
  }
  const bool isBehind = page.tip > mirrored_->tip;
  if (isLost || (isBehind && mirrored_->tip == before)) return takeSnapshot({mirrored_->timeline, page.tip});
  isBehind ? askLog(mirrored_->tip) : follow();
}

void Follower::takeSnapshot(const State& state) {
  if (++attempts_ > kAttempts) {
    phase_ = Phase::offline;
    return output_.reconnect("the rows or their log changed under every snapshot");
  }
  copy_ = state;
  phase_ = Phase::scanning;
  asked_ = Asked::rows;
  output_.scan();
}

void Follower::onScanned() {
  ZEL_REQUIRE(asked_ == Asked::rows, "rows that were not asked for");
  phase_ = Phase::replaying;
  searched_ = searchFrom();
  isCovered_ = true;
  for (auto& [sequence, write] : writes_) write.isFound = false;
  askLog(searched_);
}

// Entries up to the copy's tip are in it already. They are read for the origins of pending writes only.
Revision Follower::searchFrom() const {
  const bool isSame = mirrored_ && mirrored_->timeline == copy_.timeline;
  Revision from = copy_.tip;
  for (const auto& [sequence, write] : writes_) from = std::min(from, isSame ? write.before : 0);
  return from;
}

void Follower::replayPage(const LogPage& page) {
  const Revision before = searched_;
  const bool isWhole =
      page.generation == copy_.timeline.generation && page.tip >= copy_.tip &&
      std::ranges::all_of(page.entries, [this](const Entry& each) { return replayOne(each); });
  if (isWhole && searched_ >= page.tip) return completeCopy();
  if (isWhole && searched_ > before) return askLog(searched_);
  if (isWhole && page.tip == copy_.tip) {  // nothing is left of the log that was searched
    isCovered_ = false;
    return completeCopy();
  }
  phase_ = Phase::deciding;
  askState();
}

// Returns whether the copy still has everything up to the entry.
bool Follower::replayOne(const Entry& entry) {
  if (entry.revision <= searched_) return true;
  if (entry.revision > std::max(searched_, copy_.tip) + 1) return false;
  if (entry.revision > searched_ + 1) isCovered_ = false;
  searched_ = entry.revision;
  if (const auto own = writes_.find(ownSequence(entry.origin)); own != writes_.end())
    own->second.isFound = true;
  if (entry.revision <= copy_.tip) return true;
  copy_.tip = entry.revision;
  output_.replay(entry);
  return true;
}

void Follower::completeCopy() {
  const bool isSame = mirrored_ && mirrored_->timeline == copy_.timeline;
  mirrored_ = copy_;
  phase_ = Phase::following;
  attempts_ = 0;
  output_.accept(copy_);
  settleAtCopy(isSame);
  follow();
}

Sequence Follower::writing() {
  ZEL_REQUIRE(mirrored_ && phase_ != Phase::offline, "a write without a mirror or a connection");
  writes_.emplace(++lastWrite_, Write{mirrored_->tip});
  return lastWrite_;
}

void Follower::resending(Sequence write) {
  if (const auto found = writes_.find(write); found != writes_.end()) found->second.before = mirrored_->tip;
}

void Follower::onWritten(Sequence write, Revision revision) {
  const auto found = writes_.find(write);
  if (found == writes_.end()) return;  // its entry was faster
  found->second.answer = revision;
  if (revision > mirrored_->tip) return;
  writes_.erase(found);
  output_.settle(write, Outcome::applied);
}

void Follower::onRefused(Sequence write) { writes_.erase(write); }

Sequence Follower::ownSequence(std::string_view origin) const {
  if (!origin.starts_with(uuid_) || origin.size() <= uuid_.size() + 1 || origin[uuid_.size()] != ':')
    return 0;
  Sequence sequence = 0;
  const auto [end, error] =
      std::from_chars(origin.data() + uuid_.size() + 1, origin.data() + origin.size(), sequence);
  return error == std::errc() && end == origin.data() + origin.size() ? sequence : 0;
}

Sequence Follower::lastOrphan() const {
  Sequence last = 0;
  for (const auto& [sequence, write] : writes_)
    if (write.isOrphan) last = sequence;
  return last;
}

void Follower::settleOrphans(Outcome outcome) {
  for (auto each = writes_.begin(); each != writes_.end();) {
    const auto write = each++;
    if (!write->second.isOrphan) continue;
    const Sequence sequence = write->first;
    writes_.erase(write);
    output_.settle(sequence, outcome);
  }
}

// The history is gone with the answer. Nobody may write for long, so these can't wait for the next one.
void Follower::settleWiped() {
  for (auto& [sequence, write] : writes_) write.isOrphan = write.isOrphan || write.answer;
  settleOrphans(Outcome::unknown);
}

// An answer's revision counts in the history that it was given in.
void Follower::settleAtCopy(bool isSameTimeline) {
  const Outcome otherwise = isCovered_ ? Outcome::notApplied : Outcome::unknown;
  for (auto each = writes_.begin(); each != writes_.end();) {
    const auto [sequence, write] = *each;
    const bool isIn = write.isFound || (isSameTimeline && write.answer && *write.answer <= copy_.tip);
    const bool isOver = isIn || write.isOrphan || (write.answer && !isSameTimeline);
    each = isOver ? writes_.erase(each) : std::next(each);
    if (isOver) output_.settle(sequence, isIn ? Outcome::applied : otherwise);
  }
}

}  // namespace Host::Redis
