#include "ctl/target.h"

#include <algorithm>
#include <filesystem>
#include <thread>

#include "ctl/ownhost.h"

namespace Ctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kRetry{20};
constexpr std::chrono::seconds kLongestAttempt{10};  // of a store to be reached, or to give a reason

Clock::time_point after(double seconds) {
  return Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

bool isReady(Client& client) {
  const Json status = client.call("status");
  return status.at("storeState").at("reached").get<bool>() &&
         std::ranges::all_of(status.at("mounts"),
                             [](const Json& mount) { return mount.at("complete").get<bool>(); });
}

std::unique_ptr<Client> connectToHost(const Target& target) {
  const auto deadline = after(target.wait);
  for (;; std::this_thread::sleep_for(kRetry)) {
    const bool last = Clock::now() >= deadline;
    try {
      auto client = std::make_unique<Client>(target.socket);
      if (last || isReady(*client)) return client;
    } catch (const ConnectionLost&) {
      if (last) throw;
    }
  }
}

// A state file is made by a host, which then owns it; a command would make one under a mistyped name.
void checkStore(const std::string& store) {
  constexpr std::string_view kFile = "sqlite:", kSocket = "unix:";
  std::error_code ignored;
  if (store.starts_with("memory:"))
    throw UsageError("--store memory: what it holds would end with this command");
  if (store.starts_with(kSocket))
    throw UsageError("--store " + store + " is a host's state database: write --socket " +
                     store.substr(kSocket.size()));
  if (store.starts_with(kFile) && !std::filesystem::exists(store.substr(kFile.size()), ignored))
    throw Refusal(
        "--store " + store +
        ": there is no such file; pinlampd makes it at its first start, and `load` and `board apply` do");
}

// Gives up at the deadline, or later when the store has given a reason or an attempt takes too long.
void waitForStore(Client& client, const Target& target) {
  const auto deadline = after(target.wait);
  const auto latest = std::max(deadline, Clock::now() + kLongestAttempt);
  for (;; std::this_thread::sleep_for(kRetry)) {
    const Json state = client.call("status").at("storeState");
    if (state.at("reached").get<bool>()) return;
    const std::string reason = state.at("reason");
    const auto now = Clock::now();
    if (now >= latest || (now >= deadline && !reason.empty()))
      throw Refusal(target.name() + ": not reached: " + (reason.empty() ? "no answer" : reason));
  }
}

std::unique_ptr<Client> connectToStore(const Target& target) {
  checkStore(target.store);
  auto client =
      std::make_unique<Client>(std::make_unique<OwnHost>(target.store, target.types), target.name());
  waitForStore(*client, target);
  return client;
}

}  // namespace

std::string Target::name() const { return hasHost() ? "pinlampd at " + socket : "state database " + store; }

std::unique_ptr<Client> Target::connect() const {
  return hasHost() ? connectToHost(*this) : connectToStore(*this);
}

}  // namespace Ctl
