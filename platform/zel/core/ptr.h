// Counted objects and the pointers to them.
//
// Activity thread only, but for reference counts: these may be shared with other threads once
// enableThreadSafePointersIs(true) was called.
#pragma once

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

#include "platform/zel/core/export.h"

namespace Zel {

class TypeNode;

namespace detail {
ZEL_API extern constinit bool threadSafePointers;
}

// Whether reference counts change by atomic read-modify-write operations (true) or by plain ones (false, the
// default). Set it before a second thread holds a pointer; it must not change while one does.
inline bool enableThreadSafePointers() { return detail::threadSafePointers; }
inline void enableThreadSafePointersIs(bool on) { detail::threadSafePointers = on; }

namespace detail {

// Adds `delta` to `word` as the switch above says, and returns the new value.
inline std::uint32_t addToWord(std::atomic<std::uint32_t>& word, std::uint32_t delta) {
  if (threadSafePointers) return word.fetch_add(delta, std::memory_order_acq_rel) + delta;
  const std::uint32_t value = word.load(std::memory_order_relaxed) + delta;
  word.store(value, std::memory_order_relaxed);
  return value;
}

}  // namespace detail

// The header of every counted object: a reference count and flag bits in one word.
//
// Objects come from Zel::allocate only. An object starts with one reference, so its constructor may hand out
// pointers to `this`; Zel::allocate passes that reference to its caller. When the last reference goes,
// onZeroReferences destroys the object.
class ZEL_API PtrInterface {
 public:
  PtrInterface(const PtrInterface&) = delete;
  PtrInterface& operator=(const PtrInterface&) = delete;

  void newRef() const { detail::addToWord(word_, kOneReference); }
  void deleteRef() const {
    if (detail::addToWord(word_, 0U - kOneReference) < kOneReference)
      const_cast<PtrInterface*>(this)->onZeroReferences();
  }
  std::uint32_t references() const { return word_.load(std::memory_order_relaxed) / kOneReference; }

  // The descriptor of the object's class.
  virtual const TypeNode& fwkType() const = 0;

  // Switches the delivery of notifications on or off. The base only sets the flag; an owner of reactors
  // passes the value on to them (slot.h). Setting the value that is set already does nothing.
  bool hasNotificationActive() const { return flag(kNotificationActive); }
  virtual void hasNotificationActiveIs(bool active);

  // Retires an object that is being dismantled (a zombie reacts to nothing), or revives it. The base only
  // sets the flag; an owner of reactors passes the value on to them first. Does nothing where the flag is as
  // asked.
  bool zelIsZombie() const { return flag(kZombie); }
  virtual void zelDoZombieReactors(bool zombie);

 protected:
  PtrInterface() = default;
  virtual ~PtrInterface();
  // Destroys the object. An exception on the way ends the process.
  virtual void onZeroReferences() noexcept;

  // Flag bits beside the count; a class declares its own from the first that its base leaves free.
  static constexpr std::uint32_t kNotificationActive = 1U << 0;
  static constexpr std::uint32_t kZombie = 1U << 1;
  static constexpr std::uint32_t kFirstFreeFlag = 1U << 2;
  static constexpr std::uint32_t kOneReference = 1U << 8;

  bool flag(std::uint32_t bit) const { return flags(bit) != 0; }
  // Several flags at once: those that are set among `bits`.
  std::uint32_t flags(std::uint32_t bits) const { return word_.load(std::memory_order_relaxed) & bits; }
  void flagIs(std::uint32_t bit, bool on) const {
    if (flag(bit) != on) detail::addToWord(word_, on ? bit : 0U - bit);
  }

 private:
  mutable std::atomic<std::uint32_t> word_{kOneReference};
};

// Intrusive counted pointer to a PtrInterface-derived T (or T const).
//
// Assigning the value that is held already changes nothing. Another value is assigned in this order: the new
// reference is taken, the pointer stored, the old reference dropped; so whatever the drop destroys sees the
// new value.
template <class T>
class Ptr {
 public:
  using element_type = T;

  constexpr Ptr() = default;
  constexpr Ptr(std::nullptr_t) {}
  Ptr(T* object) : object_(object) { acquire(); }
  Ptr(const Ptr& other) : object_(other.object_) { acquire(); }
  Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(const Ptr<U>& other) : object_(other.get()) { acquire(); }
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(Ptr<U>&& other)
  noexcept : object_(other.release()) {}
  ~Ptr() { drop(object_); }

  Ptr& operator=(const Ptr& other) {
    assign(other.object_);
    return *this;
  }
  Ptr& operator=(Ptr&& other) noexcept {
    if (this != &other) drop(std::exchange(object_, std::exchange(other.object_, nullptr)));
    return *this;
  }

  // Takes over a reference that the caller owns, without counting it again.
  static Ptr adopt(T* object) {
    Ptr result;
    result.object_ = object;
    return result;
  }
  // Gives the reference to the caller; this pointer is null afterwards.
  T* release() { return std::exchange(object_, nullptr); }

  T* get() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }
  explicit operator bool() const { return object_ != nullptr; }

  template <class U>
  bool operator==(const Ptr<U>& other) const {
    return object_ == other.get();
  }
  template <class U>
  bool operator==(U* other) const {
    return object_ == other;
  }
  bool operator==(std::nullptr_t) const { return object_ == nullptr; }

 private:
  void assign(T* object) {
    if (object == object_) return;
    if (object) object->newRef();
    drop(std::exchange(object_, object));
  }
  void acquire() const {
    if (object_) object_->newRef();
  }
  static void drop(T* object) {
    if (object) object->deleteRef();
  }

  T* object_ = nullptr;
};

// Run-time down-cast; null where the object is null or not a T.
template <class T, class U>
Ptr<T> dynamicPtrCast(const Ptr<U>& pointer) {
  return Ptr<T>(dynamic_cast<T*>(pointer.get()));
}

}  // namespace Zel

template <class T>
struct std::hash<Zel::Ptr<T>> {
  std::size_t operator()(const Zel::Ptr<T>& pointer) const { return std::hash<T*>()(pointer.get()); }
};
