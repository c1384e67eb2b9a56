#include "host/store/redis/scripts.h"

#include <algorithm>
#include <utility>

#include "host/store/redis/claimtexts.h"
#include "host/store/redis/luatexts.h"
#include "platform/zel/core/exception.h"

namespace Host::Redis {

using Statedb::Change;
using Statedb::Path;

namespace {

constexpr Script kState{"", kStateScript, true};
constexpr Script kFence{kFenceScript, kStateScript, false};
constexpr Script kLog{"", kLogScript, true};
constexpr Script kClaims{"", kClaimsScript, true};
constexpr Script kTake{kClaimAnswer, kTakeScript, false};
constexpr Script kBeat{kClaimAnswer, kBeatScript, false};
constexpr Script kRelease{kClaimAnswer, kReleaseScript, false};
constexpr Script kSweep{kClaimAnswer, kSweepScript, false};

Call callOf(const Script& script, const std::vector<std::string>& keys,
            const std::vector<std::string>& arguments) {
  Call call{.script = &script, .words = {}};
  call.words.add(keys.size());
  for (const auto* words : {&keys, &arguments})
    for (const std::string& word : *words) call.words.add(word);
  return call;
}

std::string spaceLetter(const Keys& keys) { return keys.space().substr(keys.space().size() - 1); }

// A path within the limits, without the separators of a delta.
bool isMount(std::string_view text) {
  try {
    return std::ranges::none_of(Path(text).text(),
                                [](char c) { return static_cast<unsigned char>(c) < ' '; });
  } catch (const Zel::ValueError&) {
    return false;
  }
}

Revision revisionIn(std::string_view id) {
  const Reply number{Reply::Kind::text, 0, std::string(id.substr(id.find('-') + 1)), {}};
  if (!id.starts_with("0-") || number.unsignedNumber() == 0)
    throw Zel::ValueError("an entry of the log with the id '" + std::string(id.substr(0, 64)) +
                          "', not 0-REVISION");
  return number.unsignedNumber();
}

}  // namespace

void Caller::call(Call call, Connection::OnReply then) {
  if (!connection_.isReady()) return;
  if (!hashes_.contains(call.script)) load(*call.script);
  Waiting waiting{std::move(call), std::move(then)};
  loading_ == 0 ? send(std::move(waiting)) : waiting_.push_back(std::move(waiting));
}

void Caller::prepare(const Call& call) {
  if (connection_.isReady() && !hashes_.contains(call.script)) load(*call.script);
}

void Caller::lost() {
  hashes_.clear();
  refused_.clear();
  waiting_.clear();
  loading_ = 0;
}

// A call that the server refuses because it forgot the script changed nothing. All that were sent before the
// script was loaded again are refused, in order, before the reply to the load: they go first then.
void Caller::send(Waiting waiting) {
  const auto shared = std::make_shared<Waiting>(std::move(waiting));
  const Script* script = shared->call.script;
  Words words;
  words.add(script->readOnly ? "EVALSHA_RO" : "EVALSHA");
  words.add(hashes_[script]);
  connection_.request(words, shared->call.words, [this, shared](const Reply& reply) {
    if (reply.refusal() != Refusal::noScript) return shared->then(reply);
    if (!hashes_[shared->call.script].empty()) load(*shared->call.script);
    shared->call.isRepeatable ? refused_.push_back(std::move(*shared)) : shared->then(reply);
  });
}

void Caller::load(const Script& script) {
  ++loading_;
  hashes_[&script].clear();
  connection_.request({"SCRIPT", "LOAD", std::string(script.preamble) + script.text},
                      [this, &script](const Reply& reply) { onLoaded(script, reply); });
  connection_.flush();
}

void Caller::onLoaded(const Script& script, const Reply& reply) {
  --loading_;
  const bool isLoaded = reply.kind != Reply::Kind::error;
  if (isLoaded)
    hashes_[&script] = reply.text;
  else
    hashes_.erase(&script);
  std::deque<Waiting> waiting = std::exchange(refused_, {});
  std::ranges::move(std::exchange(waiting_, {}), std::back_inserter(waiting));
  for (Waiting& each : waiting) {
    if (!isLoaded && each.call.script == &script)
      each.then(reply);
    else if (loading_ == 0)
      send(std::move(each));
    else
      waiting_.push_back(std::move(each));
  }
  connection_.flush();
}

Written written(const Reply& reply) { return {reply[0].unsignedNumber(), reply[1].text, reply[2].text}; }

Call stateCall(const std::vector<const Keys*>& spaces) {
  std::vector<std::string> names;
  for (const Keys* each : spaces) names.insert(names.end(), {each->meta(), each->log()});
  return callOf(kState, names, {});
}

Call fenceCall(const Keys& keys, std::string_view uuid, Sequence fence) {
  return callOf(kFence, {keys.meta(), keys.log()},
                {std::string(uuid), std::to_string(fence), spaceLetter(keys)});
}

ServerState serverState(const Reply& reply, std::size_t space) {
  const std::size_t at = 4 + 2 * space;
  return {{{reply[0].text, reply[at].text}, reply[at + 1].unsignedNumber()},
          reply[1].text,
          reply[2].text,
          reply[3].text};
}

Call logCall(const Keys& keys, Revision after, std::size_t count) {
  return callOf(kLog, {keys.meta(), keys.log()},
                {std::to_string(after), std::to_string(count), std::to_string(kBytesPerPage)});
}

LogPage logPage(const Reply& reply) {
  LogPage page{reply[0].text, reply[1].unsignedNumber(), {}};
  for (const Reply& each : reply[2].list)
    page.entries.push_back({revisionIn(each[0].text), each[1][1].text, each[1][3].text});
  return page;
}

Call claimsCall(const Keys& keys) {
  return callOf(kClaims, {keys.meta()}, {keys.claim(""), std::to_string(kMostClaims)});
}

ClaimList claimsOf(const Reply& reply) {
  constexpr std::size_t kParts = 5;  // of a claim: the mount, then as in claim()
  ClaimList all{reply[0].text, {}};
  const std::vector<Reply>& parts = reply[1].list;
  for (std::size_t i = 0; i + kParts <= parts.size(); i += kParts)
    if (isMount(parts[i].text))
      all.claims[parts[i].text] = {all.generation, parts[i + 1].text, parts[i + 2].unsignedNumber(),
                                   parts[i + 3].text, parts[i + 4].text};
  return all;
}

Call takeCall(const Keys& keys, std::string_view mount, const Claim& seen, std::string_view uuid,
              std::string_view who, std::string_view newGeneration) {
  return callOf(kTake, {keys.meta(), keys.claim(mount)},
                {std::string(mount), seen.generation, seen.token, std::to_string(seen.beat),
                 std::string(uuid), std::string(who), std::string(newGeneration)});
}

Call beatCall(const Keys& keys, std::string_view mount, const Token& token, std::string_view synced) {
  return callOf(kBeat, {keys.meta(), keys.claim(mount)}, {std::string(mount), token, std::string(synced)});
}

Call releaseCall(const Keys& keys, std::string_view mount, const Token& token) {
  return callOf(kRelease, {keys.meta(), keys.claim(mount)}, {std::string(mount), token});
}

Call sweepCall(const Keys& keys, std::string_view mount, const Claim& seen, std::string_view uuid,
               std::uint32_t log) {
  const Place place = placeOf(Path(mount));
  return callOf(
      kSweep,
      {keys.meta(), keys.claim(mount), keys.log(), keys.directories(), keys.directory(place.directory)},
      {std::string(mount), seen.generation, seen.token, std::to_string(seen.beat), keys.space(),
       place.directory, place.name, std::string(uuid) + ":0", deltaText({Change::del(Path(mount))}),
       std::to_string(log)});
}

Claim claim(const Reply& reply) {
  return {reply[0].text, reply[1].text, reply[2].unsignedNumber(), reply[3].text, reply[4].text};
}

bool isOwnedBy(const Claim& claim, std::string_view uuid) {
  return claim.token.ends_with(' ' + std::string(uuid)) && !uuid.empty();
}

}  // namespace Host::Redis
