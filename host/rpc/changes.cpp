#include "host/rpc/changes.h"

#include <algorithm>

#include "host/rpc/json.h"

namespace Host {

using Statedb::Attribute;
using Statedb::Change;
using Statedb::Changes;
using Statedb::Path;
using Statedb::Record;
using Zel::Value;
using Zel::ValueError;

namespace {

void appendPath(std::string& text, Path path) {
  const std::size_t start = text.size();
  text += '"';
  path.appendTo(text);
  endQuoted(text, start);
}

// Appends one entity: its attributes, then the rest.
class EntityWriter {
 public:
  explicit EntityWriter(std::string& text) : text_(text) { text_ += "{\"attributes\":{"; }

  void add(Zel::Name attribute, const Value& value) {
    if (attribute.empty()) return;
    if (any_) text_ += ',';
    any_ = true;
    appendQuoted(text_, attribute.view());
    text_ += ':';
    appendJson(text_, value);
  }
  void end(const char* more, Path path, Zel::Name type) {
    text_ += '}';
    text_ += more;
    text_ += ",\"path\":";
    appendPath(text_, path);
    text_ += ",\"type\":";
    appendQuoted(text_, type.view());
    text_ += '}';
  }

 private:
  std::string& text_;
  bool any_ = false;
};

using Place = Changes::const_iterator;

// The end of the puts from `first` on that belong to one entity and set no attribute twice.
Place endOfEntity(Place first, Place last) {
  Place end = first;
  const auto goesOn = [&](const Change& change) {
    return change.kind == Change::Kind::put && change.row.path == first->row.path &&
           change.row.type == first->row.type &&
           std::none_of(first, end, [&](auto& each) { return each.row.attribute == change.row.attribute; });
  };
  while (end != last && goesOn(*end)) ++end;
  return end;
}

void appendRemoval(std::string& text, const Change& change) {
  text += '{';
  if (change.kind == Change::Kind::unset) {
    text += "\"attribute\":";
    appendQuoted(text, change.row.attribute.view());
    text += ',';
  }
  text += change.kind == Change::Kind::unset ? "\"op\":\"unset\",\"path\":" : "\"op\":\"del\",\"path\":";
  appendPath(text, change.row.path);
  text += '}';
}

void appendPuts(std::string& text, Place first, Place last) {
  EntityWriter entity(text);
  for (Place each = first; each != last; ++each) entity.add(each->row.attribute, each->row.value);
  entity.end(",\"op\":\"put\"", first->row.path, first->row.type);
}

}  // namespace

std::string entitiesText(const Statedb::Records& records) {
  std::string text = "[";
  for (const Record* record : records) {
    if (text.size() > 1) text += ',';
    EntityWriter entity(text);
    for (const Attribute& each : record->attributes) entity.add(each.name, each.value);
    entity.end("", record->path, record->type);
  }
  return text + ']';
}

std::string changesText(const Changes& changes) {
  std::string text = "[";
  for (Place at = changes.begin(); at != changes.end();) {
    if (text.size() > 1) text += ',';
    if (at->kind != Change::Kind::put) {
      appendRemoval(text, *at++);
      continue;
    }
    const Place end = endOfEntity(at, changes.end());
    appendPuts(text, at, end);
    at = end;
  }
  return text + ']';
}

namespace {

const Value::Fields* attributesField(const Value& value) {
  const Value* field = value.field("attributes");
  if (!field) return nullptr;
  const auto& attributes = fieldsOf("'attributes': ", *field);
  for (const auto& [name, each] : attributes)
    if (name.empty()) throw ValueError("'attributes': the name of an attribute is empty");
  return &attributes;
}

}  // namespace

std::vector<Record> entityRecords(const Value& entities) {
  std::vector<Record> records;
  for (const Value& entity : listOf("'entities': ", entities)) {
    expectFields(entity, {"path", "type", "attributes"});
    const std::string &path = textField(entity, "path", Needed::yes),
                      &type = textField(entity, "type", Needed::yes);
    if (type.empty()) throw ValueError("'type' of '" + Zel::excerpt(path) + "' is empty");
    Record& record = records.emplace_back(Record{path, Zel::Name(type), {}});
    if (const auto* attributes = attributesField(entity))
      for (const auto& [name, value] : *attributes) record.attributes.push_back({name, value});
  }
  return records;
}

Changes changesFrom(const Value& list) {
  Changes changes;
  for (const Value& each : listOf("'changes': ", list)) {
    const RequestedChange change = requestedChange(each);
    if (change.kind == Change::Kind::put && change.type.empty()) throw ValueError("'type' is missing");
    appendChanges(change, Zel::Name(change.type), changes);
  }
  return changes;
}

RequestedChange requestedChange(const Value& value) {
  expectFields(value, {"op", "path", "type", "attributes", "existing", "attribute"});
  const std::string& op = textField(value, "op", Needed::yes);
  if (op == "del") {
    expectFields(value, {"op", "path"});
    return {.kind = Change::Kind::del, .path = textField(value, "path", Needed::yes)};
  }
  if (op == "unset") {
    expectFields(value, {"op", "path", "attribute"});
    const std::string& attribute = textField(value, "attribute", Needed::yes);
    if (attribute.empty()) throw ValueError("'attribute' is empty");
    return {
        .kind = Change::Kind::unset, .path = textField(value, "path", Needed::yes), .attribute = attribute};
  }
  if (op != "put")
    throw ValueError("'op': found \"" + Zel::excerpt(op) + "\", expected \"put\", \"unset\" or \"del\"");
  return {.path = textField(value, "path", Needed::yes),
          .type = textField(value, "type"),
          .existing = flagField(value, "existing", false),
          .attributes = attributesField(value)};
}

void appendChanges(const RequestedChange& change, Zel::Name type, Changes& changes) {
  const Path path(change.path);
  if (change.kind == Change::Kind::del) return changes.push_back(Change::del(path));
  if (change.kind == Change::Kind::unset)
    return changes.push_back(Change::unset(path, Zel::Name(change.attribute)));
  changes.push_back(Change::put(path, type, {}, {}));
  if (!change.attributes) return;
  for (const auto& [name, value] : *change.attributes)
    changes.push_back(Change::put(path, type, name, value));
}

}  // namespace Host
