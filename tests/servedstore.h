// A store that a control socket serves, without agents and without a process of its own.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "host/control/control.h"
#include "host/io/loop.h"
#include "platform/zel/notify/activity.h"
#include "tests/host/folder.h"

namespace Support {

template <class Store>
class ServedStore {
 public:
  template <class... Arguments>
  ServedStore(Host::Loop& loop, const std::string& socket, Arguments&&... ofTheStore)
      : store(std::forward<Arguments>(ofTheStore)...) {
    listen(loop, socket);
  }
  // All requests of a round are executed in it, also where the machine is slow.
  static constexpr Host::ClientLimits kNoHaste{.round = 60};
  // Closes the existing connections.
  void listen(Host::Loop& loop, const std::string& socket, const Host::ClientLimits& limits = kNoHaste) {
    control_ = nullptr;
    listener_ = nullptr;
    listener_ = std::make_unique<Host::Listener>(loop, socket);
    control_ = std::make_unique<Host::Control>(loop, *listener_, served_, limits);
  }
  // `pass` is what the agents do.
  template <class Pass>
  void turn(Pass pass) {
    control_->serve();
    control_->commit();
    pass();
    control_->send();
  }
  void turn() {
    turn([] {});
  }

  Store store;
  const Zel::Ptr<Statedb::EntityManager> manager = Zel::allocate<Statedb::EntityManager>(store);

 private:
  Host::Served served_{.store = store, .manager = *manager};
  std::unique_ptr<Host::Listener> listener_;
  std::unique_ptr<Host::Control> control_;
};

// One with a loop, which the test runs.
template <class Store>
struct ServedProcess {
  ServedProcess() {
    loop.turnIs([this] {
      host.turn();
      return Zel::Clock::kNever;
    });
  }

  const Folder folder;
  const std::string socket = folder.at("socket");
  Host::Loop loop;
  Zel::ActivityManager activity;
  ServedStore<Store> host{loop, socket};
};

}  // namespace Support
