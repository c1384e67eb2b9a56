#include "bench/member.h"

#include <algorithm>
#include <stdexcept>

#include "bench/measure.h"
#include "host/store/stores.h"

namespace Bench {

namespace {
constexpr double kTimeout = 60;  // seconds for anything that a store is asked to do
}

void Rounds::run() {
  const double start = threadTime();
  uv_run(loop_.uv(), UV_RUN_ONCE);
  longest_ = std::max(longest_, threadTime() - start);
}

void Rounds::runUntil(const std::function<bool()>& condition, const std::function<std::string()>& report) {
  for (const double end = now() + kTimeout; !condition(); run())
    if (now() > end)
      throw std::runtime_error("the store does not answer" + (report ? ": " + report() : std::string()));
}

Member::Member(Rounds& rounds, const std::string& url, const std::string& path,
               const std::function<void()>& onGot)
    : rounds_(rounds), onGot_(onGot) {
  store_ = Host::makeStore(url, rounds.loop(), [this](const std::string& text) { report_ = text; });
  store_->subscribe(path, *this);
  runUntil([this] { return hasRows_ && store_->state().isReached; });
}

Member::~Member() { store_->unsubscribe(*this); }

Statedb::Ticket Member::write(const Statedb::Changes& changes, Statedb::Durability durability) {
  store_->write(changes, durability);
  return store_->flush();
}

void Member::wait(const Statedb::Ticket& ticket) {
  runUntil([&] { return ticket.isDone(); });
  if (!ticket.failure().empty()) throw std::runtime_error(ticket.failure());
}

void Member::waitFor(std::size_t changes) {
  runUntil([&] { return changes_ >= changes; });
}

void Member::follow() {
  for (;;) rounds_.run();
}

bool Member::onEnd() {
  hasRows_ = true;
  if (onGot_) onGot_();
  return true;
}

void Member::onChanges(const Statedb::Changes& changes) {
  changes_ += static_cast<std::size_t>(
      std::ranges::count_if(changes, [](const auto& each) { return !each.row.attribute.empty(); }));
  if (onGot_) onGot_();
}

void Member::runUntil(const std::function<bool()>& condition) {
  rounds_.runUntil(condition, [this] { return report_; });
}

}  // namespace Bench
