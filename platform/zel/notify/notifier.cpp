#include "platform/zel/notify/notifier.h"

#include <algorithm>
#include <span>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/zel/core/assert.h"
#include "platform/zel/notify/activity.h"

namespace Zel {

void ListHook::failLinked() const { assertionFailed("!linked()", __FILE__, __LINE__, __PRETTY_FUNCTION__); }

void ListHook::takeAllOf(ListHook& other) {
  if (!other.linked()) return;
  other.next_->previous_ = previous_;
  previous_->next_ = other.next_;
  other.previous_->next_ = this;
  previous_ = other.previous_;
  other.next_ = other.previous_ = &other;
}

// Keys of collections in the order of marking; a hash index beside them once they are too many to scan.
class NotifieeBase::KeyMarks {
 public:
  struct Mark {
    AttributeIndex index;
    Name key;
    bool operator==(const Mark&) const = default;
  };

  bool empty() const { return left().empty(); }
  bool contains(const Mark& mark) const {
    return isIndexed() ? index_.contains(code(mark)) : std::ranges::find(left(), mark) != left().end();
  }
  void add(const Mark& mark) {
    if (contains(mark)) return;
    order_.push_back(mark);
    if (order_.size() == kScanned + 1)
      for (const Mark& each : left()) index_.insert(code(each));
    else if (isIndexed())
      index_.insert(code(mark));
  }
  // REQUIRES: not empty.
  Mark takeFirst() {
    ZEL_REQUIRE(!empty(), taken_ << " of " << order_.size() << " keys taken");
    const Mark mark = order_[taken_++];
    if (isIndexed()) index_.erase(code(mark));
    return mark;
  }
  std::span<const Mark> left() const { return std::span(order_).subspan(taken_); }

 private:
  static constexpr std::size_t kScanned = 16;

  static std::uint64_t code(const Mark& mark) { return (std::uint64_t{mark.index} << 32) | mark.key.id(); }
  bool isIndexed() const { return order_.size() > kScanned; }

