// The state database of another host on this machine, through its control socket.
//
// While the connection is lost the entities stay; once it is back the store reads everything again, and
// subscribers notice the differences only. Rows that were published here and that the other side does not
// have yet wait, one value an attribute. Covers go there before anything is watched, end with the connection,
// and are sent again.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/io/connection.h"
#include "host/rpc/announce.h"
#include "host/rpc/json.h"
#include "host/store/outbox.h"
#include "platform/statedb/store/store.h"

namespace Host {

class UnixStore final : public Statedb::Store, public Connection::Owner, private Outbox::Output {
 public:
  // Connects from the loop and retries while nobody listens: after 50 ms at first, then twice as long each
  // time, up to 2 s. `report` logs each loss and each return once, and every row that the other side refused:
  // a refused batch is halved until the row at fault stands alone.
  UnixStore(Loop& loop, std::string socket, std::function<void(const std::string& text)> report);
  ~UnixStore() override;

  std::string url() const override { return "unix:" + socket_; }
  Statedb::StoreState state() const override { return {true, reached_, reached_ ? "" : why_}; }
  bool isReached() const override { return reached_; }
  bool takesCovers() const override { return true; }
  void subscribe(Statedb::Path path, Statedb::Subscriber& subscriber) override;
  void unsubscribe(Statedb::Subscriber& subscriber) override;
  void write(const Statedb::Changes& changes, Statedb::Durability durability,
             Statedb::Subscriber* origin) override;
  Statedb::Ticket flush() override;
  // If the other side refuses it because another process publishes the same, that side counts as not reached:
  // this process waits until the other one has gone, and takes over.
  void announce(const Statedb::Announcement& announcement) override;

 private:
  struct Subscription {
    Statedb::Path path;
    Statedb::Subscriber* subscriber;
    std::int64_t watch = -1;  // the other side's number for it; -1: not confirmed
  };
  struct Connecting;

  void connect();
  void onConnected(UvHandle<uv_pipe_t> pipe, int status);
  void sendAnnouncement();
  void onAnnounced(const Zel::Value& reply);
  void onReached();
  void retryLater();
  void notReached(const std::string& why);
  // Closes the connection, and retries later.
  void disconnect(const std::string& why);
  void retry();
  // `parameters` are a JSON text.
  void request(const char* method, std::string_view parameters, OnReply onReply) override;
  void watchAll();
  void watch(Subscription& subscription);
  void unwatch(std::int64_t watch);
  void deliverSnapshot(Statedb::Subscriber& subscriber, const Zel::Value& entities);
  void notifyOthers(const Statedb::Changes& changes, const Statedb::Subscriber* origin);
  Subscription* find(std::int64_t watch);

  void onLine(Connection& connection, std::string_view line) override;
  void onOversizedLine(Connection& connection) override;
  void onRefused(const Zel::Value& error);
  void onClosed(Connection& connection) override;
  void onNotification(const Zel::Value& message);
  void report(const std::string& what) override { report_("state database " + url() + what); }
  void onPostponed() override { retryLater(); }
  void onAccepted() override { retryAfter_ = kFirstRetry; }
  void onSent(Outbox& outbox) override;

  static constexpr std::uint64_t kFirstRetry = 50;  // milliseconds

  Loop& loop_;
  const std::string socket_;
  const std::function<void(const std::string&)> report_;
  std::vector<std::unique_ptr<Subscription>> subscriptions_;
  Outbox published_{{.durability = "volatile", .what = "published"}, *this};
  Outbox covers_{{.durability = "cover", .what = "covered"}, *this};
  std::vector<std::pair<Statedb::Changes, Statedb::Subscriber*>>
      toNotify_;  // written here, for the subscribers here
  std::shared_ptr<Connection> connection_;
  UvHandle<uv_timer_t> retry_;
  std::shared_ptr<Connecting> connecting_;
  std::map<std::int64_t, OnReply> replies_;
  std::int64_t nextId_ = 0;
  std::uint64_t retryAfter_;  // milliseconds
  bool lost_ = false;         // and reported so
  std::string why_;           // it is not reached; empty before the first attempt has failed
  bool wasReached_ = false;   // at any time
  bool reached_ = false;      // connected, and the announcement was taken
  std::string announcement_;  // a JSON text; empty: there is none
  bool isWatching_ = false;   // since it was reached
};

}  // namespace Host
