// A client beside 16 that flood, with the host in this process. All that others do to the client is that its
// request waits, for processor time of the host that is counted.
#include <algorithm>
#include <ctime>
#include <iomanip>
#include <optional>
#include <sstream>

#include "host/store/sqlitestore.h"
#include "tests/servedstore.h"
#include "tests/torture/flooder.h"

namespace Torture {

namespace {

constexpr double kLongestUse = 0.02;  // processor seconds of the slowest of 100 answers
constexpr int kPause = 2;             // rounds from an answer to the next request

double processorTime() {
  timespec time{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

class PacedRun {
 public:
  PacedRun(Round& round, const std::vector<std::string>& requests)
      : round_(round), socket_(file_.at("host.sock")), host_(loop_, socket_, file_.at("state.db")) {
    Statedb::Changes changes;
    for (int i = 0; i < 100; ++i)
      changes.push_back(
          Statedb::Change::put("some/t" + std::to_string(i), kText, "error", std::string(300, 'e')));
    host_.store.write(changes, Statedb::Durability::stored);
    host_.listen(loop_, socket_, {});  // with the rounds of a real host
    flooders_ = flooders(socket_, requests);
    good_.emplace(socket_);
    loop_.turnIs([this] {
      if (pause_-- == 0) ask();
      host_.turn();
      return Zel::Clock::kNever;
    });
  }

  void operator()(const std::string& what, double seconds) {
    for (const double end = now() + seconds; now() < end || latencies_.size() < 100;) turn();
    std::ranges::sort(latencies_);
    const double p99 = latencies_[latencies_.size() * 99 / 100];
    std::ostringstream text;
    text << std::fixed << std::setprecision(2) << "p50 " << latencies_[latencies_.size() / 2] * 1e3
         << " ms, p99 " << p99 * 1e3 << " ms, most " << latencies_.back() * 1e3 << " ms of "
         << latencies_.size() << " answers, " << mostRounds_ << " rounds at most";
    round_.report.figure("processor time of the host " + what, text.str());
  }

 private:
  // The sockets of this round have been read: the request waits for the whole next one.
  void ask() {
    const auto kind = round_.random.below(3);
    if (kind == 0) good_->send("hello");
    if (kind == 1) good_->send("read", {{"path", "some/t7"}});
    if (kind == 2)
      good_->send("write", volatileBatch(Json::array({put("good/p", kPin, {{"value", ++value_ % 2}})})));
    asked_ = processorTime();
    rounds_ = 0;
  }

  void turn() {
    for (const auto& each : flooders_) each->act();
    const double began = processorTime();
    loop_.runOnce();
    const double ended = processorTime();
    if (pause_ >= 0) return;
    latency_ += ended - std::max(began, asked_);
    mostRounds_ = std::max(mostRounds_, ++rounds_);
    if (!good_->next(0)) return;
    if (latency_ > kLongestUse && ++slow_ > 1 + latencies_.size() / 100)
      throw Failure("a client beside 16 that flood: " + std::to_string(slow_) + " of " +
                    std::to_string(latencies_.size() + 1) + " answers took the host more than " +
                    std::to_string(kLongestUse) + " s of processor time, this one " +
                    std::to_string(latency_));
    latencies_.push_back(std::exchange(latency_, 0));
    pause_ = kPause;
  }

  Round& round_;
  const Folder file_;
  const std::string socket_;
  Host::Loop loop_;
  Zel::ActivityManager activity_;
  Support::ServedStore<Host::SqliteStore> host_;
  Flooders flooders_{};
  std::optional<Client> good_{};
  int pause_ = kPause, rounds_ = 0, mostRounds_ = 0;
  unsigned value_ = 0;
  std::size_t slow_ = 0;
  double asked_ = 0, latency_ = 0;
  std::vector<double> latencies_{};
};

}  // namespace

void serveBesideFlooders(Round& round) {
  const double seconds = std::clamp(round.left() / 8, 0.5, 5.0);
  PacedRun(round, {requestOf("hello")})("beside 16 that flood with hello", seconds);
  PacedRun(round, anything())("beside 16 that flood with anything", seconds);
}

}  // namespace Torture
