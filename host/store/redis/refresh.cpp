#include "host/store/redis/refresh.h"

#include <utility>

namespace Host::Redis {

using Statedb::Durability;

Refresh::Refresh(Loop& loop, Mirror& mirror, std::function<void(LayeredChanges changes)> notify,
                 std::function<void()> onDone)
    : mirror_(mirror), notify_(std::move(notify)), onDone_(std::move(onDone)), idle_(new uv_idle_t) {
  uv_idle_init(loop.uv(), idle_.get());
  idle_->data = this;
}

void Refresh::start(Durability space, Mirror::Wanted wanted) {
  mirror_.replace(space, std::move(wanted));
  spaces_.insert(space);
  proceed();
}

// A loop with an idle handle does not wait for events. `notify_` may have started another one, and ended it.
void Refresh::proceed() {
  if (isDone()) return;
  notify_(portion());
  if (isDone()) {
    uv_idle_stop(idle_.get());
    return onDone_();
  }
  uv_idle_start(idle_.get(), [](uv_idle_t* handle) {
    Loop::guard(handle->loop, [&] { static_cast<Refresh*>(handle->data)->proceed(); });
  });
}

// An entity that comes after its covers shows with them at once.
Durability Refresh::next() const {
  return spaces_.contains(Durability::cover) ? Durability::cover : *spaces_.begin();
}

LayeredChanges Refresh::portion() {
  LayeredChanges visible;
  const std::uint64_t start = uv_hrtime();
  do {
    if (const Durability space = next(); mirror_.proceed(space, kPaths, visible)) spaces_.erase(space);
  } while (!isDone() && uv_hrtime() - start < kNanoseconds);
  return visible;
}

}  // namespace Host::Redis
