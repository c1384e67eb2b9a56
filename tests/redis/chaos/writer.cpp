#include "tests/redis/chaos/writer.h"

#include <algorithm>
#include <utility>

#include "host/rpc/json.h"

namespace Chaos {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Durability;
using Statedb::Path;

namespace {
constexpr std::size_t kMostUnderWay = 64;
constexpr unsigned kPinCount = 16;
constexpr const char* kType = "T";
}  // namespace

void Writer::starts(Statedb::Store& store) {
  store_ = &store;
  if (publishes_) store.subscribe(kPins, *this);
}

void Writer::onSnapshot(const Statedb::Records&) { hasPins_ = wantsAllPins_ = true; }

void Writer::ended() {
  store_ = nullptr;
  hasPins_ = false;
  covers_ = {};
  for (const auto& batch : std::exchange(underWay_, {})) done(*batch, Kind::unknown);
}

// Names that hold a slash, entities under entities.
std::string Writer::entity() {
  std::string path = "chaos/" + name_ + "/Ethernet" + std::to_string(below(6)) + "%2F1";
  if (below(3) == 0) path += "/c" + std::to_string(below(3));
  return path;
}

Change Writer::storedStep() {
  const Path path(entity());
  const Zel::Name attribute(below(2) == 0 ? "x" : "y");
  const unsigned kind = below(20);
  if (kind == 0) return Change::del(path);
  if (kind <= 2) return Change::unset(path, attribute);
  return Change::put(path, kType, attribute, stamp("s"));
}

void Writer::act() {
  if (!store_ || underWay_.size() >= kMostUnderWay) return;
  ++number_;
  const unsigned kind = below(20);
  Changes changes;
  if (kind < 8) {
    for (unsigned i = 1 + (below(30) == 0 ? 200 : below(5)); i > 0; --i) changes.push_back(storedStep());
    writeStored(changes);
  } else if (kind < 10) {  // rows of everybody, of two types
    const Path path("chaos/shared/" + std::to_string(below(4)));
    changes.push_back(below(6) == 0 ? Change::del(path)
                                    : Change::put(path, below(5) == 0 ? "U" : kType, "x", stamp("s")));
    writeStored(changes);
  } else if (kind < 15 && hasPins_) {
    writePins(1 + below(4));
  } else if (kind < 17 && publishes_) {
    writeCover();
  } else {  // over stored rows
    const Path path(entity());
    const bool isPut = below(3) != 0;
    changes.push_back(isPut           ? Change::put(path, kType, "x", stamp("v"))
                      : below(3) == 0 ? Change::del(path)
                                      : Change::unset(path, "x"));
    writeVolatile(changes);
  }
}

void Writer::probe() {
  if (!store_ || (probe_ && !probe_->isDone)) return;
  ++number_;
  writeStored({Change::put("chaos/" + name_ + "/probe", kType, "x", stamp("s"))}, true);
  hasPins_ ? writePins(1) : writeVolatile({Change::put("chaos/" + name_ + "/probe", kType, "y", stamp("v"))});
}

void Writer::writeStored(const Changes& changes, bool isProbe) {
  const auto batch = std::make_shared<Batch>(Batch{number_, history_.stored});
  ++counts_.stored;
  underWay_.push_back(batch);
  if (isProbe) probe_ = batch;
  for (const Change& change : changes) note(change, batch);
  try {
    store_->write(changes, Durability::stored);
    batch->ticket = store_->flush();
  } catch (const Statedb::StoreError& error) {
    ++counts_.rejected;
    batch->ticket = Statedb::Ticket::failed(error.what());
  }
}

void Writer::writeVolatile(const Changes& changes) {
  ++counts_.volatile_;
  try {
    store_->write(changes, Durability::volatile_);
    store_->flush();
  } catch (const Statedb::StoreError&) {
    ++counts_.rejected;
  }
}

void Writer::writePins(unsigned count) {
  Changes changes;
  const unsigned first = count == kPinCount ? 0 : below(kPinCount);
  for (unsigned i = 0; i < count; ++i) {
    const std::string path = std::string(kPins) + "/p" + std::to_string((first + i) % kPinCount);
    changes.push_back(Change::put(path, kType, "value", stamp("v")));
    pins_[path + "\tvalue"] = number_;
  }
  writeVolatile(changes);
}

// Over rows of everybody, of the type that most of them have.
void Writer::writeCover() {
  ++counts_.covers;
  const Path path(kCovered + ("/" + std::to_string(below(4))));
  const unsigned kind = below(6);
  const Change change = kind == 0   ? Change::del(path)
                        : kind == 1 ? Change::unset(path, "x")
                                    : Change::put(path, kType, "x", stamp("c"));
  covers_.erase(path.text());
  covers_.erase(path.text() + "\tx");
  if (kind > 1) covers_.insert({{path.text(), kType}, {path.text() + "\tx", Host::jsonText(stamp("c"))}});
  store_->write({change}, Durability::cover);
  store_->flush();
}

void Writer::note(const Change& change, const std::shared_ptr<const Batch>& batch) {
  const std::string path = change.row.path.text(), place = path + "\t" + change.row.attribute.stdString();
  if (!path.starts_with("chaos/" + name_ + "/")) return;
  // Of a batch's steps on one row only the last counts.
  const auto add = [&](Row& row, bool isPut) {
    if (!row.steps.empty() && row.steps.back().batch == batch) row.steps.pop_back();
    row.steps.push_back({batch, isPut});
  };
  if (change.kind != Change::Kind::del) return add(rows_[place], change.kind == Change::Kind::put);
  for (auto& [each, row] : rows_)
    if (each.starts_with(path + "\t") || each.starts_with(path + "/")) add(row, false);
}

void Writer::poll() {
  while (!underWay_.empty() && underWay_.front()->ticket.isDone()) {
    const Statedb::Ticket& ticket = underWay_.front()->ticket;
    if (ticket.kind() != Kind::taken) lastFailure_ = ticket.failure();
    done(*underWay_.front(), ticket.kind());
    underWay_.pop_front();
  }
  if (!store_ || !std::exchange(wantsAllPins_, false)) return;
  ++number_;
  writePins(kPinCount);
}

void Writer::done(Batch& batch, Kind kind) {
  batch.isDone = true;
  batch.kind = kind;
  if (kind == Kind::taken) ++counts_.taken;
  if (kind == Kind::unknown) ++counts_.unknown;
  if (kind == Kind::refused) ++counts_.refused;
  if (kind == Kind::failed) ++counts_.failed;
  // What was stored and then lost with its history counts as not stored.
  const bool isSameHistory = batch.history == history_.stored;
  if (isSameHistory && (kind == Kind::refused || kind == Kind::failed)) neverStored_.insert(batch.number);
}

// Why the server can't have this number in a row, 0 for no value; empty if it can.
std::string Writer::wrong(const Row& row, unsigned now) const {
  std::string possible;
  for (auto step = row.steps.rbegin(); step != row.steps.rend(); ++step) {
    const Batch& batch = *step->batch;
    if (batch.kind == Kind::refused || batch.kind == Kind::failed) continue;
    const unsigned result = step->isPut ? batch.number : 0;
    if (result == now) return "";
    possible += " " + std::to_string(result);
    if (batch.kind == Kind::taken && batch.history == history_.stored) return possible;
  }
  if (row.history != history_.stored) return now <= number_ && !neverStored_.contains(now) ? "" : possible;
  return row.start == now ? "" : possible + " " + std::to_string(row.start);
}

void Writer::verify(const Rows& stored, std::vector<std::string>& differing) {
  std::map<unsigned, std::set<bool>> isThere;  // by the batch of a row's last step
  for (auto& [place, row] : rows_) {
    const auto found = stored.find(place);
    const auto stamp = found == stored.end() ? std::nullopt : Stamp::in(found->second);
    const unsigned now = stamp ? stamp->number : 0;
    if (const std::string why = wrong(row, now); !why.empty())
      differing.push_back(place + " has number " + std::to_string(now) + ", possible are" + why +
                          " (0: no value; writer " + name_ + ")");
    if (!row.steps.empty() && row.steps.back().isPut)
      isThere[row.steps.back().batch->number].insert(row.steps.back().batch->number == now);
    row = {now, history_.stored, {}};
  }
  for (const auto& [number, answers] : isThere)
    if (answers.size() == 2)
      differing.push_back("half of batch " + std::to_string(number) + " of writer " + name_ + " is there");
}

void Writer::verifyPins(const Rows& volatile_, std::vector<std::string>& differing) const {
  for (const auto& [place, number] : pins_) {
    const auto found = volatile_.find(place);
    const std::string expected = "\"" + Stamp{"v " + name_, number}.text() + "\"";
    if (found == volatile_.end() || found->second != expected)
      differing.push_back(place + " has " + (found == volatile_.end() ? "no value" : found->second) +
                          ", its owner wrote " + expected);
  }
}

void Writer::verifyUnseen(Reader& reader, std::vector<std::string>& differing) const {
  for (const unsigned number : reader.seen(name_))
    if (neverStored_.contains(number))
      differing.push_back("batch " + std::to_string(number) + " of writer " + name_ +
                          " failed, and a reader was notified of it");
}

}  // namespace Chaos
