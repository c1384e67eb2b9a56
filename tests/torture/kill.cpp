// The host is killed at random moments, also while it creates its file, starts and stops; clients write
// meanwhile and compare after each start.
#include <csignal>

#include "tests/torture/ledger.h"

namespace Torture {

namespace {

// A connection of a ledger to one life of the host.
struct Writer {
  Writer(Ledger& of, const Daemon& host) : ledger(of), client(host.socket()) {}
  void send() {
    if (ledger.underWay() < 6) client.send("write", ledger.write());
  }
  void receive() {
    while (const auto answer = client.next(0)) ledger.answered(*answer);
  }
  Ledger& ledger;
  Client client;
};

using Ledgers = std::vector<std::unique_ptr<Ledger>>;

void killWhileStarting(Round& round, const std::vector<std::string>& arguments) {
  Daemon host(round, "host", arguments);
  sleepFor(round.random.within(0, 0.03));
  host.kill();
  ++round.count("kills while starting");
}

void check(Round& round, const Daemon& host, const Ledgers& ledgers) {
  Client client(host.socket());
  for (const auto& ledger : ledgers) ledger->check(client.rows(ledger->path()));
  if (!client.rows("volatile").empty()) throw Failure("volatile rows outlive the host");
  ++round.count("comparisons");
}

// Answers that have arrived when the host is dead count.
void end(Round& round, Daemon& host) {
  if (round.random.chance(15)) {
    host.signal(SIGTERM);
    sleepFor(round.random.within(0, 0.004));
    ++round.count("kills while stopping");
  }
  host.kill();
  ++round.count("kills");
}

void live(Round& round, const std::vector<std::string>& arguments, const Ledgers& ledgers) {
  Daemon host(round, "host", arguments);
  host.waitReady();
  check(round, host, ledgers);
  std::vector<std::unique_ptr<Writer>> writers;
  for (const auto& ledger : ledgers) writers.push_back(std::make_unique<Writer>(*ledger, host));
  for (const double last = now() + round.random.within(0, 0.06); now() < last;)
    for (const auto& writer : writers) writer->send(), writer->receive();
  end(round, host);
  for (const auto& writer : writers) writer->receive();
}

}  // namespace

void killRound(Round& round) {
  const std::vector<std::string> arguments{"--store", "sqlite:" + round.folder.at("state.db")};
  Ledgers ledgers;
  for (auto count = 1 + round.random.below(3); count > 0; --count)
    ledgers.push_back(std::make_unique<Ledger>("w" + std::to_string(count), round.random,
                                               round.random.chance(30) ? 100'000 : 200));
  for (int life = 0; life < 12; ++life) {
    if (round.random.chance(life == 0 ? 80 : 20)) killWhileStarting(round, arguments);
    live(round, arguments, ledgers);
  }
  Daemon host(round, "host", arguments);
  host.waitReady();
  check(round, host, ledgers);
  for (const auto& ledger : ledgers) {
    round.count("acknowledged writes") += ledger->acknowledged();
    round.count("refused writes") += ledger->refused();
  }
}

}  // namespace Torture
