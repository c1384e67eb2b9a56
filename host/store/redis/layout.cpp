#include "host/store/redis/layout.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

#include "host/rpc/json.h"
#include "platform/statedb/store/schema.h"
#include "platform/zel/core/exception.h"

namespace Host::Redis {

using Statedb::Attribute;
using Statedb::Change;
using Statedb::Changes;
using Statedb::Path;
using Statedb::Record;
using Statedb::Row;

namespace {

constexpr std::size_t kShown = 64;  // bytes of a wrong text in a message

[[noreturn]] void failAt(const std::string& what, std::string_view text) {
  throw Zel::ValueError(what + ": '" + std::string(text.substr(0, kShown)) + "'");
}

// The part before `mark`, which with the mark is taken off; all of it where there is no mark.
std::string_view take(std::string_view& text, char mark) {
  const std::size_t end = std::min(text.find(mark), text.size());
  const std::string_view part = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return part;
}

void checkPlain(std::string_view name) {
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < ' '; };
  if (std::ranges::any_of(name, isControl)) failAt("a control character in a type or an attribute", name);
}

struct DeltaWriter {
  std::string text{};
  std::optional<Path> directory{};
  Zel::Name type{};

  void step(const Change& change) {
    const Row& row = change.row;
    if (change.kind == Change::Kind::del) {
      text += '!';
      row.path.appendTo(text);
    } else {
      const Path above = row.path.empty() ? row.path : row.path.parent();
      if (directory != above) {
        text += '@';
        above.appendTo(text);
        text += '\n';
        directory = above;
      }
      const std::string_view name = row.path.empty() ? "" : row.path.component().view();
      change.kind == Change::Kind::put ? put(name, row) : unset(name, row);
    }
    text += '\n';
  }
  void put(std::string_view name, const Row& row) {
    checkPlain(row.type.view());
    checkPlain(row.attribute.view());
    if (row.type != type) text.append(":").append((type = row.type).view()).append("\n");
    text.append("+").append(name);
    if (row.attribute.empty()) return;
    text.append("\t").append(row.attribute.view()).append("\t");
    appendJson(text, row.value);
  }
  void unset(std::string_view name, const Row& row) {
    checkPlain(row.attribute.view());
    text.append("-").append(name).append("\t").append(row.attribute.view());
  }
};

struct DeltaReader {
  Changes changes{};
  std::string_view directory{};
  Zel::Name type{};

  void line(std::string_view text) {
    const char kind = text.empty() ? '\0' : text[0];
    std::string_view rest = text.substr(std::min<std::size_t>(1, text.size()));
    switch (kind) {
      case '@':
        directory = rest;
        return;
      case ':':
        type = {};  // where the name is too long, the puts that follow have none
        type = Zel::Name(rest);
        return;
      case '!':
        return changes.push_back(Change::del(Path(rest)));
      case '+':
        return put(rest);
      case '-':
        return unset(rest);
      case '^':
      case '=':
        return;  // see headOf()
      default:
        failAt("a step of a change that begins with none of @ : ! + -", text);
    }
  }
  void put(std::string_view text) {
    if (type.empty()) failAt("a put without a type", text);
    const Path path = pathAt(directory, take(text, '\t'));
    if (text.empty()) return changes.push_back(Change::put(path, type, {}, {}));
    const Zel::Name attribute(take(text, '\t'));
    changes.push_back(Change::put(path, type, attribute, parseJson(text)));
  }
  void unset(std::string_view text) {
    const Path path = pathAt(directory, take(text, '\t'));
    changes.push_back(Change::unset(path, Zel::Name(text)));
  }
};

}  // namespace

Keys::Keys(std::string_view prefix, Statedb::Durability space)
    : space_("{" + std::string(prefix) + (space == Statedb::Durability::stored ? "}:s" : "}:v")) {}

Place placeOf(Path path) {
  if (path.empty()) return {};
  return {path.parent().text(), path.component().stdString()};
}

Path pathAt(std::string_view directory, std::string_view name) {
  if (directory.empty()) return Path(name);
  std::string text(directory);
  return Path(text.append("/").append(name));
}

std::string deltaText(const Changes& changes) {
  DeltaWriter writer;
  for (const Change& change : changes) writer.step(change);
  return std::move(writer.text);
}

Changes changesOf(std::string_view delta) {
  DeltaReader reader;
  while (!delta.empty()) reader.line(take(delta, '\n'));
  return std::move(reader.changes);
}

