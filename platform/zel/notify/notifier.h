// Change notification: notifiers, the reactors registered on them, and the queue of reactors to be delivered
// to.
//
//     struct Watcher : Reactor<Watcher, LedConfig::NotifieeConst> {
//       static constexpr const char* kTypeName = "Example::Watcher";
//       using Reactor::Reactor;
//       void onLightSetting() override { show(notifier()->lightSetting()); }
//     };
//     const auto watcher = allocate<Watcher>(led);  // until the last pointer to it goes
//
// Delivery. A mutator that changes nothing is silent. One that changes a value stores it, marks the attribute
// (or the collection's key) on every registered reactor whose notifications are on, and returns. Plain
// handlers run later, from ActivityManager::step, in the order in which the reactors first became pending.
// Changes of one attribute or one key that pile up before delivery are delivered once. Marking a plain
// attribute allocates nothing.
//
// A reactor's turn delivers all that is marked when it comes: the attributes in the order of the table, then
// the keys in the order of marking. What is marked during the turn comes in a later one, except what this one
// has still to deliver. A reactor that has become a zombie, was switched off, unregistered or re-pointed, or
// whose entity left the collection that owned it is not notified of what was marked before, even if that
// happened in a handler of the same turn. A handler may detach or destroy any reactor, itself included,
// change the same entity again, or drop the last pointer to it. After a handler that throws, the rest of the
// turn stays pending and comes first in the next pass.
//
// Immediate hook. on<Attribute>zelImmediate() runs inside the mutation of a plain attribute, after the value
// was stored and marked. For a collection it runs inside the mutation only where the collection changed as a
// whole (emptied or replaced); the plain on<Attribute>() without a key follows by the ordinary delivery, and
// no key is announced. A change of one key is announced by on<Attribute>(key) alone.
//
// Activity thread only.
#pragma once

#include <bit>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>

#include "platform/zel/core/export.h"
#include "platform/zel/core/name.h"
#include "platform/zel/core/ptr.h"
#include "platform/zel/object/attribute.h"

namespace Zel {

class ActivityManager;
class Notifier;

// A hook of an intrusive circular list: joining and leaving are O(1) and allocate nothing; the destructor
// leaves.
class ZEL_API ListHook {
 public:
  ListHook() = default;
  ListHook(const ListHook&) = delete;
  ListHook& operator=(const ListHook&) = delete;
  ~ListHook() { leave(); }

  bool linked() const { return next_ != this; }
  void leave() {
    previous_->next_ = next_;
    next_->previous_ = previous_;
    next_ = previous_ = this;
  }
  // Joins the list at its end. REQUIRES: not linked.
  void joinEndOf(ListHook& list) {
    if (linked()) [[unlikely]]
      failLinked();
    previous_ = list.previous_;
    next_ = &list;
    previous_->next_ = this;
    list.previous_ = this;
  }
  // Moves all members of `other` to the end of this list.
  void takeAllOf(ListHook& other);
  ListHook* next() const { return next_; }

 private:
  [[noreturn]] void failLinked() const;

