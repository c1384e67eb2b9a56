// The light-setting event, as work for any contestant.
//
// A contestant is a class World:
//
//     World(std::size_t leds, std::size_t pins)
//         `pins` is 4 per LED, or 0 to measure the notification of the LED's own handler alone.
//     void set(std::size_t led, const Led::LightSetting&)
//         Stores the setting and, if it changed, notifies the LED's handler. The handler reads the setting,
//         writes 0 to each of the LED's pins and 1 to those of the colours that are set. A pin whose value
//         changed notifies the one handler that watches it.
//     void pass()
//         Delivers all deferred notifications.
//     std::uint64_t notified() const
//         The number of handler calls so far: of pins, or without pins of LEDs.
//
// Pins are created first, in an order unrelated to the LEDs' (PinPool). Events pick all LEDs in a random
// order, then again in the same order; each lights another colour than before, so two of the LED's pins
// change. A contestant with the wrong number of handler calls is disqualified.
#pragma once

#include <malloc.h>

#include <memory>

#include "bench/child.h"
#include "bench/measure.h"
#include "bench/table.h"
#include "platform/zel/object/type.h"

namespace Bench {

// Creates all pins at once and hands them out in random order.
template <class Pin>
class PinPool {
 public:
  explicit PinPool(std::size_t count) : order_(shuffled(count)), pins_(count) {
    for (auto& pin : pins_) pin = std::make_unique<Pin>();
  }
  std::unique_ptr<Pin> take() { return std::move(pins_[order_[next_++]]); }

 private:
  const std::vector<std::uint32_t> order_;
  std::vector<std::unique_ptr<Pin>> pins_;
  std::size_t next_ = 0;
};

template <class World>
class EventWork {
 public:
  explicit EventWork(std::size_t pins) : world_(kLeds, pins), perEvent_(pins == 0 ? 1 : 2) {
    events(kLeds, 1);  // lights a first colour
  }

  void run(benchmark::State& state, std::size_t batch, const std::string& name) {
    const std::uint64_t before = world_.notified();
    std::size_t count = 0;
    for (auto _ : state) {
      events(batch, batch);
      count += batch;
    }
    if (const std::uint64_t notified = world_.notified() - before; notified != count * perEvent_)
      results().fail(name,
                     std::to_string(notified) + " handlers called for " + std::to_string(count) + " events");
    perItem(state, count);
  }

 private:
  void events(std::size_t count, std::size_t batch) {
    for (std::size_t done = 0; done < count; done += batch) {
      for (std::size_t i = 0; i < batch; ++i) {
        const std::uint32_t led = order_[next_];
        world_.set(led, steady((led + round_) % kPins));
        if (++next_ == order_.size()) next_ = 0, ++round_;
      }
      world_.pass();
    }
  }

  const std::vector<std::uint32_t> order_ = shuffled(kLeds);
  World world_;
  const std::uint64_t perEvent_;
  std::size_t next_ = 0;
  std::size_t round_ = 0;
};

// One world per contestant, never destroyed.
template <class World, std::size_t Pins>
EventWork<World>& eventWork() {
  static auto& work = *new EventWork<World>(Pins);
  return work;
}

// Heap bytes of a world per LED, measured in a child process. REQUIRES: this process has created no world
// yet, as the child would reuse its memory; so call it while registering contestants.
template <class World>
double eventMemory() {
  return inChild([] {
    const auto inUse = [] {
      const auto info = mallinfo2();
      return static_cast<double>(info.uordblks + info.hblkhd + Zel::fwkHugeBytes());
    };
    const double before = inUse();
    const auto* world = new World(kLeds, kPins);
    benchmark::DoNotOptimize(world);
    return (inUse() - before) / static_cast<double>(kLeds);
  });
}

template <class World>
void addMemoryContestant(const std::string& name) {
  const double bytes = eventMemory<World>();
  addOnce("memory/" + name, [bytes] { return std::vector<Figure>{{"", bytes}}; });
}

template <class World>
void addEventContestant(const std::string& name) {
  static constexpr std::size_t kBatch = 64;
  const auto add = [&](const std::string& row, auto work, std::size_t batch) {
    const std::string full = row + '/' + name;
    addLoop(full, [work, batch, full](benchmark::State& state) { work().run(state, batch, full); });
  };
  add("event", &eventWork<World, kPins>, kBatch);
  add("event-single", &eventWork<World, kPins>, 1);
  add("notify", &eventWork<World, 0>, kBatch);
  addMemoryContestant<World>(name);
}

}  // namespace Bench
