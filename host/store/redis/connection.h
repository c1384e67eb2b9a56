// One connection to a Redis server, over libuv's streams; hiredis formats commands and reads replies.
//
//     Connection connection(loop, url, owner);
//     connection.open();                                      // then owner.onReady() or onLost()
//     connection.request({"HGET", key, field}, [](const Reply& reply) { … });
//     connection.flush();                                     // sends the requests since the last flush
//
// Nothing blocks except for reading the password file. Activity thread only.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <utility>

#include "host/io/loop.h"
#include "host/store/redis/reply.h"
#include "host/store/redis/url.h"

namespace Host::Redis {

// Why there is no connection.
struct Loss {
  enum class Kind : std::uint8_t {
    unreachable,  // nobody listens there, or the name does not resolve
    silent,       // no answer in time: stopped, overloaded, cut off
    closed,       // by the server: it ended, or the connection fell too far behind
    refused,      // the server refused the password, the database or the user; see `refusal`
    invalid,      // it sent something that is not a reply, or beyond the limits
    password,     // the password file can't be read
    unfit,        // the server answers, but is not one that may be used
  };
  Kind kind = Kind::closed;
  Refusal refusal = Refusal::none;
  // The error, its cause and a remedy, without the address.
  std::string text{};
};

// Milliseconds until the next attempt: 50, doubled each time up to 2,000, with a jitter of a quarter so that
// the clients of one server do not reconnect at once.
class BackOff {
 public:
  static constexpr std::uint64_t kFirst = 50, kLast = 2000;

  explicit BackOff(std::uint32_t seed) : random_(seed) {}
  std::uint64_t next();
  void reset() { after_ = kFirst; }

 private:
  std::minstd_rand random_;
  std::uint64_t after_ = kFirst;
};

class Connection {
 public:
  // Limits for data that waits to be sent. Beyond them the connection counts as silent.
  static constexpr std::size_t kMostWaitingBytes = 64 << 20;
  static constexpr std::size_t kMostRequests = 100'000;
  static constexpr std::size_t kLongestPassword = 512;

  // May call any function of the connection, and destroy it.
  class Owner {
   public:
    // The server has answered, and accepted user, password and database.
    virtual void onReady() = 0;
    // Published to a channel that was subscribed to.
    virtual void onMessage(std::string_view channel, std::string_view payload) = 0;
    // The connection or the attempt is over. Requests without an answer get none.
    virtual void onLost(const Loss& loss) = 0;

   protected:
    ~Owner() = default;
  };
  using OnReply = std::function<void(const Reply& reply)>;

  // `loop` and `owner` must outlive it.
  Connection(Loop& loop, Url url, Owner& owner);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // The address of the next attempt, instead of the URL's address.
  void addressIs(const Address& at) { at_ = at; }
  // Closes the connection or attempt that there was, and begins an attempt. It ends in onReady() or onLost(),
  // within the URL's timeout where names resolve. REQUIRES: the address is a socket or a host.
  void open();
  // The same, after a back-off.
  void openLater();
  // The connection has served its purpose: the next back-off begins at its shortest.
  void proved() { backOff_.reset(); }
  // Without a call of onLost().
  void close();

  bool isReady() const { return ready_; }
  // `then` gets the reply, errors included. Does nothing unless the connection is ready. A request without an
  // answer within the URL's timeout ends the connection, unless something else arrives meanwhile.
  void request(const Words& words, OnReply then) { request(words, {}, std::move(then)); }
  // Of the words of both.
  void request(const Words& words, const Words& more, OnReply then);
  void subscribe(std::string_view channel, OnReply then);
  void flush();

 private:
  struct Link;

  void lost(Loss loss);

  Loop& loop_;
  const Url url_;
  Address at_;
  Owner& owner_;
  BackOff backOff_;
  UvHandle<uv_timer_t> retry_;
  std::shared_ptr<Link> link_;
  bool ready_ = false;
};

}  // namespace Host::Redis
