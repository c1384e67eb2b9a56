// Clients that flood, sleep, send half messages, never read, come and go. A well-behaved client beside them
// gets its answers, soon; the host's memory stays bounded, and nothing of a client that has gone remains.
#include <algorithm>
#include <iomanip>
#include <sstream>
#include <thread>

#include "tests/torture/flooder.h"

namespace Torture {

namespace {

constexpr std::uint64_t kMiB = 1 << 20;
constexpr double kLongestAnswer = 2.0;       // seconds of the slowest of 100 answers, on a busy machine
constexpr std::uint64_t kTotal = 64 * kMiB;  // that the host lets clients hold, beside the largest
constexpr std::uint64_t kSlack = 48 * kMiB;  // of the largest, and of the allocator
constexpr std::uint64_t kLeak = 48;          // bytes for each client that has gone
constexpr const char* kFirstRequests[] = {nullptr, "hello", "watch", "begin"};  // of clients that come and go

class ClientsRun {
 public:
  explicit ClientsRun(Round& round)
      : round_(round),
        host_(round, "host", {"--store", "sqlite:" + round.folder.at("state.db")}, {.descriptors = 512}) {
    host_.waitReady();
    good_.emplace(host_.socket());
    for (int i = 0; i < 100; ++i)
      good_->call(
          "write",
          batch(Json::array({put("some/t" + std::to_string(i), kText, {{"error", std::string(300, 'e')}})})));
    base_ = host_.memory();
  }

  void operator()() {
    measure("alone", 0.5, {});
    measure("beside 16 that flood with hello", some(), flooders(host_.socket(), {requestOf("hello")}));
    measure("beside 16 that flood with anything", some(), flooders(host_.socket(), anything()));
    hold();
    comeAndGo();
    if (!good_->call("status").contains("clients")) throw Failure("no status");
    host_.stop();
  }

 private:
  double some() const { return std::clamp(round_.left() / 5, 1.0, 10.0); }

  // Latencies of the good client.
  void measure(const std::string& what, double seconds, const Flooders& flooding) {
    std::jthread flood;
    if (!flooding.empty())
      flood = std::jthread([&flooding](std::stop_token stop) {
        while (!stop.stop_requested())
          for (const auto& each : flooding) each->act();
      });
    std::vector<double> latencies;
    for (const double end = now() + seconds; now() < end; sleepFor(0.002)) latencies.push_back(oneCall());
    flood = {};
    std::ranges::sort(latencies);
    const double p50 = latencies[latencies.size() / 2], p99 = latencies[latencies.size() * 99 / 100];
    std::ostringstream text;
    text << std::fixed << std::setprecision(2) << "p50 " << p50 * 1e3 << " ms, p99 " << p99 * 1e3
         << " ms, most " << latencies.back() * 1e3 << " ms of " << latencies.size() << " answers";
    round_.report.figure("a client " + what, text.str());
    for (const auto& each : flooding) round_.count("answers to flooders") += each->answers();
    for (const auto& each : flooding)
      if (each->hasEnded()) throw Failure("a flooder that reads was disconnected");
    if (p99 > kLongestAnswer) throw Failure("a client " + what + ": " + text.str());
    checkMemory();
  }
  double oneCall() {
    const double began = now();
    const auto kind = round_.random.below(3);
    if (kind == 0) good_->call("hello");
    if (kind == 1) good_->call("read", {{"path", "some/t7"}});
    if (kind == 2)
      good_->call("write", volatileBatch(Json::array({put("good/p", kPin, {{"value", ++value_ % 2}})})));
    return now() - began;
  }

  void checkMemory() {
    const std::uint64_t grown = std::max(host_.memory(), base_) - base_;
    round_.report.most("MiB at most that the host's memory grew", grown / kMiB);
    if (grown > kTotal + kSlack)
      throw Failure("the host's memory grew by " + std::to_string(grown / kMiB) + " MiB");
  }

  // Clients that hold memory and descriptors, as many as there are of them.
  void hold() {
    std::vector<std::unique_ptr<Client>> sleepers;
    Flooders deaf;
    const std::string half = R"({"jsonrpc":"2.0","id":1,"method":")" + std::string(1'000'000, 'h');
    for (int i = 0; i < 450; ++i) {
      sleepers.push_back(std::make_unique<Client>(host_.socket()));
      if (i % 3 == 0) sendAll(*sleepers.back(), half);
      if (i % 25 == 0)
        deaf.push_back(
            std::make_unique<Flooder>(host_.socket(), requestOf("read", {{"path", "some"}}), false));
      for (const auto& each : deaf) each->act();
      if (i % 20 == 0) oneCall(), checkMemory();
    }
    for (int i = 0; i < 50; ++i) {
      for (const auto& each : deaf) each->act();
      oneCall(), checkMemory();
    }
    const auto hasEnded = [](const auto& each) { return each->next(0), each->hasEnded(); };
    round_.count("clients that were refused or disconnected") +=
        static_cast<std::uint64_t>(std::ranges::count_if(sleepers, hasEnded));
    round_.count("sleeping clients, with half messages or none") += sleepers.size();
    round_.count("clients that never read") += deaf.size();
    measure("beside them", 0.5, {});
  }
  static void sendAll(Client& client, std::string_view bytes) {
    for (int tries = 0; !bytes.empty() && !client.hasEnded() && tries < 100; ++tries) {
      const ssize_t sent = client.sendRaw(bytes);
      if (sent < 0) return;
      if (sent == 0) sleepFor(0.001);
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
  }

  // Their number must not show in the host's memory.
  void comeAndGo() {
    come(2000);
    const std::uint64_t before = host_.memory(), many = round_.left() > 60 ? 100'000 : 10'000;
    come(many);
    const std::uint64_t grown = std::max(host_.memory(), before) - before;
    round_.count("clients that came and went") += many;
    round_.report.most("bytes at most that one of them left", grown / many);
    if (grown > kLeak * many)
      throw Failure(std::to_string(many) + " clients came and went, the host's memory grew by " +
                    std::to_string(grown) + " bytes");
  }
  void come(std::uint64_t many) {
    for (std::uint64_t i = 0; i < many; ++i) {
      Client client(host_.socket());
      if (i % 4 != 0) client.send(kFirstRequests[i % 4]);
      if (i % 4 == 3)
        client.send("write", batch(Json::array({put("gone/" + std::to_string(i), kPin, {{"value", 1}})})));
      if (i % 4 != 0 && i % 8 < 4) client.next(20);
    }
    oneCall();
    round_.count("clients that left within a transaction, which is not there") += many / 4;
    if (const auto left = good_->rows("gone"); !left.empty())
      throw Failure(left.begin()->first + " is there, whose transaction was not committed");
  }

  Round& round_;
  Daemon host_;
  std::optional<Client> good_{};
  std::uint64_t base_ = 0;
  unsigned value_ = 0;
};

}  // namespace

void clientsRound(Round& round) {
  serveBesideFlooders(round);
  ClientsRun run(round);
  run();
}

}  // namespace Torture
