#include "host/store/redis/scripts.h"

#include <algorithm>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "host/rpc/json.h"
#include "host/store/redis/claimtexts.h"
#include "host/store/redis/luatexts.h"
#include "platform/zel/core/assert.h"
#include "platform/zel/core/exception.h"

namespace Host::Redis {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Durability;
using Statedb::Path;
using Statedb::Row;

namespace {

constexpr Script kWrite{"", kWriteScript, false};
constexpr Script kState{"", kStateScript, true};
constexpr Script kFence{kFenceScript, kStateScript, false};
constexpr Script kLog{"", kLogScript, true};
constexpr Script kClaims{"", kClaimsScript, true};
constexpr Script kTake{kClaimAnswer, kTakeScript, false};
constexpr Script kBeat{kClaimAnswer, kBeatScript, false};
constexpr Script kRelease{kClaimAnswer, kReleaseScript, false};
constexpr Script kSweep{kClaimAnswer, kSweepScript, false};

constexpr std::size_t kHashWord = 1;

// A writer cuts off what is too old in the log with one of so many short writes, and with all others.
constexpr Sequence kWritesPerCut = 64;
constexpr std::size_t kShortDelta = 4096;

Call callOf(const Script& script, const std::vector<std::string>& keys, std::vector<std::string> arguments) {
  Call call{&script, {script.readOnly ? "EVALSHA_RO" : "EVALSHA", "", std::to_string(keys.size())}};
  call.words.insert(call.words.end(), keys.begin(), keys.end());
  std::ranges::move(arguments, std::back_inserter(call.words));
  return call;
}

std::string spaceLetter(const Keys& keys) { return keys.space().substr(keys.space().size() - 1); }

// The entities that a batch meets and makes, step by step.
class Types {
 public:
  Types(const Known& known, const std::vector<Path>& inTheWay) : known_(known), inTheWay_(inTheWay) {}

  // Whether an entity of another type stands where one of `type` is put.
  bool isOther(Path path, Zel::Name type) const {
    if (const auto found = made_.find(path); found != made_.end()) return found->second != type;
    for (Path above = path; !removed_.contains(above); above = above.parent())
      if (above.empty()) return isOtherBefore(path, type);
    return false;
  }
  void put(Path path, Zel::Name type) { made_[path] = type; }
  void remove(Path path) {
    std::erase_if(made_, [&](const auto& each) { return each.first.isUnder(path); });
    removed_.insert(path);
  }

 private:
  bool isOtherBefore(Path path, Zel::Name type) const {
    const auto isOther = [&](const Statedb::Record* record) { return record && record->type != type; };
    return isOther(known_.stored.find(path)) || isOther(known_.volatile_.find(path)) ||
           std::ranges::find(inTheWay_, path) != inTheWay_.end();
  }

  const Known& known_;
  const std::vector<Path>& inTheWay_;
  std::unordered_map<Path, Zel::Name> made_{};
  std::unordered_set<Path> removed_{};
};

// The steps of a batch as the script reads them. Puts that follow each other in one directory are one step.
class StepWriter {
 public:
  StepWriter(const Keys& keys, const Rows& known) : keys_(keys), known_(known) {}

  void step(const Change& change) {
    if (change.kind == Change::Kind::put) return put(change.row);
    const bool isUnset = change.kind == Change::Kind::unset;
    remove(isUnset ? "u" : "d", change.row.path);
    if (isUnset) words_.push_back(change.row.attribute.stdString());
  }
  void replace(Path path) { remove("r", path); }

  // After the last step.
  void end() {
    isValuesOnly_ = words_.empty() && !isNewShape_ && !values_.empty();
    words_.empty() && isAlike() ? putAlike() : endPuts();
  }

  // Whether it is one step, and changes nothing but values.
  bool isValuesOnly() const { return isValuesOnly_; }
  std::vector<std::string>& directories() { return directories_; }
  std::vector<std::string>& words() { return words_; }

 private:
  struct Entity {
    std::string name;
    std::string text;  // as the server should have it afterwards
    std::size_t values = 0;
  };
  struct Value {
    std::size_t entity;
    Zel::Name attribute;
    std::string json;
  };

  // Entities, and values: Lua passes some thousand words to a function at most.
  static constexpr std::size_t kMostOfStep = 1000;

  static Path directoryOf(Path path) { return path.empty() ? path : path.parent(); }

  void remove(const char* kind, Path path) {
    endPuts();
    words_.insert(words_.end(), {kind, index(directoryOf(path)), Redis::placeOf(path).name});
  }

