#include "host/store/redis/connection.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <optional>
#include <utility>

#include "platform/zel/core/assert.h"
#include "platform/zel/notify/clock.h"

namespace Host::Redis {

std::uint64_t BackOff::next() {
  const std::uint64_t after = std::exchange(after_, std::min(after_ * 2, kLast));
  return after * 3 / 4 + random_() % (after / 2 + 1);
}

namespace {

union AnyStream {
  uv_handle_t handle;
  uv_stream_t stream;
  uv_pipe_t pipe;
  uv_tcp_t tcp;
};

// The first line of a file; throws Loss.
std::string passwordIn(const std::string& file) {
  const auto fail = [&](const std::string& why) -> std::string {
    throw Loss{Loss::Kind::password, Refusal::none, "passwordFile '" + file + "' " + why};
  };
  std::ifstream in(file, std::ios::binary);
  if (!in) return fail("can't be read; it holds the password on its first line");
  std::string line(Connection::kLongestPassword + 1, '\0');
  in.read(line.data(), static_cast<std::streamsize>(line.size()));
  line.resize(static_cast<std::size_t>(in.gcount()));
  line.resize(std::min(line.size(), line.find_first_of("\r\n")));
  if (line.empty()) return fail("has an empty first line; that is where the password stands");
  if (line.size() > Connection::kLongestPassword)
    return fail("has a first line of more than " + std::to_string(Connection::kLongestPassword) + " bytes");
  return line;
}

std::uint64_t now() { return static_cast<std::uint64_t>(Zel::System::currentTime() * 1e3); }

}  // namespace

// One attempt, and the connection that it becomes. libuv's requests outlive it; they hold weak pointers.
struct Connection::Link : std::enable_shared_from_this<Link> {
  struct Resolving {
    uv_getaddrinfo_t request{};
    std::weak_ptr<Link> link;
  };
  struct Connecting {
    uv_connect_t request{};
    std::weak_ptr<Link> link;
  };
  struct Write {
    uv_write_t request{};
    std::string bytes;
    std::weak_ptr<Link> link;
  };
  struct Waiting {
    std::uint64_t deadline;  // milliseconds of the monotonic clock
    OnReply then;
  };
  struct FreeAddresses {
    void operator()(addrinfo* list) const { uv_freeaddrinfo(list); }
  };

  explicit Link(Connection& theConnection) : connection(&theConnection) {}

  Connection* connection;  // null once it is over
  UvHandle<AnyStream> stream{};
  UvHandle<uv_timer_t> timer{};
  std::unique_ptr<addrinfo, FreeAddresses> addresses{};
  addrinfo* address = nullptr;  // the one that is tried
  ReplyReader reader{};
  std::string outgoing{};
  std::deque<Waiting> waiting{};
  bool isSubscribed = false;
  bool isOverdue = false;    // the timer went off once for the oldest request
  std::uint64_t readAt = 0;  // when something arrived
  std::uint64_t readIn = 0;  // the loop's round in which something was read

  uv_loop_t* loop() const { return connection->loop_.uv(); }
  std::uint64_t timeout() const { return static_cast<std::uint64_t>(connection->url_.timeout.count()); }

  // Ends it without a word to the owner.
  Connection& detach() {
    stream.reset();
    timer.reset();
    waiting.clear();
    return *std::exchange(connection, nullptr);
  }
  void fail(Loss loss) {
    const auto self = shared_from_this();
    detach().lost(std::move(loss));
  }

  void begin() {
    timer.reset(new uv_timer_t);
    uv_timer_init(loop(), timer.get());
    timer->data = this;
    arm(timeout());
    const Address& at = connection->at_;
    ZEL_REQUIRE(!std::holds_alternative<SentinelAddress>(at), "a connection to '" << addressText(at) << "'");
    if (const auto* socket = std::get_if<SocketAddress>(&at)) return connectTo(*socket);
    resolve(std::get<HostAddress>(at));
  }

  void arm(std::uint64_t after) {
    uv_timer_start(
        timer.get(),
        [](uv_timer_t* handle) {
          Loop::guard(handle->loop, [&] { static_cast<Link*>(handle->data)->onTimer(); });
        },
        after, 0);
  }

  // Where this process itself was stopped, or was busy, answers may lie there unread: the loop gets a round
  // to read them before the server counts as silent.
  void onTimer() {
    if (connection->ready_ && waiting.empty()) return;
    const std::uint64_t at = now();
    const std::uint64_t latest =
        connection->ready_ ? std::max(waiting.front().deadline, readAt + timeout()) : 0;
    if (latest > at) {
      isOverdue = false;
      return arm(latest - at);
    }
    if (!std::exchange(isOverdue, true)) return arm(1);
    fail({Loss::Kind::silent, Refusal::none,
          "no answer within " + std::to_string(timeout()) +
              " ms; the server is stopped, overloaded or cut off"});
  }

