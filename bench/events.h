// The light-setting event, given to any contestant.
//
// A contestant is a class World:
//
//     World(std::size_t leds, std::size_t pins)     `pins` is 4, or 0 where only the LED's own handler is
//     told void set(std::size_t led, const Led::LightSetting&)
//         Stores the setting; where it differs, has the LED's handler told. The handler reads the setting,
//         writes 0 to each of the LED's pins and 1 to those of the colours that are set; a pin whose value
//         changed has the one handler that watches it told.
//     void pass()                                   delivers what was deferred, until nothing is
//     std::uint64_t told() const
//         How many handlers were called so far: those of pins, or where there are none those of LEDs.
//
// Pins are made first, in an order that has nothing to do with the LEDs: PinPool. Every LED is picked once in
// a random order, then all again in the same order; each time it lights another colour than before, so two of
// its pins change. A contestant that tells another number of handlers is disqualified.
#pragma once

#include <malloc.h>

#include <memory>

#include "bench/child.h"
#include "bench/measure.h"
#include "bench/table.h"
#include "platform/zel/object/type.h"

namespace Bench {

// Hands out the pins of LEDs, made at once and picked at random.
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
  explicit EventWork(std::size_t pins) : world_(kLeds, pins), toldByEvent_(pins == 0 ? 1 : 2) {
    events(kLeds, 1);  // lights a first colour
  }

  void run(benchmark::State& state, std::size_t batch, const std::string& name) {
    const std::uint64_t before = world_.told();
    std::size_t count = 0;
    for (auto _ : state) {
      events(batch, batch);
      count += batch;
    }
    if (const std::uint64_t told = world_.told() - before; told != count * toldByEvent_)
      results().fail(name,
                     std::to_string(told) + " handlers were told of " + std::to_string(count) + " events");
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
  const std::uint64_t toldByEvent_;
  std::size_t next_ = 0;
  std::size_t round_ = 0;
};

// One appliance a contestant; it stays until the end.
template <class World, std::size_t Pins>
EventWork<World>& eventWork() {
  static auto& work = *new EventWork<World>(Pins);
  return work;
}

// Heap bytes of a world, for each LED; taken in a process of its own. REQUIRES: this process has made no
// world yet, whose memory the child's would go into; so call it while contestants are registered.
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
