// Slots: how an object owns the reactors that work for it.
//
//     struct Follower : Described<Follower, Notifier> {
//       struct LedReactor : NestedReactor<LedReactor, LedConfig::NotifieeConst, Follower> {
//         static constexpr const char* kTypeName = "Example::LedReactor";
//         using NestedReactor::NestedReactor;
//         void onLightSetting() override { notifyOwner(&Follower::show); }
//       };
//       static constexpr auto reactors() { return std::tuple{&Follower::led}; }
//       void follow(const Ptr<const LedConfig>& which) { led.watch(*this, which); }
//       Slot<LedReactor> led;
//     };
//
// Switching. An owner's hasNotificationActiveIs sets its own state first, then that of every reactor in its
// slots, in the order of reactors(). Its zelDoZombieReactors retires the reactors first and the owner last.
// Both do nothing where the owner's state is as asked.
//
// Lifetime. A reactor that leaves its slot is retired, which may still call its owner, then detached (it has
// no owner any more) and unregistered; a pointer that is still held to it does no harm. When the last pointer
// to the owner goes, it is retired with all its reactors, and then they are detached and unregistered, before
// its destructor begins. The slots are emptied with the owner's members. Where the owner's constructor
// throws, nothing of the owner is called: its reactors are detached first.
//
// A handler, a reactor's constructor and a retirement may fill and empty any slot, their own included, and
// drop the last pointer to the owner, which then ends when the operation is done.
//
// Activity thread only.
#pragma once

#include <cstddef>
#include <tuple>
#include <utility>

#include "platform/zel/core/export.h"
#include "platform/zel/core/keyed.h"
#include "platform/zel/core/ptr.h"
#include "platform/zel/notify/lookahead.h"
#include "platform/zel/object/type.h"

namespace Zel {

// The base of a reactor that works for one owner, which holds it in a slot. It does not count a reference to
// the owner.
//
// Making a reactor on a notifier only attaches it; an override of notifierIs does not run then.
template <class Self, class Base, class Owner>
class NestedReactor : public Reactor<Self, Base> {
 public:
  template <class Notifier>
  NestedReactor(const Ptr<Notifier>& notifier, Owner& owner)
      : Reactor<Self, Base>(notifier), owner_(&owner) {}

  // Null once the reactor is detached.
  Owner* owner() const { return owner_; }
  // Detaches the reactor from its owner and unregisters it. For slots.
  void detach() {
    owner_ = nullptr;
    this->isRegisteredNotifieeIs(false);
  }

 protected:
  // Calls the owner, which is kept alive meanwhile. Does nothing once the reactor is retired or detached.
  template <class Handler, class... Args>
  void notifyOwner(Handler handler, const Args&... args) {
    if (!owner_ || this->zelIsZombie()) return;
    const Ptr<Owner> kept(owner_);
    ((*kept).*handler)(args...);
  }

  // The first step prefetches the owner, the others are those of a lookahead() beside it.
  bool lookaheadStep(unsigned step) const override {
    if constexpr (requires { lookahead(*owner_, step); }) {
      if (step > 1) return owner_ && lookahead(*owner_, step);
      prefetch(owner_);
      return true;
    } else {
      return false;
    }
  }

 private:
  Owner* owner_;
};

namespace detail {

[[noreturn]] ZEL_API void slotNotNamed(const PtrInterface& owner, const char* reactor);

// Ends what is between a reactor and its owner, also where its retirement throws.
template <class R>
void endNested(const Ptr<R>& reactor) {
  if (!reactor) return;
  struct Detaching {
    R& reactor;
    ~Detaching() { reactor.detach(); }
  } const detaching{*reactor};
  reactor->zelDoZombieReactors(true);
}

// The same without calling the owner, which is half made or half destroyed.
template <class R>
void abandonNested(const Ptr<R>& reactor) {
  if (!reactor) return;
  reactor->detach();
  reactor->zelDoZombieReactors(true);
}

// Calls `function` with every member that the owner names in reactors().
template <class T, class Function>
void forEachSlot(T& owner, Function function) {
  std::apply([&](auto... members) { (function(owner.*members), ...); }, T::reactors());
}

// Stops the process unless `slot` is one of them.
template <class T>
void requireNamed(T& owner, const void* slot, const char* reactor) {
  static_assert(
      requires { T::reactors(); }, "an owner names its slots in a public reactors()");
  bool named = false;
  forEachSlot(owner, [&](const auto& member) { named = named || &member == slot; });
  if (!named) slotNotNamed(owner, reactor);
}

}  // namespace detail

// Holds one reactor for an owner, or none. As large as a pointer.
template <class R>
class Slot {
 public:
  Slot() = default;
  Slot(const Slot&) = delete;
  Slot& operator=(const Slot&) = delete;
  ~Slot() { detail::abandonNested(std::exchange(reactor_, nullptr)); }

  // The reactor; null where there is none.
  R* get() const { return reactor_.get(); }
  R* operator->() const { return reactor_.get(); }
  explicit operator bool() const { return reactor_ != nullptr; }
  // The reactor's notifier; null where the slot is empty or the reactor has none.
  auto notifier() const { return reactor_ ? reactor_->notifier() : nullptr; }

