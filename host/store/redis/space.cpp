#include "host/store/redis/space.h"

#include <algorithm>
#include <optional>
#include <random>
#include <utility>

#include "platform/zel/core/exception.h"

namespace Host::Redis {

using Statedb::Changes;
using Statedb::Durability;
using Statedb::Path;

namespace {

constexpr std::size_t kEntriesPerPage = 1000;
constexpr std::size_t kFreedAtOnce = 1000;  // entities

struct Announced {
  std::string_view generation;
  Entry entry;
};
// "GENERATION REVISION ORIGIN\nDELTA".
std::optional<Announced> announcedIn(std::string_view payload) {
  const auto take = [&](char mark) {
    const std::size_t end = std::min(payload.find(mark), payload.size());
    const std::string_view part = payload.substr(0, end);
    payload.remove_prefix(std::min(end + 1, payload.size()));
    return part;
  };
  const std::string_view generation = take(' ');
  const Reply revision{Reply::Kind::text, 0, std::string(take(' ')), {}};
  const std::string_view origin = take('\n');
  if (generation.empty() || revision.unsignedNumber() == 0 || origin.empty()) return std::nullopt;
  return Announced{generation, {revision.unsignedNumber(), origin, payload}};
}

}  // namespace

std::string randomText() {
  std::random_device random;
  std::string text;
  for (int i = 0; i < 32; ++i) text += "0123456789abcdef"[random() % 16];
  return text;
}

Loss lossOf(const Reply& error) {
  const Refusal refusal = error.refusal();
  return {Loss::Kind::refused, refusal,
          std::string(refusalText(refusal)) + " (" + error.text.substr(0, 200) + ")"};
}

Line::Line(Loop& theLoop, const Url& theUrl, Connection::Owner& ofCommands, Connection::Owner& ofSubscription)
    : loop(theLoop),
      url(theUrl),
      uuid(randomText()),
      commands(loop, url, ofCommands),
      subscription(loop, url, ofSubscription) {}

Space::Space(Line& line, Durability durability, Upstream::Owner& owner)
    : line_(line),
      durability_(durability),
      keys_(line.url.prefix, durability),
      uuid_(line.uuid + '.' + letterOf(durability)),
      owner_(owner),
      follower_(uuid_, *this),
      scan_(line.commands, keys_, *this),
      freeing_(line.loop, [this] {
        if (!waste_.back().discard(kFreedAtOnce)) waste_.pop_back();
        if (waste_.empty()) freeing_.stop();
      }) {}

void Space::onDisconnected() {
  for (auto& [sequence, write] : writes_) write.isWaitingForIt = false;
  follower_.onDisconnected();
}

void Space::onMessage(std::string_view payload) {
  const auto announced = announcedIn(payload);
  if (announced) return follower_.onPush(announced->generation, announced->entry);
  line_.warn("a message on the channel '" + keys_.channel() +
             "' that is no \"GENERATION REVISION ORIGIN\": somebody else publishes there; it is ignored");
}

// The follower's requests.
void Space::subscribe() {
  line_.subscription.subscribe(keys_.channel(), [this](const Reply& reply) {
    if (reply.kind == Reply::Kind::error) return line_.lose(lossOf(reply));
    follower_.onSubscribed();
    line_.onStep();
  });
}

void Space::askState(Sequence fence) {
  if (fence == 0) return line_.askState(*this);
  line_.caller.call(fenceCall(keys_, uuid_, fence), [this](const Reply& reply) {
    if (reply.kind == Reply::Kind::error) return line_.lose(lossOf(reply));
    onState(serverState(reply));
  });
}
void Space::onState(const ServerState& state) {
  if (!line_.isFit(state)) return;
  follower_.onState(state.state);
  if (follower_.isFollowing() && state.state.timeline == this->state().timeline) sendWaiting();
  line_.onStep();
}

void Space::askLog(Revision after) {
  line_.caller.call(logCall(keys_, after, kEntriesPerPage), [this](const Reply& reply) { onLog(reply); });
}
void Space::onLog(const Reply& reply) {
  if (reply.kind == Reply::Kind::error) return line_.lose(lossOf(reply));
  LogPage page;
  try {
    page = logPage(reply);
  } catch (const Zel::ValueError& error) {
    return line_.lose({Loss::Kind::invalid, Refusal::none,
                       "'" + keys_.log() + "' has " + error.what() +
                           "; something else wrote there: use another prefix, or delete the key"});
  }
  follower_.onLog(page);
  line_.onStep();
}

void Space::scan() {
  throwAway(copy_);
  scan_.start(copy_);
}
void Space::onScanned() {
  copy_.endScan();
  follower_.onScanned();
  line_.onStep();
}
void Space::onUnreadable(const std::string& text) {
  line_.warn("a row can't be read and is left out: " + text);
}

void Space::throwAway(Rows& rows) {
  waste_.push_back(std::exchange(rows, {}));
  freeing_.startIn(0, 1);
}

// Notifications of the follower.
Changes Space::changesIn(const Entry& entry) {
  std::vector<std::string> errors;
  Changes changes = changesOf(entry.delta, errors);
  for (const std::string& error : errors)
    line_.warn("a step of the entry 0-" + std::to_string(entry.revision) + " of '" + keys_.log() + "' by '" +
               std::string(entry.origin.substr(0, 100)) + "' can't be read and is left out: " + error);
  return changes;
}

// An entry of this process's own write is not parsed.
Changes Space::changesIn(const Entry& entry, Sequence own) {
  const auto write = writes_.find(own);
  if (write == writes_.end() || write->second.delta.empty() || write->second.delta != entry.delta)
    return changesIn(entry);
  return std::move(write->second.changes);
}

DeltaHead Space::headIn(const Entry& entry) {
  try {
    return headOf(entry.delta);
  } catch (const Zel::ValueError& error) {
    line_.warn("the entry 0-" + std::to_string(entry.revision) + " of '" + keys_.log() +
               "' names a mount that can't be one: " + error.what());
    return {};
  }
}

void Space::replay(const Entry& entry) { copy_.carry(changesIn(entry)); }

void Space::accept(const State&) {
  std::swap(rows_, copy_);
  throwAway(copy_);
  owner_.onRows(durability_);
  sendWaiting();
}

void Space::sendWaiting() {
  std::vector<Sequence> waiting;
  for (const auto& [sequence, write] : writes_)
    if (write.isWaitingForIt) waiting.push_back(sequence);
  for (const Sequence each : waiting) sendAgain(each);
}

// Volatile rows and covers are state: by now their writer may have newer values, and sends those. Between two
// wipes, a later write may have made the space.
void Space::sendAgain(Sequence sequence) {
  if (durability_ != Durability::stored) return giveBack(sequence);
  if (sequence < carriedOut_)
    return onRefused(sequence, {Reply::Kind::error, 0, "GENERATION and a later write was carried out", {}});
  follower_.resending(sequence);
  send(sequence);
}

void Space::giveBack(Sequence sequence) {
  follower_.onRefused(sequence);
  settle(sequence, Outcome::notApplied);
}

void Space::apply(const Entry& entry, Sequence own) {
  const Changes changes = changesIn(entry, own);
  rows_.carry(changes);
  owner_.onEntry({durability_, changes, own, headIn(entry)});
}

void Space::settle(Sequence write, Outcome outcome) {
  if (outcome == Outcome::applied) carriedOut_ = std::max(carriedOut_, write);
  writes_.erase(write);
  owner_.onSettled({durability_, write}, outcome);
}

// A write that is under way was made for the empty space as well as a later one.
void Space::wiped() {
  owner_.onWiped(durability_);
  if (std::ranges::any_of(writes_, [](const auto& each) { return each.second.isWaitingForIt; }))
    follower_.acceptWiped();
}

void Space::reconnect(std::string_view why) {
  line_.lose({Loss::Kind::closed, Refusal::none, std::string(why)});
}

// Writes.
Sequence Space::write(const Changes& changes, std::vector<Claimed> claims) {
  const Sequence sequence = newest_ = follower_.writing();
  writes_.emplace(sequence, Write{changes, std::move(claims)});
  send(sequence);
  return sequence;
}

void Space::send(Sequence sequence) {
  Write& write = writes_.at(sequence);
  write.generation = state().timeline.generation;
  write.isWaitingForIt = false;
  const WriteOptions options{.generation = write.generation,
                             .newGeneration = write.generation.empty() ? randomText() : "",
                             .uuid = uuid_,
                             .sequence = sequence,
                             .log = line_.url.log,
                             .claims = write.claims,
                             .inTheWay = write.inTheWay};
  Known known = line_.known();
  known.revision = state().tip;
  Call call = writeCall(line_.url.prefix, durability_, write.changes, options, known);
  call.isRepeatable = false;
  write.delta = std::exchange(call.delta, {});
  line_.caller.call(std::move(call), [this, sequence](const Reply& reply) {
    onAnswer(sequence, reply);
    line_.onStep();
  });
}

void Space::onAnswer(Sequence sequence, const Reply& reply) {
  const Refusal refusal = reply.refusal();
  if (refusal == Refusal::none) return onWritten(sequence, written(reply));
  const auto found = writes_.find(sequence);
  if (found == writes_.end()) return;  // settled by a snapshot
  switch (refusal) {
    case Refusal::generation:
      return onOtherGeneration(sequence, found->second, reply);
    case Refusal::otherType:
      return onOtherType(sequence, found->second, reply);
    case Refusal::noScript:
      return onForgotten(sequence, reply);
    case Refusal::readOnly:
    case Refusal::masterDown:
    case Refusal::loading:  // it is another server now: the write is settled by what that one has
      return line_.lose(lossOf(reply));
    default:
      return onRefused(sequence, reply);
  }
}

void Space::onWritten(Sequence sequence, const Written& written) {
  if (!written.unannounced.empty())
    line_.warn("changes can't be announced on the channel '" + keys_.channel() +
               "', so others see them up to a second later: " + written.unannounced.substr(0, 200));
  carriedOut_ = std::max(carriedOut_, sequence);
  follower_.onWritten(sequence, written.revision);
}

// The server has another one than this process knew when it sent the write. Where a snapshot has brought it
// meanwhile the write goes again at once, else with the snapshot. One that others followed does not: it would
// overwrite what they wrote.
void Space::onOtherGeneration(Sequence sequence, Write& write, const Reply& error) {
  if (write.generation != state().timeline.generation) {
    return durability_ != Durability::stored || sequence == newest_ ? sendAgain(sequence)
                                                                    : onRefused(sequence, error);
  }
  write.isWaitingForIt = true;
  follower_.isWiped() ? follower_.acceptWiped() : follower_.check();
}

void Space::onOtherType(Sequence sequence, Write& write, const Reply& error) {
  const auto path = Path::existing(error.text.substr(std::min(error.text.size(), error.text.find(' ') + 1)));
  const bool isKnown = !path || std::ranges::find(write.inTheWay, *path) != write.inTheWay.end();
  if (isKnown || (sequence != newest_ && durability_ == Durability::stored))
    return onRefused(sequence, error);
  if (sequence != newest_) return giveBack(sequence);
  write.inTheWay.push_back(*path);
  send(sequence);
}

// Another process may have loaded the script again before later writes arrived.
void Space::onForgotten(Sequence sequence, const Reply& error) {
  if (sequence == newest_) return send(sequence);
  durability_ == Durability::stored ? onRefused(sequence, error) : giveBack(sequence);
}

void Space::onRefused(Sequence sequence, const Reply& error) {
  follower_.onRefused(sequence);
  writes_.erase(sequence);
  owner_.onRefused({durability_, sequence}, error);
}

}  // namespace Host::Redis
