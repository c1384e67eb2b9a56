// Stores by their URL.
#pragma once

#include <memory>
#include <string>

#include "platform/statedb/store.h"

namespace Host {

// `memory:` or `sqlite:FILE`. Throws StoreError where the URL is neither, or the store can't be opened.
std::unique_ptr<Statedb::Store> makeStore(const std::string& url);

}  // namespace Host
