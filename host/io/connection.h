// One client of the control socket: lines in, lines out.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "host/io/loop.h"

namespace Host {

// Cuts what arrives into lines, however it is divided.
class Lines {
 public:
  static constexpr std::size_t kLimit = 1 << 20;  // bytes of one line, without its end

  explicit Lines(std::size_t limit = kLimit) : limit_(limit) {}

  // Calls `line` for each line that is complete. Returns false, and takes nothing more, where a line is
  // longer than the limit or `line` returned false.
  bool take(std::string_view bytes, const std::function<bool(std::string_view)>& line);
  // Whether the last thing that stopped take() was a line beyond the limit.
  bool oversized() const { return oversized_; }

 private:
  const std::size_t limit_;
  std::string begun_;
  bool oversized_ = false;
};

// Never blocks: what can't be written at once waits, and a client for which too much waits is cut off.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  // Bytes that may wait for a client when the next message for it comes.
  static constexpr std::size_t kWaitingLimit = 8 << 20;

  class Owner {
   public:
    virtual void onLine(Connection& connection, std::string_view line) = 0;
    virtual void onOversizedLine(Connection& connection) = 0;
    // The connection is closed; nothing of it is called any more.
    virtual void onClosed(Connection& connection) = 0;

   protected:
    ~Owner() = default;
  };

  // Accepts the next client of `listener`; nothing where it went away again. `owner` must outlive it.
  static std::shared_ptr<Connection> accept(uv_stream_t* listener, Owner& owner);
  // Over a pipe that is connected. Who trusts the other side may take longer lines of it.
  Connection(UvHandle<uv_pipe_t> pipe, Owner& owner, std::size_t lineLimit = Lines::kLimit);
  ~Connection();

  bool closed() const { return !pipe_; }
  // The process that connected, as the kernel knows it; 0 where it is not known here.
  std::int64_t peerPid() const;
  // Puts a line, given without its end, behind those that wait; flush() hands them on. Does nothing once the
  // connection is closed.
  void send(std::string_view line);
  void flush();
  // Takes nothing more than what has arrived, until resume().
  void pause();
  void resume();
  // Reads nothing more, and closes once everything was sent.
  void end();
  void close();

 private:
  struct Write;

  // Bytes of room for what is to be sent that a connection keeps.
  static constexpr std::size_t kKeptCapacity = 64 << 10;

  bool writeAtOnce();
  void writeLater();
  void startReading();
  void onRead(ssize_t size, const char* bytes);
  void onWritten(bool failed);
  std::size_t waiting() const;

  UvHandle<uv_pipe_t> pipe_;
  Owner& owner_;
  Lines lines_;
  std::string outgoing_;
  bool ending_ = false;
  bool paused_ = false;
};

}  // namespace Host