  void put(const Row& row) {
    if (const Path directory = directoryOf(row.path); directory != directory_ || row.path.empty()) {
      endPuts();
      directory_ = directory;
    }
    if (std::max(entities_.size(), values_.size()) == kMostOfStep) endPuts();
    const std::size_t place = placeOf(row);
    Entity& entity = entities_[place];
    if (row.attribute.empty()) return;
    if (!hasAttribute(entity.text, row.attribute.view())) {
      entity.text.append("\t").append(row.attribute.view());
      isNewShape_ = true;
    }
    ++entity.values;
    values_.push_back({place, row.attribute, jsonText(row.value)});
  }
  std::size_t placeOf(const Row& row) {
    const auto [place, isNew] = places_.try_emplace(row.path, entities_.size());
    if (!isNew) return place->second;
    const Statedb::Record* record = known_.find(row.path);
    const bool isKnown = record && record->type == row.type;
    isNewShape_ |= !isKnown;
    entities_.push_back({row.path.empty() ? "" : row.path.component().stdString(),
                         isKnown ? entityText(*record) : row.type.stdString()});
    return place->second;
  }
  // Whether there are puts, a value of each entity at least, and all entities have the same text.
  bool isAlike() const {
    const auto isSame = [&](const Entity& each) { return each.values > 0 && each.text == entities_[0].text; };
    return !entities_.empty() && std::ranges::all_of(entities_, isSame);
  }
  void putAlike() {
    index(directory_);
    words_.insert(words_.end(), {"e", std::move(entities_[0].text)});
    putValues();
  }
  // Merges the puts since the last other step into one.
  void endPuts() {
    if (entities_.empty()) return;
    words_.insert(words_.end(),
                  {"p", index(directory_), std::to_string(entities_.size()), std::to_string(values_.size())});
    for (const Entity& each : entities_) words_.push_back(each.name);
    for (Entity& each : entities_) words_.push_back(std::move(each.text));
    putValues();
    entities_.clear();
    places_.clear();
    values_.clear();
  }
  void putValues() {
    for (Value& each : values_) {
      words_.emplace_back(entities_[each.entity].name).append("/").append(each.attribute.view());
      words_.push_back(std::move(each.json));
    }
  }
  static bool hasAttribute(std::string_view text, std::string_view attribute) {
    for (std::size_t tab; (tab = text.rfind('\t')) != std::string_view::npos; text = text.substr(0, tab))
      if (text.substr(tab + 1) == attribute) return true;
    return false;
  }

  // The place of a directory's key among the keys, as Lua counts.
  std::string index(Path directory) {
    constexpr std::size_t kBefore = 2;
    const auto [place, isNew] = indices_.try_emplace(directory, directories_.size());
    if (isNew) directories_.push_back(keys_.directory(directory.text()));
    return std::to_string(kBefore + place->second + 1);
  }

  const Keys& keys_;
  const Rows& known_;
  std::vector<std::string> directories_{};
  std::unordered_map<Path, std::size_t> indices_{};
  std::vector<std::string> words_{};
  bool isNewShape_ = false, isValuesOnly_ = false;
  // Of the puts that are not yet a step.
  Path directory_{};
  std::vector<Entity> entities_{};
  std::unordered_map<Path, std::size_t> places_{};
  std::vector<Value> values_{};
};

// Enough for a limit: what the row takes in the delta and the hash.
std::size_t bytesOf(const Change& change) {
  const Row& row = change.row;
  return row.path.text().size() + row.attribute.view().size() + jsonText(row.value).size();
}

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
  const Call& call = shared->call;
  std::vector<std::string_view> words(call.words.begin(), call.words.end());
  words[kHashWord] = hashes_[call.script];
  connection_.request(words, [this, shared](const Reply& reply) {
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

std::vector<Changes> partsOf(const Changes& changes) {
  std::vector<Changes> parts;
  std::size_t bytes = 0;
  for (const Change& change : changes) {
    const std::size_t its = bytesOf(change);
    if (parts.empty() || parts.back().size() == kRowsPerWrite || bytes + its > kBytesPerWrite) {
      parts.emplace_back();
      bytes = 0;
    }
    bytes += its;
    parts.back().push_back(change);
  }
  return parts;
}

Call writeCall(std::string_view prefix, Durability space, const Changes& changes, const WriteOptions& options,
               const Known& known) {
  ZEL_REQUIRE(changes.size() <= kMostRows, "a write of " << changes.size() << " rows");
  const Keys keys(prefix, space);
  StepWriter steps(keys, space == Durability::stored ? known.stored : known.volatile_);
  Types types(known, options.inTheWay);
  Changes logged;
  for (const Change& change : changes) {
    const Path path = change.row.path;
    if (change.kind == Change::Kind::put && types.isOther(path, change.row.type)) {
      steps.replace(path);
      types.remove(path);
      logged.push_back(Change::del(path));
    }
    steps.step(change);
    logged.push_back(change);
    if (change.kind == Change::Kind::put) types.put(path, change.row.type);
    if (change.kind == Change::Kind::del) types.remove(path);
  }
  steps.end();

  std::vector<std::string> names{keys.meta(), keys.log()};
  std::ranges::move(steps.directories(), std::back_inserter(names));
  std::string delta;
  if (space == Durability::volatile_ && !steps.isValuesOnly())
    for (const Claimed& each : options.claims) delta += mountLine(each.mount);
  delta += deltaText(logged);
  const bool isShort = steps.isValuesOnly() && delta.size() <= kShortDelta;
  const bool isCut = !isShort || options.sequence % kWritesPerCut == 1;
  std::vector<std::string> arguments{
      options.generation.empty() ? '+' + options.newGeneration : options.generation,
      "fence:" + options.uuid,
      options.uuid + ':' + std::to_string(options.sequence),
      std::move(delta),
      isCut ? std::to_string(options.log) : "",
      keys.space(),
      std::to_string(steps.isValuesOnly() ? known.revision : 0),
      std::to_string(options.claims.size())};
  for (const Claimed& each : options.claims)
    arguments.insert(arguments.end(), {"claim:" + each.mount, each.token});
  std::ranges::move(steps.words(), std::back_inserter(arguments));
  return callOf(kWrite, names, std::move(arguments));
}

Written written(const Reply& reply) { return {reply[0].unsignedNumber(), reply[1].text, reply[2].text}; }

Call stateCall(const Keys& keys, std::string_view uuid, Sequence fence) {
  const std::vector<std::string> names{keys.meta(), keys.log()};
  if (fence == 0) return callOf(kState, names, {});
  return callOf(kFence, names, {std::string(uuid), std::to_string(fence), spaceLetter(keys)});
}

ServerState serverState(const Reply& reply) {
  return {{{reply[2].text, reply[0].text}, reply[1].unsignedNumber()},
          reply[3].text,
          reply[4].text,
          reply[5].text};
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
