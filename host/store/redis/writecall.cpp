// The call that writes a batch: its steps as the script reads them, and its delta.
#include <algorithm>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "host/store/redis/luatexts.h"
#include "host/store/redis/packed.h"
#include "host/store/redis/scripts.h"
#include "platform/zel/core/assert.h"

namespace Host::Redis {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Durability;
using Statedb::Path;
using Statedb::Record;
using Statedb::Row;
using Zel::Name;
using Zel::Value;

namespace {

constexpr Script kWrite{"", kWriteScript, false};

// A writer cuts off what is too old in the log with one of so many short writes, and with all others.
constexpr Sequence kWritesPerCut = 64;
constexpr std::size_t kShortDelta = 4096;

Path directoryOf(Path path) { return path.empty() ? path : path.parent(); }

// The entities that a batch meets and makes, step by step.
class Types {
 public:
  Types(const Known& known, Durability space, const std::vector<Path>& inTheWay)
      : first_(space == Durability::cover ? known.covers : known.stored),
        second_(space == Durability::cover ? known.covers : known.volatile_),
        inTheWay_(inTheWay) {}

  // Whether an entity of another type stands where one of `type` is put.
  bool isOther(Path path, Name type) const {
    if (made_.empty() && removed_.empty()) return isOtherBefore(path, type);
    if (const auto found = made_.find(path); found != made_.end()) return found->second != type;
    for (Path above = path; !removed_.contains(above); above = above.parent())
      if (above.empty()) return isOtherBefore(path, type);
    return false;
  }
  // Most puts are into entities that are known, which needs no note.
  void put(Path path, Name type) {
    const Record* record = first_.find(path);
    if (!record) record = second_.find(path);
    if (!removed_.empty() || !record || record->type != type) made_[path] = type;
  }
  void remove(Path path) {
    std::erase_if(made_, [&](const auto& each) { return each.first.isUnder(path); });
    removed_.insert(path);
  }

 private:
  bool isOtherBefore(Path path, Name type) const {
    const auto isOther = [&](const Record* record) { return record && record->type != type; };
    return isOther(first_.find(path)) || isOther(second_.find(path)) ||
           std::ranges::find(inTheWay_, path) != inTheWay_.end();
  }

  const Rows &first_, &second_;  // the spaces whose entities stand in the way
  const std::vector<Path>& inTheWay_;
  std::unordered_map<Path, Name> made_{};
  std::unordered_set<Path> removed_{};
};

// An entity of a step. What the server should have for it afterwards: what is known, and what is added.
struct Entity {
  Path path;
  Name type;
  const Record* known;  // null where the writer knows none of that type
  std::vector<Name> added{};
  std::size_t values = 0;

  std::string_view name() const { return path.empty() ? std::string_view() : path.component().view(); }
  bool has(Name attribute) const {
    return (known && known->find(attribute)) || std::ranges::find(added, attribute) != added.end();
  }
  std::string text() const {
    std::string text = known ? entityText(*known) : type.stdString();
    for (const Name& each : added) text.append("\t").append(each.view());
    return text;
  }
};

// Whether both have the same text.
bool isAlike(const Entity& a, const Entity& b) {
  if (!a.known || !b.known) return a.text() == b.text();
  return a.known->type == b.known->type && a.added == b.added &&
         std::ranges::equal(a.known->attributes, b.known->attributes, {}, &Statedb::Attribute::name,
                            &Statedb::Attribute::name);
}

// The steps of a batch as the script reads them. Puts that follow each other in one directory are one step.
class StepWriter {
 public:
  StepWriter(const Keys& keys, const Rows& known, std::size_t steps)
      : keys_(keys), known_(known), delta_(steps) {
    values_.reserve(std::min(steps, kMostOfStep));
    entities_.reserve(std::min(steps, kMostOfStep));
  }

  void step(const Change& change) {
    const DeltaWriter::Part json = delta_.step(change);
    if (change.kind == Change::Kind::put) return put(change.row, json);
    const bool isUnset = change.kind == Change::Kind::unset;
    remove(isUnset ? "u" : "d", change.row.path, isUnset ? 4 : 3);
    if (isUnset) packed_.add(change.row.attribute.view());
  }
  void replace(Path path) {
    isExact_ = false;
    delta_.step(Change::del(path));
    remove("r", path, 3);
  }

