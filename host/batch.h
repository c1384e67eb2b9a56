// What a client asks to be written, turned into rows and checked.
#pragma once

#include <string>
#include <vector>

#include "host/json.h"
#include "platform/statedb/entitymanager.h"
#include "platform/statedb/schema.h"

namespace Host {

struct Batch {
  Statedb::Changes changes;
  // Of them: the rows of mounted paths that the store did not hold yet.
  Statedb::Changes mounts;
  // One line for each step that does not fit; empty where the batch may be stored.
  std::vector<std::string> errors;
};

// Types that were left out are filled in from what is there, from earlier steps, or from the collection that
// the entity goes into. `typeAt` tells what the store holds. A mounted path gets a row of its own with the
// first one under it, so that the store's rows say by themselves what stands there. Throws Zel::ValueError
// where a change is not of the form of one. `lenient`: a del of what is not there is left out instead of
// refused; who publishes derived rows again after a lost connection can't know.
Batch readBatch(const Zel::Value::List& changes, const Statedb::TypeAt& typeAt,
                const std::vector<Statedb::EntityManager::MountInfo>& mounts, bool lenient = false);

}  // namespace Host
