#include "host/store/redis/rows.h"

#include <algorithm>
#include <utility>

#include "platform/zel/core/exception.h"

namespace Host::Redis {

using Statedb::Attribute;
using Statedb::Change;
using Statedb::Changes;
using Statedb::Path;
using Statedb::Record;
using Statedb::Row;

namespace {

std::size_t attributesIn(std::string_view text) {
  return static_cast<std::size_t>(std::ranges::count(text, '\t'));
}

// `text`: an entity's value in its hash.
void putInOrder(Record& record, const std::string& text) {
  const std::string names = text + '\t';
  const auto place = [&](const Attribute& each) {
    const std::string_view name = each.name.view();
    for (std::size_t at = names.find('\t'); at + 1 < names.size(); at = names.find('\t', at + 1))
      if (names.compare(at + 1, name.size(), name) == 0 && names[at + 1 + name.size()] == '\t') return at;
    return names.size();
  };
  std::ranges::sort(record.attributes, {}, place);
}

// The record of a path, perhaps the first time.
Record& placed(Record& record, Path path) {
  record.path = path;
  return record;
}

void setValue(Record& record, Zel::Name attribute, Zel::Value value) {
  const auto there = std::ranges::find(record.attributes, attribute, &Attribute::name);
  if (there != record.attributes.end())
    there->value = std::move(value);
  else
    record.attributes.emplace_back(attribute, std::move(value));
}

}  // namespace

void Rows::scanned(const Directory& directory, std::string_view field, std::string_view text) {
  const std::size_t slash = field.find('/');
  const Path path = directory.at(field.substr(0, slash));
  if (slash == std::string_view::npos)
    scannedEntity(path, text);
  else
    scannedValue(path, Zel::Name(field.substr(slash + 1)), valueOf(text));
}

// The attributes are put in order when they are all there, because a big table takes long to sort at the end.
void Rows::scannedEntity(Path path, std::string_view text) {
  const Zel::Name type(text.substr(0, text.find('\t')));
  if (type.empty()) throw Zel::ValueError("an entity without a type");
  Record& record = placed(records_.at(path), path);
  if (!orNull(record) && !record.attributes.empty()) --early_;
  record.type = type;
  const std::size_t count = attributesIn(text);
  if (count < 2) return;
  if (record.attributes.size() < count)
    order_[path] = text;
  else
    putInOrder(record, std::string(text));
}

void Rows::scannedValue(Path path, Zel::Name attribute, Zel::Value value) {
  Record& record = placed(records_.at(path), path);
  if (!orNull(record) && record.attributes.empty()) ++early_;
  setValue(record, attribute, std::move(value));
  if (order_.empty()) return;
  const auto order = order_.find(path);
  if (order == order_.end() || record.attributes.size() < attributesIn(order->second)) return;
  putInOrder(record, order->second);
  order_.erase(order);
}

void Rows::endScan() {
  for (const auto& [path, order] : order_) putInOrder(records_.at(path), order);
  order_ = {};
  if (std::exchange(early_, 0) == 0) return;
  records_.forEach([](Record& each) {
    if (!orNull(each)) each = {};
  });
}

void Rows::carry(const Changes& changes) {
  for (const Change& change : changes) {
    const Row& row = change.row;
    if (change.kind == Change::Kind::del) {
      row.path.forEachUnder([this](Path each) { records_.erase(each); });
    } else if (change.kind == Change::Kind::put) {
      Record& record = placed(records_.at(row.path), row.path);
      record.type = row.type;
      if (!row.attribute.empty()) setValue(record, row.attribute, row.value);
    } else if (Record* record = records_.find(row.path)) {
      std::erase_if(record->attributes, [&](const Attribute& each) { return each.name == row.attribute; });
    }
  }
}

Statedb::Records Rows::under(Path path) const {
  Statedb::Records records;
  path.forEachUnder([&](const Path& each) {
    if (const Record* record = records_.find(each)) records.push_back(record);
  });
  return records;
}

}  // namespace Host::Redis