  // After the last step.
  void end() {
    isValuesOnly_ = steps_ == 0 && !isNewShape_ && !values_.empty();
    steps_ == 0 && areAlike() ? putAlike() : endPuts();
  }

  // Whether it is one step, and changes nothing but values.
  bool isValuesOnly() const { return isValuesOnly_; }
  // Whether the delta has the batch, with the same values when they are read again.
  bool isExact() const { return isExact_; }
  const Words& directories() const { return directories_; }
  const Packed& packed() const { return packed_; }
  std::size_t steps() const { return steps_; }
  std::string& delta() { return delta_.text(); }

 private:
  struct PutValue {
    std::size_t entity;
    Name attribute;
    DeltaWriter::Part json;
  };

  // Entities, and values: Lua passes some thousand words to a function at most.
  static constexpr std::size_t kMostOfStep = 1000;

  void begin(const char* kind, std::size_t parts) {
    packed_.array(parts);
    packed_.add(kind);
    ++steps_;
  }
  void remove(const char* kind, Path path, std::size_t parts) {
    endPuts();
    begin(kind, parts);
    packed_.add(index(directoryOf(path)));
    packed_.add(placeOf(path).name);
  }

  void put(const Row& row, DeltaWriter::Part json) {
    if (const Path directory = directoryOf(row.path); directory != directory_ || row.path.empty()) {
      endPuts();
      directory_ = directory;
    }
    if (std::max(entities_.size(), values_.size()) == kMostOfStep) endPuts();
    const std::size_t place = entityOf(row);
    if (row.attribute.empty()) return;
    Entity& entity = entities_[place];
    if (!entity.has(row.attribute)) {
      entity.added.push_back(row.attribute);
      isNewShape_ = true;
    }
    ++entity.values;
    values_.push_back({place, row.attribute, json});
    isExact_ = isExact_ && (row.value.isNull() || row.value.as<bool>() || row.value.as<std::int64_t>());
  }
  // Most batches are in the order of the paths, where none comes twice but one after the other.
  std::size_t entityOf(const Row& row) {
    if (!entities_.empty() && row.path <= last_) {
      const auto found = std::ranges::find(entities_.rbegin(), entities_.rend(), row.path, &Entity::path);
      if (found != entities_.rend()) return static_cast<std::size_t>(entities_.rend() - found) - 1;
    }
    last_ = entities_.empty() ? row.path : std::max(last_, row.path);
    const Record* record = known_.find(row.path);
    const bool isKnown = record && record->type == row.type;
    isNewShape_ |= !isKnown;
    entities_.push_back({row.path, row.type, isKnown ? record : nullptr});
    return entities_.size() - 1;
  }
  // Whether there are puts, a value of each entity at least, and all entities have the same text.
  bool areAlike() const {
    const auto isSame = [&](const Entity& each) { return each.values > 0 && isAlike(each, entities_[0]); };
    return !entities_.empty() && std::ranges::all_of(entities_, isSame);
  }
  void putAlike() {
    index(directory_);
    begin("e", 3);
    packed_.add(entities_[0].text());
    putValues();
  }
  // Merges the puts since the last other step into one.
  void endPuts() {
    if (entities_.empty()) return;
    begin("p", 5);
    packed_.add(index(directory_));
    packed_.array(entities_.size());
    for (const Entity& each : entities_) packed_.add(each.name());
    packed_.array(entities_.size());
    for (const Entity& each : entities_) packed_.add(each.text());
    putValues();
    entities_.clear();
    values_.clear();
  }
  void putValues() {
    packed_.array(2 * values_.size());
    for (const PutValue& each : values_) {
      packed_.addJoined({entities_[each.entity].name(), "/", each.attribute.view()});
      packed_.add(each.json.in(delta_.text()));
    }
  }

  // The place of a directory's key among the keys, as Lua counts.
  std::uint64_t index(Path directory) {
    constexpr std::size_t kBefore = 2;
    const auto [place, isNew] = indices_.try_emplace(directory, indices_.size());
    if (isNew) directories_.add(keys_.directory(directory.text()));
    return kBefore + place->second + 1;
  }

