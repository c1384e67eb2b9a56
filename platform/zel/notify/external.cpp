#include "platform/zel/notify/external.h"

#include "platform/zel/notify/activity.h"
#include "platform/zel/notify/inbox.h"

namespace Zel {

FdPoll::~FdPoll() = default;

void detail::runFor(Name agent, const std::string& place, const std::function<void()>& handler) {
  const ActivityManager::AgentScope scope(agent);
  try {
    handler();
  } catch (...) {
    agentFailed(agent, place);
  }
}

External::External() : mailbox_(std::make_shared<detail::Mailbox>()) {}

External::~External() {
  mailbox_->shutDown();
  while (watches_.linked()) FdWatch::ofWatch(*watches_.next()).detach();
}

void External::hostIs(HostServices* host) {
  host_ = nullptr;
  mailbox_->hostIs(nullptr);
  pollAllBy(nullptr);
  try {
    pollAllBy(host);
  } catch (...) {
    pollAllBy(nullptr);
    throw;
  }
  host_ = host;
  mailbox_->hostIs(host);
}

void External::pollAllBy(HostServices* host) {
  for (ListHook* hook = watches_.next(); hook != &watches_; hook = hook->next())
    FdWatch::ofWatch(*hook).pollBy(host);
}

void External::run() {
  round_.takeAllOf(ready_);
  while (round_.linked()) FdWatch::ofReady(*round_.next()).run();
  mailbox_->run();
}

}  // namespace Zel
