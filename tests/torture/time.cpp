// The host is stopped while LEDs flash at intervals from a millisecond on. Afterwards each toggles once,
// late, and goes on from there: nothing is caught up.
#include <sys/wait.h>

#include <cmath>
#include <csignal>

#include "tests/torture/board.h"

namespace Torture {

namespace {

constexpr unsigned kTimeLeds = 16;

class TimeRun {
 public:
  explicit TimeRun(Round& round)
      : round_(round),
        board_(round, kTimeLeds),
        host_(round, "host", {"--store", "memory:", "--agent", "libpinlamp.so"}) {
    host_.waitReady();
    client_.emplace(host_.socket());
    client_->call("write", batch(board_.mappings()));
    Json changes = Json::array();
    for (unsigned led = 0; led < kTimeLeds; ++led) {
      // From 1 ms to 1 s, and some odd ones.
      intervals_.push_back(std::pow(10.0, round.random.within(-3, 0)));
      changes.push_back(Board::setting(led, {{"green", true}, {"flashInterval", intervals_[led]}}));
    }
    client_->call("write", batch(changes));
    client_->call("watch", {{"path", kPins}});
  }

  void operator()() {
    stopFor(0);
    // A minute where there is time for it.
    stopFor(round_.left() > 90 ? 60 : round_.random.within(0.5, 2.5));
    for (int i = 0; i < 5 && !round_.isOver(); ++i) stopFor(round_.random.within(0.001, 0.3));
    if (!client_->call("status")["lastRefusal"].get<std::string>().empty()) throw Failure(host_.log());
    host_.stop();
  }

 private:
  // A moment of the host's own time, and its work so far.
  struct Moment {
    double now;
    std::uint64_t expiries;
  };

  // Counts toggles that are reported before the answer.
  Moment moment() {
    const std::int64_t id = client_->send("status");
    for (const double end = now() + 20; now() < end;) {
      const auto message = client_->next(end - now());
      if (!message) break;
      if (message->value("id", Json()) == id)
        return {(*message)["result"]["now"], (*message)["result"]["expiries"]};
      for (const Json& change : (*message)["params"]["changes"]) note(change);
    }
    throw Failure("no status within 20 s");
  }
  void note(const Json& change) {
    const std::string path = change["path"];
    if (path.ends_with("-green")) ++toggles_[std::stoul(path.substr(path.rfind("/L") + 2))];
  }

  void stopFor(double seconds) {
    toggles_.assign(kTimeLeds, 0);
    const Moment before = moment();
    toggles_.assign(kTimeLeds, 0);
    sleepFor(round_.random.within(0, 0.2));
    double stopped = now(), goesOn = stopped;
    if (seconds > 0) {
      host_.signal(SIGSTOP);
      ::waitpid(host_.pid(), nullptr, WUNTRACED);
      stopped = now();
      sleepFor(seconds);
      goesOn = now();
      host_.signal(SIGCONT);
    }
    sleepFor(0.3 + round_.random.within(0, 0.4));
    const Moment after = moment();
    round_.note("stopped for " + std::to_string(seconds) +
                " s: " + std::to_string(after.expiries - before.expiries) + " expiries");
    check(before, after, stopped, goesOn);
    ++round_.count("stops");
  }

  // At most as many as fit before and after the stop, and one on either side.
  void check(const Moment& before, const Moment& after, double stopped, double goesOn) {
    std::uint64_t most = 0, seen = 0;
    for (unsigned led = 0; led < kTimeLeds; ++led) {
      const std::uint64_t bound = fitting(stopped - before.now, led) + fitting(after.now - goesOn, led);
      const double whole = after.now - goesOn;
      if (toggles_[led] > bound)
        throw Failure("an LED that flashes every " + std::to_string(intervals_[led]) + " s toggled " +
                      std::to_string(toggles_[led]) + " times, at most " + std::to_string(bound) +
                      " are due");
      if (toggles_[led] == 0 && intervals_[led] < 0.2)
        throw Failure("an LED that flashes every " + std::to_string(intervals_[led]) +
                      " s stands still for " + std::to_string(whole) + " s");
      most += bound, seen += toggles_[led];
    }
    if (after.expiries - before.expiries > most)
      throw Failure(std::to_string(after.expiries - before.expiries) + " expiries, at most " +
                    std::to_string(most) + " are due");
    round_.count("toggles") += seen;
    round_.count("toggles that were possible") += most;
  }
  std::uint64_t fitting(double seconds, unsigned led) const {
    return static_cast<std::uint64_t>(std::max(0.0, seconds) / intervals_[led]) + 1;
  }

  Round& round_;
  Board board_;
  Daemon host_;
  std::optional<Client> client_{};
  std::vector<double> intervals_{};
  std::vector<std::uint64_t> toggles_{};
};

}  // namespace

void timeRound(Round& round) {
  TimeRun run(round);
  run();
}

}  // namespace Torture
