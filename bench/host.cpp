// The running host: what flashing costs it and how late it is, and how long it takes to start.
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

constexpr std::size_t kWatched = 64;  // LEDs whose lateness is taken

double window() { return quick() ? 2 : 4; }

void sleepFor(double seconds) { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); }

// Times between two ticks of one LED, less the interval: how late the second was.
class Lateness {
 public:
  explicit Lateness(double begin) : begin_(begin) {}
  void tick(std::size_t led) {
    const double time = now();
    double& last = last_[led];
    if (last > begin_) late_.push_back(time - last - kFlashInterval);
    last = time;
  }
  std::vector<Figure> figures(double cost) {
    return {{"", cost}, {"late p50", quantile(late_, 0.5)}, {"late p99", quantile(late_, 0.99)}};
  }

 private:
  const double begin_;
  std::map<std::size_t, double> last_;
  std::vector<double> late_;
};

// Has all LEDs flash, their phases spread over one interval.
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

// First the processor time, with nobody watching; then the lateness, as a client sees it.
std::vector<Figure> runHost(std::size_t leds) {
  RunningHost host("memory:");
  host.fill(leds);
  flashAll(host, leds);
  sleepFor(2 * kFlashInterval);
  const double before = host.process().processorTime();
  const double start = now();
  sleepFor(window());
  const double cost = (host.process().processorTime() - before) / (now() - start);

  Client client(host.socket());
  std::map<Json, std::size_t> watches;
  for (std::size_t i = 0; i < kWatched; ++i)
    watches[client.call("watch", {{"path", pinPath(i * leds / kWatched, 1)}})["watch"]] = i;
  Lateness lateness(now());
  for (const double end = now() + window(); now() < end;) {
    const Json message = Json::parse(client.readLine());
    lateness.tick(watches.at(message["params"]["watch"]));
  }
  return lateness.figures(cost);
}

// One timer an LED, which does nothing else.
std::vector<Figure> runLibuv(std::size_t leds) {
  struct Timer {
    uv_timer_t timer;
    std::size_t led;
    Lateness* lateness;
  };
  uv_loop_t loop;
  uv_loop_init(&loop);
  const double begin = now() + 2 * kFlashInterval;
  Lateness lateness(begin);
  std::vector<std::unique_ptr<Timer>> timers;
  for (std::size_t i = 0; i < leds; ++i) {
    const bool watched = i % (leds / kWatched) == 0;
    timers.push_back(std::make_unique<Timer>(Timer{{}, i, watched ? &lateness : nullptr}));
    uv_timer_init(&loop, &timers.back()->timer);
    timers.back()->timer.data = timers.back().get();
    const auto handler = [](uv_timer_t* handle) {
      const auto& self = *static_cast<Timer*>(handle->data);
      if (self.lateness) self.lateness->tick(self.led);
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
  return lateness.figures(cost);
}

// A folder with a SQLite file of so many LEDs; made once.
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
  addStart(1'000, "1,000");
  addStart(10'000, nullptr);
  if (!quick()) addStart(100'000, "100,000");
}

}  // namespace Bench