  // Connecting.
  void unreachable(int status) {
    fail({Loss::Kind::unreachable, Refusal::none,
          std::string(uv_strerror(status)) + "; is the server running, and may this process connect to it?"});
  }
  Connecting* connecting() {
    auto* attempt = new Connecting{{}, weak_from_this()};
    attempt->request.data = attempt;
    return attempt;
  }
  static void onConnect(uv_connect_t* request, int status) {
    const std::unique_ptr<Connecting> attempt(static_cast<Connecting*>(request->data));
    const auto link = attempt->link.lock();
    if (link && link->connection && status != UV_ECANCELED)
      Loop::guard(link->loop(), [&] { link->onConnected(status); });
  }
  void connectTo(const SocketAddress& socket) {
    stream.reset(new AnyStream);
    uv_pipe_init(loop(), &stream->pipe, 0);
    uv_pipe_connect(&connecting()->request, &stream->pipe, socket.path.c_str(), onConnect);
  }

  void resolve(const HostAddress& host) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    auto* resolving = new Resolving{{}, weak_from_this()};
    resolving->request.data = resolving;
    const auto resolved = [](uv_getaddrinfo_t* request, int status, addrinfo* list) {
      std::unique_ptr<addrinfo, FreeAddresses> found(list);
      const std::unique_ptr<Resolving> finished(static_cast<Resolving*>(request->data));
      const auto link = finished->link.lock();
      if (link && link->connection)
        Loop::guard(link->loop(), [&] { link->onResolved(status, std::move(found)); });
    };
    const int status = uv_getaddrinfo(loop(), &resolving->request, resolved, host.host.c_str(),
                                      std::to_string(host.port).c_str(), &hints);
    if (status == 0) return;
    delete resolving;
    unreachable(status);
  }
  void onResolved(int status, std::unique_ptr<addrinfo, FreeAddresses> found) {
    if (status != 0) return unreachable(status);
    addresses = std::move(found);
    address = addresses.get();
    connectToAddress();
  }
  void connectToAddress() {
    stream.reset(new AnyStream);
    uv_tcp_init(loop(), &stream->tcp);
    Connecting* attempt = connecting();
    const int status = uv_tcp_connect(&attempt->request, &stream->tcp, address->ai_addr, onConnect);
    if (status == 0) return;
    delete attempt;
    onConnected(status);
  }

  void onConnected(int status) {
    if (status != 0 && address && address->ai_next) {
      address = address->ai_next;
      return connectToAddress();
    }
    if (status != 0) return unreachable(status);
    if (stream->handle.type == UV_TCP) uv_tcp_nodelay(&stream->tcp, 1);
    startReading();
    greet();
  }

  // Only the answer to the last request shows that the server runs: a stopped one accepts connections too.
  void greet() {
    const Url& url = connection->url_;
    try {
      const std::string password = url.passwordFile.empty() ? "" : passwordIn(url.passwordFile);
      const auto isFine = [this](const Reply& reply) { checkGreeting(reply); };
      if (!password.empty() && url.user.empty()) send({"AUTH", password}, isFine);
      if (!password.empty() && !url.user.empty()) send({"AUTH", url.user, password}, isFine);
      if (url.database != 0) send({"SELECT", std::to_string(url.database)}, isFine);
      send({"PING"}, [this](const Reply& reply) {
        if (!checkGreeting(reply)) return;
        connection->ready_ = true;
        connection->owner_.onReady();
      });
      flush();
    } catch (Loss& loss) {
      fail(std::move(loss));
    }
  }
  bool checkGreeting(const Reply& reply) {
    if (connection && reply.kind == Reply::Kind::error) refused(reply);
    return connection != nullptr;
  }
  void refused(const Reply& reply) {
    const Refusal refusal = reply.refusal();
    fail({Loss::Kind::refused, refusal,
          std::string(refusalText(refusal)) + " (" + reply.text.substr(0, 200) + ")"});
  }

  // Sending.
  void send(const Words& words, OnReply then) { send(words, {}, std::move(then)); }
  void send(const Words& words, const Words& more, OnReply then) {
    appendCommand(outgoing, words, more);
    if (waiting.empty() && connection->ready_) {
      isOverdue = false;
      arm(timeout());
    }
    waiting.push_back({now() + timeout(), std::move(then)});
  }

