// The mirror: what subscribers are notified of, and the rows with pending writes, against plain maps.
#include "host/store/redis/mirror.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "tests/platform/storemodel.h"

namespace {

using namespace Host::Redis;
using namespace StoreModel;
using Statedb::Path;

// "put p T; put p T x 1; unset p x; del p"
Changes changesIn(const std::string& text) {
  Changes changes;
  std::istringstream steps(text);
  for (std::string step; std::getline(steps >> std::ws, step, ';');) {
    std::istringstream words(step);
    std::string kind, path, type, attribute;
    int value = 0;
    words >> kind >> path;
    if (kind == "del") changes.push_back(Change::del(path));
    if (kind == "unset" && words >> attribute) changes.push_back(Change::unset(path, attribute));
    if (kind != "put") continue;
    const bool hasValue = words >> type && words >> attribute >> value;
    changes.push_back(Change::put(path, type, attribute, hasValue ? Value(value) : Value()));
  }
  return changes;
}

std::string textOf(const Changes& changes) {
  std::ostringstream text;
  for (const Change& change : changes) {
    const char* kinds[] = {"put ", "del ", "unset "};
    const Statedb::Row& row = change.row;
    text << (text.tellp() > 0 ? "; " : "") << kinds[static_cast<int>(change.kind)] << row.path;
    if (!row.type.empty()) text << ' ' << row.type.view();
    if (!row.attribute.empty()) text << ' ' << row.attribute.view();
    if (!row.value.isNull()) text << ' ' << row.value;
  }
  return text.str();
}

// Entities as snapshots have them.
struct Snapshot {
  explicit Snapshot(const Rows& rows) {
    for (const auto& [key, value] : rows)
      if (key.second.empty())
        records.push_back({key.first, *value.as<std::string>(), {}});
      else
        records.back().attributes.emplace_back(key.second, value);
    for (const Record& each : records) pointers.push_back(&each);
  }
  std::vector<Record> records{};
  Records pointers{};
};

constexpr Durability kStored = Durability::stored, kVolatile = Durability::volatile_;

// "s …" and "v …": an entry of the stored and of the volatile space; "c …": of a stored write in the volatile
// one; "r": released; "S …" and "V …": all rows.
std::string visibleOf(Host::Redis::Mirror& mirror, const std::string& step) {
  Changes visible;
  const Changes changes = changesIn(step.substr(1));
  const Durability space = step[0] == 's' || step[0] == 'S' ? kStored : kVolatile;
  Rows rows;
  carryInto(rows, changes);
  if (step[0] == 'S' || step[0] == 'V') mirror.replace(space, Snapshot(rows).pointers, visible);
  if (step[0] == 's' || step[0] == 'v') mirror.carry(space, changes, visible);
  if (step[0] == 'c') mirror.carryHidden(changes);
  if (step[0] == 'r') mirror.release(visible);
  return textOf(visible);
}

TEST(RedisMirror, NotifiesOfWhatBecomesVisible) {
  struct Case {
    const char* what;
    const char* stored;
    const char* volatileRows;
    std::vector<std::pair<const char*, const char*>> steps;
  };
  const Case cases[] = {
      {"a volatile value hides the stored one",
       "put p T x 1",
       "put p T x 2",
       {{"s put p T x 3", ""}, {"v unset p x", "put p T x 3"}, {"v del p", ""}}},
      {"a del of one space leaves the other's",
       "put p T y 1; put p T x 1",
       "put p T x 2; put p/c T x 2",
       {{"s del p", "unset p y"}, {"v del p", "del p"}}},
      {"a del takes subscribers' rows along, so what stays is put again",
       "put p/c T x 1",
       "put p T; put p/c T x 2; put p/d T",
       {{"v del p", "del p; put p/c T; put p/c T x 1"}}},
      {"of two types the stored one is visible",
       "",
       "put p U x 1; put p/c T",
       {{"s put p T y 2", "del p; put p T; put p T y 2; put p/c T"},
        {"v put p U x 2", ""},
        {"s del p", "del p; put p U; put p U x 2; put p/c T"}}},
      {"an entity of another type replaces the one in its space, with all under it",
       "put p T x 1; put p/c T x 1",
       "put p/c T y 1",
       {{"s put p U x 1", "del p; put p U; put p U x 1; put p/c T; put p/c T y 1"}}},
      {"a del and a put of the same are two steps",
       "put p T x 1",
       "",
       {{"s del p; put p T x 1", "del p; put p T; put p T x 1"}}},
      {"a companion reveals nothing that its stored write removes",
       "put p T x 1; put p T y 1",
       "put p T x 2; put p T y 2; put q T",
       {{"c unset p x; unset p y; del q", ""},
        {"v put p T z 3", "put p T z 3"},
        {"s unset p x; unset p y; del q", "unset p x; unset p y; del q"},
        {"r", ""}}},
      {"a companion's del, and what the stored write puts there",
       "",
       "put p U x 2; put p/c T",
       {{"c del p", ""}, {"s del p; put p T x 1", "del p; put p T; put p T x 1"}, {"r", ""}}},
      {"a stored write makes an entity above what its companion changed",
       "put p/c T x 1",
       "put p/c T x 2",
       {{"c unset p/c x", ""}, {"s put p T; unset p/c x", "put p T; unset p/c x"}}},
      {"a companion whose stored entry does not come",
       "put p T x 1",
       "put p T x 2; put q T; put q/c T",
       {{"c unset p x; del q", ""}, {"r", "put p T x 1; del q"}}},
      {"a snapshot notifies of differences",
       "put p T x 1; put p T y 1; put p/c T x 1; put q T; put q/c T; put r T",
       "put q/c T x 2",
       {{"S put p T z 1; put p T x 2; put p/c T x 1; put q U; put q/c T",
         "unset p y; put p T x 2; put p T z 1; del q; put q U; put q/c T; put q/c T x 2; del r"},
        {"V put p/c T x 1", "unset q/c x"},
        {"V", ""}}},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.what);
    Host::Redis::Mirror mirror;
    visibleOf(mirror, std::string("s ") + each.stored);
    visibleOf(mirror, std::string("v ") + each.volatileRows);
    for (const auto& [step, visible] : each.steps) EXPECT_EQ(visibleOf(mirror, step), visible) << step;
  }
}

