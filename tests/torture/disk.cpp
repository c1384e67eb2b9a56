// The disk fails: at every step of a start, and at every step of commits. The host refuses with the reason,
// has all that it acknowledged, keeps volatile rows going, and stores again when the disk does.
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "tests/torture/ledger.h"
#include "tests/torture/shim.h"

namespace Torture {

namespace {

struct Fault {
  const char* name;
  int error;
  std::uint32_t kinds;
  bool isHalf = false;
};

constexpr std::uint32_t bits(std::initializer_list<Step> steps) {
  std::uint32_t bits = 0;
  for (const Step step : steps) bits |= static_cast<std::uint32_t>(step);
  return bits;
}

constexpr Fault kFaults[] = {
    {"full", ENOSPC, bits({Step::open, Step::write})},
    {"full within a write", ENOSPC, bits({Step::write}), true},
    {"read-only", EROFS, bits({Step::open, Step::write, Step::truncate, Step::unlink, Step::rename})},
    {"not syncing", EIO, bits({Step::sync})},
    {"broken", EIO, kAllSteps},
};

class DiskRun {
 public:
  explicit DiskRun(Round& round)
      : round_(round),
        fault_(round.random.among(kFaults)),
        shim_(round.folder.at("control"), round.folder.at("state.db")),
        ledger_(std::make_unique<Ledger>("w", round.random, 20'000)) {}

  void operator()() {
    round_.note(std::string("the disk is ") + fault_.name);
    makeFile();
    startAtEachStep();
    commitAtEachStep();
    commitSlowly();
    round_.count("acknowledged writes") += ledger_->acknowledged();
    round_.count("writes that failed with the reason") += ledger_->failed();
  }

 private:
  std::unique_ptr<Daemon> started() {
    return std::make_unique<Daemon>(round_, "host",
                                    std::vector<std::string>{"--store", "sqlite:" + at("state.db")},
                                    Daemon::Surroundings{shim_.environment()});
  }
  // With a disk that works: it has what was acknowledged.
  std::unique_ptr<Daemon> checked() {
    shim_.heal();
    auto host = started();
    host->waitReady();
    ledger_->check(Client(host->socket()).rows("w"));
    return host;
  }
  std::string at(const std::string& name) const { return round_.folder.at(name); }
  void fail(std::uint32_t after) {
    shim_->half = fault_.isHalf;
    shim_.fail(fault_.kinds, fault_.error, after, round_.random.chance(30) ? 1 : ~0U);
  }

  // None, an empty one, one with rows, or one with rows that a killed host left.
  void makeFile() {
    const auto kind = round_.random.below(4);
    static constexpr const char* kKinds[] = {"no file", "an empty file", "a file",
                                             "the file of a killed host"};
    round_.note(std::string("there is ") + kKinds[kind]);
    if (kind == 1) contentIs(at("state.db"), "");
    if (kind < 2) return;
    const auto host = checked();
    Client client(host->socket());
    for (int i = 0; i < 20; ++i) write(client);
    kind == 2 ? host->stop() : host->kill();
  }

  using Files = std::map<std::string, std::string>;
  Files files() const {
    Files files;
    for (const auto& each : std::filesystem::directory_iterator(at("")))
      if (const std::string name = each.path().filename(); name.starts_with("state.db"))
        files[name] = contentOf(each.path());
    return files;
  }
  void filesAre(const Files& wanted) const {
    for (const auto& [name, content] : files()) std::filesystem::remove(at(name));
    for (const auto& [name, content] : wanted) contentIs(at(name), content);
  }

  void startAtEachStep() {
    const Files before = files();
    const Ledger known = *ledger_;
    const auto begin = [&] { filesAre(before), ledger_ = std::make_unique<Ledger>(known); };
    for (std::uint32_t step = 0; !round_.isOver(); ++step) {
      begin();
      fail(step);
      const auto host = started();
      const bool isUp = startsOrRefuses(*host, step);
      if (isUp) checkServing(*host);
      if (isUp) kill(*host);
      const bool isLast = shim_->failed == 0;
      checked()->kill();
      if (isLast) break;
      ++round_.count(isUp ? "faults that a start survived" : "starts refused with the reason");
    }
    begin();
  }

  bool startsOrRefuses(Daemon& host, std::uint32_t step) {
    const std::string what = "a start whose step " + std::to_string(step) + " fails";
    std::optional<int> status;
    bool isUp = false;
    await(what, 20, [&]() -> std::string {
      if ((status = host.status(0))) return "";
      try {
        Client(host.socket()).call("hello");
        isUp = true;
        return "";
      } catch (const Lost&) {
        return "it neither answers nor ends";
      }
    });
    if (isUp) return true;
    const std::string log = host.log();
    if (status != 1 || log.find("store file '" + at("state.db") + "': ") == std::string::npos)
      throw Failure(what + " must be refused with 1 and the reason, not " + std::to_string(*status) + ": " +
                    log);
    return false;
  }
  // Some of its disk may still fail.
  void checkServing(const Daemon& host) {
    Client client(host.socket());
    ledger_->check(client.rows("w"));
    write(client);
  }

  // A refusal names the file. One may warn that the batch may come back after a kill, until the disk takes
  // another one.
  void write(Client& client) {
    const Json answer = client.answer("write", ledger_->write());
    ledger_->answered(answer);
    if (!answer.contains("error") || answer["error"]["code"] != 2) return;
    const std::string text = answer["error"]["message"];
    round_.note(text);
    if (text.find(at("state.db")) == std::string::npos)
      throw Failure("the refusal does not name the file: " + text);
    mayComeBack_ |= text.find("may come back after a kill") != std::string::npos;
  }

  void endFailures(const Daemon& host) {
    shim_.heal();
    if (!std::exchange(mayComeBack_, false)) return;
    const std::string stamp = std::to_string(++number_);
    Client(host.socket()).call("write", batch(Json::array({put("mark", kText, {{"error", stamp}})})));
  }
  void kill(Daemon& host) {
    if (mayComeBack_) endFailures(host);
    round_.note("killed");
    host.kill();
  }

  void commitAtEachStep() {
    auto host = checked();
    std::uint32_t step = 0;
    for (int commits = 0; commits < 150 && !round_.isOver(); ++commits) {
      commitAt(*host, step);
      step = shim_->failed > 0 ? step + 1 : 0;
      if (round_.random.chance(50)) shim_.heal();
      if (!round_.random.chance(15)) continue;
      kill(*host);
      host = checked();
    }
    endFailures(*host);
    host->stop();
  }

  void commitAt(const Daemon& host, std::uint32_t step) {
    Client client(host.socket());
    client.call("watch", {{"path", "pins"}});
    if (shim_->kinds == 0) {
      fail(step);
      round_.note("step " + std::to_string(step) + " fails");
    }
    write(client);
    checkVolatile(client);
    ledger_->check(client.rows("w"));
    if (shim_->failed > 0) ++round_.count("commits with a fault");
    if (!round_.random.chance(40)) return;
    shim_.heal();
    round_.note("healed");
    const std::uint64_t failed = ledger_->failed();
    write(client);
    if (ledger_->failed() > failed) throw Failure("the disk works again, and a write still fails");
  }

  // A volatile row is taken and delivered, whatever the disk does.
  void checkVolatile(Client& client) {
    const std::string stamp = std::to_string(++number_);
    client.send("write", volatileBatch({put("pins/p", kText, {{"error", stamp}})}));
    bool isTaken = false, isSeen = false;
    while (!isTaken || !isSeen) {
      const auto message = client.next(20);
      if (!message) throw Failure("a volatile row is neither taken nor delivered within 20 s: " + stamp);
      if (message->contains("error")) throw Failure("a volatile row is refused: " + message->dump());
      isTaken |= message->contains("result");
      isSeen |= message->contains("method") && message->dump().find('"' + stamp + '"') != std::string::npos;
    }
    ++round_.count("volatile rows delivered");
  }

  // Nothing fails, all takes its time.
  void commitSlowly() {
    const auto host = checked();
    Client client(host->socket());
    client.call("watch", {{"path", "pins"}});
    shim_.fail(kAllSteps, 0);
    shim_->delay = 2000;
    const std::uint64_t failed = ledger_->failed();
    for (int i = 0; i < 10 && !round_.isOver(); ++i)
      write(client), checkVolatile(client), ++round_.count("slow commits");
    if (ledger_->failed() > failed) throw Failure("a write to a slow disk fails");
    host->kill();
    checked()->stop();
  }

  Round& round_;
  const Fault fault_;
  Shim shim_;
  std::unique_ptr<Ledger> ledger_;
  std::uint64_t number_ = 0;
  bool mayComeBack_ = false;
};

}  // namespace

void diskRound(Round& round) { DiskRun{round}(); }

}  // namespace Torture
