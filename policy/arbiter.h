// Decides for each LED which request it shows: that of the highest priority, among equals the latest.
//
//     Arbiter arbiter(now);
//     arbiter.ledIs("Ethernet3");
//     arbiter.requestIs({{}, "identify"}, {.leds = {"Ethernet*"}, .setting = flash, .ends = now + 60});
//     for (const Zel::Name& led : arbiter.takeChanged()) show(led, arbiter.setting(led));
//     wakeAt(arbiter.nextExpiry());  // expire(now) then
//
// Knows no entities and reads no clock: times are monotonic seconds that the caller passes. A change costs
// what it changes: the LEDs that the request names, and those that fit its patterns. Activity thread only.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/model/led.h"
#include "platform/zel/core/name.h"
#include "platform/zel/notify/timerwheel.h"
#include "policy/pattern.h"

namespace Policy {

// A claim to LEDs: a request, or a rule for the text that its '*' stands for.
struct Source {
  Zel::Name rule;  // empty: a request
  Zel::Name name;  // of the request; for a rule the text of '*'
  bool operator==(const Source&) const = default;
};

}  // namespace Policy

template <>
struct std::hash<Policy::Source> {
  std::size_t operator()(const Policy::Source& source) const {
    return std::hash<Zel::Name>()(source.rule) * 31 + std::hash<Zel::Name>()(source.name);
  }
};

namespace Policy {

struct Request {
  std::vector<Zel::Name> leds{};  // names and patterns
  std::vector<Zel::Name> skip{};  // those of them that it leaves alone
  Led::LightSetting setting{};
  std::uint32_t priority = 0;
  double began = 0;  // orders requests of one priority; it keeps its place when it changes
  double ends = Zel::TimerWheel::kNever;
  bool fallsBack = false;  // of the lane of a port without an LED of its own: lights the port's LED
};

class Arbiter {
 public:
  struct Limits {
    std::size_t requests = 200'000;
    std::size_t names = 1024;         // in `leds`, and in `skip`, of a request
    std::size_t patterns = 10'000;    // in the `leds` and `skip` of requests with patterns
    std::size_t matches = 4'000'000;  // LEDs of all requests together, 8 bytes each
  };

  explicit Arbiter(double now) : Arbiter(now, Limits()) {}
  Arbiter(double now, const Limits& limits);

  // The LEDs that there are. A request takes in LEDs that come later.
  void ledIs(Zel::Name led);
  void ledDel(Zel::Name led);
  bool hasLed(Zel::Name led) const { return byName_.contains(led); }
  template <class Function>
  void forEachLed(Function&& function) const {
    for (const auto& [led, lamp] : byName_) function(led);
  }

  // Adds a request, or replaces that of the source. Throws ValueError where it exceeds a limit; there is none
  // of that source then.
  void requestIs(const Source& source, const Request& request);
  // Returns whether there was one.
  bool requestDel(const Source& source);
  bool has(const Source& source) const { return bySource_.contains(source); }
  std::size_t size() const { return bySource_.size(); }

  // Removes the requests that end at `now` or before, and returns their sources.
  std::vector<Source> expire(double now);
  // When expire() has work; kNever: not without a new request. Earlier where a request was withdrawn since.
  double nextExpiry() { return wheel_.next(); }

  // The LEDs that show another request, or a changed one, or none any more, since the last call.
  std::vector<Zel::Name> takeChanged();
  // The setting to show, with the request's priority; nullopt where nothing asks for the LED.
  std::optional<Led::LightSetting> setting(Zel::Name led) const;
  struct Asking {
    Source source;
    std::uint32_t priority;
    bool operator==(const Asking&) const = default;
  };
  // Those that ask for an LED: the one that is shown, then those that wait, at most `most`.
  std::vector<Asking> asking(Zel::Name led, std::size_t most = SIZE_MAX) const;
  // How many there are.
  std::size_t askingCount(Zel::Name led) const;

  // The requests (no rules) whose standing may have changed since the last call; some may be gone.
  std::vector<Zel::Name> takeTouched();
  struct Standing {
    std::size_t leds = 0;  // that it asks for
    std::string note;      // names and patterns without effect; empty: none
  };
  // REQUIRES: has(source).
  Standing standing(const Source& source) const;

 private:
  using Slot = std::uint32_t;  // of slots_
  using Lamp = std::uint32_t;  // of lamps_
  static constexpr Slot kNone = UINT32_MAX;

  struct Entry {
    Source source;
    std::vector<Pattern> leds;
    std::vector<Pattern> skip;
    Led::LightSetting setting;
    double began = 0;
    std::uint64_t sequence = 0;  // of its making: the last of equals is shown
    std::uint64_t version = 0;   // of its setting, unique but for an entry it replaced
    std::vector<Lamp> lamps;     // that it asks for
    std::uint32_t priority = 0;
    Zel::TimerWheel::Timer timer = Zel::TimerWheel::kNone;
    std::uint32_t placeAmongGlobs = kNone;
    bool fallsBack = false;
    bool isGone = false;  // the lamps still have it, until takeChanged()
    bool isCut = false;   // LEDs were left out for the limit on matches
    bool isTouched = false;

    bool isBefore(const Entry& other) const;  // whether `other` is shown rather than it
    bool names(Zel::Name led) const;
    bool skips(Zel::Name led) const;
    bool fits(Zel::Name led) const;
    void takePlaceOf(const Entry& old);
    bool hasSameLeds(const Request& request) const;
  };
  struct Waiting {
    Zel::Name led;
    Slot slot;
    auto operator<=>(const Waiting& other) const {
      return std::pair(led.id(), slot) <=> std::pair(other.led.id(), other.slot);
    }
  };
  struct LampEntry {
    Zel::Name name;
    std::vector<Slot> slots;    // the shown one last
    std::uint64_t version = 0;  // of the shown one at the last takeChanged(); 0: none
    bool isDirty = false;
  };

  void check(const Request& request) const;
  Slot makeSlot();
  Entry entryOf(const Source& source, const Request& request);
  bool changeInPlace(Slot slot, const Request& request);
  void timerIs(Slot slot, double ends);
  void enter(Slot slot);
  void bury(Slot slot);
  void globIs(Slot slot);
  void globDel(Slot slot);

  void match(Slot slot);
  void unmatch(Slot slot);
  void rematch(Slot slot);
  void candidate(Slot slot, const Pattern& pattern, std::vector<Lamp>& lamps);
  void claim(Slot slot, Lamp lamp);
  void stopWaiting(Slot slot);
  std::vector<Slot> waitingFor(Zel::Name led) const;
  void dirtyIs(Lamp lamp);
  void touch(Slot slot);
  bool settle(Lamp lamp);
  std::string effect(const Pattern& pattern) const;

  const Limits limits_;
  Zel::TimerWheel wheel_;
  std::vector<Entry> slots_;
  std::vector<Slot> freeSlots_;
  std::vector<Slot> buried_;
  std::unordered_map<Source, Slot> bySource_;
  std::vector<Slot> globs_;   // the requests with patterns
  std::set<Waiting> absent_;  // requests by the names of LEDs that are not there
  std::vector<LampEntry> lamps_;
  std::vector<Lamp> freeLamps_;
  std::unordered_map<Zel::Name, Lamp> byName_;
  std::map<std::string_view, Lamp> byText_;
  std::vector<Lamp> dirty_;
  std::vector<Zel::Name> touched_;
  std::uint64_t last_ = 0;  // sequence or version
  std::size_t patterns_ = 0;
  std::size_t matches_ = 0;
};

}  // namespace Policy
