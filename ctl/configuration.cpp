#include "ctl/configuration.h"

#include <algorithm>
#include <set>
#include <utility>

#include "ctl/appliance.h"
#include "ctl/jsontext.h"
#include "ctl/output.h"
#include "ctl/text.h"

namespace Ctl {

namespace {

std::size_t lineAt(const std::string& text, std::size_t offset) {
  const auto end = text.begin() + static_cast<std::ptrdiff_t>(std::min(offset, text.size()));
  return 1 + static_cast<std::size_t>(std::count(text.begin(), end, '\n'));
}

// LINE:COLUMN of an offset.
std::string positionAt(const std::string& text, std::size_t offset) {
  const std::size_t lineEnd = offset == 0 ? std::string::npos : text.rfind('\n', offset - 1);
  const std::size_t column = lineEnd == std::string::npos ? offset : offset - lineEnd - 1;
  return std::to_string(lineAt(text, offset)) + ':' + std::to_string(column + 1);
}

// A parser's message without its own position.
std::string reasonOf(const std::string& message) {
  const auto column = message.find("column ");
  const auto reason = message.find(": ", column == std::string::npos ? 0 : column);
  return reason == std::string::npos ? message : message.substr(reason + 2);
}

// The error for a number that a parser's message quotes; the parser does not give its position.
Refusal outOfRange(const std::string& file, const std::string& text, const std::string& message) {
  const std::size_t from = message.find('\'') + 1;
  const std::string number = message.substr(from, message.rfind('\'') - from);
  return Refusal(file + ':' + positionAt(text, text.find(number)) + ": the number " + number +
                 " is out of range");
}

// Builds the value that the library's parser reads, and collects the duplicate keys of its objects, which the
// library would drop. (With a callback the library visits every member of an object at the end of each one:
// that is quadratic.)
class Builder : public nlohmann::json_sax<Json> {
 public:
  Json value;
  std::vector<std::string> duplicates;

  bool null() override { return add(nullptr); }
  bool boolean(bool given) override { return add(given); }
  bool number_integer(std::int64_t given) override { return add(given); }
  bool number_unsigned(std::uint64_t given) override { return add(given); }
  bool number_float(double given, const std::string&) override { return add(given); }
  bool string(std::string& given) override { return add(std::move(given)); }
  bool binary(Json::binary_t&) override { return false; }
  bool start_object(std::size_t) override { return open(Json::object()); }
  bool start_array(std::size_t) override { return open(Json::array()); }
  bool end_object() override { return close(); }
  bool end_array() override { return close(); }
  bool key(std::string& given) override {
    const auto [member, isNew] = open_.back()->get_ref<Json::object_t&>().try_emplace(given);
    if (!isNew) duplicates.push_back(given);
    member_ = &member->second;
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const Json::exception& error) override {
    if (const auto* syntax = dynamic_cast<const Json::parse_error*>(&error)) throw *syntax;
    if (const auto* range = dynamic_cast<const Json::out_of_range*>(&error)) throw *range;
    return false;
  }

 private:
  Json& place() {
    if (open_.empty()) return value;
    return open_.back()->is_array() ? open_.back()->emplace_back() : *member_;
  }
  bool add(Json&& given) {
    place() = std::move(given);
    return true;
  }
  bool open(Json&& container) {
    Json& opened = place();
    opened = std::move(container);
    open_.push_back(&opened);
    return true;
  }
  bool close() {
    open_.pop_back();
    return true;
  }

