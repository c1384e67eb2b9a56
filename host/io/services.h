// The event loop as agents see it: polled descriptors, and a wake-up for tasks posted by other threads.
#pragma once

#include "host/io/loop.h"
#include "platform/zel/notify/external.h"

namespace Host {

// The host of `external` for as long as it lives. REQUIRES: the loop's turn calls ActivityManager::step().
class Services final : public Zel::HostServices {
 public:
  // `external` must outlive the services.
  Services(Loop& loop, Zel::External& external);
  ~Services();
  Services(const Services&) = delete;
  Services& operator=(const Services&) = delete;

  std::unique_ptr<Zel::FdPoll> poll(Zel::FdWatch& watch) override;
  void wake() override;

 private:
  Loop& loop_;
  Zel::External& external_;
  const UvHandle<uv_async_t> async_;
};

}  // namespace Host
