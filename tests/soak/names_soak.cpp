// Puts and deletes LEDs of ever new names, each with a mapping to a pin of its own, on a host with the LED
// agent. At the end the host must have as many names as early on, and the memory that it had then.
//   names_soak PINLAMPD AGENT [LEDS [STORE]]     LEDS: 10000000 by default; STORE: memory: or a URL
// Prints the memory at ten points. Exits with 1 if the host has grown.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <stdexcept>
#include <string>

#include "ctl/appliance.h"
#include "ctl/client.h"
#include "tests/host/folder.h"

namespace {

using Ctl::Json;

constexpr std::int64_t kAtOnce = 200;     // LEDs in a batch
constexpr std::int64_t kEarly = 100'000;  // LEDs before the first measurement; fewer in a short run
constexpr std::int64_t kGrowth = 2048;    // KiB that fragmentation may take

// A pinlampd, killed by the destructor.
class Process {
 public:
  Process(const std::string& program, const std::string& agent, const std::string& store)
      : process_(::fork()) {
    if (process_ != 0) return;
    ::execl(program.c_str(), program.c_str(), "--store", store.c_str(), "--agent", agent.c_str(), "--socket",
            socket().c_str(), nullptr);
    ::_exit(127);
  }
  ~Process() {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  std::string socket() const { return folder_.at("socket"); }
  // Resident, in KiB.
  std::int64_t memory() const {
    std::ifstream file("/proc/" + std::to_string(process_) + "/status");
    for (std::string word; file >> word;)
      if (std::int64_t size = 0; word == "VmRSS:" && file >> size) return size;
    throw std::runtime_error("the host has ended");
  }

 private:
  const Folder folder_;
  const pid_t process_;
};

// Waits until the host listens.
void awaitHost(const Process& host) {
  while (true) {
    try {
      Ctl::Client(host.socket()).call("hello");
      return;
    } catch (const Ctl::ConnectionLost&) {
      static_cast<void>(host.memory());
      ::usleep(10'000);
    }
  }
}

Json put(const std::string& path, const char* type, Json attributes) {
  return {{"op", "put"}, {"path", path}, {"type", type}, {"attributes", std::move(attributes)}};
}

void putAndDelete(Ctl::Client& client, std::int64_t from, std::int64_t count) {
  Json puts = Json::array(), dels = Json::array();
  for (std::int64_t i = from; i < from + count; ++i) {
    const std::string number = std::to_string(i), led = "Led" + number + "/1";
    puts.push_back(put(Ctl::ledPath(led), Ctl::kLedType, {{"lightSetting", {{"green", true}}}}));
    puts.push_back(put(Ctl::mapPath(led), Ctl::kMapType,
                       {{"gpioGreenName", Json::array({"gpio" + number})}, {"ready", true}}));
    for (const auto& path : {Ctl::ledPath(led), Ctl::mapPath(led)})
      dels.push_back({{"op", "del"}, {"path", path}});
  }
  client.write(std::move(puts));
  client.write(std::move(dels));
}

struct Size {
  std::int64_t memory;
  std::int64_t names;
};

Size sizeOf(const Process& host, Ctl::Client& client) {
  const Json status = client.call("status");
  return {host.memory(), status.at("names").get<std::int64_t>()};
}

bool soak(const Process& host, std::int64_t leds) {
  awaitHost(host);
  Ctl::Client client(host.socket());
  const std::int64_t before = std::min(kEarly, leds / 3);
  Size early{};
  for (std::int64_t done = 0; done < leds; done += kAtOnce) {
    putAndDelete(client, done, std::min(kAtOnce, leds - done));
    if (done / kAtOnce == before / kAtOnce) early = sizeOf(host, client);
    if (done % std::max(leds / 10, kAtOnce) < kAtOnce)
      std::printf("%9lld LEDs: %lld KiB\n", static_cast<long long>(done),
                  static_cast<long long>(host.memory()));
  }
  const Size late = sizeOf(host, client);
  std::printf("after %lld LEDs %lld KiB and %lld names, after %lld %lld KiB and %lld names\n",
              static_cast<long long>(before), static_cast<long long>(early.memory),
              static_cast<long long>(early.names), static_cast<long long>(leds),
              static_cast<long long>(late.memory), static_cast<long long>(late.names));
  return late.memory <= early.memory + kGrowth && late.names <= early.names;
}

int run(int argc, char** argv) {
  if (argc < 3) throw std::runtime_error("usage: names_soak PINLAMPD AGENT [LEDS [STORE]]");
  const std::int64_t leds = argc > 3 ? std::stoll(argv[3]) : 10'000'000;
  if (leds < 10'000) throw std::runtime_error("LEDS must be at least 10000");
  const Process host(argv[1], argv[2], argc > 4 ? argv[4] : "memory:");
  return soak(host, leds) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "names_soak: %s\n", error.what());
    return 2;
  }
}
