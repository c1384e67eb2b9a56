// Power fails at every step of a recorded run. Everything that was not synced by then survives, or nothing of
// it, or a part, down to sectors. The real store opens each outcome.
#include <fcntl.h>
#include <algorithm>
#include <cstring>

#include "host/rpc/changes.h"
#include "host/store/sqlitestore.h"
#include "tests/torture/ledger.h"
#include "tests/torture/shim.h"

namespace Torture {

namespace {

constexpr std::size_t kSector = 512;
constexpr std::size_t kWhole = 1'000'000;  // bytes of a record that is cut after every step
constexpr const char* kState = "state.db";

// The part of the steps that were not synced which survives.
enum class Survive { all, none, some };

// A folder and the files in it, as the recorded steps leave them.
class Disk {
 public:
  explicit Disk(std::string folder) : folder_(std::move(folder)) {}

  void step(const ShimRecord& record, const std::string& content, const std::string& extra) {
    const std::string name = content.substr(content.rfind('/') + 1);
    switch (record.step) {
      case Step::open:
        open_[record.descriptor] = content == folder_ ? kFolder : file(name);
        break;
      case Step::close:
        open_.erase(record.descriptor);
        break;
      case Step::unlink:
        linkIs(name, kNone);
        break;
      case Step::rename: {
        const int moved = names_.at(name);
        linkIs(name, kNone), linkIs(extra.substr(extra.rfind('/') + 1), moved);
        break;
      }
      case Step::write:
        change(record.descriptor, {record.offset, content});
        break;
      case Step::truncate:
        change(record.descriptor, {record.offset, std::nullopt});
        break;
      case Step::sync:
        sync(open_.at(record.descriptor));
        break;
      case Step::sent:
        break;
    }
  }

  // Names and contents that a start after the power failure finds. The folder's changes are carried
  // out in order, up to any of them; those of a file in any choice.
  std::map<std::string, std::string> survivors(Survive survive, Random& random) const {
    auto names = syncedNames_;
    const std::size_t most = links_.size();
    const std::size_t count = survive == Survive::all    ? most
                              : survive == Survive::none ? 0
                                                         : random.below(most + 1);
    for (std::size_t i = 0; i < count; ++i) link(names, links_[i]);
    std::map<std::string, std::string> found;
    for (const auto& [name, number] : names)
      found[name] = content(files_[std::size_t(number)], survive, random);
    return found;
  }

 private:
  static constexpr int kFolder = -1, kNone = -2;
  using Names = std::map<std::string, int>;
  struct Change {
    std::uint64_t at;
    std::optional<std::string> bytes;  // nullopt: the file is cut there
  };
  struct File {
    std::string now{}, synced{};
    std::vector<Change> changes{};  // since then
  };

  int file(const std::string& name) {
    if (const auto found = names_.find(name); found != names_.end()) return found->second;
    files_.emplace_back();
    linkIs(name, static_cast<int>(files_.size()) - 1);
    return names_[name];
  }
  static void link(Names& names, const std::pair<std::string, int>& link) {
    if (link.second == kNone)
      names.erase(link.first);
    else
      names[link.first] = link.second;
  }
  void linkIs(const std::string& name, int number) {
    links_.emplace_back(name, number);
    link(names_, links_.back());
  }
  void change(int descriptor, Change change) {
    File& file = files_[std::size_t(open_.at(descriptor))];
    carryOut(file.now, change);
    file.changes.push_back(std::move(change));
  }
  static void carryOut(std::string& content, const Change& change) {
    if (!change.bytes) return content.resize(change.at);
    content.resize(std::max(content.size(), change.at + change.bytes->size()));
    content.replace(change.at, change.bytes->size(), *change.bytes);
  }
  void sync(int number) {
    if (number == kFolder) return syncedNames_ = names_, links_.clear();
    File& file = files_[std::size_t(number)];
    file.synced = file.now, file.changes.clear();
  }
  static std::string content(const File& file, Survive survive, Random& random) {
    if (survive == Survive::all) return file.now;
    std::string content = file.synced;
    if (survive == Survive::some)
      for (const Change& each : file.changes)
        if (random.chance(70)) carryOut(content, torn(each, random));
    return content;
  }
  // One whole sector of the change, all up to one, all from one on, or all.
  static Change torn(const Change& change, Random& random) {
    if (!change.bytes || random.chance(50)) return change;
    const std::size_t size = change.bytes->size(), first = kSector - change.at % kSector;
    const std::size_t sectors = size <= first ? 0 : (size - first + kSector - 1) / kSector;
    if (sectors == 0) return change;
    const std::size_t cut = first + kSector * random.below(sectors);
    const auto upper = random.below(3);
    if (upper == 0) return {change.at, change.bytes->substr(0, cut)};
    return {change.at + cut, change.bytes->substr(cut, upper == 1 ? size : kSector)};
  }

