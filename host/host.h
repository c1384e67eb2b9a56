// The host: a store, the agents, the control socket, and the loop that drives them.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/control/control.h"
#include "host/controlsocket.h"
#include "host/io/loop.h"
#include "host/io/services.h"
#include "host/io/wakeups.h"
#include "host/plugin.h"
#include "host/systemd.h"
#include "host/whenlost.h"
#include "platform/zel/notify/activity.h"

namespace Host {

struct Options {
  std::string store = "memory:";
  std::vector<AgentOption> agents;
  std::vector<std::string> types;  // libraries to load for the types of entities that they register
  std::string socket = hostSocket();
  std::optional<std::size_t> maxClients{};  // of the socket, at a time; default: see ClientLimits
  std::optional<int> client{};  // serve only the client at the other end of this socket, and end with it
  std::optional<Fallback> whenLost{};
  bool allowObjectWrites = false;  // whether clients of the socket may set, delete and invoke live objects
};

class Host {
 public:
  // Opens the store, takes the socket, loads the agents and lets them declare their mounts. Throws StartError
  // or StoreError, and HandlerFault where an agent throws. Closes `client` at its end, not if it throws.
  explicit Host(const Options& options);
  // Stops in order. The lights stay as they are.
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // Until SIGTERM or SIGINT, or the end of the only client. Throws HandlerFault where an agent throws.
  void run();
  // After run() has thrown: leaves everything as it is but the socket's name, so that the process can end
  // without running code of a broken state.
  void abandon();

 private:
  // Ends the agents before their manager, and the manager before their libraries.
  void shutDown();
  void loadAgents(const std::vector<AgentOption>& options);
  // Says which process this is, and what its agents publish, to whoever keeps the state.
  void announce();
  std::unique_ptr<Control> makeControl(const Options& options);
  std::vector<Objects::Root> roots() const;
  void report(const std::string& text);
  double turn();
  void followStore();
  void showStatus(bool isReached);
  void sayWhenReady(const std::vector<Statedb::StoreState::Claim>& claims);
  UvHandle<uv_signal_t> stopOn(int signal);
  void pingWatchdog();

  // In the order in which they are needed: destroyed from the last to the first.
  ServiceManager serviceManager_;
  Loop loop_;
  Zel::ActivityManager activity_;
  Services services_;
  WakeUps wakeUps_;
  const std::unique_ptr<Statedb::Store> store_;
  std::unique_ptr<Listener> listener_;
  std::vector<Library> types_;  // outlive every entity, as do those of the agents
  std::vector<std::unique_ptr<Plugin>> plugins_;
  Zel::Ptr<Statedb::EntityManager> manager_;
  Served served_;
  std::unique_ptr<Control> control_;
  std::optional<WhenLost> whenLost_;
  UvHandle<uv_timer_t> watchdog_;
  std::vector<UvHandle<uv_signal_t>> signals_;
  bool ready_ = false;
  bool isServing_ = false;  // ready, and the state database is reached
  bool isQuiet_ = false;    // the only client waits for the store, and reports itself why it is not reached
  // How many mounts were not read only when they were announced, and how often clients had announced theirs;
  // -1: not yet.
  std::pair<std::ptrdiff_t, std::size_t> announced_{-1, 0};
};

}  // namespace Host
