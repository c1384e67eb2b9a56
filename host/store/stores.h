// Makes a store from its URL.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "host/io/loop.h"
#include "platform/statedb/store/store.h"

namespace Host {

// `memory:`, `sqlite:FILE` or `unix:SOCKET`. Throws StoreError if the URL is none of them, or the store can't
// be opened. `loop` must outlive the store. Calls `report`, also from within this call, when a connection is
// lost or restored, and for skipped rows of a file.
std::unique_ptr<Statedb::Store> makeStore(const std::string& url, Loop& loop,
                                          std::function<void(const std::string& text)> report);

}  // namespace Host