  ListHook* next_ = this;
  ListHook* previous_ = this;
};

// The two lists that a reactor can be on at once.
class RegistrationHook : public ListHook {};  // its notifier's
class PendingHook : public ListHook {};       // the activity manager's queue

namespace detail {
// Tail padding: as the first base after PtrInterface the word lies in the padding behind the header's count;
// a member comes after all bases and does not. A reactor fills one cache line thereby.
struct Marks {
  std::uint32_t marks_ = 0;
};
}  // namespace detail

// The base of every reactor: registration with one notifier, marks, and a place in the queue of the pending.
//
// It holds a counted reference to its notifier. Its owner holds the reactor.
class ZEL_API NotifieeBase : public PtrInterface,
                             private detail::Marks,
                             private RegistrationHook,
                             private PendingHook {
 public:
  ~NotifieeBase() override;

  // Attaches to `notifier` and registers with it; null detaches. A notifier of a type that this reactor does
  // not watch counts as null. What was pending for the old notifier is dropped. The same notifier again:
  // nothing.
  virtual void notifierIs(const Ptr<const PtrInterface>& notifier);
  // Joins or leaves the notifier's list; the notifier is held meanwhile. Leaving drops what was pending.
  bool isRegisteredNotifiee() const { return flag(kRegistered); }
  virtual void isRegisteredNotifieeIs(bool registered);

  // Switching off, and retiring, drop what was pending.
  void hasNotificationActiveIs(bool active) override;
  void zelDoZombieReactors(bool zombie) override;

  // The agent that made the reactor, for messages; empty where no agent was running.
  Name agent() const { return agent_; }

 protected:
  friend class ActivityManager;
  friend class Lookahead;
  friend class Notifier;

  NotifieeBase();

  const Notifier* notifierBase() const { return notifier_; }
  // Whether a notifier may be watched by this class of reactors.
  virtual bool accepts(const PtrInterface& notifier) const = 0;
  // Runs the handler of a plain attribute or of a collection as a whole, of one key, or the immediate hook.
  virtual void handleMark(AttributeIndex index) = 0;
  virtual void handleKey(AttributeIndex index, const Name& key) = 0;
  virtual void immediate(AttributeIndex index) = 0;
  // Prefetches what the handlers read, one pointer deeper each step from 1 on. Returns whether there is a
  // next step. Called before some deliveries (lookahead.h), never for correctness.
  virtual bool lookaheadStep(unsigned step) const {
    static_cast<void>(step);
    return false;
  }
  // Joins and leaves the notifier's list of reactors, or the clock's wheel.
  virtual void join();
  virtual void part() { RegistrationHook::leave(); }
  static NotifieeBase& ofRegistration(ListHook& hook) {
    return static_cast<NotifieeBase&>(static_cast<RegistrationHook&>(hook));
  }
  static NotifieeBase& ofPending(ListHook& hook) {
    return static_cast<NotifieeBase&>(static_cast<PendingHook&>(hook));
  }

  inline bool mayBeNotified() const;
  // Called by the default body of an immediate hook: the attribute's hook is not called again.
  void declineImmediate() { flagIs(kImmediateDeclined, true); }

 private:
  // Flag bits beside the reference count.
  static constexpr std::uint32_t kRegistered = kFirstFreeFlag;           // is to be on its notifier's list
  static constexpr std::uint32_t kImmediateDeclined = kRegistered << 1;  // its immediate hook is the default
  static constexpr std::uint32_t kKeysMarked = kRegistered << 2;
  static constexpr std::uint32_t kInTurn = kRegistered << 3;  // several things are being delivered to it

  class KeyMarks;
  struct AllKeyMarks;
  struct Turn;

  bool isAwake() const { return flags(kNotificationActive | kZombie) == kNotificationActive; }
  inline void mark(std::uint32_t attribute, ActivityManager& manager);
  void markKey(AttributeIndex index, const Name& key);
  void dropMarks();

  // The reactor's turn: runs the handlers of everything that is marked. Where one throws, the rest goes to
  // the front of `queue`. The caller holds a reference.
  void deliver(ListHook& queue) {
    const std::uint32_t marks = marks_;
    if (marks == 0 || (marks & (marks - 1)) != 0 || flag(kKeysMarked)) return deliverSeveral(queue);
    marks_ = 0;
    handleMark(static_cast<AttributeIndex>(std::countr_zero(marks)));
  }
  void deliverSeveral(ListHook& queue);
  void resume(Turn& turn, ListHook& queue);

  const Notifier* notifier_ = nullptr;  // counted
  std::uint32_t immediateMask_ = ~0U;   // attributes whose immediate hook may do something
  Name agent_;
};

// An object that reactors can be registered on.
class ZEL_API Notifier : public PtrInterface {
 public:
  // Whether the object has left the collection that owned it. Its reactors are not notified from then on.
  bool zelIsGone() const { return flag(kGone); }
  void zelGoneIs(bool gone) { flagIs(kGone, gone); }

  // The path of an entity; empty for other objects.
  virtual std::string path() const { return {}; }
  // When the object next acts by itself, in seconds as System::currentTime; positive infinity: never, the
  // usual case. For tools that inspect live objects.
  virtual double wakeUp() const { return std::numeric_limits<double>::infinity(); }

 protected:
  // Flag bits beside the reference count.
  static constexpr std::uint32_t kGone = kFirstFreeFlag;  // has left the collection that owned it
  static constexpr std::uint32_t kFirstFreeNotifierFlag = kGone << 1;

  Notifier() = default;
  ~Notifier() override;

  // Announce that a plain attribute (or a collection as a whole), or one key of a collection changed.
  void attributeChanged(AttributeIndex index) {
    if (notifiees_.linked()) announce(index);
  }
  void keyChanged(AttributeIndex index, const Name& key) {
    if (notifiees_.linked()) announceKey(index, key);
  }

 private:
  friend class Lookahead;
  friend class NotifieeBase;

  void announce(AttributeIndex index);
  void announceKey(AttributeIndex index, const Name& key);

  void runImmediate(AttributeIndex index);

  mutable ListHook notifiees_;  // the head of the list of the registered, in the order of registration
};

inline bool NotifieeBase::mayBeNotified() const {
  return flags(kNotificationActive | kZombie | kRegistered) == (kNotificationActive | kRegistered) &&
         notifier_ && !notifier_->zelIsGone();
}

// A reactor to every attribute of any object.
class ZEL_API RawNotifiee : public NotifieeBase {
 public:
  // `index` identifies the attribute in the table of the object's type. `key` is the member's key where one
  // key of a collection changed, and empty otherwise.
  virtual void onRawAttribute(AttributeIndex index, Name key) = 0;

 protected:
  bool accepts(const PtrInterface& notifier) const override;
  void handleMark(AttributeIndex index) override { onRawAttribute(index, Name()); }
  void handleKey(AttributeIndex index, const Name& key) override { onRawAttribute(index, key); }
  void immediate(AttributeIndex) override { declineImmediate(); }
};

}  // namespace Zel
