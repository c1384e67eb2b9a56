// Makes a store from its URL.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "host/io/loop.h"
#include "platform/statedb/store/store.h"

namespace Host {

// The forms of the URLs, for messages: "memory:, sqlite:FILE, …".
std::string storeUrls();

// Throws StoreError if the URL has none of these forms, or the store can't be opened. `loop` must outlive the
// store. Calls `report`, also from within this call, when a connection is lost or restored, and for skipped
// rows of a file.
std::unique_ptr<Statedb::Store> makeStore(const std::string& url, Loop& loop,
                                          std::function<void(const std::string& text)> report);

}  // namespace Host
