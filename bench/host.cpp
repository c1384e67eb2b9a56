// The running host: processor time and phase length while flashing, and start-up time.
#include <uv.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <thread>

#include "bench/client.h"
#include "bench/measure.h"
#include "bench/table.h"

namespace Bench {

namespace {

constexpr std::size_t kWatched = 64;  // LEDs, of many, whose phases are timed
constexpr std::size_t kFlashing = 8;  // LEDs of a host in which all phases are timed
constexpr double kLeastTime = 0.5;    // seconds for timing one interval

double window() { return quick() ? 2 : 4; }

void sleepFor(double seconds) { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); }

// Collects by how much the phases of LEDs exceed the interval.
class Phases {
 public:
  explicit Phases(double begin, double interval = kFlashInterval) : begin_(begin), interval_(interval) {}
  void tick(std::size_t led) {
    const double time = now();
    double& last = last_[led];
    if (last > begin_) longer_.push_back(time - last - interval_);
    last = time;
  }
  double median() { return quantile(longer_, 0.5); }
  std::vector<Figure> figures(double cost) {
    return {{"", cost}, {"+ p50", quantile(longer_, 0.5)}, {"+ p99", quantile(longer_, 0.99)}};
  }

 private:
  const double begin_;
  const double interval_;
  std::map<std::size_t, double> last_;
  std::vector<double> longer_;
};

// Makes all LEDs flash, with their phases spread over one interval.
void flashAll(const RunningHost& host, std::size_t leds) {
  static constexpr std::size_t kSteps = 250;
  Client client(host.socket());
  Led::LightSetting setting = steady(1);
  setting.flashInterval = kFlashInterval;
  const double start = now();
  for (std::size_t step = 0, led = 0; step < kSteps; ++step) {
    for (; led < leds * (step + 1) / kSteps; ++led) {
      client.send(setRequest(led, setting));
      client.readLine();
    }
    sleepFor(start + kFlashInterval * static_cast<double>(step + 1) / kSteps - now());
  }
}

// Watches one pin each of `watched` LEDs, picked evenly.
class Watching {
 public:
  Watching(const RunningHost& host, std::size_t leds, std::size_t watched) : client_(host.socket()) {
    for (std::size_t i = 0; i < watched; ++i)
      watches_[client_.call("watch", {{"path", pinPath(i * leds / watched, 1)}})["watch"]] = i;
  }
  void time(Phases& phases, double seconds) {
    for (const double end = now() + seconds; now() < end;) {
      const Json message = Json::parse(client_.readLine());
      phases.tick(watches_.at(message["params"]["watch"]));
    }
  }

