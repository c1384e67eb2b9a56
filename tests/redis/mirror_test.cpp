// The mirror: what subscribers are notified of, and the rows with pending writes, against plain maps.
#include "host/store/redis/mirror.h"

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <set>

#include "tests/platform/storemodel.h"

namespace {

using namespace Host::Redis;
using namespace StoreModel;
using Statedb::Path;

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

constexpr Durability kStored = Durability::stored, kVolatile = Durability::volatile_,
                     kCover = Durability::cover;
constexpr Layer kLayers[] = {Layer::effective, Layer::base};

// The spaces and pending writes as plain rows.
struct Naive {
  Rows stored{}, volatile_{};
  Model covers{};
  std::map<Host::Redis::Mirror::Pending, Changes> pending{};

  Rows in(Durability space) const {
    return space == kStored ? stored : space == kVolatile ? volatile_ : covers.coverRows();
  }
  void carry(Durability space, const Changes& changes) {
    if (space != kCover) return carryInto(space == kStored ? stored : volatile_, changes);
    for (const Change& each : changes) covers.cover(each);
  }
  Rows visible(Layer layer = Layer::effective) const {
    Rows rows = visibleBase();
    if (layer == Layer::base) return rows;
    for (const auto& [key, value] : covers.coverRows()) {
      const auto type = rows.find({key.first, ""});
      if (type != rows.end() && type->second == covers.covers.at(key.first).type) rows[key] = value;
    }
    return rows;
  }
  Rows visibleBase() const {
    Rows rows = stored;
    for (const auto& [key, value] : volatile_) {
      const auto type = stored.find({key.first, ""});
      if (type == stored.end() || type->second == volatile_.at({key.first, ""})) rows[key] = value;
    }
    return rows;
  }
  Naive withPending() const {
    Naive after{stored, volatile_, covers};
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
    const Durability space = kSpaces[below(3)];
    if (kind < 5) carry(space, changes(1 + below(3)));
    if (kind == 5) replace(space);
    if (below(2)) replaceFurther();
    if (kind == 6) writeWithCompanion();
    if (kind == 7) pend();
    if (kind == 8 && !naive_.pending.empty()) settle();
    expectShown();
    if (replaced_.empty()) checkShown();
    if (replaced_.empty() && below(2)) checkTable();
  }

 private:
  static constexpr Durability kSpaces[] = {kStored, kVolatile, kCover};

  unsigned below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }
  template <class List>
  auto any(const List& list) {
    return list[below(static_cast<unsigned>(std::size(list)))];
  }

