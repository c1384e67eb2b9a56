#include "gpio/linedriver.h"

#include <algorithm>
#include <limits>
#include <set>
#include <utility>

namespace Gpio {

namespace {
constexpr double kFirstRetry = 0.5;  // seconds
constexpr double kLastRetry = 30;
constexpr double kQuiet = 60;
constexpr std::size_t kMostReported = 256;  // errors that are remembered; clients wire pins to any name
constexpr double kNever = std::numeric_limits<double>::infinity();

std::string claimedTwice(const LinePlace& place, Zel::Name holder, Zel::Name other) {
  return describe(place) + " is wired to pin '" + holder.stdString() + "' and to pin '" + other.stdString() +
         "'; only one of them can have it";
}
}  // namespace

// The lines that were taken together, and which pin each shows.
struct LineDriver::Request {
  std::unique_ptr<LineRequest> lines;
  std::vector<Pin*> pins;  // by slot; null where no pin wants the line any more
  bool dirty = false;
  Backoff backoff;

  bool wanted() const {
    return std::ranges::any_of(pins, [](const Pin* pin) { return pin != nullptr; });
  }

  LineValues values() const {
    LineValues values = lines->values();
    for (std::size_t slot = 0; slot < pins.size(); ++slot) {
      if (pins[slot])
        values[slot] = *pins[slot]->lit;
      else if (lines->lines()[slot].onExit == LineExit::off)
        values[slot] = false;
    }
    return values;
  }
};

void LineDriver::Backoff::failed(double now) {
  delay = delay == 0 ? kFirstRetry : std::min(delay * 2, kLastRetry);
  at = now + delay;
}

LineDriver::LineDriver(LineProvider& provider, std::function<void(const std::string&)> report)
    : provider_(provider), report_(std::move(report)) {}
LineDriver::~LineDriver() = default;

void LineDriver::wiringIs(Zel::Name name, const std::optional<Wiring>& wiring) {
  Pin& pin = pins_[name];
  if (pin.wiring == wiring) return;
  leave(pin);
  pin.wiring = wiring;
  pin.backoff = {};
  stateIs(pin, {});
}

void LineDriver::valueIs(Zel::Name name, std::optional<bool> lit) {
  Pin& pin = pins_[name];
  if (pin.lit == lit) return;
  if (!lit) leave(pin);
  pin.lit = lit;
  if (pin.request) pin.request->dirty = true;
  if (!pin.wanted()) stateIs(pin, {});
}

// The line stays in its request, without its pin.
void LineDriver::leave(Pin& pin) {
  if (!pin.request) return;
  pin.request->pins[pin.slot] = nullptr;
  pin.request->dirty = true;
  pin.request = nullptr;
}

void LineDriver::drive(double now) {
  takeLines(now);
  write(now);
  std::erase_if(pins_, [](const auto& each) {
    return !each.second.wiring && !each.second.lit && !each.second.changed;
  });
}

double LineDriver::nextTry() const {
  double next = kNever;
  for (const auto& [name, pin] : pins_)
    if (pin.waits()) next = std::min(next, pin.backoff.at);
  for (const auto& request : requests_)
    if (request->dirty) next = std::min(next, request->backoff.at);
  return next;
}

void LineDriver::release() {
  for (const auto& request : std::exchange(requests_, {})) {
    for (Pin* pin : request->pins)
      if (pin) pin->request = nullptr;
    try {
      request->lines->release();
    } catch (const LineError& error) {
      report_(error.what());
    }
  }
}

std::vector<Zel::Name> LineDriver::takeChanged() {
  std::vector<Zel::Name> changed;
  for (auto& [name, pin] : pins_)
    if (std::exchange(pin.changed, false)) changed.push_back(name);
  return changed;
}

std::optional<LineState> LineDriver::state(Zel::Name name) const {
  const auto found = pins_.find(name);
  if (found == pins_.end() || !found->second.wanted()) return std::nullopt;
  return found->second.state;
}

// Finding and taking
// ------------------------------------------------------------------------------------------------

void LineDriver::takeLines(double now) {
  std::vector<std::pair<Zel::Name, Pin*>> due;
  for (auto& [name, pin] : pins_)
    if (pin.waits() && pin.backoff.at <= now) due.emplace_back(name, &pin);
  if (due.empty()) return;
  const Survey survey = provider_.survey();
  std::map<std::string, Wanted> byChip;
  std::map<LinePlace, Zel::Name> taken;
  for (const auto& [name, pin] : due) {
    const auto place = placeOf(survey, name, *pin, now);
    if (!place) continue;
    if (const auto [other, first] = taken.try_emplace(*place, name); !first)
      fail(*pin, claimedTwice(*place, other->second, name), now);
    else if (reuse(*pin, *place))
      driven(*pin, *place);
    else if (freeHolder(*place))
      return takeLines(now);
    else
      byChip[place->chip].emplace_back(name, *place);
  }
  for (auto& [chip, wanted] : byChip) request(std::move(wanted), now);
}

// The place of a pin's line; nullopt where it is not found or another pin has it.
std::optional<LinePlace> LineDriver::placeOf(const Survey& survey, Zel::Name name, Pin& pin, double now) {
  try {
    const LinePlace place = survey.find(pin.wiring->chip, pin.wiring->line);
    const auto [request, slot] = holder(place);
    if (!request || !request->pins[slot]) return place;
    for (const auto& [other, held] : pins_)
      if (&held == request->pins[slot]) fail(pin, claimedTwice(place, other, name), now);
    return std::nullopt;
  } catch (const LineError& error) {
    fail(pin, error.what(), now);  // without the pin's name: a fault of a whole chip is reported once
    return std::nullopt;
  }
}

// Takes over a line that a request holds without a pin, where its wiring is the same.
bool LineDriver::reuse(Pin& pin, const LinePlace& place) {
  const auto [request, slot] = holder(place);
  if (!request || request->pins[slot]) return false;
  const Line& line = request->lines->lines()[slot];
  if (line.activeLow != pin.wiring->activeLow || line.onExit != pin.wiring->onExit) return false;
  request->pins[slot] = &pin;
  request->dirty = true;
  pin.request = request;
  pin.slot = slot;
  return true;
}

std::pair<LineDriver::Request*, std::size_t> LineDriver::holder(const LinePlace& place) const {
  for (const auto& request : requests_)
    for (std::size_t slot = 0; request->lines && slot < request->pins.size(); ++slot)
      if (request->lines->lines()[slot].place == place) return {request.get(), slot};
  return {nullptr, 0};
}

// A line that is held with other wiring is released only with all lines of its request; their pins wait
// again.
bool LineDriver::freeHolder(const LinePlace& place) {
  Request* request = holder(place).first;
  if (!request) return false;
  for (Pin* pin : std::exchange(request->pins, {}))
    if (pin) pin->request = nullptr;
  std::erase_if(requests_, [&](const auto& each) { return each.get() == request; });
  return true;
}

// Takes lines of one chip, without those that others hold.
void LineDriver::request(Wanted wanted, double now) {
  while (!wanted.empty()) {
    const auto done = requestOnce(
        {wanted.begin(), wanted.begin() + static_cast<std::ptrdiff_t>(std::min(wanted.size(), maxLines))},
        now);
    std::erase_if(wanted,
                  [&](const auto& each) { return std::ranges::find(done, each.first) != done.end(); });
  }
}

// Returns the pins that need no further try now: all of them, or those that were in the way.
std::vector<Zel::Name> LineDriver::requestOnce(const Wanted& wanted, double now) {
  std::vector<Line> lines;
  LineValues values;
  std::vector<Zel::Name> names;
  for (const auto& [name, place] : wanted) {
    const Pin& pin = pins_[name];
    values[lines.size()] = *pin.lit;
    lines.push_back({place, pin.wiring->activeLow, pin.wiring->onExit});
    names.push_back(name);
  }
  std::map<LinePlace, std::string> inTheWay;
  std::string error;
  try {
    auto made = std::make_unique<Request>();
    made->lines = provider_.request(lines, values);
    for (const Zel::Name& name : names) made->pins.push_back(&pins_[name]);
    for (std::size_t slot = 0; slot < names.size(); ++slot) {
      Pin& pin = pins_[names[slot]];
      pin.request = made.get();
      pin.slot = slot;
      driven(pin, lines[slot].place);
    }
    requests_.push_back(std::move(made));
    return names;
  } catch (const LineError& failure) {
    error = failure.what();
    for (const LineFault& fault : failure.faults()) inTheWay[fault.place] = fault.text;
  }
  std::vector<Zel::Name> failed;
  for (std::size_t slot = 0; slot < names.size(); ++slot) {
    const auto found = inTheWay.find(lines[slot].place);
    if (found == inTheWay.end() && !inTheWay.empty()) continue;
    fail(pins_[names[slot]], found == inTheWay.end() ? error : found->second, now);
    failed.push_back(names[slot]);
  }
  return failed;
}

// Writing
// -----------------------------------------------------------------------------------------------------------

void LineDriver::write(double now) {
  for (std::size_t i = 0; i < requests_.size();) {
    Request& request = *requests_[i];
    if (request.dirty && request.backoff.at <= now) write(request, now);
    if (request.lines && request.wanted()) {
      ++i;
      continue;
    }
    const auto gone = std::move(requests_[i]);
    requests_.erase(requests_.begin() + static_cast<std::ptrdiff_t>(i));
    try {
      if (gone->lines) gone->lines->release();
    } catch (const LineError& error) {
      reportOnce(error.what(), now);
    }
  }
}

void LineDriver::write(Request& request, double now) {
  try {
    request.lines->set(request.values());
    request.dirty = false;
    request.backoff = {};
    for (std::size_t slot = 0; slot < request.pins.size(); ++slot)
      if (request.pins[slot]) driven(*request.pins[slot], request.lines->lines()[slot].place);
  } catch (const LineError& error) {
    if (error.kind() == LineError::Kind::gone) return drop(request, error.what(), now);
    request.backoff.failed(now);
    for (Pin* pin : request.pins)
      if (pin) stateIs(*pin, {false, pin->state.place, error.what()});
    reportOnce(error.what(), now);
  }
}

// The chip went away: its pins look for their lines again.
void LineDriver::drop(Request& request, const std::string& error, double now) {
  for (Pin* pin : std::exchange(request.pins, {})) {
    if (!pin) continue;
    pin->request = nullptr;
    fail(*pin, error, now);
  }
  request.lines = nullptr;
}

void LineDriver::fail(Pin& pin, const std::string& error, double now) {
  pin.backoff.failed(now);
  stateIs(pin, {false, pin.state.place, error});
  reportOnce(error, now);
}

void LineDriver::driven(Pin& pin, const LinePlace& place) {
  pin.backoff = {};
  const bool again = !pin.state.driven && !pin.state.error.empty();
  stateIs(pin, {true, describe(place), pin.state.error});
  if (again && reported_.erase(pin.state.error) != 0) report_(describe(place) + ": driven again");
}

void LineDriver::stateIs(Pin& pin, const LineState& state) {
  if (pin.state == state) return;
  pin.state = state;
  pin.changed = true;
}

void LineDriver::reportOnce(const std::string& text, double now) {
  std::erase_if(reported_, [&](const auto& each) { return each.second + 10 * kQuiet < now; });
  if (reported_.size() >= kMostReported && !reported_.contains(text))
    reported_.erase(std::ranges::min_element(reported_, {}, &std::pair<const std::string, double>::second));
  const auto [reported, first] = reported_.try_emplace(text, now);
  if (!first && now - reported->second < kQuiet) return;
  reported->second = now;
  report_(text);
}

}  // namespace Gpio