 private:
  Client client_;
  std::map<Json, std::size_t> watches_;
};

// First the processor time, without watchers; then the phases as a client sees them.
std::vector<Figure> runHost(std::size_t leds) {
  RunningHost host("memory:");
  host.fill(leds);
  flashAll(host, leds);
  sleepFor(10 * kFlashInterval);  // until close wake-ups have merged
  const double before = host.process().processorTime();
  const double start = now();
  sleepFor(window());
  const double cost = (host.process().processorTime() - before) / (now() - start);

  Watching watching(host, leds, kWatched);
  Phases phases(now());
  watching.time(phases, window());
  return phases.figures(cost);
}

// One timer per LED, and nothing else.
std::vector<Figure> runLibuv(std::size_t leds) {
  struct Timer {
    uv_timer_t timer;
    std::size_t led;
    Phases* phases;
  };
  uv_loop_t loop;
  uv_loop_init(&loop);
  const double begin = now() + 2 * kFlashInterval;
  Phases phases(begin);
  std::vector<std::unique_ptr<Timer>> timers;
  for (std::size_t i = 0; i < leds; ++i) {
    const bool watched = i % (leds / kWatched) == 0;
    timers.push_back(std::make_unique<Timer>(Timer{{}, i, watched ? &phases : nullptr}));
    uv_timer_init(&loop, &timers.back()->timer);
    timers.back()->timer.data = timers.back().get();
    const auto handler = [](uv_timer_t* handle) {
      const auto& self = *static_cast<Timer*>(handle->data);
      if (self.phases) self.phases->tick(self.led);
    };
    uv_timer_start(&timers.back()->timer, handler, 500 + i * 500 / leds, 500);
  }
  while (now() < begin) uv_run(&loop, UV_RUN_ONCE);
  const double before = threadTime();
  const double start = now();
  while (now() < start + window()) uv_run(&loop, UV_RUN_ONCE);
  const double cost = (threadTime() - before) / (now() - start);
  for (auto& each : timers) uv_close(reinterpret_cast<uv_handle_t*>(&each->timer), nullptr);
  uv_run(&loop, UV_RUN_DEFAULT);
  uv_loop_close(&loop);
  return phases.figures(cost);
}

constexpr std::pair<const char*, double> kIntervals[] = {
    {"1 s", 1.0}, {"500 ms", 0.5}, {"50 ms", 0.05}, {"5 ms", 0.005}, {"1 ms", 0.001}};

double timeOf(double interval) { return std::max(2.5 * interval, kLeastTime); }

// A host with a few LEDs, their phases spread over one interval.
std::vector<Figure> timeHost() {
  std::vector<Figure> figures;
  for (const auto& [name, interval] : kIntervals) {
    RunningHost host("memory:");
    host.fill(kFlashing);
    Client client(host.socket());
    Led::LightSetting setting = steady(1);
    setting.flashInterval = interval;
    for (std::size_t led = 0; led < kFlashing; ++led) {
      client.send(setRequest(led, setting));
      client.readLine();
      sleepFor(interval / kFlashing);
    }
    Watching watching(host, kFlashing, kFlashing);
    Phases phases(now(), interval);
    watching.time(phases, timeOf(interval));
    figures.push_back({name, phases.median()});
  }
  return figures;
}

// One timer that its handler restarts.
std::vector<Figure> timeLibuv() {
  struct Timer {
    uv_timer_t timer;
    std::uint64_t milliseconds;
    Phases phases;

    static void tick(uv_timer_t* handle) {
      auto& self = *static_cast<Timer*>(handle->data);
      self.phases.tick(0);
      uv_timer_start(handle, &tick, self.milliseconds, 0);
    }
  };
  std::vector<Figure> figures;
  for (const auto& [name, interval] : kIntervals) {
    uv_loop_t loop;
    uv_loop_init(&loop);
    Timer timer{{}, static_cast<std::uint64_t>(interval * 1e3), Phases(now(), interval)};
    uv_timer_init(&loop, &timer.timer);
    timer.timer.data = &timer;
    Timer::tick(&timer.timer);
    for (const double end = now() + timeOf(interval); now() < end;) uv_run(&loop, UV_RUN_ONCE);
    uv_close(reinterpret_cast<uv_handle_t*>(&timer.timer), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
    figures.push_back({name, timer.phases.median()});
  }
  return figures;
}

// A folder with the SQLite file of an appliance of that size; created once.
const TemporaryFolder& filled(std::size_t leds) {
  static std::map<std::size_t, std::unique_ptr<TemporaryFolder>> folders;
  auto& folder = folders[leds];
  if (!folder) {
    folder = std::make_unique<TemporaryFolder>();
    RunningHost host(*folder, "sqlite:");
    host.fill(leds);
    host.stop();
  }
  return *folder;
}

double startHost(std::size_t leds) {
  const TemporaryFolder& folder = filled(leds);
  const double start = now();
  RunningHost host(folder, "sqlite:");
  host.waitUntilDriven(leds);
  const double took = now() - start;
  host.stop();
  return took;
}

double readRows(std::size_t leds) {
  const TemporaryFolder& folder = filled(leds);
  const double start = now();
  Child reader({"sqlite3", folder.file("state.db"), "SELECT * FROM rows"}, "/dev/null");
  reader.wait();
  return now() - start;
}

void addStart(std::size_t leds, const char* growthName) {
  const std::string row = "startup-" + std::to_string(leds);
  addOnce(row + "/pinlampd", [=] {
    const double took = startHost(leds);
    if (growthName)
      results().add(std::string("startup-growth/") + growthName, "", took / static_cast<double>(leds));
    return std::vector<Figure>{{"", took}};
  });
  addOnce(row + "/sqlite3", [=] { return std::vector<Figure>{{"", readRows(leds)}}; });
}

}  // namespace

void addHost() {
  for (const std::size_t leds : {1'000UL, 10'000UL}) {
    const std::string row = "running-" + std::to_string(leds);
    addOnce(row + "/pinlampd", [=] { return runHost(leds); });
    addOnce(row + "/libuv", [=] { return runLibuv(leds); });
  }
  addOnce("phase/pinlampd", &timeHost);
  addOnce("phase/libuv", &timeLibuv);
  addStart(1'000, "1,000");
  addStart(10'000, nullptr);
  if (!quick()) addStart(100'000, "100,000");
}

}  // namespace Bench
