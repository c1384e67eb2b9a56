// The policy agent: from a fact to a pin, requests that end, and an idle host with rules and requests.
#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "agent/agent.h"
#include "agent/factory.h"
#include "bench/appliance.h"
#include "bench/client.h"
#include "bench/measure.h"
#include "host/rpc/changes.h"
#include "host/rpc/json.h"
#include "platform/statedb/store/memorystore.h"
#include "policy/arbiter.h"
#include "policy/policyagent.h"

namespace Bench {

namespace {

constexpr std::size_t kRules = 500;   // and as many requests
constexpr std::size_t kFirst = 1000;  // LEDs from here on have a rule and a request
constexpr std::size_t kOfEach = 10;   // LEDs of a rule
constexpr std::size_t kGreen = 1;     // of Led::kPinColours
constexpr std::size_t kExpiries = 500;

Json put(const std::string& path, const char* type, const Json& attributes) {
  return {{"op", "put"}, {"path", path}, {"type", type}, {"attributes", attributes}};
}

Json factPut(std::size_t led, bool carrier) {
  return put("facts/link/swp" + std::to_string(led), "Facts::Link", {{"carrier", carrier}});
}

// Rules, each for ten LEDs by ten facts, and requests for the same LEDs. All facts are in one directory, so
// that each rule looks at each change.
Json rulesAndRequests() {
  Json changes = Json::array();
  for (std::size_t rule = 0; rule < kRules; ++rule) {
    const std::string number = std::to_string(kFirst / kOfEach + rule);
    changes.push_back(put("hardware/led/rule/r" + number, "Hardware::Led::LightRule",
                          {{"fact", "facts/link/swp" + number + '*'},
                           {"attribute", "carrier"},
                           {"comparison", "is"},
                           {"value", true},
                           {"led", "Ethernet" + number + '*'},
                           {"lightSetting", {{"green", true}}}}));
    changes.push_back(put(
        "hardware/led/request/q" + number, "Hardware::Led::LightRequest",
        {{"leds", {"Ethernet" + number + '*'}}, {"lightSetting", {{"red", true}}}, {"priority", "base"}}));
  }
  return changes;
}

Json facts() {
  Json changes = Json::array();
  for (std::size_t led = 0; led < kLeds; ++led) changes.push_back(factPut(led, false));
  return changes;
}

Json ledsAndMappings() {
  Json changes = {put("hardware/led/config", "Hardware::Led::LedSystemConfigDir", Json::object()),
                  put("hardware/gpio/config/led", "Hardware::Gpio::GpioLedSystemConfigDir", Json::object())};
  for (std::size_t led = 0; led < kLeds; ++led) {
    Json pins = {{"ready", true}};
    for (std::size_t colour = 0; colour < kPins; ++colour)
      pins[Led::kPinColours[colour].mappedPins] = {pinName(led, colour)};
    changes.push_back(
        put("hardware/led/config/leds/" + ledName(led), "Hardware::Led::LedConfig", {{"theme", ""}}));
    changes.push_back(
        put("hardware/gpio/config/led/gpioLeds/" + ledName(led), "Hardware::Gpio::GpioLedConfig", pins));
  }
  return changes;
}

// The LED agent and the policy agent over a store in memory.
class Machine {
 public:
  Machine() {
    write(ledsAndMappings(), Statedb::Durability::stored);
    write(rulesAndRequests(), Statedb::Durability::stored);
    write(facts(), Statedb::Durability::volatile_);
    for (const auto& agent : agents_) {
      agent->entityManagerIs(database_);
      agent->doInit();
    }
    for (int pass = 0; pass < 10; ++pass) turn();
  }
  ~Machine() { database_->stop(); }

  // Seconds of processor time from a write of a fact, as by the facts agent, until the LED's pin follows.
  double change(std::size_t led) {
    const auto pin = Zel::dynamicPtrCast<Hardware::Gpio::CorvelPinConfig>(
        database_->entityAt(Statedb::Path(pinPath(led, kGreen))));
    if (!pin) throw std::runtime_error(ledName(led) + " has no pin");
    const std::uint32_t lit = pin->value() == 0 ? 1 : 0;
    const auto changes = changesOf(Json::array({factPut(led, lit == 1)}));
    const double start = threadTime();
    store_.write(changes, Statedb::Durability::volatile_);
    for (int turns = 0; pin->value() != lit; turn())
      if (++turns > 10) throw std::runtime_error(ledName(led) + " does not follow its fact");
    return threadTime() - start;
  }

