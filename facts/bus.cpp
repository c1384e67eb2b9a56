#include "facts/bus.h"

#include <poll.h>

#include <cstring>
#include <ctime>

namespace Facts {

namespace {

constexpr int kMessages = 64;  // of one pass

sd_bus* opened() {
  sd_bus* bus = nullptr;
  checkBus(sd_bus_open_system(&bus), "connecting");
  return bus;
}

double monotonic() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

}  // namespace

int checkBus(int result, const std::string& doing) {
  if (result < 0) throw SourceError("the system bus, " + doing + ": " + std::strerror(-result));
  return result;
}

Bus::Bus(std::function<void()> ready) : bus_(opened()), timer_(Zel::allocate<Timer>(ready)) {
  watch_.emplace(checkBus(sd_bus_get_fd(bus_.get()), "connecting"), 0, [ready](unsigned) { ready(); });
  arm();
}

void Bus::run() {
  for (int i = 0; i < kMessages; ++i) {
    const int result = sd_bus_process(bus_.get(), nullptr);
    if (thrown_) std::rethrow_exception(std::exchange(thrown_, nullptr));
    if (checkBus(result, "reading") == 0) break;
  }
  if (sd_bus_is_open(bus_.get()) <= 0) throw SourceError("the system bus has closed the connection");
  arm();
}

void Bus::arm() {
  const int events = checkBus(sd_bus_get_events(bus_.get()), "waiting");
  watch_->eventsIs((events & POLLIN ? Zel::FdWatch::kReadable : 0U) |
                   (events & POLLOUT ? Zel::FdWatch::kWritable : 0U));
  std::uint64_t microseconds = UINT64_MAX;
  checkBus(sd_bus_get_timeout(bus_.get(), &microseconds), "waiting");
  timer_->timeMinIs(microseconds == UINT64_MAX
                        ? Zel::Clock::kNever
                        : Zel::System::currentTime() + static_cast<double>(microseconds) / 1e6 - monotonic());
}

}  // namespace Facts