  const std::string folder_;
  Names names_{}, syncedNames_{};
  std::vector<std::pair<std::string, int>> links_{};  // changes of the names since they were synced
  std::vector<File> files_{};
  std::map<int, int> open_{};
};

// A run of the host, several lives long, with what its client knows about it.
struct Recording {
  explicit Recording(Round& round)
      : shim(round.folder.at("control"), round.folder.at(kState), round.folder.at("record")),
        ledger("w", round.random, round.random.chance(30) ? 400'000 : 2'000) {}

  void live(Round& round, bool isLast) {
    Daemon host(round, "host", {"--store", "sqlite:" + round.folder.at(kState)}, {shim.environment()});
    host.waitReady();
    Client client(host.socket());
    ledger.check(client.rows("w"));
    for (auto batches = 10 + round.random.below(50); batches > 0; --batches) {
      ids.push_back(client.send("write", ledger.write()));
      while (const auto answer = client.next(ids.size() < 4 ? 0 : 20)) answered(*answer);
    }
    while (isLast && !ids.empty()) answered(client.next(20).value());
    isLast || round.random.chance(30) ? host.stop() : host.kill();
    while (const auto answer = client.next(0)) answered(*answer);
    ids.clear();
  }
  void answered(const Json& answer) {
    ids.pop_front();
    ledger.answered(answer);
    stateOf[answer["id"]] = ledger.state();
  }

  Shim shim;
  Ledger ledger;
  std::deque<std::int64_t> ids{};                 // under way
  std::map<std::int64_t, std::size_t> stateOf{};  // that the answer to a request acknowledges
};

// Opens copies of what survives.
class Replay {
 public:
  Replay(Round& round, const Recording& recording) : round_(round), recording_(recording) {}

  void operator()() {
    const std::string record = contentOf(round_.folder.at("record"));
    // Of a long record a share, so that its end comes.
    const auto share = static_cast<unsigned>(std::clamp<std::size_t>(100 * kWhole / record.size(), 2, 100));
    for (std::size_t at = 0; at < record.size() && !round_.isOver(); ++step_) {
      ShimRecord head;
      std::memcpy(&head, record.data() + at, sizeof head);
      const std::string content = record.substr(at += sizeof head, head.size);
      disk_.step(head, content, record.substr(at += head.size, head.extra));
      at += head.extra;
      if (head.step == Step::sent) acknowledge(content);
      for (const Survive each : {Survive::all, Survive::none, Survive::some, Survive::some})
        if (round_.random.chance(share)) cut(each);
      if (at == record.size()) compareWithFiles();
    }
  }

 private:
  void acknowledge(const std::string& lines) {
    std::istringstream in(lines);
    for (std::string line; std::getline(in, line);) {
      const Json message = Json::parse(line, nullptr, false);
      if (!message.is_object() || !message.contains("id")) continue;
      const auto found = recording_.stateOf.find(message["id"]);
      if (found != recording_.stateOf.end()) least_ = std::max(least_, found->second);
    }
  }

  void cut(Survive survive) {
    static constexpr const char* kNames[] = {"all", "none", "some"};
    const auto files = disk_.survivors(survive, round_.random);
    if (files == last_) return;  // as at the step before
    last_ = files;
    ++round_.count("power failures");
    const Folder folder;
    for (const auto& [name, content] : files) contentIs(folder.at(name), content);
    const std::string where = "power fails after step " + std::to_string(step_) + ", of what is not synced " +
                              kNames[int(survive)] + " survives: ";
    try {
      open(folder.at(kState));
    } catch (const std::exception& error) {
      throw Failure(where + error.what());
    }
  }

  // A store that was opened must take writes as well.
  void open(const std::string& file) {
    const Statedb::Change change = Statedb::Change::put("after", kText, "", {});
    {
      Host::SqliteStore store(file);
      const std::string why = recording_.ledger.differs(rows(store, "w"), least_);
      if (!why.empty()) throw Failure(why);
      if (!round_.random.chance(5)) return;
      store.write({change}, Statedb::Durability::stored);
      store.flush();
    }
    if (rows(Host::SqliteStore(file), "after").empty()) throw Failure("what is written after it is lost");
    ++round_.count("stores written to afterwards");
  }
  static Rows rows(const Host::SqliteStore& store, const char* path) {
    return rowsOf(Json::parse(Host::entitiesText(store.read(path))));
  }

  // The recorded steps must be all that there were.
  void compareWithFiles() {
    for (const auto& [name, content] : disk_.survivors(Survive::all, round_.random))
      if (contentOf(round_.folder.at(name)) != content)
        throw Failure("the record has not all steps: " + name + " differs");
    ++round_.count("records replayed to their end");
  }

  Round& round_;
  const Recording& recording_;
  Disk disk_{round_.folder.at("").substr(0, round_.folder.at("").size() - 1)};
  std::map<std::string, std::string> last_{};
  std::size_t least_ = 0, step_ = 0;
};

}  // namespace

void powerRound(Round& round) {
  Recording recording(round);
  for (auto lives = 1 + round.random.below(3); lives > 0; --lives) recording.live(round, lives == 1);
  round.count("acknowledged writes") += recording.ledger.acknowledged();
  Replay{round, recording}();
}

}  // namespace Torture
