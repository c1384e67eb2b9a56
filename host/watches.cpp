#include "host/watches.h"

#include <algorithm>

#include "host/rpc.h"

namespace Host {

using Statedb::Changes;
using Statedb::Row;

Watches::Watches(Statedb::Store& store, Send send)
    : send_(std::move(send)), all_(store, send_), others_(store, send_) {}

std::uint64_t Watches::add(const std::string& path, bool own) {
  (own ? all_ : others_).add(++last_, path);
  return last_;
}

bool Watches::del(std::uint64_t id) { return all_.del(id) || others_.del(id); }

Watches::Group::~Group() { store_.unsubscribe(*this); }

void Watches::Group::add(std::uint64_t id, const std::string& path) {
  if (watches_.empty()) {
    // The snapshot that comes at once is nothing new; the watch's own answer holds its part of it.
    subscribing_ = true;
    store_.subscribe("", *this);
    subscribing_ = false;
  }
  watches_.push_back({id, path});
}

bool Watches::Group::del(std::uint64_t id) {
  const bool found = std::erase_if(watches_, [&](const Watch& watch) { return watch.id == id; }) != 0;
  if (watches_.empty()) store_.unsubscribe(*this);
  return found;
}

void Watches::Group::onSnapshot(const std::vector<Row>& rows) {
  if (subscribing_) return;
  for (const Watch& watch : watches_) {
    std::vector<Row> under;
    std::ranges::copy_if(rows, std::back_inserter(under),
                         [&](const Row& row) { return Statedb::isUnder(row.path, watch.path); });
    send_(notificationText("reset", {{"watch", watch.id}, {"entities", entitiesJson(under)}}));
  }
}

void Watches::Group::onChanges(const Changes& changes) {
  for (const Watch& watch : watches_) {
    Changes concerned;
    std::ranges::copy_if(changes, std::back_inserter(concerned),
                         [&](const Statedb::Change& change) { return concerns(change, watch.path); });
    if (concerned.empty()) continue;
    send_(notificationText("changed", {{"watch", watch.id}, {"changes", changesJson(concerned)}}));
  }
}

}  // namespace Host
