// An appliance in this process: the directories, the real configuration reactor, and a state machine for each
// LED, on the activity manager that is current at construction. The pins are created first, in an order
// unrelated to the LEDs', as after a restart.
#pragma once

#include <string>
#include <vector>

#include "platform/zel/notify/activity.h"
#include "reactor/configreactor.h"

namespace Bench {

class Appliance {
 public:
  explicit Appliance(std::size_t leds);
  ~Appliance();
  Appliance(const Appliance&) = delete;
  Appliance& operator=(const Appliance&) = delete;

  std::size_t size() const { return leds_.size(); }
  Hardware::Led::LedConfig& led(std::size_t number) { return *leds_[number]; }
  // The pins of one colour, by name.
  const Zel::PtrMap<Hardware::Gpio::CorvelPinConfig>& pins(std::size_t number, std::size_t colour) const;
  std::size_t machines() const { return reactor_->gpioLedStateMachine().size(); }

  // Adds the LED, mapping and pins of that number; removes the LED and the mapping. The agent follows in the
  // next pass.
  void add(std::size_t number);
  void remove(std::size_t number);

 private:
  Zel::Ptr<Hardware::Led::LedSystemConfigDir> ledDir_;
  Zel::Ptr<Hardware::Gpio::GpioLedSystemConfigDir> mappingDir_;
  Zel::Ptr<Zel::Dir> pinDir_;
  Zel::Ptr<Pinlamp::ConfigReactor> reactor_;
  std::vector<Hardware::Led::LedConfig*> leds_;
};

// "Ethernet17", "Ethernet17-green".
std::string ledName(std::size_t number);
std::string pinName(std::size_t number, std::size_t colour);

}  // namespace Bench
