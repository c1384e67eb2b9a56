// Stores by their URL.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "host/io/loop.h"
#include "platform/statedb/store/store.h"

namespace Host {

// `memory:`, `sqlite:FILE` or `unix:SOCKET`. Throws StoreError where the URL is none of them, or the store
// can't be opened. The last works from the loop, which must outlive it. `report` gets its losses and
// returns, and what of a file was left out, also from within this call.
std::unique_ptr<Statedb::Store> makeStore(const std::string& url, Loop& loop,
                                          std::function<void(const std::string& text)> report);

}  // namespace Host
