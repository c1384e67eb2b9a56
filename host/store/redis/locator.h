// Chooses the address of each attempt to connect.
//
//     const auto locator = locatorOf(loop, url, owner);
//     locator->find();       // owner.onAddress(), or owner.onNoAddress()
//     locator->proved();     // the server there is the right one
//     locator->findLater();  // it is not, or it was lost: the same after a back-off
//
// Activity thread only.
#pragma once

#include <memory>

#include "host/io/loop.h"
#include "host/store/redis/connection.h"
#include "host/store/redis/url.h"

namespace Host::Redis {

class Locator {
 public:
  class Owner {
   public:
    // A socket or a host. May be called from within find().
    virtual void onAddress(const Address& at) = 0;
    virtual void onNoAddress(const Loss& loss) = 0;

   protected:
    ~Owner() = default;
  };

  virtual ~Locator() = default;
  virtual void find() = 0;
  virtual void findLater() = 0;
  virtual void proved() = 0;
};

// `loop` and `owner` must outlive it.
std::unique_ptr<Locator> locatorOf(Loop& loop, const Url& url, Locator::Owner& owner);

}  // namespace Host::Redis
