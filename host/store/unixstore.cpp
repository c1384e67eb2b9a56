#include "host/store/unixstore.h"

#include <algorithm>
#include <utility>

#include "host/io/reconnects.h"
#include "host/rpc/changes.h"
#include "host/rpc/rpc.h"
#include "platform/statedb/store/schema.h"
#include "platform/zel/core/assert.h"
#include "platform/zel/object/value.h"

namespace Host {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Path;
using Statedb::Subscriber;

namespace {
constexpr std::uint64_t kLastRetry = 2000;                  // milliseconds
constexpr std::size_t kLongestLine = std::size_t{1} << 30;  // a snapshot of everything is one line

const Zel::Value& needed(const Zel::Value& message, const char* name) {
  const Zel::Value* found = message.field(name);
  if (!found) throw Zel::ValueError("'" + std::string(name) + "' is missing");
  return *found;
}

std::int64_t numberOf(const Zel::Value& message, const char* name) {
  const auto* number = needed(message, name).as<std::int64_t>();
  if (!number) throw Zel::ValueError("'" + std::string(name) + "' is no whole number");
  return *number;
}

// Notified of what the other side has alone, this process's own writes included.
bool isOfBase(const Subscriber& subscriber) { return subscriber.layer() == Statedb::Layer::base; }
}  // namespace

// One attempt to connect; outlives the store where that goes away first.
struct UnixStore::Connecting {
  uv_connect_t request{};
  UvHandle<uv_pipe_t> pipe;
  UnixStore* store = nullptr;
  std::shared_ptr<Connecting> self;  // until libuv is done with the request
};

UnixStore::UnixStore(Loop& loop, std::string socket, std::function<void(const std::string&)> report)
    : loop_(loop), socket_(std::move(socket)), report_(std::move(report)), retryAfter_(kFirstRetry) {
  retry_.reset(new uv_timer_t);
  uv_timer_init(loop_.uv(), retry_.get());
  retry_->data = this;
  connect();
}

UnixStore::~UnixStore() {
  if (connecting_) connecting_->store = nullptr;
  if (connecting_) connecting_->pipe.reset();
  if (const auto connection = std::exchange(connection_, nullptr)) connection->close();
}

void UnixStore::connect() {
  connecting_ = std::make_shared<Connecting>();
  connecting_->self = connecting_;
  connecting_->store = this;
  connecting_->request.data = connecting_.get();
  connecting_->pipe.reset(new uv_pipe_t);
  uv_pipe_init(loop_.uv(), connecting_->pipe.get(), 0);
  uv_pipe_connect(
      &connecting_->request, connecting_->pipe.get(), socket_.c_str(), [](uv_connect_t* request, int status) {
        const auto attempt = std::move(static_cast<Connecting*>(request->data)->self);
        UnixStore* store = attempt->store;
        if (!store) return;
        Loop::guard(store->loop_.uv(), [&] { store->onConnected(std::move(attempt->pipe), status); });
      });
}

void UnixStore::onConnected(UvHandle<uv_pipe_t> pipe, int status) {
  connecting_ = nullptr;
  if (status < 0) {
    notReached(std::string(uv_strerror(status)) + "; trying until a host listens there");
    return retryLater();
  }
  connection_ = std::make_shared<Connection>(std::move(pipe), *this, kLongestLine);
  if (announcement_.empty()) return onReached();
  sendAnnouncement();
}

void UnixStore::announce(const Announcement& announcement) {
  announcement_ = jsonText(announcementJson(announcement));
  sendAnnouncement();
}

void UnixStore::sendAnnouncement() {
  request("announce", announcement_, [this](const Zel::Value& reply) { onAnnounced(reply); });
}

void UnixStore::onAnnounced(const Zel::Value& reply) {
  const Zel::Value* error = reply.field("error");
  if (!error) return onReached();
  disconnect(textField(*error, "message") + "; trying until it is free");
}

// Logs the first reason of an outage.
void UnixStore::notReached(const std::string& why) {
  why_ = why;
  if (!std::exchange(lost_, true)) report_("state database " + url() + ": " + why);
}

void UnixStore::onReached() {
  if (std::exchange(reached_, true)) return;
  retryAfter_ = kFirstRetry;
  if (std::exchange(lost_, false)) report_("state database " + url() + ": reached");
  if (std::exchange(wasReached_, true)) Reconnects::add();
  isWatching_ = false;
  if (!covers_.rows().canSend()) watchAll();
  flush();
}

void UnixStore::watchAll() {
  if (std::exchange(isWatching_, true)) return;
  for (const auto& subscription : subscriptions_) watch(*subscription);
}

void UnixStore::retryLater() {
  uv_timer_start(
      retry_.get(),
      [](uv_timer_t* timer) {
        Loop::guard(timer->loop, [&] { static_cast<UnixStore*>(timer->data)->retry(); });
      },
      retryAfter_, 0);
  retryAfter_ = std::min(retryAfter_ * 2, kLastRetry);
}

void UnixStore::retry() {
  if (!connection_) return connect();
  for (Outbox* each : {&covers_, &published_}) each->retry();
}

void UnixStore::onClosed(Connection& connection) {
  if (connection_.get() == &connection) disconnect("connection lost; the lights stay as they are");
}

void UnixStore::disconnect(const std::string& why) {
  const auto gone = std::exchange(connection_, nullptr);  // before onClosed()
  gone->close();
  reached_ = false;
  notReached(why);
  replies_.clear();
  for (const auto& subscription : subscriptions_) subscription->watch = -1;
  for (Outbox* each : {&covers_, &published_}) each->lost();
  retryLater();
}

void UnixStore::request(const char* method, std::string_view parameters, OnReply onReply) {
  if (!connection_) return;
  const std::int64_t id = nextId_++;
  replies_[id] = std::move(onReply);
  connection_->send(requestText(id, method, parameters));
  if (connection_) connection_->flush();
}

void UnixStore::subscribe(Path path, Subscriber& subscriber) {
  unsubscribe(subscriber);
  subscriptions_.push_back(std::make_unique<Subscription>(Subscription{path, &subscriber}));
  watch(*subscriptions_.back());
}

void UnixStore::unsubscribe(Subscriber& subscriber) {
  const auto found =
      std::ranges::find(subscriptions_, &subscriber, [](const auto& each) { return each->subscriber; });
  if (found == subscriptions_.end()) return;
  if ((*found)->watch >= 0) unwatch((*found)->watch);
  subscriptions_.erase(found);
}

void UnixStore::unwatch(std::int64_t watch) {
  request("unwatch", "{\"watch\":" + std::to_string(watch) + '}', [](const Zel::Value&) {});
}

// The reply may arrive after the subscriber has left or subscribed again: it counts for this subscription
// only.
void UnixStore::watch(Subscription& subscription) {
  if (!reached_ || !isWatching_) return;
  request(
      "watch",
      (isOfBase(*subscription.subscriber) ? "{\"layer\":\"base\",\"path\":" : "{\"own\":false,\"path\":") +
          jsonText(Zel::Value(subscription.path.text())) + '}',
      [this, watched = &subscription](const Zel::Value& reply) {
        const auto still =
            std::ranges::find(subscriptions_, watched, [](const auto& each) { return each.get(); });
        if (const Zel::Value* error = reply.field("error"))
          return report_("state database " + url() + ": " + textField(*error, "message"));
        const Zel::Value& result = needed(reply, "result");
        const std::int64_t number = numberOf(result, "watch");
        if (still == subscriptions_.end()) return unwatch(number);
        watched->watch = number;
        deliverSnapshot(*watched->subscriber, needed(result, "entities"));
      });
}

void UnixStore::deliverSnapshot(Subscriber& subscriber, const Zel::Value& entities) {
  const auto found =
      std::ranges::find(subscriptions_, &subscriber, [](const auto& each) { return each->subscriber; });
  if (found == subscriptions_.end()) return;
  const auto records = entityRecords(entities);
  Statedb::Records theirs;
  if (isOfBase(subscriber)) {
    for (const Statedb::Record& record : records) theirs.push_back(&record);
    return subscriber.onSnapshot(theirs);
  }
  for (const Statedb::Record& record : records) {
    if (subscriber.publishes(record.path)) published_.rows().adopt(record);
    theirs.push_back(&record);
  }
  subscriber.onSnapshot(published_.rows().over(theirs, (*found)->path));
}

UnixStore::Subscription* UnixStore::find(std::int64_t watch) {
  const auto found = std::ranges::find(subscriptions_, watch, [](const auto& each) { return each->watch; });
  return found == subscriptions_.end() ? nullptr : found->get();
}

void UnixStore::write(const Changes& changes, Statedb::Durability durability, Subscriber* origin) {
  ZEL_REQUIRE(durability != Statedb::Durability::stored,
              "a stored batch of " << changes.size() << " changes for " << url());
  if (durability == Statedb::Durability::cover) return covers_.rows().write(changes);
  published_.rows().write(changes);
  toNotify_.emplace_back(changes, origin);
}

Statedb::Ticket UnixStore::flush() {
  for (const auto& [changes, origin] : std::exchange(toNotify_, {})) notifyOthers(changes, origin);
  if (const auto connection = connection_) connection->flush();  // closes it where the other side has ended
  for (Outbox* each : {&covers_, &published_})
    if (reached_ && each->rows().canSend()) each->send();
  return {};
}

// Covers are sent before anything is watched, so that no snapshot shows the base meanwhile.
void UnixStore::onSent(Outbox& outbox) {
  if (&outbox == &covers_) watchAll();
  flush();
}

void UnixStore::notifyOthers(const Changes& changes, const Subscriber* origin) {
  for (const auto& subscription : subscriptions_)
    if (subscription->subscriber != origin && !isOfBase(*subscription->subscriber))
      takePart(changes, subscription->path,
               [&](const Changes& part) { subscription->subscriber->onChanges(part); });
}

void UnixStore::onLine(Connection& connection, std::string_view line) {
  try {
    const Zel::Value message = parseJson(line);
    if (message.field("method")) return onNotification(message);
    if (!needed(message, "id").as<std::int64_t>()) return onRefused(needed(message, "error"));
    const auto found = replies_.find(numberOf(message, "id"));
    if (found == replies_.end()) return;
    const OnReply onReply = std::move(found->second);
    replies_.erase(found);
    onReply(message);
  } catch (const Zel::ValueError& error) {
    report_("state database " + url() + ": a message that can't be read: " + std::string(error.what()));
    connection.close();
  }
}

// An error that answers no request: the host refuses the connection.
void UnixStore::onRefused(const Zel::Value& error) {
  disconnect(textField(error, "message") + "; trying until it accepts");
}

void UnixStore::onOversizedLine(Connection& connection) {
  report_("state database " + url() + ": a message that is too long");
  connection.close();
}

void UnixStore::onNotification(const Zel::Value& message) {
  const Zel::Value& parameters = needed(message, "params");
  Subscription* subscription = find(numberOf(parameters, "watch"));
  if (!subscription) return;
  if (textField(message, "method") == "reset")
    return deliverSnapshot(*subscription->subscriber, needed(parameters, "entities"));
  const Changes there = changesFrom(needed(parameters, "changes"));
  if (isOfBase(*subscription->subscriber)) return subscription->subscriber->onChanges(there);
  const Changes changes = flagField(parameters, "revealed", false) ? published_.rows().revealed(there)
                                                                   : published_.rows().received(there);
  if (!changes.empty()) subscription->subscriber->onChanges(changes);
}

}  // namespace Host
