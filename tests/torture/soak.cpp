// One host under a steady load, for as long as there is time: memory stays flat, the state file bounded, and
// LEDs do not come later and later.
#include <algorithm>
#include <filesystem>

#include "tests/torture/board.h"

namespace Torture {

namespace {

constexpr unsigned kSoakLeds = 50;
constexpr double kInterval = 0.02;          // of the LED whose lateness is measured
constexpr std::uint64_t kFiles = 16 << 20;  // bytes of the state file and its log
constexpr std::uint64_t kFlat = 256 << 10;  // bytes of memory
constexpr double kLater = 0.05;             // seconds

class SoakRun {
 public:
  explicit SoakRun(Round& round)
      : round_(round),
        board_(round, kSoakLeds),
        host_(round, "host",
              {"--store", "sqlite:" + round.folder.at("state.db"), "--agent", "libpinlamp.so", "--agent",
               Board::lineAgent()},
              board_.surroundings()) {
    host_.waitReady();
    client_.emplace(host_.socket());
    client_->call("write", batch(board_.mappings()));
    client_->call("write",
                  batch(Json::array({Board::setting(0, {{"green", true}, {"flashInterval", kInterval}})})));
    client_->call("watch", {{"path", std::string(kPins) + "/L0-green"}});
  }

  void operator()() {
    const double each = std::max(0.5, round_.left() / 40);
    while (!round_.isOver()) sample(each);
    const std::size_t quarter = samples_.size() / 4;
    if (quarter == 0) return;
    compare(worst(quarter, 2 * quarter), worst(samples_.size() - quarter, samples_.size()));
    host_.stop();
  }

 private:
  struct Sample {
    std::uint64_t memory = 0, files = 0;
    double lateness = 0;
  };

  void sample(double seconds) {
    std::uint64_t toggles = 0;
    const double began = now();
    while (now() < began + seconds) {
      work();
      while (const auto message = client_->next(0)) toggles += message->contains("method");
    }
    Sample sample{host_.memory(), 0,
                  (now() - began) / static_cast<double>(std::max<std::uint64_t>(1, toggles)) - kInterval};
    for (const char* name : {"state.db", "state.db-wal"})
      if (std::filesystem::exists(round_.folder.at(name)))
        sample.files += std::filesystem::file_size(round_.folder.at(name));
    samples_.push_back(sample);
  }

  // LEDs of a fixed set come, change and go, and so do clients.
  void work() {
    const auto led = 1 + static_cast<unsigned>(round_.random.below(kSoakLeds - 1));
    Client client(host_.socket());
    const Json answer = client.answer(
        "write", batch(Json::array({round_.random.chance(10)
                                        ? Board::removal(led)
                                        : Board::setting(led, Board::randomSetting(round_.random, 0.05))})));
    if (answer.contains("result")) ++round_.count("settings and removals");
    if (round_.random.chance(10)) client.call("read");
    sleepFor(0.01);
  }

  // The greatest of sizes, the median of lateness.
  Sample worst(std::size_t from, std::size_t to) const {
    Sample worst;
    std::vector<double> lateness;
    for (std::size_t i = from; i < to; ++i) {
      worst.memory = std::max(worst.memory, samples_[i].memory);
      worst.files = std::max(worst.files, samples_[i].files);
      lateness.push_back(samples_[i].lateness);
    }
    std::ranges::sort(lateness);
    worst.lateness = lateness[lateness.size() / 2];
    return worst;
  }

  // Those of the second quarter with those of the last.
  void compare(const Sample& early, const Sample& late) {
    const auto text = [](const Sample& sample) {
      return std::to_string(sample.memory >> 10) + " KiB of memory, " + std::to_string(sample.files >> 10) +
             " KiB of files, ticks " + std::to_string(sample.lateness * 1e3) + " ms late";
    };
    round_.report.figure("second quarter", text(early));
    round_.report.figure("last quarter", text(late));
    if (late.memory > early.memory + kFlat)
      throw Failure("memory grows: " + text(early) + "; then " + text(late));
    if (late.files > kFiles)
      throw Failure("the files are larger than " + std::to_string(kFiles) + " bytes: " + text(late));
    if (late.lateness > 2 * early.lateness + kLater)
      throw Failure("lateness grows: " + text(early) + "; then " + text(late));
  }

  Round& round_;
  Board board_;
  Daemon host_;
  std::optional<Client> client_{};
  std::vector<Sample> samples_{};
};

}  // namespace

void soakRound(Round& round) {
  SoakRun run(round);
  run();
}

}  // namespace Torture
