#include "ctl/configuration.h"

#include <algorithm>
#include <set>

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

// The position of the number that a parser's message quotes, which the parser does not give.
std::string positionOfQuoted(const std::string& text, const std::string& message) {
  const std::size_t from = message.find('\'') + 1;
  return positionAt(text, text.find(message.substr(from, message.rfind('\'') - from)));
}

// Parses JSON, and adds an error for each duplicate key.
Json parsed(const std::string& file, const std::string& text, std::vector<std::string>& errors) {
  std::vector<std::set<std::string>> keys;
  const auto watchKeys = [&](int, Json::parse_event_t event, Json& value) {
    if (event == Json::parse_event_t::object_start) keys.emplace_back();
    if (event == Json::parse_event_t::object_end) keys.pop_back();
    if (event == Json::parse_event_t::key && !keys.back().insert(value.get<std::string>()).second)
      errors.push_back(file + ": duplicate key " + value.dump() + " in an object; keep one");
    return true;
  };
  if (const auto at = tooDeepAt(text, kInputDepth))
    throw Refusal(file + ':' + positionAt(text, *at) + ": " + tooDeep(kInputDepth));
  try {
    return Json::parse(text, watchKeys);
  } catch (const Json::parse_error& error) {
    throw Refusal(file + ':' + positionAt(text, error.byte == 0 ? 0 : error.byte - 1) + ": " +
                  reasonOf(error.what()));
  } catch (const Json::out_of_range& error) {
    throw Refusal(file + ':' + positionOfQuoted(text, error.what()) +
                  ": the number is out of range: " + error.what());
  }
}

}  // namespace

Configuration::Configuration(std::string file, std::string text)
    : file_(std::move(file)), text_(std::move(text)) {
  std::vector<std::string> errors;
  const Json whole = parsed(file_, text_, errors);
  if (!whole.is_object())
    throw Refusal(file_ + ":1: found " + whole.type_name() +
                  R"(, expected {PATH: {"type": TYPE, ATTRIBUTE: VALUE}})");
  for (const auto& [path, entity] : whole.items()) {
    check(path, entity, errors);
    entities_[path] = entity;
  }
  if (!errors.empty()) throw Refusal(errors);
}

void Configuration::check(const std::string& path, const Json& entity,
                          std::vector<std::string>& errors) const {
  const std::string position = positionOf(path) + ": " + path;
  if (!entity.is_object())
    errors.push_back(position + ": found " + entity.type_name() +
                     R"(, expected {"type": TYPE, ATTRIBUTE: VALUE})");
  else if (const auto type = entity.find("type"); type == entity.end() || !type->is_string())
    errors.push_back(position + R"(: "type" is missing or not a string; it is the entity's type, such as ")" +
                     kLedType + '"');
}

std::string Configuration::positionOf(const std::string& key) const {
  const std::size_t at = text_.find(Json(key).dump());
  return at == std::string::npos ? file_ : file_ + ':' + std::to_string(lineAt(text_, at));
}

std::string Configuration::located(const std::string& error) const {
  const std::string* longest = nullptr;
  for (const auto& [path, entity] : entities_)
    if (error.starts_with(path) && (!longest || path.size() > longest->size())) longest = &path;
  return (longest ? positionOf(*longest) : file_) + ": " + error;
}

Json Configuration::puts() const {
  Json changes = Json::array();
  for (const auto& [path, entity] : entities_) {
    Json attributes = entity;
    attributes.erase("type");
    changes.push_back(
        {{"op", "put"}, {"path", path}, {"type", entity.at("type")}, {"attributes", attributes}});
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
    const auto wanted = entities_.find(path);
    const bool goesWithLast = !changes.empty() && isUnder(path, changes.back().at("path").get<std::string>());
    if (!isFilled(path, filled) && !isAboveFilled(path, filled) && !goesWithLast &&
        mustBeDeleted(found, wanted == entities_.end() ? nullptr : &wanted->second))
      changes.push_back({{"op", "del"}, {"path", path}});
  }
  return changes;
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