  void flush() {
    if (!stream || outgoing.empty()) return;
    const std::size_t queued = uv_stream_get_write_queue_size(&stream->stream);
    if (queued + outgoing.size() > kMostWaitingBytes || waiting.size() > kMostRequests)
      return fail({Loss::Kind::silent, Refusal::none,
                   "the server takes nothing any more; it is stopped or overloaded"});
    if (queued == 0 && !writeAtOnce()) return;
    if (!outgoing.empty()) writeLater();
  }
  bool writeAtOnce() {
    const uv_buf_t buffer = uv_buf_init(outgoing.data(), static_cast<unsigned>(outgoing.size()));
    const int written = uv_try_write(&stream->stream, &buffer, 1);
    if (written >= 0) outgoing.erase(0, static_cast<std::size_t>(written));
    if (written >= 0 || written == UV_EAGAIN) return true;
    ended(written);
    return false;
  }
  void writeLater() {
    auto write = std::make_unique<Write>(Write{{}, std::exchange(outgoing, {}), weak_from_this()});
    write->request.data = write.get();
    const uv_buf_t buffer = uv_buf_init(write->bytes.data(), static_cast<unsigned>(write->bytes.size()));
    const auto written = [](uv_write_t* request, int status) {
      const std::unique_ptr<Write> finished(static_cast<Write*>(request->data));
      const auto link = finished->link.lock();
      if (link && link->connection && status < 0) Loop::guard(link->loop(), [&] { link->ended(status); });
    };
    const int status = uv_write(&write->request, &stream->stream, &buffer, 1, written);
    if (status != 0) return ended(status);
    static_cast<void>(write.release());
  }
  void ended(int status) {
    fail({Loss::Kind::closed, Refusal::none,
          std::string("the server ended the connection (") + uv_strerror(status) + ")"});
  }

  // Receiving.
  void startReading() {
    stream->handle.data = this;
    // libuv reads up to 32 times in a round where that much is there; this takes one buffer a round, so that
    // nothing else on the loop waits for a flood of entries.
    const auto allocate = [](uv_handle_t* handle, std::size_t, uv_buf_t* buffer) {
      static std::array<char, 1 << 16> bytes;
      auto& link = *static_cast<Link*>(handle->data);
      const std::uint64_t round = link.connection->loop_.round();
      const bool isFirst = std::exchange(link.readIn, round) != round;
      *buffer = uv_buf_init(bytes.data(), static_cast<unsigned>(isFirst ? bytes.size() : 0));
    };
    const auto read = [](uv_stream_t* handle, ssize_t size, const uv_buf_t* buffer) {
      Loop::guard(handle->loop, [&] { static_cast<Link*>(handle->data)->onRead(size, buffer->base); });
    };
    uv_read_start(&stream->stream, allocate, read);
  }
  void onRead(ssize_t size, const char* bytes) {
    const auto self = shared_from_this();
    if (size == UV_ENOBUFS) return;  // the next round reads on
    if (size < 0) return ended(static_cast<int>(size));
    readAt = now();
    reader.feed({bytes, static_cast<std::size_t>(size)});
    while (connection) {
      const auto reply = reader.next();
      if (!reply) break;
      take(*reply);
    }
    if (connection && !reader.error().empty()) fail({Loss::Kind::invalid, Refusal::none, reader.error()});
  }
  void take(const Reply& reply) {
    if (isSubscribed && reply[0].text == "message")
      return connection->owner_.onMessage(reply[1].text, reply[2].text);
    if (waiting.empty() && reply.kind == Reply::Kind::error) return refused(reply);
    if (waiting.empty())
      return fail({Loss::Kind::invalid, Refusal::none, "a reply to nothing that was requested"});
    const OnReply then = std::move(waiting.front().then);
    waiting.pop_front();
    then(reply);
  }
};

Connection::Connection(Loop& loop, Url url, Owner& owner)
    : loop_(loop),
      url_(std::move(url)),
      at_(url_.at),
      owner_(owner),
      backOff_(std::random_device{}()),
      retry_(new uv_timer_t) {
  uv_timer_init(loop_.uv(), retry_.get());
  retry_->data = this;
}

Connection::~Connection() { close(); }

void Connection::open() {
  close();
  link_ = std::make_shared<Link>(*this);
  const auto link = link_;
  link->begin();
}

void Connection::openLater() {
  close();
  uv_timer_start(
      retry_.get(),
      [](uv_timer_t* handle) {
        Loop::guard(handle->loop, [&] { static_cast<Connection*>(handle->data)->open(); });
      },
      backOff_.next(), 0);
}

void Connection::close() {
  uv_timer_stop(retry_.get());
  ready_ = false;
  if (const auto link = std::exchange(link_, nullptr)) link->detach();
}

void Connection::lost(Loss loss) {
  link_ = nullptr;
  ready_ = false;
  owner_.onLost(loss);
}

void Connection::request(const Words& words, const Words& more, OnReply then) {
  if (ready_) link_->send(words, more, std::move(then));
}

void Connection::subscribe(std::string_view channel, OnReply then) {
  if (ready_) link_->isSubscribed = true;
  request({"SUBSCRIBE", channel}, std::move(then));
}

void Connection::flush() {
  if (const auto link = link_; link && ready_) link->flush();
}

}  // namespace Host::Redis
