// Stores by their URL.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "host/io/loop.h"
#include "platform/statedb/store/store.h"

namespace Host {

// The forms of the URLs, for messages: "memory:, sqlite:FILE, …".
std::string storeUrls();

// Throws StoreError where the URL has none of these forms, or the store can't be opened. A store that another
// process keeps works from the loop, which must outlive it. `report` gets its losses and returns, and what of
// a file was left out, also from within this call.
std::unique_ptr<Statedb::Store> makeStore(const std::string& url, Loop& loop,
                                          std::function<void(const std::string& text)> report);

}  // namespace Host
