#include "host/io/connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <utility>

namespace Host {

void Lines::add(std::string_view bytes) {
  const std::size_t from = std::min(end_, kept_.size()) - begin_;
  kept_.erase(0, std::exchange(begin_, 0));
  kept_.append(bytes);
  find(from);
}

// The bytes before `from` contain no newline.
void Lines::find(std::size_t from) {
  end_ = kept_.find('\n', from);
  oversized_ = std::min(end_, kept_.size()) - begin_ > limit_;
}

void Lines::clear() {
  begin_ = 0;
  end_ = std::string::npos;
  oversized_ = false;
  kept_.clear();
  if (kept_.capacity() > kKeptCapacity) std::string().swap(kept_);
}

std::string Lines::take() {
  std::string line = kept_.substr(begin_, end_ - begin_);
  begin_ = end_ + 1;
  if (begin_ == kept_.size())
    clear();
  else
    find(begin_);
  return line;
}

// A write in flight. Outlives its connection if that is closed first.
struct Connection::Write {
  uv_write_t request{};
  std::string bytes;
  std::weak_ptr<Connection> connection;

  static void done(uv_write_t* request, int status) {
    const std::unique_ptr<Write> write(static_cast<Write*>(request->data));
    if (const auto connection = write->connection.lock())
      Loop::guard(request->handle->loop, [&] { connection->onWritten(status < 0); });
  }
};

std::shared_ptr<Connection> Connection::accept(uv_stream_t* listener, Owner& owner) {
  UvHandle<uv_pipe_t> pipe(new uv_pipe_t);
  uv_pipe_init(listener->loop, pipe.get(), 0);
  if (uv_accept(listener, reinterpret_cast<uv_stream_t*>(pipe.get())) != 0) return nullptr;
  return std::make_shared<Connection>(std::move(pipe), owner);
}

Connection::Connection(UvHandle<uv_pipe_t> pipe, Owner& owner, std::size_t lineLimit)
    : pipe_(std::move(pipe)), owner_(owner), lines_(lineLimit) {
  pipe_->data = this;
  startReading();
}

int Connection::descriptor() const {
  uv_os_fd_t number;
  if (closed() || uv_fileno(reinterpret_cast<uv_handle_t*>(pipe_.get()), &number) != 0) return -1;
  return number;
}

std::int64_t Connection::peerPid() const {
  ucred peer{};
  socklen_t size = sizeof peer;
  return ::getsockopt(descriptor(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer.pid : 0;
}

void Connection::startReading() {
  if (closed() || ending_ || input_ != Input::open || std::exchange(reading_, true)) return;
  const auto allocate = [](uv_handle_t*, std::size_t, uv_buf_t* buffer) {
    static std::array<char, 1 << 16> bytes;
    *buffer = uv_buf_init(bytes.data(), bytes.size());
  };
  const auto read = [](uv_stream_t* stream, ssize_t size, const uv_buf_t* buffer) {
    Loop::guard(stream->loop, [&] { static_cast<Connection*>(stream->data)->onRead(size, buffer->base); });
  };
  uv_read_start(reinterpret_cast<uv_stream_t*>(pipe_.get()), allocate, read);
}

void Connection::stopReading() {
  if (!closed() && std::exchange(reading_, false)) uv_read_stop(reinterpret_cast<uv_stream_t*>(pipe_.get()));
}

Connection::~Connection() = default;

void Connection::onRead(ssize_t size, const char* bytes) {
  if (size == 0) return;
  const auto self = shared_from_this();
  if (size < 0) {
    stopReading();
    input_ = size == UV_EOF ? Input::ended : Input::failed;
    if (!lines_.hasLine()) onInputEnd();
    return;
  }
  lines_.add({bytes, static_cast<std::size_t>(size)});
  updateHeld();
  if (!closed() && lines_.hasLine()) owner_.onArrived(*this);
  if (lines_.hasLine() && lines_.kept() >= kReadAhead) stopReading();
}

void Connection::onInputEnd() {
  if (input_ == Input::ended) end();
  if (input_ == Input::failed) close();
}

void Connection::Owner::onArrived(Connection& connection) {
  while (connection.deliver()) {
  }
}

bool Connection::deliver() {
  if (!lines_.hasLine()) return false;
  const auto self = shared_from_this();
  if (lines_.oversized()) return onOversized(), false;
  owner_.onLine(*this, lines_.take());
  if (closed() || ending_) lines_.clear();
  updateHeld();
  if (!lines_.hasLine()) onInputEnd();
  return lines_.hasLine();
}

void Connection::onOversized() {
  lines_.clear();
  updateHeld();
  owner_.onOversizedLine(*this);
  end();
}

std::size_t Connection::waiting() const {
  return outgoing_.size() + uv_stream_get_write_queue_size(reinterpret_cast<uv_stream_t*>(pipe_.get()));
}

void Connection::send(std::string_view line) {
  if (closed() || muted_) return;
  if (waiting() == 0) large_ = 0;
  if (waiting() > kWaitingLimit + large_ || waiting() > kMostWaiting) return close();
  if (line.size() > kLargeLine) large_ += line.size();
  outgoing_.append(line);
  outgoing_ += '\n';
  updateHeld();
}

void Connection::updateHeld() {
  const std::size_t now = closed() ? 0 : lines_.kept() + waiting();
  const auto before = static_cast<std::ptrdiff_t>(std::exchange(held_, now));
  if (const auto more = static_cast<std::ptrdiff_t>(now) - before; more != 0) owner_.onHeld(more);
}

void Connection::flush() {
  if (closed()) return;
  if (lines_.hasLine())
    stopReading();
  else
    startReading();
  if (!outgoing_.empty() && !writeAtOnce()) return stopWriting();
  updateHeld();
  if (!outgoing_.empty()) return writeLater();
  if (ending_ && waiting() == 0) close();
}

// Closes where nothing more can be read either.
void Connection::stopWriting() {
  muted_ = true;
  outgoing_ = {};
  updateHeld();
  if (ending_) close();
}

// Writes what the socket accepts without blocking, usually everything. Returns false on an error.
bool Connection::writeAtOnce() {
  auto* stream = reinterpret_cast<uv_stream_t*>(pipe_.get());
  if (uv_stream_get_write_queue_size(stream) != 0) return true;
  const uv_buf_t buffer = uv_buf_init(outgoing_.data(), static_cast<unsigned>(outgoing_.size()));
  const int written = uv_try_write(stream, &buffer, 1);
  if (written < 0) return written == UV_EAGAIN;
  outgoing_.erase(0, static_cast<std::size_t>(written));
  if (outgoing_.capacity() > kKeptCapacity) outgoing_.shrink_to_fit();
  return true;
}

void Connection::writeLater() {
  auto write = std::make_unique<Write>();
  write->bytes = std::exchange(outgoing_, {});
  write->connection = weak_from_this();
  write->request.data = write.get();
  const uv_buf_t buffer = uv_buf_init(write->bytes.data(), static_cast<unsigned>(write->bytes.size()));
  auto* stream = reinterpret_cast<uv_stream_t*>(pipe_.get());
  if (uv_write(&write->request, stream, &buffer, 1, &Write::done) != 0) return close();
  static_cast<void>(write.release());
}

void Connection::onWritten(bool failed) {
  if (closed()) return;
  updateHeld();
  if (failed) return stopWriting();
  if (ending_ && waiting() == 0) close();
}

void Connection::end() {
  if (closed()) return;
  ending_ = true;
  stopReading();
}

void Connection::close() {
  if (closed()) return;
  pipe_.reset();
  outgoing_ = {};
  lines_.clear();
  updateHeld();
  owner_.onClosed(*this);
}

void Connection::refuse(std::string_view line) {
  send(line);
  writeAtOnce();
  pipe_.reset();
  updateHeld();
}

}  // namespace Host
