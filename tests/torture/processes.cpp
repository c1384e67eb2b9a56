// The state database, the LED agent and the line agent as three processes that are killed and stopped in any
// order while LEDs flash and settings change. In the end pins and lines show what is set.
#include <csignal>

#include "tests/torture/board.h"

namespace Torture {

namespace {

// One of the three.
struct Part {
  const char* name;
  std::vector<std::string> arguments;
  Daemon::Surroundings surroundings{};
  std::unique_ptr<Daemon> daemon{};
  bool isStopped = false;
  double healsAt = 0;
};

class ProcessesRun {
 public:
  explicit ProcessesRun(Round& round) : round_(round), board_(round, 12) {
    const std::string store = "unix:" + round.folder.at("keeper.sock");
    parts_[0] = {"keeper", {"--store", "sqlite:" + round.folder.at("state.db")}};
    parts_[1] = {"led", {"--store", store, "--agent", "libpinlamp.so"}};
    parts_[2] = {"line", {"--store", store, "--agent", Board::lineAgent()}, board_.surroundings()};
    for (Part& part : parts_) start(part);
  }

  void operator()() {
    Client(keeper().socket()).call("write", batch(board_.mappings()));
    settings_.resize(board_.count());
    settle();
    for (int times = 0; times < 3 && !round_.isOver(); ++times) {
      for (const double end = now() + 2.5; now() < end; sleepFor(round_.random.within(0, 0.06))) act();
      settle();
    }
    for (Part& part : parts_) part.daemon->stop();
  }

 private:
  // The possible values of a setting: the last one that was acknowledged, and those sent later.
  using Settings = std::vector<Json>;

  Daemon& keeper() { return *parts_[0].daemon; }

  void start(Part& part) {
    part.daemon = std::make_unique<Daemon>(round_, part.name, part.arguments, part.surroundings);
    part.daemon->waitReady();
  }

  void act() {
    for (Part& part : parts_)
      if (now() >= part.healsAt) heal(part);
    Part& part = round_.random.among(parts_);
    if (part.daemon && !part.isStopped && round_.random.chance(25)) harm(part);
    if (round_.random.chance(60)) set();
  }

  void harm(Part& part) {
    part.healsAt = now() + round_.random.within(0, round_.random.chance(30) ? 2 : 0.5);
    part.isStopped = round_.random.chance(50);
    round_.note(std::string(part.name) + (part.isStopped ? " stopped" : " killed"));
    ++round_.count(part.isStopped ? "processes stopped" : "processes killed");
    if (part.isStopped) return part.daemon->signal(SIGSTOP);
    part.daemon->kill();
    part.daemon = nullptr;
  }
  void heal(Part& part) {
    if (part.isStopped) part.daemon->signal(SIGCONT);
    part.isStopped = false;
    if (part.daemon) return;
    round_.note(std::string(part.name) + " started");
    part.daemon = std::make_unique<Daemon>(round_, part.name, part.arguments, part.surroundings);
  }

  // A setting or a removal, of which nothing is known if it is not answered soon.
  void set() {
    const auto led = static_cast<unsigned>(round_.random.below(board_.count()));
    const Json setting = round_.random.chance(8) ? Json() : Board::randomSetting(round_.random, 0.03);
    auto& known = settings_[led];
    if (setting.is_null() && (known.empty() || known.back().is_null())) return;
    known.push_back(setting);
    try {
      Client client(round_.folder.at("keeper.sock"));
      client.send(
          "write",
          batch(Json::array({setting.is_null() ? Board::removal(led) : Board::setting(led, setting)})));
      const auto answer = client.next(0.05);
      if (!answer) return;
      if (answer->contains("result"))
        known = {setting}, ++round_.count("settings acknowledged");
      else
        known.pop_back();
    } catch (const Lost&) {
      known.pop_back();  // it was not sent
    }
  }

  void settle() {
    for (Part& part : parts_) heal(part);
    for (Part& part : parts_) part.daemon->waitReady();
    round_.note("all run");
    const double began = now();
    Client client(keeper().socket());
    board_.startWatching();
    await("pins and lines must show the settings", 30,
          [&] { return board_.differs(client.rows("hardware")); });
    round_.report.most("ms at most until pins and lines showed the settings",
                       std::uint64_t((now() - began) * 1000));
    for (int i = 0; i < 20; ++i, sleepFor(0.01))
      if (const std::string why = board_.differs(client.rows("hardware")); !why.empty())
        throw Failure("no longer: " + why);
    checkSettings(client.rows("hardware"));
    ++round_.count("comparisons");
  }

  void checkSettings(const Rows& rows) {
    for (unsigned led = 0; led < board_.count(); ++led) {
      const auto row = rows.find(Board::ledPath(led));
      const Json found = row == rows.end() ? Json() : row->second.at("lightSetting");
      Settings& known = settings_[led];
      if (!known.empty() && std::ranges::find(known, found) == known.end())
        throw Failure(Board::ledPath(led) + " is set to " + found.dump() + ", possible are " +
                      Json(known).dump());
      known = {found};
    }
  }

  Round& round_;
  Board board_;
  Part parts_[3];
  std::vector<Settings> settings_{};
};

}  // namespace

void processesRound(Round& round) {
  ProcessesRun run(round);
  run();
}

}  // namespace Torture
