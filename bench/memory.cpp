// The heap that an appliance uses. The contestants of the light-setting event measure their worlds, including
// the watchers of the pins; here are the agent without watchers, and the floor.
#include <array>
#include <memory>

#include "bench/appliance.h"
#include "bench/events.h"

namespace Bench {

namespace {

class AgentAlone {
 public:
  AgentAlone(std::size_t leds, std::size_t) : appliance_(leds) {}

 private:
  Appliance appliance_;
};

// The minimum of any program: the settings and the pins.
class BareObjects {
 public:
  BareObjects(std::size_t leds, std::size_t pins) {
    for (std::size_t i = 0; i < leds; ++i) {
      leds_.push_back(std::make_unique<Led::LightSetting>());
      for (std::size_t pin = 0; pin < pins; ++pin) pins_.push_back(std::make_unique<std::uint32_t>());
    }
  }

 private:
  std::vector<std::unique_ptr<Led::LightSetting>> leds_;
  std::vector<std::unique_ptr<std::uint32_t>> pins_;
};

}  // namespace

void addMemory() {
  addMemoryContestant<AgentAlone>("agent alone");
  addMemoryContestant<BareObjects>("bare objects");
}

}  // namespace Bench
