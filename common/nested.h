// Reactors that work for one object, and the slots in which that object keeps them.
#pragma once

#include <utility>

#include "platform/zel/core/ptr.h"
#include "platform/zel/notify/lookahead.h"
#include "platform/zel/object/type.h"

namespace Pinlamp {

// The base of a nested reactor. The owner holds the reactor in a slot; the reactor knows its owner without
// counting a reference, until the owner lets go of it.
//
// Making a reactor on a notifier only attaches it; re-pointing it later, with notifierIs, may do more.
template <class Self, class Base, class Owner>
class Nested : public Zel::Reactor<Self, Base> {
 public:
  // Null once the owner has let go.
  Owner* owner() const { return owner_; }
  void ownerDel() { owner_ = nullptr; }

 protected:
  template <class Notifier>
  Nested(const Zel::Ptr<const Notifier>& notifier, Owner& owner)
      : Zel::Reactor<Self, Base>(notifier), owner_(&owner) {}

  // The first step prefetches the owner, the others are those of a lookahead() beside it.
  bool lookaheadStep(unsigned step) const override {
    if constexpr (requires { lookahead(*owner_, step); }) {
      if (step > 1) return owner_ && lookahead(*owner_, step);
      Zel::prefetch(owner_);
      return true;
    } else {
      return false;
    }
  }

  // Calls the owner, which is kept alive meanwhile, unless the reactor was retired.
  template <class Handler, class... Args>
  void tellOwner(Handler handler, const Args&... args) {
    if (!owner_ || this->zelIsZombie()) return;
    const Zel::Ptr<Owner> kept(owner_);
    ((*kept).*handler)(args...);
  }

 private:
  Owner* owner_;
};

// What the reactor in a slot watches; null where the slot is empty or the reactor watches nothing.
template <class R>
auto watched(const Zel::Ptr<R>& slot) {
  return slot ? slot->notifier() : nullptr;
}

// Empties a slot: its reactor is retired and forgets its owner. Returns what it watched.
template <class R>
auto letGo(Zel::Ptr<R>& slot) {
  Zel::Ptr notifier(watched(slot));
  if (const Zel::Ptr<R> reactor = std::exchange(slot, nullptr)) {
    reactor->zelDoZombieReactors(true);
    reactor->ownerDel();
  }
  return notifier;
}

// Makes the reactor of a slot watch `notifier`: re-points the reactor that is there, or makes one for
// `owner`; null empties the slot. Returns whether anything changed.
template <class R, class Owner, class Notifier>
bool watch(Zel::Ptr<R>& slot, Owner& owner, const Zel::Ptr<const Notifier>& notifier) {
  if (watched(slot) == notifier.get()) return false;
  if (!notifier) {
    letGo(slot);
    return true;
  }
  if (!slot) slot = Zel::allocate<R>(Zel::Ptr<const Notifier>(), owner);
  slot->notifierIs(notifier);
  return true;
}

}  // namespace Pinlamp
