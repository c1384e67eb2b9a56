// The GPIO line agent: makes the pin values of the state database show on real lines.
//
// It follows the pins under "hardware/corvel/gpio/config" and their wiring (Hardware::Gpio::GpioLineInit)
// under "hardware/corvel/gpio/init", and publishes the state of each line under "hardware/corvel/gpio/status"
// (Hardware::Gpio::GpioLineStatus). The changes of one pass of the loop are written at its end.
//
// Activity thread only.
#pragma once

#include <memory>

#include "gpio/linedriver.h"
#include "platform/model/corvelpinconfig.h"
#include "platform/model/gpiolineinit.h"
#include "platform/model/gpiolinestatus.h"
#include "platform/warden/cagent.h"
#include "platform/zel/notify/activity.h"
#include "platform/zel/notify/slot.h"

namespace Pinlamp {

// Owned by the host that made it. When it is shut down, lines are left as their wiring has it; when it is
// killed, as the chip leaves them.
class LineAgent : public Zel::Described<LineAgent, Warden::CAgent>, private Zel::PassEnd {
 public:
  static constexpr auto attributes() { return std::tuple{}; }
  static constexpr auto reactors() {
    using A = LineAgent;
    return std::tuple{&A::pins_, &A::wirings_, &A::retry_, &A::pinReactors_, &A::wiringReactors_};
  }
  static const Zel::TypeNode& typeNode();

  LineAgent(Zel::Name name, std::unique_ptr<Gpio::LineProvider> lines);

  void doInit() override;
  // Throws std::runtime_error where a mount failed.
  void doMountsComplete(Statedb::MountStatus status,
                        const Zel::Ptr<Statedb::EntityManager>& entityManager) override;

 protected:
  ~LineAgent() override;

 private:
  class PinsReactor;
  class PinReactor;
  class WiringsReactor;
  class WiringReactor;
  class RetryReactor;

  // An entity came, went, or became another object.
  void pinChanged(Zel::Name name);
  void wiringChanged(Zel::Name name);
  void valueChanged(const Hardware::Gpio::CorvelPinConfig& pin);
  void wiringValueChanged(const Hardware::Gpio::GpioLineInit& wiring);
  void retry() { due_ = true; }
  void onPassEnd() override;
  void publish(Zel::Name name);

  const std::unique_ptr<Gpio::LineProvider> lines_;
  Gpio::LineDriver driver_;
  bool due_ = false;  // something changed in this pass, or is to be retried
  Zel::Ptr<Zel::Dir> statusDir_;
  Zel::Slot<PinsReactor> pins_;
  Zel::Slot<WiringsReactor> wirings_;
  Zel::Slot<RetryReactor> retry_;
  Zel::SlotMap<PinReactor> pinReactors_;
  Zel::SlotMap<WiringReactor> wiringReactors_;
};

}  // namespace Pinlamp
