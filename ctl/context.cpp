#include "ctl/context.h"

#include <algorithm>
#include <chrono>
#include <ostream>
#include <thread>

#include "platform/zel/core/printable.h"

namespace Ctl {

namespace {

constexpr std::chrono::milliseconds kRetry{20};

bool isReady(Client& client) {
  const Json status = client.call("status");
  return std::ranges::all_of(status.at("mounts"),
                             [](const Json& mount) { return mount.at("complete").get<bool>(); });
}

}  // namespace

Client& Context::client() {
  if (!client_) client_ = connect();
  return *client_;
}

std::unique_ptr<Client> Context::connect() const {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(wait);
  for (;; std::this_thread::sleep_for(kRetry)) {
    const bool last = std::chrono::steady_clock::now() >= deadline;
    try {
      auto client = std::make_unique<Client>(socket);
      if (last || isReady(*client)) return client;
    } catch (const ConnectionLost&) {
      if (last) throw;
    }
  }
}

void note(Context& context, const std::string& text) {
  context.err << "note: " << Zel::printable(text) << '\n';
}

}  // namespace Ctl