  std::vector<Json*> open_;  // the arrays and objects around the next value
  Json* member_ = nullptr;   // of the innermost object
};

// Parses JSON, and adds an error for each duplicate key.
Json parsed(const std::string& file, const std::string& text, std::vector<std::string>& errors) {
  if (const auto at = tooDeepAt(text, kInputDepth))
    throw Refusal(file + ':' + positionAt(text, *at) + ": " + tooDeep(kInputDepth));
  Builder builder;
  try {
    Json::sax_parse(text, &builder);
  } catch (const Json::parse_error& error) {
    throw Refusal(file + ':' + positionAt(text, error.byte == 0 ? 0 : error.byte - 1) + ": " +
                  reasonOf(error.what()));
  } catch (const Json::out_of_range& error) {
    throw outOfRange(file, text, error.what());
  }
  for (const std::string& key : builder.duplicates)
    errors.push_back(file + ": duplicate key " + Json(key).dump() + " in an object; keep one");
  return std::move(builder.value);
}

// FILE:LINE of a key; FILE where its escapes differ from ours.
std::string positionOf(const Configuration::Source& source, const std::string& key) {
  const std::size_t at = source.text.find(Json(key).dump());
  return at == std::string::npos ? source.file : source.file + ':' + std::to_string(lineAt(source.text, at));
}

// Why the entity is invalid; empty if it is not.
std::string faultOf(const Json& entity) {
  if (!entity.is_object())
    return std::string("found ") + entity.type_name() + R"(, expected {"type": TYPE, ATTRIBUTE: VALUE})";
  if (const auto type = entity.find("type"); type == entity.end() || !type->is_string())
    return std::string(R"("type" is missing or not a string; it is the entity's type, such as ")") +
           kLedType + '"';
  return {};
}

}  // namespace

Configuration::Configuration(std::vector<Source> sources) : sources_(std::move(sources)) {
  std::vector<std::string> errors;
  for (const Source& source : sources_) read(source, errors);
  if (!errors.empty()) throw Refusal(errors);
}

void Configuration::read(const Source& source, std::vector<std::string>& errors) {
  Json whole = parsed(source.file, source.text, errors);
  if (!whole.is_object())
    throw Refusal(source.file + ":1: found " + whole.type_name() +
                  R"(, expected {PATH: {"type": TYPE, ATTRIBUTE: VALUE}})");
  for (auto& [path, entity] : whole.items()) {
    std::string fault = faultOf(entity);
    const auto [entry, added] = entities_.try_emplace(path, Entity{std::move(entity), &source});
    if (!added) fault = "the entity is in " + positionOf(*entry->second.source, path) + ", too; keep one";
    if (!fault.empty()) errors.push_back(positionOf(source, path) + ": " + path + ": " + fault);
  }
}

bool Configuration::covers(std::string path) const {
  if (entities_.empty()) return true;
  while (!path.empty() && !entities_.contains(path)) path = parentPath(path);
  return !path.empty();
}

const Json* Configuration::find(const std::string& path) const {
  const auto found = entities_.find(path);
  return found == entities_.end() ? nullptr : &found->second.json;
}

std::string Configuration::located(const std::string& error) const {
  auto longest = entities_.end();
  for (auto each = entities_.begin(); each != entities_.end(); ++each)
    if (error.starts_with(each->first) &&
        (longest == entities_.end() || each->first.size() > longest->first.size()))
      longest = each;
  if (longest != entities_.end()) return positionOf(*longest->second.source, longest->first) + ": " + error;
  return (sources_.empty() ? "" : sources_.front().file + ": ") + error;
}

Json Configuration::puts() const {
  Json changes = Json::array();
  for (const auto& [path, entity] : entities_) {
    Json attributes = entity.json;
    attributes.erase("type");
    changes.push_back(
        {{"op", "put"}, {"path", path}, {"type", entity.json.at("type")}, {"attributes", attributes}});
  }
  return changes;
}

namespace {

// Whether agents, running or not, fill the path.
bool isFilled(const std::string& path, const std::vector<std::string>& filled) {
  return isUnder(path, Paths::kPins) || isUnder(path, Paths::kLineStatus) ||
         std::ranges::any_of(filled, [&](const std::string& each) { return isUnder(path, each); });
}

bool isAboveFilled(const std::string& path, const std::vector<std::string>& filled) {
  return std::ranges::any_of(filled, [&](const std::string& each) { return isUnder(each, path); });
}

// Whether the host's entity must be deleted first: its type differs, or it has an attribute that the wanted
// one lacks.
bool mustBeDeleted(const Json& found, const Json* wanted) {
  if (!wanted || found.at("type") != wanted->at("type")) return true;
  for (const auto& [attribute, value] : found.at("attributes").items())
    if (!wanted->contains(attribute)) return true;
  return false;
}

}  // namespace

Json Configuration::dels(const Json& entities, const std::vector<std::string>& filled) const {
  Json changes = Json::array();
  for (const Json& found : entities) {
    const std::string path = found.at("path");
    const bool goesWithLast = !changes.empty() && isUnder(path, changes.back().at("path").get<std::string>());
    if (covers(path) && !isFilled(path, filled) && !isAboveFilled(path, filled) && !goesWithLast &&
        mustBeDeleted(found, find(path)))
      changes.push_back({{"op", "del"}, {"path", path}});
  }
  return changes;
}

namespace {

// Whether a put of `wanted` changes what was found.
bool isChanged(const Json& found, const Json& wanted) {
  const Json& attributes = found.at("attributes");
  return std::ranges::any_of(wanted.items(), [&](const auto& entry) {
    const Json& before = entry.key() == "type" ? found.at("type") : attributes.value(entry.key(), Json());
    return before != entry.value();
  });
}

}  // namespace

Differences Configuration::differences(const Json& entities, const Json& dels) const {
  Differences all;
  std::set<std::string> known, deleted;
  for (const Json& del : dels) deleted.insert(del.at("path").get<std::string>());
  const auto isDeleted = [&](std::string path) {
    while (!path.empty() && !deleted.contains(path)) path = parentPath(path);
    return !path.empty();
  };
  for (const Json& found : entities) {
    const std::string path = found.at("path");
    const Json* wanted = find(path);
    known.insert(path);
    if (!wanted && isDeleted(path)) all.removed.push_back(path);
    if (wanted && (deleted.contains(path) || isChanged(found, *wanted))) all.changed.push_back(path);
  }
  for (const auto& [path, entity] : entities_)
    if (!known.contains(path)) all.added.push_back(path);
  return all;
}

namespace {

std::string entityText(const Json& entity) {
  std::string text = R"({"type": )" + jsonText(entity.at("type"));
  for (const auto& [attribute, value] : entity.at("attributes").items())
    text += ", " + jsonText(attribute) + ": " + oneLine(value);
  return text + '}';
}

}  // namespace

std::string wholeText(const Json& entities) {
  std::map<std::string, std::string> lines;
  for (const Json& entity : entities) lines[entity.at("path")] = entityText(entity);
  std::string text = "{";
  for (const auto& [path, line] : lines)
    text += (text == "{" ? "\n  " : ",\n  ") + jsonText(path) + ": " + line;
  return text + "\n}\n";
}

std::string configurationText(const Json& entities, const std::vector<std::string>& filled) {
  Json kept = Json::array();
  for (const Json& entity : entities)
    if (!isFilled(entity.at("path"), filled)) kept.push_back(entity);
  return wholeText(kept);
}

}  // namespace Ctl
