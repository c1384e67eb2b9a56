#include "ctl/configuration.h"

#include <algorithm>
#include <set>
#include <unordered_set>
#include <utility>

#include "ctl/appliance.h"
#include "ctl/jsontext.h"
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

// FILE:LINE of a key; FILE where its escapes differ from ours.
std::string positionOf(const Configuration::Source& source, const std::string& key) {
  const std::size_t at = source.text.find(Json(key).dump());
  return at == std::string::npos ? source.file : source.file + ':' + std::to_string(lineAt(source.text, at));
}

// Runs the library's parser, and gives its errors their position.
void parse(const std::string& file, const std::string& text, JsonReader& reader) {
  if (const auto at = tooDeepAt(text, kInputDepth))
    throw Refusal(file + ':' + positionAt(text, *at) + ": " + tooDeep(kInputDepth));
  try {
    Json::sax_parse(text, &reader);
  } catch (const Json::parse_error& error) {
    throw Refusal(file + ':' + positionAt(text, error.byte == 0 ? 0 : error.byte - 1) + ": " +
                  reasonOf(error.what()));
  } catch (const Json::out_of_range& error) {
    throw outOfRange(file, text, error.what());
  }
}

std::string duplicateKey(const Configuration::Source& source, const std::string& key) {
  return source.file + ": duplicate key " + Json(key).dump() + " in an object; keep one";
}

// The keys of the objects around a place. Finds one that an object has twice, which the library would drop.
class OpenKeys {
 public:
  void open() {
    if (depth_++ == objects_.size()) objects_.emplace_back();
  }
  void close() { objects_[--depth_].clear(); }
  // Returns false if the innermost object has the key.
  bool add(const std::string& key) {
    Keys& keys = objects_[depth_ - 1];
    if (keys.many.empty() && keys.few.size() < kFew) {
      if (std::ranges::find(keys.few, key) != keys.few.end()) return false;
      keys.few.push_back(key);
      return true;
    }
    if (keys.many.empty()) keys.many.insert(keys.few.begin(), keys.few.end());
    return keys.many.insert(key).second;
  }

 private:
  static constexpr std::size_t kFew = 16;
  struct Keys {
    std::vector<std::string> few;
    std::unordered_set<std::string> many;

    void clear() {
      few.clear();
      many.clear();
    }
  };

  std::vector<Keys> objects_;  // kept, as most have few keys and end soon
  std::size_t depth_ = 0;
};

}  // namespace

// Makes the entities of one file from its events: {PATH: {"type": TYPE, ATTRIBUTE: VALUE, …}, …}.
class Configuration::Reader : public JsonReader {
 public:
  Reader(Configuration& into, const Source& source, std::vector<std::string>& errors,
         const OnEntity& onEntity)
      : into_(into), source_(source), errors_(errors), onEntity_(onEntity) {}

  bool start_object(std::size_t) override {
    if (depth_ > 0) begin("object");
    if (depth_++ > 0) text_.open('{');
    keys_.open();
    return true;
  }
  bool end_object() override {
    keys_.close();
    return close('}');
  }
  bool start_array(std::size_t) override {
    begin("array");
    text_.open('[');
    ++depth_;
    return true;
  }
  bool end_array() override { return close(']'); }

  bool key(std::string& given) override {
    if (depth_ > 1 && !keys_.add(given)) errors_.push_back(duplicateKey(source_, given));
    if (depth_ == 1)
      path_ = std::move(given);
    else if (isType_ = depth_ == 2 && given == "type"; !isType_)
      text_.key(given);
    return true;
  }
  bool string(std::string& given) override {
    if (std::exchange(isType_, false)) {
      type_ = std::move(given);
      return true;
    }
    begin("string");
    text_.string(given);
    return end();
  }
  bool token(const std::string& text, const char* type) override {
    begin(type);
    text_.token(text);
    return end();
  }

 private:
  // A value begins: the file's, an entity, or one in an entity.
  void begin(const char* what) {
    if (depth_ == 0)
      throw Refusal(source_.file + ":1: found " + what +
                    R"(, expected {PATH: {"type": TYPE, ATTRIBUTE: VALUE}})");
    if (depth_ == 1) found_ = what;
    if (std::exchange(isType_, false)) text_.key("type");
  }
  bool close(char bracket) {
    if (--depth_ == 0) return true;
    text_.close(bracket);
    return end();
  }
  bool end() {
    if (depth_ > 1) return true;
    const std::string why = fault();
    const Entry* added =
        into_.add(std::move(path_), {std::exchange(type_, {}), text_.take(), &source_}, why, errors_);
    if (added && errors_.empty() && onEntity_) onEntity_(*added);
    return true;
  }
  // Why the entity is invalid; empty if it is not.
  std::string fault() const {
    if (found_ != "object") return "found " + found_ + R"(, expected {"type": TYPE, ATTRIBUTE: VALUE})";
    if (type_.empty())
      return std::string(R"("type" is missing or not a string; it is the entity's type, such as ")") +
             kLedType + '"';
    return {};
  }

