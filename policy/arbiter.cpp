#include "policy/arbiter.h"

#include <algorithm>
#include <ranges>
#include <tuple>

#include "platform/model/priorities.h"
#include "platform/zel/core/exception.h"
#include "policy/lane.h"

namespace Policy {

namespace {

void checkCount(const char* what, std::size_t count, std::size_t most) {
  if (count > most)
    throw Zel::ValueError(std::string(what) + " has " + std::to_string(count) + " names, more than " +
                          std::to_string(most));
}

}  // namespace

Arbiter::Arbiter(double now, const Limits& limits) : limits_(limits), wheel_(now) {}

bool Arbiter::Entry::isBefore(const Entry& other) const {
  return std::tie(priority, began, sequence) < std::tie(other.priority, other.began, other.sequence);
}

bool Arbiter::Entry::names(Zel::Name led) const {
  return std::ranges::any_of(leds, [&](const Pattern& each) { return each.text() == led; });
}

bool Arbiter::Entry::skips(Zel::Name led) const {
  return std::ranges::any_of(skip, [&](const Pattern& each) { return each.fits(led); });
}

bool Arbiter::Entry::fits(Zel::Name led) const {
  return std::ranges::any_of(leds, [&](const Pattern& each) { return each.fits(led); }) && !skips(led);
}

bool Arbiter::Entry::hasSameLeds(const Request& request) const {
  return std::ranges::equal(leds, request.leds, {}, &Pattern::text) &&
         std::ranges::equal(skip, request.skip, {}, &Pattern::text) && fallsBack == request.fallsBack;
}

void Arbiter::Entry::takePlaceOf(const Entry& old) {
  sequence = old.sequence;
  if (setting == old.setting) version = old.version;
}

void Arbiter::check(const Request& request) const {
  if (request.leds.empty()) throw Zel::ValueError("it names no LED");
  checkCount("'leds'", request.leds.size(), limits_.names);
  checkCount("'skip'", request.skip.size(), limits_.names);
  if (request.priority > Led::kHighestPriority)
    throw Zel::ValueError("its priority " + std::to_string(request.priority) + " is more than " +
                          std::to_string(Led::kHighestPriority));
}

void Arbiter::requestIs(const Source& source, const Request& request) {
  const auto found = bySource_.find(source);
  const bool isNew = found == bySource_.end();
  try {
    check(request);
    if (!isNew && changeInPlace(found->second, request)) return;
    if (isNew && size() >= limits_.requests)
      throw Zel::ValueError("there are " + std::to_string(limits_.requests) + " requests already, the most");
    Entry entry = entryOf(source, request);
    if (!isNew) entry.takePlaceOf(slots_[found->second]);
    requestDel(source);
    const Slot slot = makeSlot();
    slots_[slot] = std::move(entry);
    enter(slot);
    timerIs(slot, request.ends);
  } catch (...) {
    requestDel(source);
    throw;
  }
}

Arbiter::Entry Arbiter::entryOf(const Source& source, const Request& request) {
  Entry entry;
  entry.source = source;
  entry.leds = std::vector<Pattern>(request.leds.begin(), request.leds.end());
  entry.skip = std::vector<Pattern>(request.skip.begin(), request.skip.end());
  entry.setting = request.setting;
  entry.setting.priority = request.priority;
  entry.priority = request.priority;
  entry.began = request.began;
  entry.fallsBack = request.fallsBack;
  entry.version = entry.sequence = ++last_;
  return entry;
}

// For what leaves the request its LEDs and its place among others.
bool Arbiter::changeInPlace(Slot slot, const Request& request) {
  Entry& entry = slots_[slot];
  if (entry.priority != request.priority || entry.began != request.began || !entry.hasSameLeds(request))
    return false;
  timerIs(slot, request.ends);
  Led::LightSetting setting = request.setting;
  setting.priority = request.priority;
  if (entry.setting == setting) return true;
  entry.setting = setting;
  entry.version = ++last_;
  std::ranges::for_each(entry.lamps, [&](Lamp lamp) { dirtyIs(lamp); });
  return true;
}

Arbiter::Slot Arbiter::makeSlot() {
  if (freeSlots_.empty()) {
    slots_.emplace_back();
    return static_cast<Slot>(slots_.size() - 1);
  }
  const Slot slot = freeSlots_.back();
  freeSlots_.pop_back();
  return slot;
}

void Arbiter::timerIs(Slot slot, double ends) {
  Zel::TimerWheel::Timer& timer = slots_[slot].timer;
  const bool isArmed = timer != Zel::TimerWheel::kNone;
  if (ends == Zel::TimerWheel::kNever) {
    if (isArmed) wheel_.disarm(std::exchange(timer, Zel::TimerWheel::kNone));
  } else if (isArmed) {
    wheel_.rearm(timer, ends);
  } else {
    timer = wheel_.arm(ends, reinterpret_cast<void*>(static_cast<std::uintptr_t>(slot)));
  }
}

// Files a new request and claims its LEDs, or throws.
void Arbiter::enter(Slot slot) {
  bySource_.emplace(slots_[slot].source, slot);
  touch(slot);
  globIs(slot);
  if (patterns_ > limits_.patterns)
    throw Zel::ValueError("all requests together have more than " + std::to_string(limits_.patterns) +
                          " patterns");
  match(slot);
  if (slots_[slot].isCut)
    throw Zel::ValueError("all requests together ask for more than " + std::to_string(limits_.matches) +
                          " LEDs");
}

bool Arbiter::requestDel(const Source& source) {
  const auto found = bySource_.find(source);
  if (found == bySource_.end()) return false;
  bury(found->second);
  return true;
}

// The lamps drop it in takeChanged(), each all of its buried ones at once.
void Arbiter::bury(Slot slot) {
  Entry& entry = slots_[slot];
  touch(slot);
  bySource_.erase(entry.source);
  timerIs(slot, Zel::TimerWheel::kNever);
  globDel(slot);
  stopWaiting(slot);
  matches_ -= entry.lamps.size();
  std::ranges::for_each(entry.lamps, [&](Lamp lamp) { dirtyIs(lamp); });
  entry.isGone = true;
  buried_.push_back(slot);
}

void Arbiter::globIs(Slot slot) {
  Entry& entry = slots_[slot];
  if (std::ranges::none_of(entry.leds, &Pattern::isGlob)) return;
  patterns_ += entry.leds.size() + entry.skip.size();
  entry.placeAmongGlobs = static_cast<Slot>(globs_.size());
  globs_.push_back(slot);
}

void Arbiter::globDel(Slot slot) {
  Entry& entry = slots_[slot];
  if (entry.placeAmongGlobs == kNone) return;
  patterns_ -= entry.leds.size() + entry.skip.size();
  slots_[globs_.back()].placeAmongGlobs = entry.placeAmongGlobs;
  globs_[entry.placeAmongGlobs] = globs_.back();
  globs_.pop_back();
  entry.placeAmongGlobs = kNone;
}

void Arbiter::match(Slot slot) {
  std::vector<Lamp> lamps;
  for (const Pattern& each : slots_[slot].leds) candidate(slot, each, lamps);
  std::ranges::sort(lamps);
  lamps.erase(std::unique(lamps.begin(), lamps.end()), lamps.end());
  for (const Lamp lamp : lamps)
    if (!slots_[slot].skips(lamps_[lamp].name)) claim(slot, lamp);
}

// Adds the LEDs of one name or pattern.
void Arbiter::candidate(Slot slot, const Pattern& pattern, std::vector<Lamp>& lamps) {
  if (pattern.isGlob()) {
    const auto isNear = [&](const auto& each) { return each.first.starts_with(pattern.prefix()); };
    for (auto at = byText_.lower_bound(pattern.prefix()); at != byText_.end() && isNear(*at); ++at)
      if (pattern.fits(lamps_[at->second].name)) lamps.push_back(at->second);
    return;
  }
  if (slots_[slot].skips(pattern.text())) return;
  const Zel::Name port = slots_[slot].fallsBack ? portOf(pattern.text()) : Zel::Name();
  for (const Zel::Name& name : {pattern.text(), port}) {
    if (name.empty()) return;
    if (const auto found = byName_.find(name); found != byName_.end()) return lamps.push_back(found->second);
    absent_.insert({name, slot});
  }
}

void Arbiter::unmatch(Slot slot) {
  Entry& entry = slots_[slot];
  const auto isBefore = [&](Slot a, Slot b) { return slots_[a].isBefore(slots_[b]); };
  for (const Lamp lamp : entry.lamps) {
    std::vector<Slot>& slots = lamps_[lamp].slots;
    slots.erase(std::find(std::lower_bound(slots.begin(), slots.end(), slot, isBefore), slots.end(), slot));
    dirtyIs(lamp);
  }
  matches_ -= entry.lamps.size();
  entry.lamps.clear();
  stopWaiting(slot);
}

void Arbiter::stopWaiting(Slot slot) {
  const Entry& entry = slots_[slot];
  for (const Pattern& each : entry.leds) {
    absent_.erase({each.text(), slot});
    if (entry.fallsBack) absent_.erase({portOf(each.text()), slot});
  }
}

void Arbiter::rematch(Slot slot) {
  unmatch(slot);
  match(slot);
  touch(slot);
}

void Arbiter::claim(Slot slot, Lamp lamp) {
  Entry& entry = slots_[slot];
  touch(slot);
  if (matches_ >= limits_.matches) {
    entry.isCut = true;
    return;
  }
  const auto isBefore = [&](Slot a, Slot b) { return slots_[a].isBefore(slots_[b]); };
  std::vector<Slot>& slots = lamps_[lamp].slots;
  slots.insert(std::upper_bound(slots.begin(), slots.end(), slot, isBefore), slot);
  entry.lamps.push_back(lamp);
  ++matches_;
  dirtyIs(lamp);
}

std::vector<Arbiter::Slot> Arbiter::waitingFor(Zel::Name led) const {
  std::vector<Slot> slots;
  for (auto at = absent_.lower_bound({led, 0}); at != absent_.end() && at->led == led; ++at)
    slots.push_back(at->slot);
  return slots;
}

void Arbiter::ledIs(Zel::Name led) {
  if (hasLed(led)) return;
  if (freeLamps_.empty()) {
    freeLamps_.push_back(static_cast<Lamp>(lamps_.size()));
    lamps_.emplace_back();
  }
  const Lamp lamp = freeLamps_.back();
  freeLamps_.pop_back();
  lamps_[lamp].name = led;
  byName_.emplace(led, lamp);
  byText_.emplace(led.view(), lamp);
  for (const Slot slot : globs_)
    if (slots_[slot].fits(led)) claim(slot, lamp);
  for (const Slot slot : waitingFor(led)) rematch(slot);
}

void Arbiter::ledDel(Zel::Name led) {
  const auto found = byName_.find(led);
  if (found == byName_.end()) return;
  const Lamp lamp = found->second;
  byName_.erase(found);
  byText_.erase(led.view());
  const std::vector<Slot> slots = std::exchange(lamps_[lamp].slots, {});
  lamps_[lamp].name = {};
  lamps_[lamp].version = 0;
  freeLamps_.push_back(lamp);
  for (const Slot slot : slots) {
    Entry& entry = slots_[slot];
    if (entry.isGone) continue;
    std::erase(entry.lamps, lamp);
    --matches_;
    touch(slot);
    if (entry.fallsBack)
      rematch(slot);
    else if (entry.names(led))
      absent_.insert({led, slot});
  }
}

void Arbiter::dirtyIs(Lamp lamp) {
  if (!std::exchange(lamps_[lamp].isDirty, true)) dirty_.push_back(lamp);
}

void Arbiter::touch(Slot slot) {
  Entry& entry = slots_[slot];
  if (entry.source.rule.empty() && !std::exchange(entry.isTouched, true))
    touched_.push_back(entry.source.name);
}

std::vector<Zel::Name> Arbiter::takeTouched() {
  for (const Zel::Name& name : touched_)
    if (const auto found = bySource_.find({{}, name}); found != bySource_.end())
      slots_[found->second].isTouched = false;
  return std::exchange(touched_, {});
}

std::vector<Source> Arbiter::expire(double now) {
  std::vector<Source> ended;
  wheel_.collect(now);
  for (auto due = wheel_.firstDue(); due != Zel::TimerWheel::kNone; due = wheel_.firstDue()) {
    const auto slot = static_cast<Slot>(reinterpret_cast<std::uintptr_t>(wheel_.payload(due)));
    ended.push_back(slots_[slot].source);
    bury(slot);
  }
  return ended;
}

std::vector<Zel::Name> Arbiter::takeChanged() {
  std::vector<Zel::Name> changed;
  for (const Lamp lamp : std::exchange(dirty_, {}))
    if (settle(lamp)) changed.push_back(lamps_[lamp].name);
  for (const Slot slot : std::exchange(buried_, {})) {
    slots_[slot] = Entry();
    freeSlots_.push_back(slot);
  }
  return changed;
}

// Returns whether the LED shows something else than before.
bool Arbiter::settle(Lamp lamp) {
  LampEntry& entry = lamps_[lamp];
  entry.isDirty = false;
  std::erase_if(entry.slots, [&](Slot slot) { return slots_[slot].isGone; });
  const std::uint64_t version = entry.slots.empty() ? 0 : slots_[entry.slots.back()].version;
  return std::exchange(entry.version, version) != version && !entry.name.empty();
}

}  // namespace Policy
