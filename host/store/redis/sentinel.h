// Asks sentinels for the address of a master.
//
//     Sentinels sentinels(loop, parseUrl("redis+sentinel://h1,h2,h3/leds"), owner);
//     sentinels.find();        // then owner.onAddress() or onNoAddress()
//     sentinels.proved();      // the server there is a master: ask the same sentinel first next time
//     sentinels.findLater();   // it is not, or it was lost: ask again, after a back-off
//
// The sentinels are asked in turn until one names an address; each step (connecting, asking) may take the
// URL's timeout. The sentinel whose last answer was proved is asked first. After an answer that was not, the
// next one is: a sentinel that is cut off names the old master for ever. An answer is only a hint, because
// sentinels agree on a failover one by one; the caller connects and checks that the server is a master.
//
// User and password of the URL are those of the servers. They are sent to a sentinel only where it asks for a
// password, so both need the same ones. Such a user needs these rights in sentinel.conf:
//
//     user USER on >PASSWORD -@all +ping +sentinel|get-master-addr-by-name +sentinel|masters
//
// Nothing blocks except for reading the password file. Activity thread only.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

#include "host/io/loop.h"
#include "host/io/timer.h"
#include "host/store/redis/connection.h"
#include "host/store/redis/locator.h"
#include "host/store/redis/url.h"

namespace Host::Redis {

// An address may be a host name, where the sentinels announce those. The text of onNoAddress() has each
// sentinel's reason, and a remedy; not the sentinels' URL. The owner may destroy the sentinels from within
// its calls.
class Sentinels final : public Locator, private Connection::Owner {
 public:
  // `loop` and `owner` must outlive it. REQUIRES: the URL is one of sentinels.
  Sentinels(Loop& loop, Url url, Locator::Owner& owner);

  // Ends the asking that there was, and begins again.
  void find() override;
  void findLater() override;
  void proved() override;

 private:
  struct Sentinel {
    HostAddress at;
    bool wantsPassword = false;
    Loss loss{};  // of this round
  };

  void onReady() override;
  void onMessage(std::string_view, std::string_view) override {}
  void onLost(const Loss& loss) override;

  Sentinel& asked() { return sentinels_[tried_]; }
  void tryNext();
  void onAnswer(const Reply& reply);
  void fail(Loss loss);
  void end();

  Loop& loop_;
  const Url url_;
  Locator::Owner& owner_;
  BackOff backOff_;
  Timer later_;
  std::vector<Sentinel> sentinels_{};  // in the order of the round
  std::size_t tried_ = 0;              // in this round
  bool isProved_ = true;               // the last answer, or there was none
  std::unique_ptr<Connection> connection_{};
};

}  // namespace Host::Redis