// Two spaces and pending writes as plain rows.
struct Naive {
  Rows stored{}, volatile_{};
  std::map<Host::Redis::Mirror::Pending, Changes> pending{};

  Rows& in(Durability space) { return space == kStored ? stored : volatile_; }
  Rows visible() const {
    Rows rows = stored;
    for (const auto& [key, value] : volatile_) {
      const auto type = stored.find({key.first, ""});
      if (type == stored.end() || type->second == volatile_.at({key.first, ""})) rows[key] = value;
    }
    return rows;
  }
  Naive withPending() const {
    Naive after{stored, volatile_};
    for (const auto& [id, changes] : pending)
      for (const Change& change : changes) after.write(change);
    return after;
  }
  void write(const Change& change) {
    const Rows rows = visible();
    const auto type = rows.find({change.row.path.text(), ""});
    const bool isPut = change.kind == Change::Kind::put;
    if (isPut && type != rows.end() && type->second != Value(change.row.type.view()))
      write(Change::del(change.row.path));
    carryInto(stored, {change});
    if (!isPut) carryInto(volatile_, {change});
  }
};

class World {
 public:
  explicit World(unsigned seed) : random_(seed) {}

  void step() {
    const unsigned kind = below(10);
    const Durability space = below(2) ? kStored : kVolatile;
    if (kind < 5) carry(space, changes(1 + below(3)));
    if (kind == 5) replace(space);
    if (kind == 6) writeWithCompanion();
    if (kind == 7) pend();
    if (kind == 8 && !naive_.pending.empty()) settle();
    checkShown();
    if (below(2)) checkTable();
  }

