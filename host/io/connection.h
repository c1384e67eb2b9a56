// A connection that sends and receives lines over a Unix socket.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "host/io/loop.h"

namespace Host {

// Splits a byte stream into lines.
class Lines {
 public:
  static constexpr std::size_t kLimit = 1 << 20;  // bytes of one line, without its newline

  explicit Lines(std::size_t limit = kLimit) : limit_(limit) {}

  void add(std::string_view bytes);
  // Whether a complete line is there, or one over the limit.
  bool hasLine() const { return end_ != std::string::npos || oversized_; }
  // Whether the next line is over the limit.
  bool oversized() const { return oversized_; }
  // Removes the next line, and returns it without its newline. REQUIRES: hasLine() and not oversized().
  std::string take();
  // Bytes of memory.
  std::size_t kept() const { return kept_.size(); }
  void clear();

 private:
  static constexpr std::size_t kKeptCapacity = 1 << 10;  // bytes of buffer that stay without a line

  void find(std::size_t from);

  const std::size_t limit_;
  std::string kept_;
  std::size_t begin_ = 0;                // of the next line, in `kept_`
  std::size_t end_ = std::string::npos;  // its newline
  bool oversized_ = false;
};

// Never blocks: unsent output is queued, and a peer with too much queued output is disconnected. A peer that
// reads no more, such as one that refused the connection and closed it, is still read to its end.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  // Bytes of queued output beyond which the next send() closes the connection: without the lines of more than
  // kLargeLine, as a peer gets several of them at once (snapshots, the changes of a large batch) however
  // quickly it reads; and with them.
  static constexpr std::size_t kWaitingLimit = 8 << 20;
  static constexpr std::size_t kLargeLine = 1 << 20;
  static constexpr std::size_t kMostWaiting = 128 << 20;

  class Owner {
   public:
    // Lines are there to be delivered: now, which is the default, or later.
    virtual void onArrived(Connection& connection);
    virtual void onLine(Connection& connection, std::string_view line) = 0;
    virtual void onOversizedLine(Connection& connection) = 0;
    // The connection is closed. This is its last call.
    virtual void onClosed(Connection& connection) = 0;
    // held() has changed by so much. May close any connection.
    virtual void onHeld(std::ptrdiff_t) {}

   protected:
    ~Owner() = default;
  };

  // Accepts the next client of `listener`; null if it has gone already. `owner` must outlive the connection.
  static std::shared_ptr<Connection> accept(uv_stream_t* listener, Owner& owner);
  // Uses a connected pipe. Raise `lineLimit` only for a trusted peer.
  Connection(UvHandle<uv_pipe_t> pipe, Owner& owner, std::size_t lineLimit = Lines::kLimit);
  ~Connection();

  bool closed() const { return !pipe_; }
  // The number of its file descriptor; -1 once closed.
  int descriptor() const;
  // Bytes of memory for an incomplete line and unsent output.
  std::size_t held() const { return held_; }
  // The process id of the peer, from the kernel; 0 if unknown.
  std::int64_t peerPid() const;
  // Queues a line, given without its newline, for flush(). Does nothing once the connection is closed.
  void send(std::string_view line);
  // Writes queued output as far as the socket accepts it. From then on the socket is read unless lines wait
  // to be delivered.
  void flush();
  // Delivers one line that has arrived. Returns whether another one waits.
  bool deliver();
  // Stops reading, and closes once all output is sent.
  void end();
  void close();
  // Sends one line as far as the socket accepts it, and closes without a call to the owner.
  void refuse(std::string_view line);

 private:
  struct Write;

  // Bytes of output buffer that a connection keeps between writes.
  static constexpr std::size_t kKeptCapacity = 16 << 10;
  // Bytes from which on nothing is read before the lines among them are delivered.
  static constexpr std::size_t kReadAhead = 1 << 16;
  enum class Input { open, ended, failed };

  void stopWriting();
  bool writeAtOnce();
  void writeLater();
  void startReading();
  void stopReading();
  void onRead(ssize_t size, const char* bytes);
  void onInputEnd();
  void onOversized();
  void onWritten(bool failed);
  std::size_t waiting() const;
  void updateHeld();

  UvHandle<uv_pipe_t> pipe_;
  Owner& owner_;
  Lines lines_;
  std::string outgoing_;
  std::size_t held_ = 0;
  std::size_t large_ = 0;  // bytes of large lines since the queue was last empty
  bool ending_ = false;
  bool muted_ = false;  // the peer reads no more: output is dropped
  bool reading_ = false;
  Input input_ = Input::open;  // its end counts once all lines are delivered
};

}  // namespace Host