  // Makes a reactor on `notifier`, and ends the one that was there; of a null notifier none is made, and none
  // ended. Where the constructor throws, the slot is as it was. REQUIRES: the owner names the slot.
  template <class Owner, class N>
  void make(Owner& owner, const Ptr<N>& notifier) {
    detail::requireNamed(owner, this, R::kTypeName);
    if (!notifier) return;
    const Ptr<Owner> kept(&owner);
    auto made = allocate<R>(notifier, owner);
    std::swap(reactor_, made);
    detail::endNested(made);
  }
  // Has the reactor watch `notifier`, and makes one where there is none; null ends it. Returns whether
  // anything changed. REQUIRES: the owner names the slot.
  template <class Owner, class N>
  bool watch(Owner& owner, const Ptr<N>& notifier) {
    detail::requireNamed(owner, this, R::kTypeName);
    if (this->notifier() == notifier.get()) return false;
    const Ptr<Owner> kept(&owner);
    if (!notifier) {
      clear();
      return true;
    }
    if (!reactor_) reactor_ = allocate<R>(Ptr<N>(), owner);
    Ptr<R>(reactor_)->notifierIs(notifier);
    return true;
  }
  // Ends the reactor. Returns what it watched.
  auto clear() {
    Ptr watched(notifier());
    detail::endNested(std::exchange(reactor_, nullptr));
    return watched;
  }

  // For the owner's base.
  template <class Function>
  void forEach(Function function) {
    if (const Ptr<R> reactor = reactor_) function(*reactor);
  }

 private:
  Ptr<R> reactor_;
};

// Holds reactors for an owner by name. Walking it yields counted pointers, and tolerates every change
// (keyed.h).
template <class R>
class SlotMap {
 public:
  using member_type = R;

  SlotMap() = default;
  SlotMap(const SlotMap&) = delete;
  SlotMap& operator=(const SlotMap&) = delete;
  ~SlotMap() {
    PtrMap<R> old;
    old.swap(reactors_);
    for (const auto& reactor : old) detail::abandonNested(reactor);
  }

  std::size_t size() const { return reactors_.size(); }
  bool empty() const { return reactors_.empty(); }
  // Null where the key is unknown. `get` counts no reference.
  Ptr<R> find(const Name& key) const { return reactors_.find(key); }
  R* get(const Name& key) const { return reactors_.get(key); }
  auto begin() const { return reactors_.begin(); }
  auto end() const { return reactors_.end(); }

  // Has the reactor of that key watch `notifier`, and makes one on it where there is none; null removes it.
  // Returns the reactor. One that a constructor has put under the key meanwhile stays, and is returned
  // instead of the one that was being made. Where the constructor throws, the map is as it was. REQUIRES: the
  // owner names the map.
  template <class Owner, class N>
  Ptr<R> watch(const Name& key, Owner& owner, const Ptr<N>& notifier) {
    detail::requireNamed(owner, this, R::kTypeName);
    const Ptr<Owner> kept(&owner);
    if (!notifier) {
      remove(key);
      return nullptr;
    }
    const Ptr<R> there = find(key);
    if (!there) return make(key, owner, notifier);
    there->notifierIs(notifier);
    return there;
  }
  // Takes the reactor out, then ends it. Returns it, with the notifier that it had; null where the key is
  // unknown.
  Ptr<R> remove(const Name& key) {
    Ptr<R> reactor = reactors_.remove(key);
    detail::endNested(reactor);
    return reactor;
  }

  // For the owner's base.
  template <class Function>
  void forEach(Function function) {
    for (const auto& reactor : reactors_) function(*reactor);
  }

 private:
  template <class Owner, class N>
  Ptr<R> make(const Name& key, Owner& owner, const Ptr<N>& notifier) {
    auto made = allocate<R>(notifier, owner);
    if (auto other = find(key)) {
      detail::abandonNested(made);
      return other;
    }
    reactors_.insert(key, made);
    return made;
  }

  PtrMap<R> reactors_;
};

// Passes switching, retirement and the end of a T on to the slots that it names in reactors(); costs nothing
// where it names none. A collection of objects that may be named there as well (PtrMap) is only switched.
//
// Described has it as a base. An owner without attributes puts it before its base by hand:
//     struct DirReactor : SlotOwner<DirReactor, Reactor<DirReactor, Dir::NotifieeConst>>
template <class T, class Base>
class SlotOwner : public Base {
 public:
  using Base::Base;

  void hasNotificationActiveIs(bool active) override {
    if constexpr (requires { T::reactors(); }) {
      if (this->hasNotificationActive() == active) return;
      const Ptr<PtrInterface> kept(this);
      Base::hasNotificationActiveIs(active);
      inSlots([active](auto& object) { object.hasNotificationActiveIs(active); });
    } else {
      Base::hasNotificationActiveIs(active);
    }
  }

  void zelDoZombieReactors(bool zombie) override {
    if constexpr (requires { T::reactors(); }) {
      if (this->zelIsZombie() == zombie) return;
      const Ptr<PtrInterface> kept(this);
      inSlots([zombie](auto& object) {
        if constexpr (requires { object.detach(); }) object.zelDoZombieReactors(zombie);
      });
      Base::zelDoZombieReactors(zombie);
    } else {
      Base::zelDoZombieReactors(zombie);
    }
  }

 protected:
  void onZeroReferences() noexcept override {
    if constexpr (requires { T::reactors(); }) {
      this->newRef();  // so that no pointer made and dropped meanwhile ends it a second time
      this->zelDoZombieReactors(true);
      inSlots([](auto& object) {
        if constexpr (requires { object.detach(); }) object.detach();
      });
    }
    Base::onZeroReferences();
  }

 private:
  template <class Function>
  void inSlots(Function function) {
    detail::forEachSlot(static_cast<T&>(*this), [&](auto& slot) { slot.forEach(function); });
  }
};

}  // namespace Zel
