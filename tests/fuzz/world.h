// A host's parts with the LED agent, without I/O. One for all executions, emptied after each.
#pragma once

#include <string>

#include "agent/agent.h"
#include "agent/factory.h"
#include "host/control/methods.h"
#include "platform/statedb/store/memorystore.h"
#include "platform/zel/notify/activity.h"

namespace Fuzz {

struct World {
  World() {
    agent->entityManagerIs(manager);
    agent->doPreInit();
    agent->doInit();
    activity.step();
  }
  // The world is never destroyed.
  static World& instance() {
    static World& world = *new World;
    return world;
  }

  void step() {
    store.flush();
    activity.step();
    store.flush();
  }
  void clear() {
    store.write({Statedb::Change::del(Statedb::Path())}, Statedb::Durability::stored);
    step();
  }

  Zel::ActivityManager activity;
  Statedb::MemoryStore store;
  const Zel::Ptr<Statedb::EntityManager> manager = Zel::allocate<Statedb::EntityManager>(store);
  const Zel::Ptr<Warden::CAgent> agent = Pinlamp::agentFactory("pinlamp");
  Host::Served served{.store = store,
                      .manager = *manager,
                      .objects = {[] { return std::vector<Host::Objects::Root>(); },
                                  [this] { return manager->root(); }, Host::Objects::Access::writable}};
  const Host::Methods methods{served};
};

}  // namespace Fuzz
