// Shared by the agent's tests: a manual clock, a log of pin writes, and the trace records.
#pragma once

#include <gtest/gtest.h>

#include "platform/model/colourmembers.h"
#include "platform/model/corvelgpioledsystemconfigdir.h"
#include "platform/model/ledconfig.h"
#include "platform/zel/core/trace.h"
#include "platform/zel/notify/activity.h"
#include "tests/support.h"

namespace Bench {

using Hardware::Gpio::CorvelGpioLedSystemConfigDir;
using Hardware::Gpio::CorvelPinConfig;
using Hardware::Led::LedConfig;
using Support::Lines;
using Zel::Name;
using Zel::Ptr;

// "green red" and seconds; "" is dark.
inline Led::LightSetting setting(std::string_view colours, double interval = 0.0) {
  Led::LightSetting result;
  for (const auto& colour : Led::kColourMembers)
    result.*colour.lit = colours.find(colour.name) != std::string_view::npos;
  result.flashInterval = interval;
  return result;
}

// Logs every write of a pin, within the write, then does what its test wants.
class PinSpy : public Zel::Reactor<PinSpy, CorvelPinConfig::NotifieeConst> {
 public:
  static constexpr const char* kTypeName = "Test::PinSpy";
  PinSpy(const Ptr<const CorvelPinConfig>& pin, Lines& writes) : Reactor(pin), writes_(writes) {}
  void onValuezelImmediate() override {
    writes_.push_back(notifier()->name().stdString() + "=" + std::to_string(notifier()->value()));
    if (act) act();
  }
  std::function<void()> act;

 private:
  Lines& writes_;
};

class Test : public testing::Test {
 protected:
  Test() {
    Zel::traceSinkIs([this](std::string_view line) {
      records.emplace_back(line.substr(line.find(' ') + sizeof " Pinlamp"));
    });
  }
  ~Test() override {
    Zel::traceSinkIs(nullptr);
    Zel::traceLevelsIs("Pinlamp/");
  }

  Lines takeWrites() { return std::exchange(writes, {}); }
  // "LEVEL Pinlamp:LINE FUNCTION: MESSAGE" each.
  Lines takeRecords() { return std::exchange(records, {}); }
  Lines stepTo(double now) {
    time.nowIs(now);
    manager.step();
    return takeWrites();
  }
  Ptr<PinSpy> spy(const Ptr<CorvelPinConfig>& pin) {
    return spies.emplace_back(Zel::allocate<PinSpy>(pin, writes));
  }

  Zel::System::ManualTime time{10.0};
  Zel::ActivityManager manager;
  Lines writes, records;
  std::vector<Ptr<PinSpy>> spies;
};

}  // namespace Bench
