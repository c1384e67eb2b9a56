#include "host/store/redis/layout.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <functional>
#include <optional>
#include <utility>

#include "host/rpc/json.h"
#include "platform/statedb/store/schema.h"
#include "platform/zel/core/exception.h"
#include "platform/zel/core/string.h"
#include "platform/zel/entity/pathwalker.h"

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

struct DeltaReader {
  Changes changes{};
  Directory directory{{}};
  Zel::Name type{};

  void line(std::string_view text) {
    const char kind = text.empty() ? '\0' : text[0];
    std::string_view rest = text.substr(std::min<std::size_t>(1, text.size()));
    switch (kind) {
      case '@':
        directory = Directory(rest);
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
    const Path path = directory.at(take(text, '\t'));
    if (text.empty()) return changes.push_back(Change::put(path, type, {}, {}));
    const Zel::Name attribute(take(text, '\t'));
    changes.push_back(Change::put(path, type, attribute, valueOf(text)));
  }
  void unset(std::string_view text) {
    const Path path = directory.at(take(text, '\t'));
    changes.push_back(Change::unset(path, Zel::Name(text)));
  }
};

}  // namespace

char letterOf(Statedb::Durability space) {
  constexpr std::array kLetters{'s', 'v', 'c'};
  return kLetters.at(static_cast<std::size_t>(space));
}

Keys::Keys(std::string_view prefix, Statedb::Durability space)
    : space_("{" + std::string(prefix) + "}:" + letterOf(space)) {}

Place placeOf(Path path) {
  if (path.empty()) return {};
  return {path.parent().text(), path.component().stdString()};
}

Path Directory::at(std::string_view name) const {
  if (name.find('/') != std::string_view::npos)
    throw Zel::ValueError("the name '" + Zel::excerpt(name) + "' has a slash, which is written %2F");
  const auto isWithinLimits = [&] {
    if (!path_) path_ = Path(text_);
    return path_->depth() < Zel::PathWalker::kDeepest &&
           text_.size() + 1 + name.size() <= Zel::PathWalker::kLongest;
  };
  if (text_.empty()) return Path(name);
  if (isWithinLimits()) return path_->child(Zel::Name::escaped(name));
  std::string text(text_);
  return Path(text.append("/").append(name));
}

// A memo with one place for each hash of a text.
Zel::Value valueOf(std::string_view json) {
  constexpr std::size_t kPlaces = 64, kLongest = 256;
  struct Parsed {
    std::string json{};
    Zel::Value value{};
  };
  static std::array<Parsed, kPlaces> memo;
  if (json.size() > kLongest) return parseJson(json);
  Parsed& known = memo[std::hash<std::string_view>()(json) % kPlaces];
  if (known.json != json || json.empty()) known = {std::string(json), parseJson(json)};
  return known.value;
}

DeltaWriter::Part DeltaWriter::step(const Change& change) {
  const Row& row = change.row;
  Part json;
  if (change.kind == Change::Kind::del) {
    text_ += '!';
    row.path.appendTo(text_);
  } else {
    const Path above = row.path.empty() ? row.path : row.path.parent();
    if (directory_ != above) {
      text_ += '@';
      above.appendTo(text_);
      text_ += '\n';
      directory_ = above;
    }
    const std::string_view name = row.path.empty() ? "" : row.path.component().view();
    change.kind == Change::Kind::put ? void(json = put(name, row)) : unset(name, row);
  }
  text_ += '\n';
  return json;
}

DeltaWriter::Part DeltaWriter::put(std::string_view name, const Row& row) {
  if (row.type != type_) {
    checkPlain(row.type.view());
    ((text_ += ':') += (type_ = row.type).view()) += '\n';
  }
  (text_ += '+') += name;
  if (row.attribute.empty()) return {};
  checkAttribute(row.attribute);
  ((text_ += '\t') += row.attribute.view()) += '\t';
  const std::size_t start = text_.size();
  appendJson(text_, row.value);
  return {start, text_.size() - start};
}

void DeltaWriter::unset(std::string_view name, const Row& row) {
  checkAttribute(row.attribute);
  (((text_ += '-') += name) += '\t') += row.attribute.view();
}

// Most rows of a batch are of the same attribute.
void DeltaWriter::checkAttribute(Zel::Name attribute) {
  if (attribute == attribute_) return;
  checkPlain(attribute.view());
  attribute_ = attribute;
}

std::string deltaText(const Changes& changes) {
  DeltaWriter writer;
  for (const Change& change : changes) writer.step(change);
  return std::move(writer.text());
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

std::string entityText(const Record& record) {
  std::string text = record.type.stdString();
  for (const Attribute& each : record.attributes) text.append("\t").append(each.name.view());
  return text;
}

}  // namespace Host::Redis