  Configuration& into_;
  const Source& source_;
  std::vector<std::string>& errors_;
  const OnEntity& onEntity_;
  OpenKeys keys_;
  JsonWriter text_{false};
  int depth_ = 0;
  bool isType_ = false;  // the value that comes next is the entity's type
  std::string path_, type_, found_;
};

Configuration::Configuration(std::vector<Source> sources, const OnEntity& onEntity)
    : sources_(std::move(sources)) {
  std::vector<std::string> errors;
  for (const Source& source : sources_) read(source, errors, onEntity);
  if (!errors.empty()) throw Refusal(errors);
}

void Configuration::read(const Source& source, std::vector<std::string>& errors, const OnEntity& onEntity) {
  Reader reader(*this, source, errors, onEntity);
  parse(source.file, source.text, reader);
}

const Configuration::Entry* Configuration::add(std::string path, Entity entity, const std::string& fault,
                                               std::vector<std::string>& errors) {
  const Source& source = *entity.source;
  const std::size_t before = entities_.size();
  const Entry& entry = *entities_.try_emplace(entities_.end(), std::move(path), std::move(entity));
  const bool isNew = entities_.size() > before;
  if (isNew && fault.empty()) return &entry;
  const auto& [name, present] = entry;
  const std::string place = positionOf(source, name) + ": " + name + ": ";
  errors.push_back(isNew ? place + fault
                   : present.source == &source
                       ? duplicateKey(source, name)
                       : place + "the entity is in " + positionOf(*present.source, name) + ", too; keep one");
  return nullptr;
}

bool Configuration::covers(std::string path) const {
  if (entities_.empty()) return true;
  while (!path.empty() && !entities_.contains(path)) path = parentPath(path);
  return !path.empty();
}

const Configuration::Entity* Configuration::find(const std::string& path) const {
  const auto found = entities_.find(path);
  return found == entities_.end() ? nullptr : &found->second;
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
  for (const auto& [path, entity] : entities_)
    changes.push_back({{"op", "put"}, {"path", path}, {"type", entity.type}, {"attributes", entity.json()}});
  return changes;
}

std::string Configuration::putOf(const Entry& entry) {
  const auto& [path, entity] = entry;
  std::string text = "{\"op\":\"put\",\"path\":";
  appendString(text, path, false);
  text += ",\"type\":";
  appendString(text, entity.type, false);
  text += ",\"attributes\":";
  text += entity.attributes;
  text += '}';
  return text;
}

void Configuration::addPuts(Client::Batch& batch) const {
  for (const Entry& entry : entities_) batch.add(putOf(entry));
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
bool mustBeDeleted(const Json& found, const std::string& type, const Json& wanted) {
  return found.at("type") != type ||
         std::ranges::any_of(found.at("attributes").items(),
                             [&](const auto& entry) { return !wanted.contains(entry.key()); });
}

}  // namespace

Json Configuration::dels(const Json& entities, const std::vector<std::string>& filled) const {
  Json changes = Json::array();
  for (const Json& found : entities) {
    const std::string path = found.at("path");
    const bool goesWithLast = !changes.empty() && isUnder(path, changes.back().at("path").get<std::string>());
    if (goesWithLast || !covers(path) || isFilled(path, filled) || isAboveFilled(path, filled)) continue;
    if (const Entity* wanted = find(path); !wanted || mustBeDeleted(found, wanted->type, wanted->json()))
      changes.push_back({{"op", "del"}, {"path", path}});
  }
  return changes;
}

namespace {

// Whether a put of `wanted` changes what was found.
bool isChanged(const Json& found, const std::string& type, const Json& wanted) {
  const Json& attributes = found.at("attributes");
  return found.at("type") != type || std::ranges::any_of(wanted.items(), [&](const auto& entry) {
           return attributes.value(entry.key(), Json()) != entry.value();
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
    const Entity* wanted = find(path);
    known.insert(path);
    if (!wanted && isDeleted(path)) all.removed.push_back(path);
    if (wanted && (deleted.contains(path) || isChanged(found, wanted->type, wanted->json())))
      all.changed.push_back(path);
  }
  for (const auto& [path, entity] : entities_)
    if (!known.contains(path)) all.added.push_back(path);
  return all;
}

void ConfigurationWriter::entity(std::string path, const std::string& type, const std::string& members) {
  hasSeen_ = true;
  if (!all_ && isFilled(path, filled_)) return;
  std::string line;
  appendString(line, path, true);
  line += ": {\"type\": ";
  appendString(line, type, true);
  if (!members.empty()) line += ", ";
  lines_.emplace_back(std::move(path), line + members + '}');
}

std::string ConfigurationWriter::text() {
  std::ranges::sort(lines_);
  std::string text = "{";
  for (const auto& [path, line] : lines_) text += (text == "{" ? "\n  " : ",\n  ") + line;
  return text + "\n}\n";
}

}  // namespace Ctl
