#include "host/control/watches.h"

#include <algorithm>

#include "host/rpc/changes.h"
#include "host/rpc/rpc.h"

namespace Host {

using Statedb::Changes;
using Statedb::Path;
using Statedb::Record;

Watches::Watches(Statedb::Store& store, Send send)
    : send_(std::move(send)),
      groups_{{{store, send_}, {store, send_}, {store, send_, Statedb::Layer::base}}} {}

std::optional<std::uint64_t> Watches::add(const std::string& path, Of of) {
  std::size_t count = 0;
  for (const Group& each : groups_) count += each.count();
  if (count >= kMost) return std::nullopt;
  group(of).add(++last_, path);
  return last_;
}

bool Watches::del(std::uint64_t id) {
  return std::ranges::any_of(groups_, [&](Group& each) { return each.del(id); });
}

Watches::Group::~Group() { store_.unsubscribe(*this); }

void Watches::Group::add(std::uint64_t id, const std::string& path) {
  if (watches_.empty()) {
    // Ignore the snapshot: the answer to the request has the watch's part of it.
    subscribing_ = true;
    store_.subscribe({}, *this);
    subscribing_ = false;
  }
  watches_.push_back({id, path, Path::existing(path)});
}

void Watches::Group::findPaths() {
  if (std::exchange(paths_, Path::added()) == Path::added()) return;
  for (Watch& watch : watches_)
    if (!watch.path) watch.path = Path::existing(watch.text);
}

bool Watches::Group::del(std::uint64_t id) {
  const bool found = std::erase_if(watches_, [&](const Watch& watch) { return watch.id == id; }) != 0;
  if (watches_.empty()) store_.unsubscribe(*this);
  return found;
}

void Watches::Group::onSnapshot(const Statedb::Records& records) {
  if (subscribing_) return;
  findPaths();
  for (const Watch& watch : watches_) {
    Statedb::Records under;
    std::ranges::copy_if(records, std::back_inserter(under), [&](const Record* record) {
      return watch.path && record->path.isUnder(*watch.path);
    });
    send_(notificationText(
        "reset", "{\"entities\":" + entitiesText(under) + ",\"watch\":" + std::to_string(watch.id) + '}'));
  }
}

void Watches::Group::onChanges(const Changes& changes) { notify(changes, ""); }

void Watches::Group::onRevealed(const Changes& changes) { notify(changes, "\"revealed\":true,"); }

void Watches::Group::notify(const Changes& changes, const char* more) {
  findPaths();
  for (const Watch& watch : watches_) {
    if (!watch.path) continue;
    takePart(changes, *watch.path, [&](const Changes& part) {
      send_(notificationText("changed", "{\"changes\":" + changesText(part) + ',' + more +
                                            "\"watch\":" + std::to_string(watch.id) + '}'));
    });
  }
}

}  // namespace Host
