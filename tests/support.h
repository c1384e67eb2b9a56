// Shared by the tests of several folders.
#pragma once

#include <exception>
#include <functional>
#include <string>
#include <vector>

#include "platform/zel/entity/described.h"
#include "platform/zel/notify/clock.h"

namespace Support {

using Lines = std::vector<std::string>;

// The text of the exception that a call throws; "none" where it throws nothing.
template <class Error = std::exception, class Call>
std::string errorOf(Call&& call) {
  try {
    call();
  } catch (const Error& error) {
    return error.what();
  }
  return "none";
}

// A type without attributes, of the name Derived::kName.
template <class Derived, class Base>
class Plain : public Zel::Described<Derived, Base> {
 public:
  static constexpr auto attributes() { return std::tuple{}; }
  static const Zel::TypeNode& typeNode() {
    static const Zel::TypeNode type = Plain::describe(Derived::kName);
    return type;
  }

 protected:
  explicit Plain(Zel::Name name) : Zel::Described<Derived, Base>(name) {}
};

// Calls a function with every attribute, and the key within it, that it is notified of.
struct Watcher : Zel::Reactor<Watcher, Zel::RawNotifiee> {
  static constexpr const char* kTypeName = "Test::Watcher";
  using Call = std::function<void(const std::string& attribute, Zel::Name key)>;
  Watcher(const Zel::Ptr<const Zel::PtrInterface>& watched, Call then) : call(std::move(then)) {
    notifierIs(watched);
  }
  void onRawAttribute(Zel::AttributeIndex index, Zel::Name key) override {
    call(static_cast<const Zel::Notifier*>(notifierBase())->fwkType().attribute(index).name, key);
  }
  Call call;
};

// Counts its wake-ups, and does what its test wants.
struct Waker : Zel::Reactor<Waker, Zel::Clock::NotifieeConst> {
  static constexpr const char* kTypeName = "Test::Waker";
  explicit Waker(const Zel::Ptr<const Zel::Clock>& clock, std::function<void()> act = {})
      : Reactor(clock), then(std::move(act)) {}
  void onTime() override {
    ++woken;
    if (then) then();
  }
  int woken = 0;
  std::function<void()> then;
};

}  // namespace Support
