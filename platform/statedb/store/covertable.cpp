#include "platform/statedb/store/covertable.h"

#include <algorithm>
#include <string>

#include "platform/statedb/store/entrytable.h"
#include "platform/statedb/store/store.h"
#include "platform/zel/core/assert.h"

namespace Statedb {

namespace {

void setValue(Record& record, const Attribute& attribute) {
  if (Attribute* known = findIn(record.attributes, attribute.name))
    known->value = attribute.value;
  else
    record.attributes.push_back(attribute);
}

Record mergedOf(const Record& base, const Record& cover) {
  Record record = base;
  for (const Attribute& each : cover.attributes) setValue(record, each);
  return record;
}

std::size_t countOf(const std::optional<Record>& cover) { return cover ? cover->attributes.size() : 0; }

}  // namespace

const Record* CoverTable::at(const Path& path) const {
  const auto found = covers_.find(path);
  return found == covers_.end() ? nullptr : &found->second;
}

const Record* CoverTable::find(const Path& path, const Zel::Name& type) const {
  const Record* cover = at(path);
  return cover && cover->type == type ? cover : nullptr;
}

Records CoverTable::under(Path path) const {
  Records records;
  for (const auto& [at, cover] : covers_)
    if (at.isUnder(path)) records.push_back(&cover);
  return records;
}

// An equal value that a caller was given before stays as it is.
const Record& CoverTable::over(const Record& base) const {
  const Record* cover = find(base.path, base.type);
  if (!cover) return base;
  Record record = mergedOf(base, *cover);
  Record& kept = merged_[base.path];
  if (kept != record) kept = std::move(record);
  return kept;
}

void CoverTable::note(Path path) {
  const auto found = covers_.find(path);
  undo_.emplace_back(path, found == covers_.end() ? std::nullopt : std::optional(found->second));
}

void CoverTable::replace(Path path, std::optional<Record> cover) {
  const auto found = covers_.find(path);
  if (found != covers_.end()) count_ -= found->second.attributes.size();
  count_ += countOf(cover);
  if (cover) {
    covers_[path] = std::move(*cover);
  } else {
    covers_.erase(path);
    merged_.erase(path);
  }
}

void CoverTable::put(const Row& row) {
  ZEL_REQUIRE(!row.attribute.empty(), row.path);
  const Record* before = find(row.path, row.type);
  Record cover = before ? *before : Record{row.path, row.type, {}};
  setValue(cover, {row.attribute, row.value, Durability::cover});
  if (before && *before == cover) return;
  const auto found = covers_.find(row.path);
  const std::size_t replaced = found == covers_.end() ? 0 : found->second.attributes.size();
  if (count_ - replaced + cover.attributes.size() > kMost)
    throw RefusedError("'" + row.path.text() + "' " + row.attribute.stdString() + ": there are " +
                       std::to_string(kMost) + " covers already, the most that a store takes");
  note(row.path);
  replace(row.path, std::move(cover));
}

void CoverTable::remove(Path path, Zel::Name attribute) {
  const auto found = covers_.find(path);
  if (found == covers_.end() || !found->second.find(attribute)) return;
  note(path);
  Record cover = found->second;
  std::erase_if(cover.attributes, [&](const Attribute& each) { return each.name == attribute; });
  replace(path, cover.attributes.empty() ? std::nullopt : std::optional(std::move(cover)));
}

void CoverTable::removeAt(Path path) {
  if (!covers_.contains(path)) return;
  note(path);
  replace(path, std::nullopt);
}

void CoverTable::undoTo(std::size_t mark) {
  for (; undo_.size() > mark; undo_.pop_back()) replace(undo_.back().first, std::move(undo_.back().second));
}

}  // namespace Statedb