 private:
  static Statedb::Changes changesOf(const Json& changes) {
    return Host::changesFrom(Host::parseJson(changes.dump()));
  }
  void write(const Json& changes, Statedb::Durability durability) {
    store_.write(changesOf(changes), durability);
  }
  // As the host's.
  void turn() {
    store_.flush();
    manager_.step();
  }

  Zel::ActivityManager manager_;
  Statedb::MemoryStore store_;
  const Zel::Ptr<Statedb::EntityManager> database_ = Zel::allocate<Statedb::EntityManager>(store_);
  const std::array<Zel::Ptr<Warden::CAgent>, 2> agents_{
      Pinlamp::agentFactory("lamps"), Zel::allocate<Pinlamp::PolicyAgent>("policy", [] { return 1.7e9; })};
};

std::vector<Figure> factToPin() {
  Machine machine;
  std::vector<double> times;
  const std::vector<std::uint32_t> order = shuffled(kRules * kOfEach);
  for (std::size_t i = 0; i < (quick() ? 1000 : order.size()); ++i)
    times.push_back(machine.change(kFirst + order[i]));
  return {{"p50", quantile(times, 0.5)}, {"p99", quantile(times, 0.99)}};
}

// Seconds for one of so many requests to end, with the look at what the LED shows then.
double expiry(std::size_t requests) {
  Policy::Arbiter arbiter(0);
  for (std::size_t led = 0; led < kLeds; ++led) arbiter.ledIs(ledName(led));
  const auto order = shuffled(requests);
  for (std::size_t i = 0; i < requests; ++i)
    arbiter.requestIs({{}, "q" + std::to_string(i)}, {.leds = {ledName(order[i] % kLeds)},
                                                      .setting = steady(i % kPins),
                                                      .priority = 100,
                                                      .ends = 1 + static_cast<double>(order[i]) * 0.01});
  arbiter.takeChanged();
  arbiter.takeTouched();
  std::size_t ended = 0;
  const double start = threadTime();
  while (ended < kExpiries) {
    ended += arbiter.expire(arbiter.nextExpiry()).size();
    for (const Zel::Name& led : arbiter.takeChanged()) benchmark::DoNotOptimize(arbiter.setting(led));
  }
  return (threadTime() - start) / kExpiries;
}

// How often the threads of a process have slept and were woken.
double wakeUps(pid_t pid) {
  double sum = 0;
  for (const auto& thread : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    std::ifstream status(thread.path() / "status");
    for (std::string word; status >> word;)
      if (double count = 0; word == "voluntary_ctxt_switches:" && status >> count) sum += count;
  }
  return sum;
}

double idleWakeUps() {
  const RunningHost host("memory:", {buildFolder() + "/lib/libpinlamp-policy.so"});
  host.fill(kLeds);
  {
    Client client(host.socket());
    client.call("write", {{"changes", rulesAndRequests()}});
    for (std::size_t led = kFirst; led < kFirst + kRules * kOfEach; led += 500) {
      Json changes = Json::array();
      for (std::size_t i = 0; i < 500; ++i) changes.push_back(factPut(led + i, i % 2 == 0));
      client.call("write", {{"changes", changes}, {"durability", "volatile"}});
    }
    while (client.call("read", {{"path", "hardware/led/ruleStatus"}})["entities"].size() < kRules) {
    }
  }
  const double seconds = quick() ? 2 : 10;
  std::this_thread::sleep_for(std::chrono::seconds(1));  // until the client's end was handled
  const double before = wakeUps(host.process().pid());
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  return (wakeUps(host.process().pid()) - before) / seconds;
}

}  // namespace

void addPolicy() {
  addOnce("policy/fact to pin", factToPin);
  static constexpr std::array<std::pair<std::size_t, const char*>, 3> kSizes{
      {{1'000, "1,000"}, {10'000, "10,000"}, {100'000, "100,000"}}};
  for (const auto& [requests, name] : kSizes)
    addOnce("expiry/" + std::string(name), [requests = requests] {
      return std::vector<Figure>{{"", expiry(requests)}};
    });
  addOnce("policy-idle/pinlampd", [] { return std::vector<Figure>{{"", idleWakeUps()}}; });
}

}  // namespace Bench
