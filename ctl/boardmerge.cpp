#include "ctl/boardmerge.h"

#include <algorithm>

#include "ctl/appliance.h"
#include "ctl/text.h"

namespace Ctl {

namespace {

constexpr char kBroughtType[] = "Board::Brought";
constexpr char kDirType[] = "Zel::Dir";

std::string memoryOf(const std::string& file) {
  return std::string(kBoardMemory) + '/' + escapeComponent(file);
}
std::string memoryOf(const std::string& file, const std::string& path) {
  return memoryOf(file) + '/' + escapeComponent(path);
}

BoardEntity entityFrom(const Json& found) { return {found.at("type"), found.at("attributes")}; }

Json valuesFrom(const Json& brought) {
  Json values = Json::parse(brought.at("attributes").value("values", "{}"), nullptr, false);
  if (values.is_object()) return values;
  throw Refusal(brought.at("path").get<std::string>() + " values: not the text of a JSON object; delete " +
                kBoardMemory +
                ", and every row that a board file brought counts as set by people unless it has the file's "
                "value");
}

// A collection's owner or a directory: it stays, empty, when its file is gone, as agents mount it.
bool isDirectory(const BoardEntity& entity) {
  return entity.type == kDirType || entity.type == kLedDirType || entity.type == kMapDirType;
}

const Json* find(const Json& attributes, const std::string& name) {
  const auto found = attributes.find(name);
  return found == attributes.end() ? nullptr : &*found;
}

bool same(const Json* a, const Json* b) { return a && b ? *a == *b : a == b; }

Json putOf(const std::string& path, const std::string& type, Json attributes) {
  return {{"op", "put"}, {"path", path}, {"type", type}, {"attributes", std::move(attributes)}};
}

}  // namespace

BoardEntities stateFrom(const Json& entities) {
  BoardEntities state;
  for (const Json& found : entities)
    if (const std::string path = found.at("path"); !isUnder(path, kBoardMemory))
      state.emplace_hint(state.end(), path, entityFrom(found));
  return state;
}

BoardVersions broughtFrom(const Json& entities) {
  BoardVersions brought;
  for (const Json& found : entities) {
    const std::string path = found.at("path"), above = parentPath(path);
    if (above == kBoardMemory) brought[lastName(path)];
    if (parentPath(above) == kBoardMemory)
      brought[lastName(above)][lastName(path)] = {found.at("attributes").value("entityType", ""),
                                                  valuesFrom(found)};
  }
  return brought;
}

namespace {

BoardRow rowOf(const std::string& path, const std::string& attribute, const Json& before, const Json* now) {
  using enum BoardRow::State;
  return {path, attribute, !now ? removed : *now == before ? brought : changed, before, now ? *now : Json()};
}

}  // namespace

std::vector<BoardRow> rowsOf(const BoardEntities& brought, const BoardEntities& state) {
  std::vector<BoardRow> rows;
  for (const auto& [path, entity] : brought) {
    const auto now = state.find(path);
    const bool isThere = now != state.end();
    const Json type = isThere ? Json(now->second.type) : Json();
    if (entity.attributes.empty() || (isThere && type != entity.type))
      rows.push_back(rowOf(path, "", entity.type, isThere ? &type : nullptr));
    for (const auto& [attribute, value] : entity.attributes.items())
      rows.push_back(
          rowOf(path, attribute, value, isThere ? find(now->second.attributes, attribute) : nullptr));
  }
  return rows;
}

BoardMerge::BoardMerge(const BoardVersions& brought, const BoardVersions& wanted, const BoardEntities& state)
    : state_(state) {
  for (const auto& [file, entities] : brought) {
    Outcome& outcome = outcomes_[file];
    for (const auto& [path, entity] : entities) places_[path] = {&entity, nullptr, &outcome};
  }
  for (const auto& [file, entities] : wanted) {
    Outcome& outcome = outcomes_[file];
    for (const auto& [path, entity] : entities) {
      Place& at = places_[path];
      at.wanted = &entity;
      at.outcome = &outcome;
    }
  }
  for (const auto& [path, at] : places_) merge(path, at);
  for (auto each = places_.rbegin(); each != places_.rend(); ++each)
    if (!each->second.wanted) removeEmpty(each->first);
  for (const auto& [path, after] : after_) {
    const auto now = state_.find(path);
    note(path, now == state_.end() ? nullptr : &now->second, after);
  }
  remember(brought, wanted);
}

void BoardMerge::merge(const std::string& path, const Place& at) {
  const auto now = state_.find(path);
  if (now != state_.end())
    after_[path] = merged(path, at, now->second);
  else if (at.wanted && (!at.brought || isDirectory(*at.wanted)))
    after_[path] = *at.wanted;
  else if (at.wanted)
    at.outcome->kept.push_back(path);
}

std::optional<BoardEntity> BoardMerge::merged(const std::string& path, const Place& at,
                                              const BoardEntity& now) const {
  static const Json kNone = Json::object();
  if (at.wanted && at.wanted->type != now.type) {
    const bool isFiles = at.brought && *at.brought == now && !hasUnder(path);
    if (!isFiles) at.outcome->kept.push_back(path);
    return isFiles ? *at.wanted : now;
  }
  const bool isBrought = at.brought && at.brought->type == now.type;
  const Json& before = isBrought ? at.brought->attributes : kNone;
  const Json& wanted = at.wanted ? at.wanted->attributes : kNone;
  Json names = before;
  names.update(wanted);
  BoardEntity after = now;
  for (const auto& [name, value] : names.items()) {
    const Json* found = find(now.attributes, name);
    const Json* given = find(wanted, name);
    const bool isFiles = same(found, find(before, name));
    if (isFiles && given) after.attributes[name] = *given;
    if (isFiles && !given) after.attributes.erase(name);
    if (!isFiles && given && !same(found, given)) at.outcome->kept.push_back(path + ' ' + name);
  }
  return after;
}

bool BoardMerge::hasUnder(const std::string& path) const {
  const std::string start = path + '/';
  const auto anyIn = [&](const auto& all, const auto& isThere) {
    for (auto each = all.lower_bound(start); each != all.end() && each->first.starts_with(start); ++each)
      if (isThere(*each)) return true;
    return false;
  };
  const auto stays = [&](const auto& entry) {
    const auto after = after_.find(entry.first);
    return after == after_.end() || after->second;
  };
  return anyIn(state_, stays) || anyIn(after_, [](const auto& entry) { return entry.second.has_value(); });
}

// Removes an entity that its file no longer has, unless it has something of people's.
void BoardMerge::removeEmpty(const std::string& path) {
  const auto after = after_.find(path);
  if (after == after_.end() || !after->second || isDirectory(*after->second)) return;
  if (places_.at(path).brought->type == after->second->type && after->second->attributes.empty() &&
      !hasUnder(path))
    after->second.reset();
}

void BoardMerge::note(const std::string& path, const BoardEntity* now,
                      const std::optional<BoardEntity>& after) {
  Outcome& outcome = *places_.at(path).outcome;
  if (!now) return outcome.added.push_back(path);
  if (!after) return outcome.removed.push_back(path);
  if (now->type != after->type) return outcome.changed.push_back(path);
  for (const auto& [name, value] : after->attributes.items())
    if (!same(&value, find(now->attributes, name))) outcome.changed.push_back(path + ' ' + name);
  for (const auto& [name, value] : now->attributes.items())
    if (!after->attributes.contains(name)) outcome.removed.push_back(path + ' ' + name);
}

void BoardMerge::remember(const BoardVersions& brought, const BoardVersions& wanted) {
  static const BoardEntities kNone;
  for (const auto& [file, entities] : brought) {
    const auto now = wanted.find(file);
    if (now == wanted.end()) memory_.push_back({{"op", "del"}, {"path", memoryOf(file)}});
    for (const auto& [path, entity] : entities)
      if (now != wanted.end() && !now->second.contains(path))
        memory_.push_back({{"op", "del"}, {"path", memoryOf(file, path)}});
  }
  for (const auto& [file, entities] : wanted) {
    const auto found = brought.find(file);
    if (found == brought.end()) memory_.push_back(putOf(memoryOf(file), kDirType, Json::object()));
    const BoardEntities& before = found == brought.end() ? kNone : found->second;
    for (const auto& [path, entity] : entities)
      if (const auto last = before.find(path); last == before.end() || last->second != entity)
        memory_.push_back(putOf(memoryOf(file, path), kBroughtType,
                                {{"entityType", entity.type}, {"values", entity.attributes.dump()}}));
  }
}

namespace {

// Whether the entity must be made again: another type, or a mapping with other pins, which a driven LED would
// ignore.
bool mustBeMadeAgain(const BoardEntity& now, const BoardEntity& after) {
  if (now.type != after.type) return true;
  return now.type == kMapType && std::ranges::any_of(kColours, [&](const Colour& colour) {
           return namesIn(now.attributes, colour.mappedPins) != namesIn(after.attributes, colour.mappedPins);
         });
}

// The attributes that a put must set.
Json difference(const Json& now, const Json& after) {
  Json set = Json::object();
  for (const auto& [name, value] : after.items())
    if (!same(&value, find(now, name))) set[name] = value;
  return set;
}

// Makes the directories of the LED model, whose types no path tells, above what is put.
void putDirectories(Json& changes, const Json& puts) {
  constexpr std::pair<const char*, const char*> kDirectories[] = {
      {Paths::kLeds, kLedDirType}, {Paths::kInitialLeds, kLedDirType}, {Paths::kMappings, kMapDirType}};
  for (const auto& [path, type] : kDirectories)
    if (std::ranges::any_of(puts, [&path = path](const Json& put) {
          return isUnder(put.at("path").get<std::string>(), path);
        }))
      changes.push_back(putOf(path, type, Json::object()));
}

}  // namespace

Json BoardMerge::changes() const {
  Json dels = Json::array(), puts = Json::array(), unsets = Json::array();
  for (auto each = after_.rbegin(); each != after_.rend(); ++each) {
    const auto now = state_.find(each->first);
    if (now != state_.end() && (!each->second || mustBeMadeAgain(now->second, *each->second)))
      dels.push_back({{"op", "del"}, {"path", each->first}});
  }
  for (const auto& [path, after] : after_) {
    if (!after) continue;
    const auto now = state_.find(path);
    const bool isNew = now == state_.end() || mustBeMadeAgain(now->second, *after);
    const Json set = isNew ? after->attributes : difference(now->second.attributes, after->attributes);
    if (isNew || !set.empty()) puts.push_back(putOf(path, after->type, set));
    if (isNew) continue;
    for (const auto& [name, value] : now->second.attributes.items())
      if (!after->attributes.contains(name))
        unsets.push_back({{"op", "unset"}, {"path", path}, {"attribute", name}});
  }
  Json all = std::move(dels);
  putDirectories(all, puts);
  for (const Json* part : {&std::as_const(puts), &std::as_const(unsets), &memory_})
    all.insert(all.end(), part->begin(), part->end());
  return all;
}

}  // namespace Ctl
