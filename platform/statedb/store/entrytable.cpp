#include "platform/statedb/store/entrytable.h"

#include <algorithm>

#include "platform/zel/core/assert.h"
#include "platform/zel/notify/lookahead.h"

namespace Statedb {

Attribute* findIn(Attributes& attributes, const Zel::Name& name) {
  const auto found = std::ranges::find(attributes, name, &Attribute::name);
  return found == attributes.end() ? nullptr : &*found;
}

std::unordered_map<Zel::Name, std::size_t> EntryTable::countByType() const {
  std::unordered_map<Zel::Name, std::size_t> counts;
  for (const Entry& entry : entries_)
    if (!entry.type.empty()) ++counts[entry.type];
  return counts;
}

Records EntryTable::under(const Path& path) const {
  Records records;
  if (path.empty()) records.reserve(count_);
  path.forEachUnder([&](const Path& each) {
    if (const Entry* entry = find(each)) records.push_back(entry);
  });
  return records;
}

void EntryTable::prefetch(std::span<const Change> changes) const {
  for (const Change& change : changes) {
    const Path& path = change.row.path;
    path.prefetch();
    if (path.id() < entries_.size()) Zel::prefetch(&entries_[path.id()]);
  }
  for (const Change& change : changes)
    if (const Entry* entry = find(change.row.path)) Zel::prefetch(entry->attributes.data());
}

// Reserves ahead, so that logging a change can't fail after the change was made.
void EntryTable::roomForUndo() {
  if (undo_.size() == undo_.capacity()) undo_.reserve(std::max<std::size_t>(16, undo_.size() * 2));
}

Entry& EntryTable::insert(const Path& path, const Zel::Name& type, Durability durability) {
  ZEL_REQUIRE(!find(path), path << " exists as a " << find(path)->type);
  if (path.id() >= entries_.size()) entries_.resize(Path::endOfIds());
  Entry& entry = entries_[path.id()];
  entry.path = path;
  entry.type = type;
  entry.durability = durability;
  ++count_;
  return entry;
}

Entry& EntryTable::make(const Path& path, const Zel::Name& type, Durability durability) {
  roomForUndo();
  Entry& entry = insert(path, type, durability);
  undo_.emplace_back(Undo::What::made, entry);
  return entry;
}

// An attribute of the entity that was just made needs no undo of its own: the entity's removes it.
void EntryTable::add(Entry& entry, Attribute attribute) {
  ZEL_REQUIRE(!findIn(entry.attributes, attribute.name), entry.path << ' ' << attribute.name);
  roomForUndo();
  entry.attributes.push_back(std::move(attribute));
  const bool justMade =
      undo_.size() > mark_ && undo_.back().what == Undo::What::made && undo_.back().at == &entry;
  if (!justMade) undo_.emplace_back(Undo::What::added, entry);
}

void EntryTable::change(Entry& entry, Attribute& attribute, const Zel::Value& value) {
  roomForUndo();
  Zel::Value before = std::exchange(attribute.value, value);
  Undo& changed = undo_.emplace_back(Undo::What::changed, entry);
  changed.attribute = static_cast<std::uint32_t>(&attribute - entry.attributes.data());
  changed.before = std::move(before);
}

// Logs a copy of the whole entity with its hidden values: for rare changes.
void EntryTable::note(Entry& entry) {
  roomForUndo();
  const auto found = hidden_.find(entry.path);
  auto whole = std::make_unique<Undo::Whole>(
      Undo::Whole{entry, found == hidden_.end() ? Attributes() : found->second});
  undo_.emplace_back(Undo::What::replaced, entry).whole = std::move(whole);
}

void EntryTable::remove(Entry& entry) {
  roomForUndo();
  auto whole = std::make_unique<Undo::Whole>();
  if (auto node = hidden_.extract(entry.path)) whole->hidden = std::move(node.mapped());
  whole->entry = std::exchange(entry, {});
  undo_.emplace_back(Undo::What::replaced, entry).whole = std::move(whole);
  --count_;
}

void EntryTable::storedIs(Entry& entry) {
  note(entry);
  entry.durability = Durability::stored;
}

const Zel::Value* EntryTable::hidden(const Entry& entry, const Zel::Name& attribute) const {
  const auto found = hidden_.find(entry.path);
  if (found == hidden_.end()) return nullptr;
  const auto value = std::ranges::find(found->second, attribute, &Attribute::name);
  return value == found->second.end() ? nullptr : &value->value;
}

void EntryTable::removeHidden(Path path, Zel::Name attribute) {
  const auto found = hidden_.find(path);
  if (found == hidden_.end()) return;
  std::erase_if(found->second, [&](const Attribute& each) { return each.name == attribute; });
  if (found->second.empty()) hidden_.erase(found);
}

void EntryTable::remove(Entry& entry, Zel::Name attribute) {
  note(entry);
  std::erase_if(entry.attributes, [&](const Attribute& each) { return each.name == attribute; });
  removeHidden(entry.path, attribute);
}

void EntryTable::hide(Entry& entry, Zel::Name attribute, const Zel::Value& value) {
  note(entry);
  Attributes& hidden = hidden_[entry.path];
  if (Attribute* before = findIn(hidden, attribute))
    before->value = value;
  else
    hidden.emplace_back(attribute, value);
}

void EntryTable::shadow(Entry& entry, Attribute& attribute, const Zel::Value& value) {
  hide(entry, attribute.name, attribute.value);
  attribute.value = value;
  attribute.durability = Durability::volatile_;
}

void EntryTable::reveal(Entry& entry, Attribute& attribute) {
  ZEL_REQUIRE(hidden(entry, attribute.name), entry.path << ' ' << attribute.name);
  note(entry);
  attribute.value = *hidden(entry, attribute.name);
  attribute.durability = Durability::stored;
  removeHidden(entry.path, attribute.name);
}

void EntryTable::undoTo(std::size_t mark) {
  for (; undo_.size() > mark; undo_.pop_back()) takeBack(undo_.back());
}

void EntryTable::takeBack(Undo& last) {
  switch (last.what) {
    case Undo::What::made:
      *last.at = {};
      --count_;
      break;
    case Undo::What::added:
      last.at->attributes.pop_back();
      break;
    case Undo::What::changed:
      last.at->attributes[last.attribute].value = std::move(last.before);
      break;
    case Undo::What::replaced:
      restore(*last.at, std::move(*last.whole));
  }
}

void EntryTable::restore(Entry& entry, Undo::Whole&& whole) {
  if (entry.type.empty()) ++count_;
  entry = std::move(whole.entry);
  if (whole.hidden.empty())
    hidden_.erase(entry.path);
  else
    hidden_[entry.path] = std::move(whole.hidden);
}

}  // namespace Statedb