 private:
  unsigned below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }
  template <class List>
  auto any(const List& list) {
    return list[below(static_cast<unsigned>(std::size(list)))];
  }

  std::string path() {
    static const char* const paths[] = {"m", "m/a", "m/a/b", "m/a/c", "m/d"};
    return any(paths);
  }
  Change change() {
    const std::string at = path(), attribute = below(2) ? "x" : "y", type = below(5) ? "T" : "U";
    const unsigned kind = below(10);
    if (kind < 2) return Change::del(at);
    if (kind < 4) return Change::unset(at, attribute);
    if (kind < 5) return Change::put(at, type, {}, {});
    return Change::put(at, type, attribute, static_cast<int>(below(3)));
  }
  Changes changes(unsigned count) {
    Changes changes;
    while (count-- > 0) changes.push_back(change());
    return changes;
  }

  void carry(Durability space, const Changes& changes) {
    const Rows before = subscriber_;
    Changes visible;
    mirror_.carry(space, changes, visible);
    carryInto(naive_.in(space), changes);
    notify(visible);
    if (changes.size() == 1) expectNoNeedlessDel(visible, before);
  }
  void replace(Durability space) {
    const Rows before = subscriber_;
    Rows& rows = naive_.in(space);
    carryInto(rows, changes(below(8)));
    Changes visible;
    mirror_.replace(space, Snapshot(rows).pointers, visible);
    notify(visible);
    expectNoNeedlessDel(visible, before);
  }
  // Between the two entries, others may change the volatile space.
  void writeWithCompanion() {
    Changes entry, companion;
    for (const Change& change : changes(1 + below(3))) {
      const bool isPut = change.kind == Change::Kind::put;
      if (isPut && below(2)) entry.push_back(Change::del(change.row.path));
      entry.push_back(change);
    }
    for (const Change& change : entry)
      if (change.kind != Change::Kind::put) companion.push_back(change);
    mirror_.carryHidden(companion);
    carryInto(naive_.volatile_, companion);
    EXPECT_EQ(shown(""), subscriber_);
    if (below(3) == 0) carry(kVolatile, changes(1));
    EXPECT_EQ(shown(""), subscriber_);
    carry(kStored, entry);
    EXPECT_EQ(shown(""), subscriber_);
    Changes visible;
    mirror_.release(visible);
    notify(visible);
  }
  void pend() {
    const Changes batch = changes(1 + below(4));
    naive_.pending[mirror_.pend(batch)] = batch;
  }
  void settle() {
    const auto each = std::next(naive_.pending.begin(), below(static_cast<unsigned>(naive_.pending.size())));
    mirror_.settle(each->first);
    naive_.pending.erase(each);
  }

  // A subscriber that would notice what did not change.
  void notify(const Changes& visible) {
    for (const Change& change : visible) {
      const Rows before = subscriber_;
      carryInto(subscriber_, {change});
      EXPECT_NE(subscriber_, before) << textOf(visible);
      const auto type = before.find({change.row.path.text(), ""});
      const bool replaces = change.kind == Change::Kind::put && type != before.end() &&
                            type->second != Value(change.row.type.view());
      EXPECT_FALSE(replaces) << "no del before a put of another type: " << textOf(visible);
    }
  }
  // Of one change, or of a snapshot.
  void expectNoNeedlessDel(const Changes& visible, const Rows& before) {
    for (const Change& change : visible) {
      const std::pair<std::string, std::string> key{change.row.path.text(), ""};
      if (change.kind != Change::Kind::del || !subscriber_.contains(key)) continue;
      EXPECT_NE(subscriber_.at(key), before.at(key)) << textOf(visible);
    }
  }

  Rows shown(const std::string& path) {
    Rows rows;
    mirror_.withShown(path, [&](const Records& records) { rows = rowsOf(records); });
    return rows;
  }
  void checkShown() {
    const Rows visible = naive_.visible();
    EXPECT_EQ(subscriber_, visible);
    EXPECT_EQ(shown(""), visible);
    const std::string at = path();
    Changes whole, value;
    mirror_.appendShown(at, {}, whole);
    mirror_.appendShown(at, "x", value);
    Rows expected;
    for (const auto& [key, each] : visible)
      if (key.first == at) expected[key] = each;
    Rows rows;
    carryInto(rows, whole);
    EXPECT_EQ(rows, expected);
    ASSERT_EQ(value.size(), expected.count({at, "x"}));
    for (const Change& each : value) EXPECT_EQ(each.row.value, expected.at({at, "x"}));
  }
  void checkTable() {
    const Naive after = naive_.withPending();
    const Rows rows = after.visible();
    const Records records = mirror_.read("");
    EXPECT_EQ(rowsOf(records), rows);
    EXPECT_TRUE(std::ranges::is_sorted(records, &Statedb::readsBefore, &Record::path));
    EXPECT_EQ(mirror_.entities(), records.size());
    const std::string at = path();
    const auto type = rows.find({at, ""});
    EXPECT_EQ(mirror_.typeAt(at),
              type == rows.end() ? Zel::Name() : Zel::Name(*type->second.as<std::string>()));
    const auto isAt = [&](const auto& each) { return isUnder(each.first.first, at); };
    EXPECT_EQ(mirror_.anyStored(at), std::ranges::any_of(after.stored, isAt));
    std::size_t counted = 0;
    for (const auto& [each, count] : mirror_.entitiesByType()) counted += count;
    EXPECT_EQ(counted, records.size());
  }

  std::mt19937 random_;
  Host::Redis::Mirror mirror_;
  Naive naive_;
  Rows subscriber_;
};

TEST(RedisMirror, SubscribersAndTheTableAgreeWithPlainMaps) {
  for (unsigned seed = 1; seed <= 100 && !testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    World world(seed);
    for (int i = 0; i < 100 && !testing::Test::HasFailure(); ++i) world.step();
  }
}

}  // namespace
