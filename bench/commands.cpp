// pinlampctl on a state database of many LEDs: the time of a command, its start included.
#include <fstream>

#include "bench/appliance.h"
#include "bench/client.h"
#include "bench/measure.h"

namespace Bench {

namespace {

constexpr std::size_t kMany = 100'000;

// A configuration of LEDs with a mapping and a pin each, as load takes it.
void writeConfiguration(const std::string& file) {
  std::ofstream out(file);
  out << "{\n\"" << Paths::kMappings << R"(": {"type": "Hardware::Gpio::GpioLedSystemConfigDir"},)"
      << "\n\"" << Paths::kLeds << R"(": {"type": "Hardware::Led::LedSystemConfigDir"})";
  for (std::size_t led = 0; led < kMany; ++led)
    out << ",\n\"" << Paths::kMappings << "/gpioLeds/" << ledName(led)
        << R"(": {"type": "Hardware::Gpio::GpioLedConfig", "gpioGreenName": [")" << pinName(led, 1)
        << R"("], "ready": true},)"
        << "\n\"" << Paths::kLeds << "/leds/" << ledName(led)
        << R"(": {"type": "Hardware::Led::LedConfig", "lightSetting": {"green": true}})";
  out << "\n}\n";
}

class Commands {
 public:
  explicit Commands(const std::string& store) : host_(store) { host_.waitUntilDriven(0); }

  std::vector<Figure> times() {
    writeConfiguration(folder_.file("leds.json"));
    std::vector<Figure> figures{{"load", time({"load", folder_.file("leds.json")})}};
    host_.waitUntilDriven(kMany);
    figures.push_back({"dump", time({"dump"})});
    std::vector<double> single;
    for (std::size_t i = 0; i < 20; ++i) single.push_back(time({"led", "set", ledName(i * 500), "red"}));
    figures.push_back({"led set NAME", quantile(single, 0.5)});
    figures.push_back({"led set 'Ethernet*'", time({"led", "set", "Ethernet*", "red"})});
    return figures;
  }

 private:
  double time(std::vector<std::string> words) const {
    words.insert(words.begin(), {buildFolder() + "/bin/pinlampctl", "--socket", host_.socket()});
    const double start = now();
    Child(words, folder_.file("output")).wait();
    return now() - start;
  }

  const TemporaryFolder folder_;
  RunningHost host_;
};

}  // namespace

void addCommands() {
  for (const std::string store : {"memory:", "sqlite:"})
    addOnce("commands/" + store, [store] { return Commands(store).times(); });
}

}  // namespace Bench