  std::vector<Mark> order_;
  std::size_t taken_ = 0;
  std::unordered_set<std::uint64_t> index_;  // of those that are left
};

// Kept beside the reactors: few have any.
struct NotifieeBase::AllKeyMarks {
  static std::unordered_map<const NotifieeBase*, KeyMarks>& get() {
    static auto& instance = *new std::unordered_map<const NotifieeBase*, KeyMarks>;
    return instance;
  }
};

// The rest of one reactor's turn. Lives on the stack of the delivery and in a list of
// such turns, where the reactor finds it while its flag kInTurn is set.
struct NotifieeBase::Turn {
  explicit Turn(NotifieeBase& whose) : notifiee(whose), outer(std::exchange(innermost, this)) {
    ZEL_REQUIRE(!notifiee.flag(kInTurn), notifiee.fwkType().name());
    notifiee.flagIs(kInTurn, true);
  }
  ~Turn() {
    notifiee.flagIs(kInTurn, false);
    innermost = outer;
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

  static Turn& of(const NotifieeBase& notifiee) {
    Turn* turn = innermost;
    while (&turn->notifiee != &notifiee) turn = turn->outer;
    return *turn;
  }

  static constinit Turn* innermost;

  NotifieeBase& notifiee;
  Turn* const outer;
  std::uint32_t marks = 0;
  KeyMarks keys;
};

constinit NotifieeBase::Turn* NotifieeBase::Turn::innermost = nullptr;

NotifieeBase::NotifieeBase() : agent_(ActivityManager::currentAgent()) {}

NotifieeBase::~NotifieeBase() {
  RegistrationHook::leave();
  dropMarks();
  if (notifier_) notifier_->deleteRef();
}

void NotifieeBase::notifierIs(const Ptr<const PtrInterface>& notifier) {
  const Ptr<const PtrInterface> accepted = notifier && accepts(*notifier) ? notifier : nullptr;
  const auto* next = static_cast<const Notifier*>(accepted.get());
  if (next == notifier_) return;
  isRegisteredNotifieeIs(false);
  if (next) next->newRef();
  if (const Notifier* old = std::exchange(notifier_, next)) old->deleteRef();
  isRegisteredNotifieeIs(notifier_ != nullptr);
}

void NotifieeBase::isRegisteredNotifieeIs(bool registered) {
  if (flag(kRegistered) == registered) return;
  flagIs(kRegistered, registered);
  if (!registered) {
    part();
    dropMarks();
  } else if (notifier_) {
    join();
  }
}

void NotifieeBase::join() { RegistrationHook::joinEndOf(notifier_->notifiees_); }

void NotifieeBase::hasNotificationActiveIs(bool active) {
  PtrInterface::hasNotificationActiveIs(active);
  if (!active) dropMarks();
}

void NotifieeBase::zelDoZombieReactors(bool zombie) {
  PtrInterface::zelDoZombieReactors(zombie);
  if (zombie) dropMarks();
}

void NotifieeBase::mark(std::uint32_t attribute, ActivityManager& manager) {
  if (flags(kNotificationActive | kZombie | kInTurn) != kNotificationActive) [[unlikely]]
    if (!isAwake() || (Turn::of(*this).marks & attribute) != 0) return;
  marks_ |= attribute;
  if (!PendingHook::linked()) manager.enqueue(*this);
}

void NotifieeBase::markKey(AttributeIndex index, const Name& key) {
  if (!isAwake() || (flag(kInTurn) && Turn::of(*this).keys.contains({index, key}))) return;
  AllKeyMarks::get()[this].add({index, key});
  flagIs(kKeysMarked, true);
  if (!PendingHook::linked()) activityManager().enqueue(*this);
}

void NotifieeBase::dropMarks() {
  PendingHook::leave();
  marks_ = 0;
  if (flag(kKeysMarked)) AllKeyMarks::get().erase(this);
  flagIs(kKeysMarked, false);
  if (!flag(kInTurn)) return;
  Turn::of(*this).marks = 0;
  Turn::of(*this).keys = {};
}

// One reference is the caller's: a reactor with no other counts as destroyed.
void NotifieeBase::deliverSeveral(ListHook& queue) {
  Turn turn(*this);
  turn.marks = std::exchange(marks_, 0U);
  if (flag(kKeysMarked)) turn.keys = std::move(AllKeyMarks::get().extract(this).mapped());
  flagIs(kKeysMarked, false);
  const auto goesOn = [this] { return mayBeNotified() && references() > 1; };
  try {
    while (turn.marks != 0 && goesOn()) {
      const int index = std::countr_zero(turn.marks);
      turn.marks &= turn.marks - 1;
      handleMark(static_cast<AttributeIndex>(index));
    }
    while (!turn.keys.empty() && goesOn()) {
      const auto [index, key] = turn.keys.takeFirst();
      handleKey(index, key);
    }
  } catch (...) {
    resume(turn, queue);
    throw;
  }
}

void NotifieeBase::resume(Turn& turn, ListHook& queue) {
  if (turn.marks == 0 && turn.keys.empty()) return;
  marks_ |= turn.marks;
  if (!turn.keys.empty()) {
    KeyMarks& pending = AllKeyMarks::get()[this];
    for (const auto& later : pending.left()) turn.keys.add(later);
    pending = std::move(turn.keys);
    flagIs(kKeysMarked, true);
  }
  PendingHook::leave();
  PendingHook::joinEndOf(*queue.next());  // before the first
}

Notifier::~Notifier() { ZEL_ASSERT(!notifiees_.linked()); }

void Notifier::announce(AttributeIndex index) {
  ActivityManager& manager = activityManager();
  const std::uint32_t attribute = 1U << index;
  std::uint32_t immediate = 0;
  for (ListHook* hook = notifiees_.next(); hook != &notifiees_; hook = hook->next()) {
    auto& notifiee = NotifieeBase::ofRegistration(*hook);
    notifiee.mark(attribute, manager);
    immediate |= notifiee.immediateMask_;
  }
  if ((immediate & attribute) != 0) [[unlikely]]
    runImmediate(index);
}

// A hook may do anything to any reactor, so the reactors are collected first, each with a reference.
void Notifier::runImmediate(AttributeIndex index) {
  const Ptr<Notifier> self(this);
  std::vector<Ptr<NotifieeBase>> wanting;
  for (ListHook* hook = notifiees_.next(); hook != &notifiees_; hook = hook->next()) {
    auto& notifiee = NotifieeBase::ofRegistration(*hook);
    if (notifiee.immediateMask_ >> index & 1U) wanting.emplace_back(&notifiee);
  }
  for (const auto& notifiee : wanting) {
    const bool destroyed = notifiee->references() == 1;  // but for the note of it here
    if (destroyed || notifiee->notifier_ != this || !notifiee->mayBeNotified()) continue;
    notifiee->flagIs(NotifieeBase::kImmediateDeclined, false);
    notifiee->immediate(index);
    if (notifiee->flag(NotifieeBase::kImmediateDeclined)) notifiee->immediateMask_ &= ~(1U << index);
  }
}

void Notifier::announceKey(AttributeIndex index, const Name& key) {
  for (ListHook* hook = notifiees_.next(); hook != &notifiees_; hook = hook->next())
    NotifieeBase::ofRegistration(*hook).markKey(index, key);
}

bool RawNotifiee::accepts(const PtrInterface& notifier) const {
  return dynamic_cast<const Notifier*>(&notifier) != nullptr;
}

}  // namespace Zel
