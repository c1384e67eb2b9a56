#include "host/unixstore.h"

#include <algorithm>
#include <utility>

#include "platform/zel/value.h"

namespace Host {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Feed;

namespace {
constexpr std::uint64_t kFirstRetry = 50;  // milliseconds
constexpr std::uint64_t kLastRetry = 2000;
constexpr std::size_t kLongestLine = std::size_t{1} << 30;  // a snapshot of everything is one line
constexpr std::size_t kChangesPerRequest = 1000;  // well below the longest message that a host takes
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
    if (!std::exchange(lost_, true))
      report_("state database " + url() + ": " + uv_strerror(status) + "; trying until a host listens there");
    return retryLater();
  }
  connection_ = std::make_shared<Connection>(std::move(pipe), *this, kLongestLine);
  retryAfter_ = kFirstRetry;
  if (std::exchange(lost_, false)) report_("state database " + url() + ": reached");
  for (const auto& subscription : subscriptions_) watch(*subscription);
  flush();
}

void UnixStore::retryLater() {
  uv_timer_start(
      retry_.get(),
      [](uv_timer_t* timer) {
        Loop::guard(timer->loop, [&] { static_cast<UnixStore*>(timer->data)->connect(); });
      },
      retryAfter_, 0);
  retryAfter_ = std::min(retryAfter_ * 2, kLastRetry);
}

void UnixStore::onClosed(Connection& connection) {
  if (connection_.get() != &connection) return;
  const auto gone = std::exchange(connection_, nullptr);
  if (!std::exchange(lost_, true))
    report_("state database " + url() + ": connection lost; the lights stay as they are");
  replies_.clear();
  for (const auto& subscription : subscriptions_) subscription->watch = -1;
  own_.lost();
  retryLater();
}

void UnixStore::request(const char* method, Json parameters, OnReply onReply) {
  if (!connection_) return;
  const std::int64_t id = nextId_++;
  replies_[id] = std::move(onReply);
  connection_->send(
      jsonText({{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", std::move(parameters)}}));
  if (connection_) connection_->flush();
}

void UnixStore::subscribe(const std::string& path, Feed& feed) {
  unsubscribe(feed);
  subscriptions_.push_back(std::make_unique<Subscription>(Subscription{path, &feed}));
  watch(*subscriptions_.back());
}

void UnixStore::unsubscribe(Feed& feed) {
  const auto found = std::ranges::find(subscriptions_, &feed, [](const auto& each) { return each->feed; });
  if (found == subscriptions_.end()) return;
  if ((*found)->watch >= 0) request("unwatch", {{"watch", (*found)->watch}}, [](const Json&) {});
  subscriptions_.erase(found);
}

// The reply may come when the feed has gone or was subscribed anew: it is for this subscription only.
void UnixStore::watch(Subscription& subscription) {
  request("watch", {{"path", subscription.path}, {"own", false}},
          [this, watched = &subscription](const Json& reply) {
            const auto still =
                std::ranges::find(subscriptions_, watched, [](const auto& each) { return each.get(); });
            if (reply.contains("error"))
              return report_("state database " + url() + ": " +
                             reply["error"].value("message", "refused to be watched"));
            const std::int64_t number = reply.at("result").at("watch");
            if (still == subscriptions_.end())
              return request("unwatch", {{"watch", number}}, [](const Json&) {});
            watched->watch = number;
            tellSnapshot(*watched->feed, reply["result"].at("entities"));
          });
}

void UnixStore::tellSnapshot(Feed& feed, const Json& entities) {
  const auto found = std::ranges::find(subscriptions_, &feed, [](const auto& each) { return each->feed; });
  if (found == subscriptions_.end()) return;
  const auto rows = entityRows(entities);
  for (const Statedb::Row& row : rows)
    if (feed.publishes(row.path)) own_.adopt(row);
  feed.onSnapshot(own_.over(rows, (*found)->path));
}

UnixStore::Subscription* UnixStore::find(std::int64_t watch) {
  const auto found = std::ranges::find(subscriptions_, watch, [](const auto& each) { return each->watch; });
  return found == subscriptions_.end() ? nullptr : found->get();
}

void UnixStore::write(const Changes& changes, Statedb::Durability durability, Feed* origin) {
  if (durability == Statedb::Durability::stored)
    throw Statedb::StoreError("the state database is kept by the host at '" + socket_ + "'; write there");
  own_.write(changes);
  toTell_.emplace_back(changes, origin);
}

std::vector<Statedb::Row> UnixStore::read(const std::string&) const {
  throw Statedb::StoreError("the state database is kept by the host at '" + socket_ + "'; read it there");
}

void UnixStore::flush() {
  for (const auto& [changes, origin] : std::exchange(toTell_, {})) tellOthers(changes, origin);
  if (const auto connection = connection_) connection->flush();  // closes it where the other side has ended
  if (!connection_ || !own_.canSend()) return;
  const Changes changes = own_.send();
  if (changes.empty()) return own_.acknowledged();
  for (std::size_t from = 0; from < changes.size(); from += kChangesPerRequest) {
    const auto first = changes.begin() + static_cast<std::ptrdiff_t>(from);
    const std::size_t count = std::min(kChangesPerRequest, changes.size() - from);
    const Changes part(first, first + static_cast<std::ptrdiff_t>(count));
    const bool last = from + count == changes.size();
    request("write", {{"durability", "derived"}, {"changes", changesJson(part)}},
            [this, last](const Json& reply) { onWritten(reply, last); });
  }
}

void UnixStore::tellOthers(const Changes& changes, const Feed* origin) {
  for (const auto& subscription : subscriptions_) {
    Changes concerned;
    std::ranges::copy_if(changes, std::back_inserter(concerned), [&](const Change& change) {
      return Statedb::isUnder(change.row.path, subscription->path);
    });
    if (subscription->feed != origin && !concerned.empty()) subscription->feed->onChanges(concerned);
  }
}

void UnixStore::onWritten(const Json& reply, bool last) {
  if (reply.contains("error"))
    report_("state database " + url() +
            " refused what was published: " + reply["error"].value("message", ""));
  if (!last) return;
  own_.acknowledged();
  flush();
}

void UnixStore::onLine(Connection& connection, std::string_view line) {
  try {
    const Json message = parseJson(line);
    if (message.contains("method")) return onNotification(message);
    const auto found = replies_.find(message.at("id").get<std::int64_t>());
    if (found == replies_.end()) return;
    const OnReply onReply = std::move(found->second);
    replies_.erase(found);
    onReply(message);
  } catch (const Json::exception& error) {
    report_("state database " + url() + ": a message that can't be read: " + error.what());
    connection.close();
  } catch (const Zel::ValueError& error) {
    report_("state database " + url() + ": a message that can't be read: " + std::string(error.what()));
    connection.close();
  }
}

void UnixStore::onOversizedLine(Connection& connection) {
  report_("state database " + url() + ": a message that is too long");
  connection.close();
}

void UnixStore::onNotification(const Json& message) {
  const Json& parameters = message.at("params");
  Subscription* subscription = find(parameters.at("watch").get<std::int64_t>());
  if (!subscription) return;
  if (message["method"] == "reset") return tellSnapshot(*subscription->feed, parameters.at("entities"));
  const Changes changes = own_.told(changesFromJson(parameters.at("changes")));
  if (!changes.empty()) subscription->feed->onChanges(changes);
}

}  // namespace Host
