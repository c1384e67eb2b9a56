// What a client asks to be written, turned into rows and checked.
#pragma once

#include <string>
#include <vector>

#include "host/rpc/announce.h"
#include "host/rpc/json.h"
#include "platform/statedb/mount/entitymanager.h"
#include "platform/statedb/store/schema.h"

namespace Host {

struct Batch {
  Statedb::Changes changes;
  // Of them: the rows of mounted paths that the store did not hold yet.
  Statedb::Changes mounts;
  // One line for each step that does not fit ("PATH: reason" or "PATH ATTRIBUTE: reason"), and at most one
  // more than kMostErrors; empty where the batch may be stored. Otherwise there are no changes.
  static constexpr std::size_t kMostErrors = 100;
  std::vector<std::string> errors;
};

// What a batch is checked against. All of it must outlive the call.
struct BatchContext {
  const Statedb::TypeAt& typeAt;  // of the entities that the store has
  const std::vector<Statedb::EntityManager::MountInfo>& mounts;
  const Announcements& announcements;
  const Announcements::Process& writer;
  // Whether a del or unset is accepted where there is no entity: a client that publishes volatile rows again
  // after a lost connection can't know. A del removes what stands under the path.
  bool lenient = false;
};

// Types that were left out are filled in from what is there, from earlier steps, or from the collection that
// the entity goes into. A mounted path gets a row of its own with the first one under it, so that the store's
// rows say by themselves what stands there. Every put must name an entity whose place takes its type, and
// hold values that fit; every del must meet something; and what another process fills is not the writer's to
// change. The steps are checked as they would be stored one after another. What is refused is not interned.
// Throws Zel::ValueError where a change is not of the form of one.
Batch readBatch(const Zel::Value::List& changes, const BatchContext& context);

}  // namespace Host
