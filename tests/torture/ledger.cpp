#include "tests/torture/ledger.h"

#include <algorithm>

namespace Torture {

namespace {

// Carries out a batch as the state database must. Returns false, with the rows half changed, if it must
// refuse.
bool carryOut(Rows& rows, const std::vector<Json>& changes) {
  for (const Json& change : changes) {
    const std::string path = change.at("path");
    if (change.at("op") == "put") {
      rows[path][""] = change.at("type");
      for (const auto& [name, value] : change.at("attributes").items()) rows[path][name] = value;
    } else if (!rows.contains(path)) {
      return false;
    } else if (change.at("op") == "unset") {
      rows[path].erase(change.at("attribute").get<std::string>());
    } else {
      std::erase_if(rows,
                    [&](const auto& row) { return row.first == path || row.first.starts_with(path + "/"); });
    }
  }
  return true;
}

std::string shortened(const std::string& text) {
  return text.size() < 100 ? text : text.substr(0, 100) + "…";
}

std::string valueOf(const Rows& rows, const std::string& path, const std::string& attribute) {
  const auto row = rows.find(path);
  if (row == rows.end()) return "no row";
  const auto value = row->second.find(attribute);
  return value == row->second.end() ? "no value" : shortened(value->second.dump());
}

// The first few.
std::string differencesOf(const Rows& found, const Rows& expected) {
  std::string text;
  int count = 0;
  Rows both = found;
  for (const auto& [path, row] : expected) both[path].insert(row.begin(), row.end());
  for (const auto& [path, row] : both)
    for (const auto& [name, value] : row)
      if (const auto is = valueOf(found, path, name), was = valueOf(expected, path, name);
          is != was && ++count < 10)
        text += "\n  " + path + " " + name + " is " + is + ", expected " + was;
  return text + "\n  in all " + std::to_string(count) + " differences";
}

std::string nameOf(std::uint64_t number) { return "batch " + std::to_string(number); }

}  // namespace

std::size_t Ledger::hashOf(const Rows& rows) { return std::hash<std::string>()(Json(rows).dump()); }

// Pins, texts, and texts in directories.
std::string Ledger::place(std::uint64_t kind) const {
  const std::string number = std::to_string(random_.below(5));
  return path_ +
         (kind == 0   ? "/p"
          : kind == 1 ? "/t"
                      : "/d" + std::to_string(random_.below(2)) + "/t") +
         number;
}

Json Ledger::change(std::uint64_t number) {
  if (!expected_.empty() && random_.chance(15)) {
    const std::string path =
        std::next(expected_.begin(), static_cast<long>(random_.below(expected_.size())))->first;
    if (random_.chance(60)) return del(path);
    return {{"op", "unset"}, {"path", path}, {"attribute", expected_[path].rbegin()->first}};
  }
  const std::uint64_t kind = random_.below(3);
  if (kind == 0) return put(place(kind), kPin, {{"value", number % 2}});
  const std::string stamp = std::to_string(number) + ":";
  const std::size_t size = random_.chance(10) ? random_.below(longest_) : random_.below(40);
  return put(place(kind), kText, {{random_.chance(50) ? "error" : "place", stamp + std::string(size, 'x')}});
}

// Adds a change to the batch, behind one that makes its directory.
void Ledger::add(Json change, Batch& batch) {
  const std::string path = change["path"];
  if (change["op"] == "unset" && change["attribute"] == "") return;
  if (change["op"] == "put" && path.starts_with(path_ + "/d"))
    batch.changes.push_back(put(path.substr(0, path.rfind('/')), "Zel::Dir"));
  batch.changes.push_back(std::move(change));
}

Json Ledger::write() {
  Batch batch{++number_, random_.chance(8), random_.chance(10)};
  const Rows last = expected_;
  for (auto count = 1 + random_.below(5); count > 0 && !batch.isVolatile; --count) {
    const std::size_t known = batch.changes.size();
    add(change(batch.number), batch);
    for (std::size_t i = known; i < batch.changes.size(); ++i) carryOut(expected_, {batch.changes[i]});
  }
  if (batch.isVolatile) batch.changes = {put("volatile/" + path_, kText, {{"error", nameOf(batch.number)}})};
  if (batch.isBad) batch.changes.push_back(put(path_ + "/p0", kPin, {{"colour", "red"}}));
  if (batch.isBad) expected_ = last;
  underWay_.push_back(batch);
  return batch.isVolatile ? volatileBatch(batch.changes) : Torture::batch(batch.changes);
}

void Ledger::take(const Batch& batch) {
  if (batch.isBad || batch.isVolatile) return;
  carryOut(rows_, batch.changes);
  states_.push_back(hashOf(rows_));
}

void Ledger::answered(const Json& answer) {
  const Batch batch = underWay_.front();
  underWay_.pop_front();
  if (answer.contains("result") == batch.isBad)
    if (batch.isBad || answer["error"]["code"] != 2)
      throw Failure(nameOf(batch.number) + " of " + path_ + " must be " +
                    (batch.isBad ? "refused" : "taken") + ": " + shortened(Json(batch.changes).dump()) +
                    "\n  answer: " + answer.dump());
  if (batch.isBad) ++refused_;
  if (answer.contains("result"))
    ++acknowledged_, take(batch);
  else if (!batch.isBad)
    ++failed_, expected_ = rows_;
}

void Ledger::check(const Rows& rows) {
  const std::size_t hash = hashOf(rows);
  const Rows acknowledged = rows_;
  const std::size_t sent = underWay_.size();
  for (; hashOf(rows_) != hash && !underWay_.empty(); underWay_.pop_front()) take(underWay_.front());
  if (hashOf(rows_) != hash)
    throw Failure("the rows under " + path_ + " are neither those after its " + nameOf(number_ - sent) +
                  ", which was answered, nor those after one of the " + std::to_string(sent) +
                  " sent behind it:" + differencesOf(rows, acknowledged));
  underWay_.clear();
  expected_ = rows_;
}

std::string Ledger::differs(const Rows& rows, std::size_t least) const {
  const auto from = states_.begin() + static_cast<long>(least);
  const std::size_t hash = hashOf(rows);
  if (std::find(from, states_.end(), hash) != states_.end()) return "";
  const auto earlier = std::find(states_.begin(), from, hash);
  if (earlier != from)
    return "acknowledged writes are lost: it is in state " + std::to_string(earlier - states_.begin()) +
           ", acknowledged was state " + std::to_string(least);
  return "its rows are those of no state, a batch was torn: " + Json(rows).dump().substr(0, 2000);
}

}  // namespace Torture
