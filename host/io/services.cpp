#include "host/io/services.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

namespace Host {

namespace {

using Zel::FdWatch;

void checked(int code, int fd) {
  if (code != 0)
    throw std::system_error(code, std::generic_category(),
                            "file descriptor " + std::to_string(fd) + " can't be watched");
}

// Duplicates an agent's descriptor. libuv indexes handles by descriptor, so without the duplicate an agent
// that closes its own too early would leave the handle on the next file that gets that number.
class Duplicate {
 public:
  explicit Duplicate(int fd) : fd_(::fcntl(fd, F_DUPFD_CLOEXEC, 0)) { checked(fd_ < 0 ? errno : 0, fd); }
  ~Duplicate() { ::close(fd_); }
  Duplicate(const Duplicate&) = delete;
  Duplicate& operator=(const Duplicate&) = delete;
  int fd() const { return fd_; }

 private:
  const int fd_;
};

class Poll final : public Zel::FdPoll {
 public:
  Poll(Loop& loop, FdWatch& watch) : watch_(watch), duplicate_(watch.fd()) {
    auto handle = std::make_unique<uv_poll_t>();
    checked(-uv_poll_init(loop.uv(), handle.get(), duplicate_.fd()), watch.fd());
    handle_.reset(handle.release());
    handle_->data = this;
    start(watch.events());
  }
  void eventsIs(unsigned events) override { start(events); }

 private:
  void start(unsigned events) {
    const int wanted =
        (events & FdWatch::kReadable ? UV_READABLE : 0) | (events & FdWatch::kWritable ? UV_WRITABLE : 0);
    if (wanted == 0)
      uv_poll_stop(handle_.get());
    else
      uv_poll_start(handle_.get(), wanted, &Poll::onReady);
  }

  // libuv stops polling on an error. Restarts it: the agent may clear the error by reading or writing.
  static void onReady(uv_poll_t* handle, int status, int events) {
    auto& self = *static_cast<Poll*>(handle->data);
    if (status < 0) self.start(self.watch_.events());
    self.watch_.readyIs(status < 0 ? self.watch_.events()
                                   : (events & UV_READABLE ? FdWatch::kReadable : 0U) |
                                         (events & UV_WRITABLE ? FdWatch::kWritable : 0U));
  }

  FdWatch& watch_;
  const Duplicate duplicate_;  // closed after the handle
  UvHandle<uv_poll_t> handle_;
};

}  // namespace

Services::Services(Loop& loop, Zel::External& external)
    : loop_(loop), external_(external), async_(new uv_async_t) {
  uv_async_init(loop.uv(), async_.get(), [](uv_async_t*) {});
  external_.hostIs(this);
}

Services::~Services() { external_.hostIs(nullptr); }

std::unique_ptr<Zel::FdPoll> Services::poll(Zel::FdWatch& watch) {
  return std::make_unique<Poll>(loop_, watch);
}

// A turn follows every round, so waking the loop is enough.
void Services::wake() { uv_async_send(async_.get()); }

}  // namespace Host
