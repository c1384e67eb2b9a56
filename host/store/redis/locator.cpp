#include "host/store/redis/locator.h"

#include <random>

#include "host/io/timer.h"
#include "host/store/redis/sentinel.h"

namespace Host::Redis {

namespace {

// The address that the URL names.
class FixedLocator final : public Locator {
 public:
  FixedLocator(Loop& loop, Address at, Owner& owner)
      : at_(std::move(at)),
        owner_(owner),
        backOff_(std::random_device{}()),
        later_(loop, [this] { find(); }) {}

  void find() override { owner_.onAddress(at_); }
  void findLater() override { later_.startIn(backOff_.next()); }
  void proved() override { backOff_.reset(); }

 private:
  const Address at_;
  Owner& owner_;
  BackOff backOff_;
  Timer later_;
};

}  // namespace

std::unique_ptr<Locator> locatorOf(Loop& loop, const Url& url, Locator::Owner& owner) {
  if (std::holds_alternative<SentinelAddress>(url.at)) return std::make_unique<Sentinels>(loop, url, owner);
  return std::make_unique<FixedLocator>(loop, url.at, owner);
}

}  // namespace Host::Redis
