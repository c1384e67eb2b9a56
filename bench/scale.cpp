// Whether the cost of one change depends on the number of LEDs.
#include <array>

#include "bench/appliance.h"
#include "bench/measure.h"

namespace Bench {

namespace {

struct Costs {
  double removal;
  double addition;
};

// Removes LEDs and their mappings one by one, then adds them again, each with the pass that executes the
// change. Picks LEDs at random; the costs are medians of single changes.
Costs change(std::size_t leds) {
  Zel::ActivityManager manager;
  Appliance appliance(leds);
  const std::size_t count = std::min<std::size_t>(leds / 2, 2000);
  auto order = shuffled(leds);
  order.resize(count);
  const auto each = [&](void (Appliance::*change)(std::size_t)) {
    std::vector<double> costs;
    for (const std::uint32_t led : order) {
      const double start = threadTime();
      (appliance.*change)(led);
      manager.step();
      costs.push_back(threadTime() - start);
    }
    return quantile(costs, 0.5);
  };
  const double removal = each(&Appliance::remove);
  return {removal, each(&Appliance::add)};
}

}  // namespace

void addScale() {
  static constexpr std::array<std::pair<std::size_t, const char*>, 3> kSizes{
      {{1'000, "1,000"}, {10'000, "10,000"}, {100'000, "100,000"}}};
  for (const auto& [leds, name] : kSizes) {
    addOnce("removal/" + std::string(name), [leds = leds] {
      return std::vector<Figure>{{"", change(leds).removal}};
    });
    addOnce("addition/" + std::string(name), [leds = leds] {
      return std::vector<Figure>{{"", change(leds).addition}};
    });
  }
}

}  // namespace Bench
