// The contents of a MemoryStore, and its batches since the last flush. Internal to it.
#pragma once

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "platform/statedb/store/covertable.h"
#include "platform/statedb/store/entrytable.h"
#include "platform/statedb/store/store.h"

namespace Statedb {

using Places = std::vector<std::pair<Path, Zel::Name>>;

struct Notice {
  Changes changes{};   // for all subscribers but `origin`
  Places corrected{};  // for `origin`: attributes, or whole entities, that do not show what it wrote
  Subscriber* origin = nullptr;
  std::unique_ptr<Changes> base{};  // for subscribers of the base; null: the same as `changes`
};

struct Subscription {
  Subscriber* subscriber;
  Path path;
};

// The stored batches since the last flush: the undo marks before the first of them, and the volatile batches
// and covers after it, which are written again if the stored ones are undone.
struct Uncommitted {
  struct Batch {
    Changes changes;
    Durability durability;
    Subscriber* origin;
  };
  std::size_t change;
  std::size_t cover;
  std::size_t notice;
  std::vector<Batch> volatileSince{};
};

struct MemoryState {
  EntryTable entries;
  CoverTable covers;
  std::vector<Notice> notices;  // since the last flush
  std::optional<Uncommitted> uncommitted{};
  std::vector<Subscription> subscriptions;

  // Whether the path of any subscription but those of `origin` satisfies `matches`.
  template <class Matches>
  bool anySubscription(const Subscriber* origin, Matches matches) const {
    return std::ranges::any_of(subscriptions, [&](const Subscription& each) {
      return each.subscriber != origin && matches(each.path);
    });
  }

  bool isSubscribed(const Subscriber& subscriber) const {
    return std::ranges::find(subscriptions, &subscriber, &Subscription::subscriber) != subscriptions.end();
  }

  // Everything under a path, each entity before those under itself.
  Records under(Path path, Layer layer) const {
    Records records = entries.under(path);
    if (layer == Layer::base || covers.empty()) return records;
    for (const Record*& each : records) each = &covers.over(*each);
    return records;
  }
};

inline void appendValues(const Record& record, Changes& changes) {
  for (const Attribute& each : record.attributes)
    changes.push_back(Change::put(record.path, record.type, each.name, each.value));
}

inline void appendRows(const Record& record, Changes& changes) {
  changes.push_back(Change::put(record.path, record.type, {}, {}));
  appendValues(record, changes);
}

}  // namespace Statedb
