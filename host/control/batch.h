// Checks a client's changes and turns them into rows.
#pragma once

#include <string>
#include <vector>

#include "host/control/transaction.h"
#include "host/rpc/announce.h"
#include "host/rpc/json.h"
#include "platform/statedb/mount/entitymanager.h"
#include "platform/statedb/store/schema.h"

namespace Host {

struct Batch {
  Statedb::Changes changes;
  // Those of them that are rows of mounted paths new to the store.
  Statedb::Changes mounts;
  // One line for each refused step ("PATH: reason" or "PATH ATTRIBUTE: reason"), at most kMostErrors + 1. If
  // there are any, there are no changes.
  static constexpr std::size_t kMostErrors = 100;
  std::vector<std::string> errors;
};

// The state to check a batch against. All of it must outlive the call.
struct BatchContext {
  const Statedb::TypeAt& typeAt;  // of the entities that the store has
  const std::vector<Statedb::EntityManager::MountInfo>& mounts;
  const Announcements& announcements;
  const Announcements::Process& writer;
  // Unless it is stored, a del or unset of a missing entity is accepted: a publisher that reconnects does
  // not know which entities exist. A del removes what is under the path.
  Statedb::Durability durability = Statedb::Durability::stored;
};

// Checks the steps as if each were stored before the next:
// - a put's path must take its type, and its attributes their values
// - a del or unset must find its entity
// - no step may touch a path that another process publishes; each cover must be under a path that the writer
//   announced to cover, for an entity that may be missing, or of another type
// An omitted type comes from the entity, from an earlier step, or from the collection. A mounted path gets
// its own row with the first row under it, so that the store's rows are complete without the mounts. Refused
// steps intern nothing. Throws Zel::ValueError if a change has another form.
Batch readBatch(const Zel::Value::List& changes, const BatchContext& context);
Batch readBatch(const GatheredChanges& changes, const BatchContext& context);

}  // namespace Host
