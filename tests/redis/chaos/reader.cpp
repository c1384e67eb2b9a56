#include "tests/redis/chaos/reader.h"

#include <uv.h>

#include <algorithm>
#include <sstream>

#include "host/rpc/json.h"

namespace Chaos {

using Statedb::Change;

namespace {
constexpr std::size_t kMostPast = 6;  // values of a place

bool isPin(const std::string& place) { return place.starts_with(std::string(kPins) + "/"); }
std::string placeOf(const Statedb::Row& row) {
  return row.attribute.empty() ? row.path.text() : row.path.text() + "\t" + row.attribute.stdString();
}
}  // namespace

std::uint64_t now() { return uv_hrtime() / 1'000'000; }
std::string timeText() { return std::to_string(now() % 1'000'000) + " ms"; }

std::optional<Stamp> Stamp::in(const std::string& text) {
  std::istringstream words(text.substr(text.starts_with('"') ? 1 : 0));
  std::string space, writer;
  unsigned number = 0;
  if (!(words >> space >> writer >> number)) return std::nullopt;
  return Stamp{space + " " + writer, number};
}

namespace {
Rows rowsOf(const Statedb::Records& records) {
  Rows rows;
  for (const Statedb::Record* record : records) {
    rows[record->path.text()] = record->type.stdString();
    for (const Statedb::Attribute& each : record->attributes)
      rows[record->path.text() + "\t" + each.name.stdString()] = Host::jsonText(each.value);
  }
  return rows;
}
std::string pathOf(const std::string& place) { return place.substr(0, place.find('\t')); }
}  // namespace

void Reader::onPart(const Statedb::Records& records) {
  ++notifications;
  const Rows now = rowsOf(records), before = rows_;
  for (const Statedb::Record* record : records) had_.insert(record->path.text());
  for (const auto& [place, value] : before)
    if (now.contains(pathOf(place)) && !now.contains(place)) erase(place);
  for (const auto& [place, value] : now) put(place, value);
}

bool Reader::onEnd() {
  const Rows before = rows_;
  for (const auto& [place, value] : before)
    if (!had_.contains(pathOf(place))) erase(place);
  return true;
}

void Reader::onSnapshot(const Statedb::Records& records) {
  ++notifications;
  const Rows now = rowsOf(records), before = rows_;
  for (const auto& [place, value] : before)
    if (!now.contains(place)) erase(place);
  for (const auto& [place, value] : now) put(place, value);
}

void Reader::onChanges(const Statedb::Changes& changes) {
  ++notifications;
  for (const Change& change : changes) {
    const Statedb::Row& row = change.row;
    switch (change.kind) {
      case Change::Kind::put:
        put(row.path.text(), row.type.stdString());
        if (!row.attribute.empty()) put(placeOf(row), Host::jsonText(row.value));
        break;
      case Change::Kind::unset:
        erase(placeOf(row));
        break;
      case Change::Kind::del:
        eraseUnder(row.path.text());
    }
  }
}

void Reader::note(const std::string& place, const std::string& what) {
  std::deque<std::string>& past = past_[place];
  past.push_back(timeText() + " " + what);
  if (past.size() > kMostPast) past.pop_front();
}

std::string Reader::past(const std::string& place) const {
  const auto found = past_.find(place);
  std::string text = " (" + name_ + " got";
  if (found == past_.end()) return text + " nothing)";
  for (const std::string& each : found->second) text += "; " + each;
  return text + ")";
}

void Reader::put(const std::string& place, const std::string& json) {
  std::string& value = rows_[place];
  if (value != json) note(place, json);
  value = json;
  if (const auto stamp = Stamp::in(json)) check(place, *stamp);
}

// The number of a row's writer may fall once for each time that history lost rows, and a pin's never: it
// stays until its owner has published again. What was sent before a loss may come after it, so falls are
// counted. A process shows its own pins and covers before they are published; covers fall where another
// process takes their claim before that.
void Reader::check(const std::string& place, const Stamp& stamp) {
  const bool isStored = stamp.writer.starts_with("s ");
  if (isStored) seen_[stamp.writer].insert(stamp.number);
  const unsigned history = isStored ? history_.stored : history_.volatile_;
  const unsigned settled = isStored ? settled_.stored : settled_.volatile_;
  if ((isPin(place) && stamp.writer == "v " + name_) || stamp.writer == "c " + name_) return;
  Last& last = last_[place + "\t" + stamp.writer];
  if (stamp.number < last.number) {
    last.history = std::max(last.history, settled) + 1;
    if (isPin(place) || last.history > history)
      fault_("reader " + name_ + ": " + place + " went back from " + std::to_string(last.number) + " to '" +
             stamp.text() + "'" + past(place));
  }
  last.number = stamp.number;
}

// A value that the server has may be shown for the first time later, when a volatile one over it goes.
void Reader::settled(const Rows& stored, const Rows& volatile_) {
  settled_ = history_;
  for (const Rows* rows : {&stored, &volatile_})
    for (const auto& [place, json] : *rows)
      if (const auto stamp = Stamp::in(json)) last_[place + "\t" + stamp->writer].number = stamp->number;
}

void Reader::erase(const std::string& place) {
  if (rows_.erase(place) == 0) return;
  note(place, "gone");
  if (isPin(place))
    fault_("reader " + name_ + ": " + place + " went away, and its publisher did not" + past(place));
}

void Reader::eraseUnder(const std::string& path) {
  std::vector<std::string> places;
  for (const auto& [place, value] : rows_)
    if (path.empty() || place == path || place.starts_with(path + "/") || place.starts_with(path + "\t"))
      places.push_back(place);
  for (const std::string& place : places) erase(place);
}

}  // namespace Chaos
