#include "platform/statedb/store/store.h"

namespace Statedb {

StoreError::~StoreError() = default;
RefusedError::~RefusedError() = default;
NotStoredError::~NotStoredError() = default;
Subscriber::~Subscriber() = default;
Store::~Store() = default;

void Subscriber::onRevealed(const Changes& changes) { onChanges(changes); }

StoreState Store::state() const { return {}; }
bool Store::isReached() const { return state().isReached; }
const Table* Store::table() const { return nullptr; }
bool Store::takesCovers() const { return false; }
void Store::announce(const Announcement&) {}

}  // namespace Statedb