  const Keys& keys_;
  const Rows& known_;
  DeltaWriter delta_;
  Words directories_{};
  Packed packed_{};
  std::size_t steps_ = 0;
  std::unordered_map<Path, std::size_t> indices_{};  // of directories
  bool isNewShape_ = false, isValuesOnly_ = false, isExact_ = true;
  // Of the puts that are not yet a step.
  Path directory_{}, last_{};
  std::vector<Entity> entities_{};
  std::vector<PutValue> values_{};
};

void writeSteps(const Changes& changes, Types types, StepWriter& steps) {
  for (const Change& change : changes) {
    const auto& [path, type, attribute, value] = change.row;
    const bool isPut = change.kind == Change::Kind::put;
    if (isPut && types.isOther(path, type)) {
      steps.replace(path);
      types.remove(path);
    }
    steps.step(change);
    if (isPut) types.put(path, type);
    if (change.kind == Change::Kind::del) types.remove(path);
  }
  steps.end();
}

// Enough for a limit: about what a value takes as JSON.
struct Size {
  std::size_t operator()(const std::string& text) const { return text.size() + 2; }
  std::size_t operator()(const Value::List& list) const {
    std::size_t size = 2;
    for (const Value& each : list) size += each.visit(*this) + 1;
    return size;
  }
  std::size_t operator()(const Value::Fields& fields) const {
    std::size_t size = 2;
    for (const auto& [name, each] : fields) size += name.size() + each.visit(*this) + 4;
    return size;
  }
  template <class Other>
  std::size_t operator()(const Other&) const {
    return 24;
  }
};

// The bytes that the row takes in the delta and the hash.
std::size_t bytesOf(const Row& row) {
  const std::size_t name = row.path.empty() ? 0 : row.path.component().view().size();
  return name + row.attribute.view().size() + row.value.visit(Size());
}

}  // namespace

std::vector<Changes> partsOf(Changes changes) {
  std::vector<Changes> parts;
  std::size_t bytes = 0;
  for (Change& change : changes) {
    const std::size_t its = bytesOf(change.row);
    if (parts.empty() || parts.back().size() == kRowsPerWrite || bytes + its > kBytesPerWrite) {
      parts.emplace_back();
      bytes = 0;
    }
    bytes += its;
    parts.back().push_back(std::move(change));
  }
  return parts;
}

Call writeCall(std::string_view prefix, Durability space, const Changes& changes, const WriteOptions& options,
               const Known& known) {
  ZEL_REQUIRE(changes.size() <= kMostRows, "a write of " << changes.size() << " rows");
  const Keys keys(prefix, space);
  StepWriter steps(keys, known.of(space), changes.size());
  writeSteps(changes, Types(known, space, options.inTheWay), steps);
  std::string delta;
  if (space != Durability::stored && !steps.isValuesOnly())
    for (const Claimed& each : options.claims) delta += mountLine(each.mount);
  delta += steps.delta();
  const bool isShort = steps.isValuesOnly() && delta.size() <= kShortDelta;
  const bool isCut = !isShort || options.sequence % kWritesPerCut == 1;

  Packed batch;
  batch.array(8);
  const bool isNew = options.generation.empty();
  batch.addJoined({isNew ? "+" : "", isNew ? options.newGeneration : options.generation});
  batch.addJoined({"fence:", options.uuid});
  batch.addJoined({options.uuid, ":", std::to_string(options.sequence)});
  batch.add(isCut ? options.log : 0);
  batch.add(keys.space());
  batch.add(steps.isValuesOnly() ? known.revision : 0);
  batch.array(2 * options.claims.size());
  for (const Claimed& each : options.claims) {
    batch.addJoined({"claim:", each.mount});
    batch.add(each.token);
  }
  batch.array(steps.steps());
  batch.append(steps.packed());

  Call call{.script = &kWrite};
  call.words.add(2 + steps.directories().count());
  call.words.add(keys.meta());
  call.words.add(keys.log());
  call.words.add(steps.directories());
  call.words.add(batch.bytes());
  call.words.add(delta);
  if (steps.isExact()) call.delta = std::move(delta);
  return call;
}

}  // namespace Host::Redis