  std::string path() {
    static const char* const paths[] = {"m", "m/a", "m/a/b", "m/a/c", "m/d"};
    if (below(3)) return any(paths);
    // New ones come, and take the places in the table of those that have gone, while a snapshot is replaced.
    return below(2) ? "m/a/" + std::to_string(below(12)) : "n" + std::to_string(below(4)) + "/e";
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
    auto before = subscribers_;
    LayeredChanges visible;
    naive_.carry(space, changes);
    mirror_.carry(space, changes, visible);
    notify(visible);
    if (changes.size() == 1) expectNoNeedlessDel(visible, before);
  }
  // The mirror gets what it missed in portions, while the space goes on changing.
  void replace(Durability space) {
    naive_.carry(space, changes(below(8)));
    replaced_.insert(space);
    mirror_.replace(space, [this, space](Path path) -> std::optional<const Record*> {
      wanted_ = Snapshot(naive_.in(space)).records;
      const auto found = std::ranges::find(wanted_, path, &Record::path);
      return found == wanted_.end() ? nullptr : &*found;
    });
  }
  void replaceFurther() {
    if (replaced_.empty()) return;
    const Durability space = *replaced_.begin();
    auto before = subscribers_;
    LayeredChanges visible;
    if (mirror_.proceed(space, below(static_cast<unsigned>(2 * Path::count())), visible))
      replaced_.erase(space);
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
    carryInto(naive_.volatile_, companion);
    mirror_.carryHidden(companion);
    expectShown();
    if (below(3) == 0) carry(below(2) ? kVolatile : kCover, changes(1));
    if (below(3) == 0) replaceFurther();
    expectShown();
    carry(kStored, entry);
    expectShown();
    LayeredChanges visible;
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

  // Subscribers that would notice what did not change.
  void notify(const LayeredChanges& visible) {
    for (const Layer layer : kLayers) notify(visible.of(layer), subscribers_[layer]);
  }
  static void notify(const Changes& visible, Rows& subscriber) {
    for (const Change& change : visible) {
      const Rows before = subscriber;
      carryInto(subscriber, {change});
      EXPECT_NE(subscriber, before) << change.row.path << " is notified of what it is";
      const auto type = before.find({change.row.path.text(), ""});
      const bool replaces = change.kind == Change::Kind::put && type != before.end() &&
                            type->second != Value(change.row.type.view());
      EXPECT_FALSE(replaces) << "no del before a put of another type: " << change.row.path;
    }
  }
  // Of one change, or of a portion of a snapshot.
  void expectNoNeedlessDel(const LayeredChanges& visible, std::map<Layer, Rows>& before) {
    for (const Layer layer : kLayers)
      for (const Change& change : visible.of(layer)) {
        const std::pair<std::string, std::string> key{change.row.path.text(), ""};
        if (change.kind != Change::Kind::del || !subscribers_[layer].contains(key)) continue;
        EXPECT_NE(subscribers_[layer].at(key), before[layer].at(key))
            << "a needless del: " << change.row.path;
      }
  }

  Rows shown(Layer layer) {
    Rows rows;
    mirror_.withShown("", layer, [&](const Records& records) { rows = rowsOf(records); });
    return rows;
  }
  void expectShown() {
    for (const Layer layer : kLayers) EXPECT_EQ(shown(layer), subscribers_[layer]);
  }
  void checkShown() {
    const Rows visible = naive_.visible();
    for (const Layer layer : kLayers) EXPECT_EQ(subscribers_[layer], naive_.visible(layer));
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
    EXPECT_EQ(rowsOf(mirror_.readBase("")), after.visible(Layer::base));
    EXPECT_EQ(rowsOf(mirror_.readCovers("")), naive_.covers.coverRows());
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
  std::map<Layer, Rows> subscribers_;
  std::set<Durability> replaced_;  // in part
  std::vector<Record> wanted_;
};

TEST(RedisMirror, SubscribersAndTheTableAgreeWithPlainMaps) {
  for (unsigned seed = 1; seed <= 100 && !testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    World world(seed);
    for (int i = 0; i < 100 && !testing::Test::HasFailure(); ++i) world.step();
  }
}

TEST(RedisMirror, RevealsWhatTheLastStepOfABatchAtAPlaceDidNotWrite) {
  const auto put = [](int value) { return Change::put("a", "T", "x", value); };
  const Changes none, two = {put(2)};
  const struct {
    Changes batch, revealed;
  } cases[] = {
      {{put(2)}, none},
      {{put(3)}, two},
      {{put(2), put(3)}, two},
      {{put(3), put(2)}, none},
      {{put(2), Change::unset("a", "x")}, two},
      {{Change::unset("a", "x"), put(2)}, none},
      {{put(2), Change::del("a")}, {Change::put("a", "T", {}, {}), put(2)}},
      {{Change::del("a"), Change::put("a", "T", {}, {}), put(2)}, none},
  };
  Host::Redis::Mirror mirror;
  LayeredChanges visible;
  mirror.carry(kStored, two, visible);
  for (const auto& each : cases)
    EXPECT_EQ(mirror.revealedBy(each.batch), each.revealed) << "case " << &each - cases;

  const Changes cover = {Change::put("a", "T", "y", 5)};
  mirror.carry(kCover, cover, visible);
  for (const Changes& batch : {two, Changes{Change::put("a", "T", {}, {})}})
    EXPECT_EQ(mirror.revealedBy(batch), cover) << "the entity may be new, and shows with its covers";
}

}  // namespace
