#include "platform/zel/notify/fdwatch.h"

#include <string>
#include <utility>

#include "platform/zel/core/assert.h"
#include "platform/zel/notify/activity.h"
#include "platform/zel/notify/external.h"

namespace Zel {

FdWatch::FdWatch(int fd, unsigned events, Handler handler)
    : fd_(fd),
      events_(events),
      agent_(ActivityManager::currentAgent()),
      handler_(std::make_shared<const Handler>(std::move(handler))),
      external_(&activityManager().external()) {
  ZEL_REQUIRE(fd >= 0 && *handler_, "fd " << fd << ", handler " << (*handler_ ? "given" : "empty"));
  pollBy(external_->host_);
  WatchHook::joinEndOf(external_->watches_);
}

FdWatch::~FdWatch() = default;

void FdWatch::eventsIs(unsigned events) {
  events_ = events;
  ready_ &= events;
  if (ready_ == 0) ReadyHook::leave();
  if (poll_) poll_->eventsIs(events);
}

void FdWatch::readyIs(unsigned events) {
  ready_ |= events & events_;
  if (ready_ != 0 && external_ && !ReadyHook::linked()) ReadyHook::joinEndOf(external_->ready_);
}

void FdWatch::pollBy(HostServices* host) { poll_ = host ? host->poll(*this) : nullptr; }

void FdWatch::detach() {
  WatchHook::leave();
  ReadyHook::leave();
  poll_ = nullptr;
  external_ = nullptr;
}

void FdWatch::run() {
  ReadyHook::leave();
  const auto handler = handler_;
  const unsigned ready = std::exchange(ready_, 0U);
  detail::runFor(agent_, "the handler of file descriptor " + std::to_string(fd_), [&] { (*handler)(ready); });
}

}  // namespace Zel
