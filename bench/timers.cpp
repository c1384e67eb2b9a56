// Flash ticks: LEDs that toggle twice a second in real time, each on its own timer.
//
// The agent's tick is complete: the clock, the real state machine, and the pins. The peers' timers call an
// empty handler and restart. Phases are random. Measures the processor time of the loop per tick, including
// the cost of waiting.
#include <ev.h>
#include <poll.h>
#include <uv.h>

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cmath>
#include <memory>

#include "bench/appliance.h"
#include "bench/measure.h"

namespace Bench {

namespace {

constexpr double kLead = 0.3;  // seconds for set-up before the first tick

double window() { return quick() ? 0.6 : 1.5; }

// The seconds until the LED's first tick.
double firstTick(std::size_t led, std::size_t leds) {
  static thread_local std::vector<std::uint32_t> order;
  if (order.size() != leds) order = shuffled(leds);
  return kLead + kFlashInterval * order[led] / static_cast<double>(leds);
}

// Measures a loop within a window that begins when every LED has ticked once.
class Meter {
 public:
  Meter() : begin_(now() + kLead + kFlashInterval), end_(begin_ + window()) {}

  void tick() { ++ticks_; }
  // Returns false at the end of the window.
  bool goesOn() {
    const double time = now();
    if (!started_ && time >= begin_) {
      started_ = true;
      cost_ = threadTime();
      ticks_ = 0;
    }
    return time < end_;
  }
  double costOfTick() const { return (threadTime() - cost_) / static_cast<double>(ticks_); }
  void ticksAre(std::uint64_t ticks) { ticks_ = ticks; }
  bool started() const { return started_; }

 private:
  const double begin_;
  const double end_;
  bool started_ = false;
  double cost_ = 0;
  std::uint64_t ticks_ = 0;
};

// Waits in whole milliseconds, rounded up.
void waitUntil(double time) {
  const double delay = std::ceil((time - now()) * 1e3);
  if (delay > 0) poll(nullptr, 0, static_cast<int>(std::min(delay, 1000.0)));
}

double agentTick(std::size_t leds) {
  Zel::ActivityManager manager;
  Appliance appliance(leds);
  Led::LightSetting setting = steady(1);
  setting.flashInterval = kFlashInterval;
  {
    Zel::System::ManualTime time;
    const double start = now();
    const auto order = shuffled(leds);
    for (std::size_t i = 0; i < leds; ++i) {
      time.nowIs(start + kLead + kFlashInterval * (static_cast<double>(i) / static_cast<double>(leds) - 1));
      appliance.led(order[i]).lightSettingIs(setting);
      manager.step();
    }
  }
  Meter meter;
  std::uint64_t before = 0;
  while (meter.goesOn()) {
    if (!meter.started()) before = manager.clock()->expiries();
    waitUntil(manager.step());
  }
  meter.ticksAre(manager.clock()->expiries() - before);
  return meter.costOfTick();
}

// The floor: toggles what the LED shows and stores its next time.
double bareTick(std::size_t leds) {
  struct Bare {
    std::array<std::uint32_t, kPins> pins{};
    double due = 0;
  };
  std::vector<std::unique_ptr<Bare>> all(leds);
  for (auto& each : all) each = std::make_unique<Bare>();
  const auto order = shuffled(leds);
  const std::size_t rounds = std::max<std::size_t>(1, 1'000'000 / leds);
  const double start = threadTime();
  for (std::size_t round = 0; round < rounds; ++round)
    for (const std::uint32_t led : order) {
      Bare& each = *all[led];
      each.pins[1] ^= 1U;
      each.due += kFlashInterval;
      benchmark::DoNotOptimize(each);
    }
  return (threadTime() - start) / static_cast<double>(rounds * leds);
}

double uvTick(std::size_t leds) {
  Meter meter;
  uv_loop_t loop;
  uv_loop_init(&loop);
  std::vector<std::unique_ptr<uv_timer_t>> timers(leds);
  for (std::size_t i = 0; i < leds; ++i) {
    timers[i] = std::make_unique<uv_timer_t>();
    uv_timer_init(&loop, timers[i].get());
    timers[i]->data = &meter;
    uv_timer_start(
        timers[i].get(), [](uv_timer_t* timer) { static_cast<Meter*>(timer->data)->tick(); },
        static_cast<std::uint64_t>(firstTick(i, leds) * 1e3),
        static_cast<std::uint64_t>(kFlashInterval * 1e3));
  }
  while (meter.goesOn()) uv_run(&loop, UV_RUN_ONCE);
  const double cost = meter.costOfTick();
  for (auto& timer : timers) uv_close(reinterpret_cast<uv_handle_t*>(timer.get()), nullptr);
  uv_run(&loop, UV_RUN_DEFAULT);
  uv_loop_close(&loop);
  return cost;
}

double evTick(std::size_t leds) {
  Meter meter;
  const std::unique_ptr<struct ev_loop, decltype(&ev_loop_destroy)> loop(ev_loop_new(EVFLAG_AUTO),
                                                                         &ev_loop_destroy);
  std::vector<std::unique_ptr<ev_timer>> timers(leds);
  for (std::size_t i = 0; i < leds; ++i) {
    timers[i] = std::make_unique<ev_timer>();
    const auto handler = [](struct ev_loop*, ev_timer* timer, int) {
      static_cast<Meter*>(timer->data)->tick();
    };
    ev_init(timers[i].get(), handler);
    ev_timer_set(timers[i].get(), firstTick(i, leds), kFlashInterval);
    timers[i]->data = &meter;
    ev_timer_start(loop.get(), timers[i].get());
  }
  while (meter.goesOn()) ev_run(loop.get(), EVRUN_ONCE);
  return meter.costOfTick();
}

double asioTick(std::size_t leds) {
  using Seconds = std::chrono::duration<double>;
  struct Timer {
    Timer(boost::asio::io_context& context, Meter& m) : timer(context), meter(m) {}
    void start(double delay) {
      timer.expires_after(std::chrono::duration_cast<std::chrono::steady_clock::duration>(Seconds(delay)));
      timer.async_wait([this](const boost::system::error_code& error) {
        if (error) return;
        meter.tick();
        start(kFlashInterval);
      });
    }
    boost::asio::steady_timer timer;
    Meter& meter;
  };
  Meter meter;
  boost::asio::io_context context(1);
  std::vector<std::unique_ptr<Timer>> timers(leds);
  for (std::size_t i = 0; i < leds; ++i) {
    timers[i] = std::make_unique<Timer>(context, meter);
    timers[i]->start(firstTick(i, leds));
  }
  while (meter.goesOn()) {
    context.run_one();
    context.poll();
  }
  return meter.costOfTick();
}

void addTick(const std::string& contestant, double (*tick)(std::size_t leds)) {
  for (const std::size_t leds : {100UL, 10'000UL, 100'000UL})
    addOnce("flash-" + std::to_string(leds) + '/' + contestant, [=] {
      return std::vector<Figure>{{"", tick(leds)}};
    });
}

}  // namespace

void addTimers() {
  addTick("pinlamp", &agentTick);
  addTick("toggle and store", &bareTick);
  addTick("libuv", &uvTick);
  addTick("libev", &evTick);
  addTick("Boost.Asio", &asioTick);
}

}  // namespace Bench