Changes changesOf(std::string_view delta, std::vector<std::string>& errors) {
  DeltaReader reader;
  while (!delta.empty()) try {
      reader.line(take(delta, '\n'));
    } catch (const Zel::ValueError& error) {
      errors.push_back(error.what());
    }
  return std::move(reader.changes);
}

DeltaHead headOf(std::string_view delta) {
  DeltaHead head;
  while (delta.starts_with('^') || delta.starts_with('=')) {
    const std::string_view line = take(delta, '\n'), text = line.substr(1);
    if (line[0] == '=')
      head.mounts.emplace_back(text);
    else
      std::from_chars(text.data(), text.data() + text.size(), head.companionOf);
  }
  return head;
}

std::string mountLine(std::string_view mount) { return "=" + std::string(mount) + "\n"; }

namespace {

// `text`: an entity's value in its hash, and a tab.
void putInOrder(Record& record, std::string_view text) {
  const auto place = [&](const Attribute& each) {
    const std::string_view name = each.name.view();
    for (std::size_t at = text.find('\t'); at + 1 < text.size(); at = text.find('\t', at + 1))
      if (text.substr(at + 1).starts_with(name) && text[at + 1 + name.size()] == '\t') return at;
    return text.size();
  };
  std::ranges::sort(record.attributes, {}, place);
}

std::size_t attributesIn(std::string_view text) {
  return static_cast<std::size_t>(std::ranges::count(text, '\t')) - 1;
}

}  // namespace

// An entity's attributes are put in order when they are all there, because a big table takes long to sort at
// the end.
void Rows::scanned(std::string_view directory, std::string_view field, std::string_view text) {
  const bool isEntity = field.find('/') == std::string_view::npos;
  const Path path = pathAt(directory, take(field, '/'));
  auto found = entities_.find(path);
  if (isEntity) {
    const Zel::Name type(text.substr(0, text.find('\t')));
    if (found == entities_.end()) {
      auto early = early_.extract(path);
      found = early ? entities_.insert(std::move(early)).position
                    : entities_.try_emplace(path, Record{path, {}, {}}).first;
    }
    found->second.type = type;
    order_[path] = std::string(text) + '\t';
  } else {
    const Zel::Name attribute(field);
    Zel::Value value = parseJson(text);
    Record& record = found != entities_.end() ? found->second
                                              : early_.try_emplace(path, Record{path, {}, {}}).first->second;
    const auto there = std::ranges::find(record.attributes, attribute, &Attribute::name);
    if (there != record.attributes.end())
      there->value = std::move(value);
    else
      record.attributes.emplace_back(attribute, std::move(value));
  }
  if (found == entities_.end()) return;
  const auto order = order_.find(path);
  if (order == order_.end() || found->second.attributes.size() < attributesIn(order->second)) return;
  putInOrder(found->second, order->second);
  order_.erase(order);
}

void Rows::endScan() {
  for (const auto& [path, order] : order_) putInOrder(entities_.at(path), order);
  early_ = {};
  order_ = {};
}

bool Rows::discard(std::size_t most) {
  for (; most > 0 && !entities_.empty(); --most) entities_.erase(entities_.begin());
  return !entities_.empty();
}

void Rows::carry(const Changes& changes) {
  for (const Change& change : changes) {
    const Row& row = change.row;
    if (change.kind == Change::Kind::del) {
      row.path.forEachUnder([this](Path each) { entities_.erase(each); });
      continue;
    }
    const bool isPut = change.kind == Change::Kind::put;
    if (!isPut && !entities_.contains(row.path)) continue;
    Record& record = entities_.try_emplace(row.path, Record{row.path, {}, {}}).first->second;
    if (isPut) record.type = row.type;
    const auto found = std::ranges::find(record.attributes, row.attribute, &Attribute::name);
    const bool isThere = found != record.attributes.end();
    if (!isPut && isThere) record.attributes.erase(found);
    if (!isPut || row.attribute.empty()) continue;
    if (isThere)
      found->value = row.value;
    else
      record.attributes.emplace_back(row.attribute, row.value);
  }
}

const Record* Rows::find(Path path) const {
  const auto found = entities_.find(path);
  return found == entities_.end() ? nullptr : &found->second;
}

Statedb::Records Rows::all() const {
  Statedb::Records records;
  for (const auto& [path, record] : entities_) records.push_back(&record);
  return records;
}

std::string entityText(const Record& record) {
  std::string text = record.type.stdString();
  for (const Attribute& each : record.attributes) text.append("\t").append(each.name.view());
  return text;
}

}  // namespace Host::Redis
