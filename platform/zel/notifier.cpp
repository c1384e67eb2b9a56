#include "platform/zel/notifier.h"

#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/zel/activity.h"
#include "platform/zel/assert.h"

namespace Zel {

void ListHook::takeAllOf(ListHook& other) {
  if (!other.linked()) return;
  other.next_->previous_ = previous_;
  previous_->next_ = other.next_;
  other.previous_->next_ = this;
  previous_ = other.previous_;
  other.next_ = other.previous_ = &other;
}

// Keys in the order of marking; a set beside them once they are too many to scan.
struct NotifieeBase::KeyMarks {
  static constexpr std::size_t kScanned = 16;

  std::vector<KeyMark> order;
  std::unordered_set<std::uint64_t> seen;

  static std::uint64_t code(const KeyMark& mark) { return (std::uint64_t{mark.index} << 32) | mark.key.id(); }

  void add(const KeyMark& mark) {
    if (contains(mark)) return;
    order.push_back(mark);
    if (order.size() == kScanned + 1)
      for (const KeyMark& each : order) seen.insert(code(each));
    else if (order.size() > kScanned)
      seen.insert(code(mark));
  }

 private:
  bool contains(const KeyMark& mark) const {
    if (order.size() > kScanned) return seen.contains(code(mark));
    for (const KeyMark& each : order)
      if (code(each) == code(mark)) return true;
    return false;
  }
};

// Kept beside the reactors: few have any.
struct NotifieeBase::AllKeyMarks {
  static std::unordered_map<const NotifieeBase*, KeyMarks>& get() {
    static auto& instance = *new std::unordered_map<const NotifieeBase*, KeyMarks>;
    return instance;
  }
};

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
  if (!isAwake()) return;
  marks_ |= attribute;
  if (!PendingHook::linked()) manager.enqueue(*this);
}

void NotifieeBase::markKey(AttributeIndex index, Name key) {
  if (!isAwake()) return;
  AllKeyMarks::get()[this].add({index, key});
  flagIs(kKeysMarked, true);
  if (!PendingHook::linked()) activityManager().enqueue(*this);
}

std::vector<NotifieeBase::KeyMark> NotifieeBase::takeKeyMarks() {
  if (!hasKeyMarks()) return {};
  flagIs(kKeysMarked, false);
  return std::move(AllKeyMarks::get().extract(this).mapped().order);
}

void NotifieeBase::dropMarks() {
  PendingHook::leave();
  marks_ = 0;
  if (!hasKeyMarks()) return;
  flagIs(kKeysMarked, false);
  AllKeyMarks::get().erase(this);
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

// The hooks may do anything to any reactor, so those that want one are noted first, each with a reference.
void Notifier::runImmediate(AttributeIndex index) {
  const Ptr<Notifier> self(this);
  std::vector<Ptr<NotifieeBase>> wanting;
  for (ListHook* hook = notifiees_.next(); hook != &notifiees_; hook = hook->next()) {
    auto& notifiee = NotifieeBase::ofRegistration(*hook);
    if (notifiee.immediateMask_ >> index & 1U) wanting.emplace_back(&notifiee);
  }
  for (const auto& notifiee : wanting) {
    const bool destroyed = notifiee->references() == 1;  // but for the note of it here
    if (destroyed || notifiee->notifier_ != this || !notifiee->mayHear()) continue;
    notifiee->flagIs(NotifieeBase::kImmediateDeclined, false);
    notifiee->immediate(index);
    if (notifiee->flag(NotifieeBase::kImmediateDeclined)) notifiee->immediateMask_ &= ~(1U << index);
  }
}

void Notifier::announceKey(AttributeIndex index, Name key) {
  for (ListHook* hook = notifiees_.next(); hook != &notifiees_; hook = hook->next())
    NotifieeBase::ofRegistration(*hook).markKey(index, key);
}

bool RawNotifiee::accepts(const PtrInterface& notifier) const {
  return dynamic_cast<const Notifier*>(&notifier) != nullptr;
}

void RawNotifiee::deliver() {
  const std::uint32_t marks = takeMarks();
  const auto keys = takeKeyMarks();
  for (AttributeIndex index = 0; index < 32; ++index) {
    if ((marks >> index & 1U) == 0) continue;
    if (!mayHear()) return;
    onRawAttribute(index, Name());
  }
  for (const KeyMark& mark : keys) {
    if (!mayHear()) return;
    onRawAttribute(mark.index, mark.key);
  }
}

}  // namespace Zel
