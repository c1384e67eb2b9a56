// The entry points of the plug-in: Pinlamp, the line agent on the kernel's chips, and PinlampSim, the same on
// chips in memory for trials: "sim0", "sim1" and "sim2" of 64 lines each, or those of PINLAMP_SIM_CHIPS
// (LABEL:LINES,…).
#include <cstdlib>
#include <sstream>
#include <stdexcept>

#include "gpio/libgpiodprovider.h"
#include "gpio/lineagent.h"
#include "gpio/simprovider.h"

namespace {

const Zel::TypeRegistration types{&Pinlamp::LineAgent::typeNode};

std::unique_ptr<Gpio::LineProvider> trialBoard() {
  auto board = std::make_unique<Gpio::SimProvider>();
  const char* given = std::getenv("PINLAMP_SIM_CHIPS");
  std::istringstream chips(given ? given : "sim0:64,sim1:64,sim2:64");
  for (std::string chip; std::getline(chips, chip, ',');) {
    unsigned lines = 0;
    const std::size_t colon = chip.rfind(':');
    std::istringstream count(colon == std::string::npos ? "" : chip.substr(colon + 1));
    if (!(count >> lines) || !count.eof() || lines == 0 || colon == 0)
      throw std::runtime_error("PINLAMP_SIM_CHIPS: '" + chip + "' is no chip; write LABEL:LINES,LABEL:LINES");
    board->chipIs(chip.substr(0, colon), lines);
  }
  return board;
}

}  // namespace

namespace Pinlamp {
ZEL_API Zel::Ptr<LineAgent> agentFactory(Zel::Name name) {
  return Zel::allocate<LineAgent>(name, std::make_unique<Gpio::LibgpiodProvider>("pinlamp"));
}
}  // namespace Pinlamp

namespace PinlampSim {
ZEL_API Zel::Ptr<Pinlamp::LineAgent> agentFactory(Zel::Name name) {
  return Zel::allocate<Pinlamp::LineAgent>(name, trialBoard());
}
}  // namespace PinlampSim
