#include "tests/redis/chaos/proxy.h"

#include <algorithm>
#include <array>
#include <deque>
#include <utility>

namespace Chaos {

namespace {

using Pipe = Host::UvHandle<uv_pipe_t>;

constexpr std::size_t kMostHeld = 256 << 10;  // bytes a direction; then the sender waits

Pipe newPipe(Host::Loop& loop) {
  Pipe pipe(new uv_pipe_t);
  uv_pipe_init(loop.uv(), pipe.get(), 0);
  return pipe;
}
uv_stream_t* streamOf(const Pipe& pipe) { return reinterpret_cast<uv_stream_t*>(pipe.get()); }

struct Sent {
  uv_write_t request{};
  std::string bytes{};
};

// Bytes on their way from one end to the other.
class Half {
 public:
  Half(const Pipe& from, const Pipe& to) : from_(from), to_(to) {}

  void read() {
    if (isReading_ || hasEnded_ || held_ >= kMostHeld ||
        uv_stream_get_write_queue_size(streamOf(to_)) > kMostHeld)
      return;
    isReading_ = true;
    from_->data = this;
    const auto space = [](uv_handle_t*, std::size_t, uv_buf_t* buffer) {
      static std::array<char, 64 << 10> bytes;  // read before the next is asked for
      *buffer = uv_buf_init(bytes.data(), bytes.size());
    };
    uv_read_start(streamOf(from_), space, [](uv_stream_t* stream, ssize_t size, const uv_buf_t* buffer) {
      static_cast<Half*>(stream->data)->onRead(size, buffer->base);
    });
  }
  // Returns whether the connection is over.
  bool pump(Proxy::Flow& flow) {
    delay_ = flow.delay;
    std::size_t most = flow.most;
    while (!flow.isHeld && !chunks_.empty() && chunks_.front().due <= uv_now(from_->loop) && most > 0) {
      std::string bytes = take(flow.endsInChunk ? (chunks_.front().bytes.size() + 1) / 2 : most);
      most -= bytes.size();
      send(std::move(bytes));
      if (std::exchange(flow.endsInChunk, false)) return true;
    }
    read();
    return hasEnded_ && chunks_.empty() && uv_stream_get_write_queue_size(streamOf(to_)) == 0;
  }

 private:
  struct Chunk {
    std::uint64_t due;
    std::string bytes;
  };

  void onRead(ssize_t size, const char* bytes) {
    hasEnded_ = size < 0;
    if (size > 0) chunks_.push_back({uv_now(from_->loop) + delay_, {bytes, static_cast<std::size_t>(size)}});
    held_ += size > 0 ? static_cast<std::size_t>(size) : 0;
    if (!hasEnded_ && held_ < kMostHeld) return;
    uv_read_stop(streamOf(from_));
    isReading_ = false;
  }
  std::string take(std::size_t most) {
    std::string& first = chunks_.front().bytes;
    std::string bytes = first.substr(0, most);
    first.erase(0, bytes.size());
    held_ -= bytes.size();
    if (first.empty()) chunks_.pop_front();
    return bytes;
  }
  void send(std::string bytes) {
    auto* sent = new Sent{{}, std::move(bytes)};
    sent->request.data = sent;
    const uv_buf_t buffer = uv_buf_init(sent->bytes.data(), static_cast<unsigned>(sent->bytes.size()));
    const auto done = [](uv_write_t* request, int) { delete static_cast<Sent*>(request->data); };
    if (uv_write(&sent->request, streamOf(to_), &buffer, 1, done) < 0) delete sent;
  }

  const Pipe &from_, &to_;
  std::deque<Chunk> chunks_{};
  std::size_t held_ = 0;
  std::uint64_t delay_ = 0;
  bool isReading_ = false, hasEnded_ = false;
};

}  // namespace

class Proxy::Link : public std::enable_shared_from_this<Link> {
 public:
  Link(Host::Loop& loop, Pipe store) : store_(std::move(store)), server_(newPipe(loop)) {}

  void connect(const std::string& server) {
    struct Attempt {
      uv_connect_t request{};
      std::weak_ptr<Link> link{};
    };
    auto* attempt = new Attempt{{}, weak_from_this()};
    attempt->request.data = attempt;
    uv_pipe_connect(&attempt->request, server_.get(), server.c_str(), [](uv_connect_t* request, int status) {
      const std::unique_ptr<Attempt> done(static_cast<Attempt*>(request->data));
      const auto link = done->link.lock();
      if (link) (status == 0 ? link->isConnected_ : link->hasFailed_) = true;
    });
  }
  // Returns whether the connection is over.
  bool pump(Flow& toServer, Flow& toStore) {
    if (!isConnected_) return hasFailed_;
    const bool isUpOver = up_.pump(toServer), isDownOver = down_.pump(toStore);
    return isUpOver || isDownOver;
  }

 private:
  const Pipe store_, server_;
  Half up_{store_, server_}, down_{server_, store_};
  bool isConnected_ = false, hasFailed_ = false;
};

Proxy::Proxy(Host::Loop& loop, const std::string& socket, std::string server)
    : loop_(loop), server_(std::move(server)), listener_(loop, socket) {
  listener_.start([this](uv_stream_t* listening) {
    Pipe store = newPipe(loop_);
    if (uv_accept(listening, streamOf(store)) != 0 || refuses) return;
    links_.push_back(std::make_shared<Link>(loop_, std::move(store)));
    links_.back()->connect(server_);
  });
}

Proxy::~Proxy() = default;

void Proxy::pump() {
  std::erase_if(links_, [this](const auto& link) { return link->pump(up, down); });
}

}  // namespace Chaos
