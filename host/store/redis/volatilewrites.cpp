#include "host/store/redis/volatilewrites.h"

#include <utility>

#include "platform/statedb/store/schema.h"

namespace Host::Redis {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Durability;
using Statedb::Path;

namespace {

constexpr std::size_t kMostUnderWay = 2;  // parts of a batch

// Whether a retry would fail as well, because of what is written.
bool isForGood(Refusal refusal) { return refusal == Refusal::otherType || refusal == Refusal::notStored; }

}  // namespace

VolatileWrites::VolatileWrites(Durability space, Upstream& upstream, Publications& publications,
                               TokenOf tokenOf, Report report)
    : space_(space),
      upstream_(upstream),
      publications_(publications),
      tokenOf_(std::move(tokenOf)),
      report_(std::move(report)) {}

void VolatileWrites::send() {
  if (!upstream_.isReached() || isPostponed_) return;
  for (Publications::Batch& batch :
       publications_.take([this](Path mount) { return !tokenOf_(mount).empty(); })) {
    Sending& sending = sending_[batch.mount];
    sending.isOfMount = batch.isOfMount;
    if (batch.isOfMount) sending.token = tokenOf_(batch.mount);
    for (Changes& part : partsOf(std::move(batch.changes))) sending.waiting.push_back(std::move(part));
    sendParts(batch.mount, sending);
  }
}

// More than one at a time: the server carries out a part while the next is written. Under another claim than
// the first ones, the values may be old.
void VolatileWrites::sendParts(Path mount, Sending& sending) {
  std::vector<Claimed> claims;
  if (sending.isOfMount) claims.push_back({mount.text(), sending.token});
  const bool isSame = !sending.isOfMount || tokenOf_(mount) == sending.token;
  if (!sending.waiting.empty() && (!isSame || !upstream_.isReached())) postpone(sending);
  for (; !sending.waiting.empty() && sending.underWay < kMostUnderWay; sending.waiting.pop_front()) {
    const WriteId id = upstream_.write(space_, sending.waiting.front(), claims);
    parts_[id.sequence] = {mount, std::move(sending.waiting.front())};
    ++sending.underWay;
  }
  if (sending.underWay == 0) ended(mount);
}

// Publications keep what the rest of the batch has.
void VolatileWrites::postpone(Sending& sending) {
  sending.isPostponed = true;
  sending.waiting.clear();
}

// A part is over.
void VolatileWrites::goOn(Path mount) {
  const auto found = sending_.find(mount);
  if (found != sending_.end()) sendParts(mount, found->second);
}

void VolatileWrites::ended(Path mount) {
  const auto found = sending_.find(mount);
  if (found == sending_.end() || found->second.underWay > 0 || !found->second.waiting.empty()) return;
  found->second.isPostponed ? publications_.postponed(mount) : publications_.answered(mount);
  sending_.erase(found);
}

void VolatileWrites::onSettled(Sequence sequence, Outcome outcome) {
  const auto found = parts_.find(sequence);
  if (found == parts_.end()) return;
  const Path mount = found->second.mount;
  parts_.erase(found);
  Sending& sending = sending_[mount];
  --sending.underWay;
  if (outcome != Outcome::applied) postpone(sending);
  goOn(mount);
}

void VolatileWrites::onRefused(Sequence sequence, const Reply& error) {
  const auto found = parts_.find(sequence);
  if (found == parts_.end()) return;
  const Part part = std::move(found->second);
  parts_.erase(found);
  Sending& sending = sending_[part.mount];
  --sending.underWay;
  const Refusal refusal = error.refusal();
  if (isForGood(refusal)) {
    halve(part, error.text);
  } else {
    postpone(sending);
    isPostponed_ = refusal != Refusal::claimed && refusal != Refusal::fenced;
    if (isPostponed_ && !std::exchange(wasReported_, true))
      report_("does not take what is " + what() + ": " + error.text + ": " + refusalText(refusal) +
              "; trying until it does");
  }
  goOn(part.mount);
}

void VolatileWrites::halve(const Part& part, const std::string& why) {
  if (part.changes.size() == 1) {
    report_("refused what was " + what() + ": " + Statedb::placeText(part.changes.front().row) + ": " + why);
    return publications_.refused(part.mount, part.changes.front());
  }
  Sending& sending = sending_[part.mount];
  auto [first, second] = Statedb::halves(part.changes);
  sending.waiting.push_back(std::move(first));
  sending.waiting.push_back(std::move(second));
}

void VolatileWrites::forget(Path mount) {
  sending_.erase(mount);
  std::erase_if(parts_, [mount](const auto& each) { return each.second.mount == mount; });
}

void VolatileWrites::onLost() {
  parts_.clear();
  sending_.clear();
  isPostponed_ = false;
}

void VolatileWrites::check() {
  const bool isRefusing = std::exchange(isPostponed_, false);
  if (!isRefusing && std::exchange(wasReported_, false)) report_("takes what is " + what() + " again");
  send();
}

}  // namespace Host::Redis
