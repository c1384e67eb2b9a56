// The GPIO line agent: makes the pin values of the state database show on real lines.
//
// It follows the pins under "hardware/corvel/gpio/config" and their wiring (Hardware::Gpio::GpioLineInit)
// under "hardware/corvel/gpio/init", and says under "hardware/corvel/gpio/status"
// (Hardware::Gpio::GpioLineStatus) how each line fares. Everything that changed in one pass of the loop goes
// out at its end, with the values of that time.
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

namespace Pinlamp {

// Owned by the host that made it. When it ends in order, lines are left as their wiring says; when it is
// killed, as the chip leaves them.
class LineAgent : public Zel::Described<LineAgent, Warden::CAgent>, private Zel::PassEnd {
 public:
  static constexpr auto attributes() { return std::tuple{}; }
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

  template <class T, class R>
  Zel::Ptr<T> follow(const Zel::Dir& dir, Zel::Name name, Zel::PtrMap<R>& reactors);
  void pinChanged(Zel::Name name);
  void wiringChanged(Zel::Name name);
  void valueChanged(const Hardware::Gpio::CorvelPinConfig& pin);
  void wiringValueChanged(const Hardware::Gpio::GpioLineInit& wiring);
  void onPassEnd() override;
  void publish(Zel::Name name);

  const std::unique_ptr<Gpio::LineProvider> lines_;
  Gpio::LineDriver driver_;
  bool due_ = false;  // something changed in this pass, or is to be tried again
  Zel::Ptr<Zel::Dir> statusDir_;
  Zel::Ptr<PinsReactor> pins_;
  Zel::Ptr<WiringsReactor> wirings_;
  Zel::Ptr<RetryReactor> retry_;
  Zel::PtrMap<PinReactor> pinReactors_;
  Zel::PtrMap<WiringReactor> wiringReactors_;
};

}  // namespace Pinlamp
