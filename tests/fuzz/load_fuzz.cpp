// Files that `pinlampctl load` reads: accepted or refused, and what they say about a host that has other
// entities. Two files are separated by a NUL.
#include <cstdint>
#include <string>
#include <string_view>

#include "ctl/configuration.h"
#include "tests/fuzz/check.h"

namespace {

using Ctl::Configuration;
using Ctl::Json;

const Json& entitiesThere() {
  static const Json entities = Json::parse(R"([
    {"path": "hardware/led/config", "type": "Hardware::Led::LedSystemConfigDir", "attributes": {}},
    {"path": "hardware/led/config/leds/A", "type": "Hardware::Led::LedConfig",
     "attributes": {"lightSetting": {"green": true}}}])");
  return entities;
}

// A loaded file can be dumped, and loaded again.
void checkAgain(const Json& puts) {
  Json entities = Json::array();
  for (Json put : puts) {
    put.erase("op");
    if (!put.contains("attributes")) put["attributes"] = Json::object();
    entities.push_back(std::move(put));
  }
  Ctl::ConfigurationWriter writer;
  writer.read(Json{{"result", {{"entities", std::move(entities)}}}}.dump());
  const Configuration again({{"dump", writer.text()}});
  Fuzz::check(again.puts() == puts);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const std::size_t end = std::min(bytes.find('\0'), size);
  std::vector<Configuration::Source> sources{{"a.json", std::string(bytes.substr(0, end))}};
  if (end < size) sources.push_back({"b.json", std::string(bytes.substr(end + 1))});
  Fuzz::refusable<Ctl::Refusal>([&] {
    const Configuration configuration(std::move(sources));
    const Json dels = configuration.dels(entitiesThere(), {"hardware/corvel"});
    configuration.differences(entitiesThere(), dels);
    configuration.located("hardware/led/config/leds/A: wrong");
    checkAgain(configuration.puts());
  });
  return 0;
}
