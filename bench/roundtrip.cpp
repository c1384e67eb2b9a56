// The round trip of one event, from a client to the pin value at a watching client: over the control socket,
// a bare socket pair and a message bus; and the disk's share if events are durable.
#include <fcntl.h>
#include <poll.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <future>
#include <map>
#include <memory>
#include <thread>

#include "bench/appliance.h"
#include "bench/client.h"
#include "bench/measure.h"

namespace Bench {

namespace {

constexpr std::size_t kPipelined = 100'000;

std::size_t trips() { return quick() ? 300 : 2000; }

// Times `trip`, called with 0, 1, 2, …
std::vector<Figure> timeTrips(std::size_t count, const std::function<void(std::size_t)>& trip) {
  std::vector<double> times;
  for (std::size_t i = 0; i < count; ++i) {
    const double start = now();
    trip(i);
    times.push_back(now() - start);
  }
  return {{"p50", quantile(times, 0.5)}, {"p99", quantile(times, 0.99)}};
}

// Takes the LEDs in turn; an LED changes its colour in every round.
const Led::LightSetting& nextSetting(std::size_t event) {
  return steady((event % kLeds + event / kLeds + 1) % kPins);
}

// A host that runs until the end, and the number of events sent to it. An additional LED is the sentinel that
// marks the end of a batch.
struct Running {
  explicit Running(const std::string& store) : host(store) { host.fill(kLeds + 1); }
  RunningHost host;
  std::size_t events = 0;
  std::size_t sentinel = kLeds + 1;
};
Running& running(const std::string& store) {
  static std::map<std::string, std::unique_ptr<Running>> all;
  auto& host = all[store];
  if (!host) host = std::make_unique<Running>(store);
  return *host;
}

std::vector<Figure> hostTrips(const std::string& store) {
  Running& running = Bench::running(store);
  Client writer(running.host.socket());
  Client watcher(running.host.socket());
  watcher.call("watch", {{"path", Paths::kPins}});
  std::vector<std::string> requests;
  for (std::size_t i = 0; i < trips(); ++i, ++running.events)
    requests.push_back(setRequest(running.events % kLeds, nextSetting(running.events)));
  return timeTrips(trips(), [&](std::size_t trip) {
    writer.send(requests[trip]);
    watcher.readLine();
    writer.readLine();
  });
}

// Pipelines requests, but reads answers often enough that the host does not disconnect the client.
void sendAhead(Client& client, const std::vector<std::string>& requests) {
  static constexpr std::size_t kChunk = 64;
  static constexpr std::size_t kAhead = 512;
  std::size_t answered = 0;
  for (std::size_t sent = 0; sent < requests.size();) {
    std::string chunk;
    for (const std::size_t end = std::min(sent + kChunk, requests.size()); sent < end; ++sent)
      chunk += requests[sent];
    client.send(chunk);
    for (; answered + kAhead < sent; ++answered) client.readLine();
  }
  for (; answered < requests.size(); ++answered) client.readLine();
}

// Ends when every event was acknowledged and the watching client has seen the sentinel's pin.
double pipelined(const std::string& store) {
  Running& running = Bench::running(store);
  const std::size_t count = quick() ? kPipelined / 10 : kPipelined;
  std::vector<std::string> requests;
  for (std::size_t i = 0; i < count; ++i, ++running.events)
    requests.push_back(setRequest(running.events % kLeds, nextSetting(running.events)));
  requests.push_back(setRequest(kLeds, steady(running.sentinel++ % kPins)));

  Client writer(running.host.socket());
  Client watcher(running.host.socket());
  watcher.call("watch", {{"path", Paths::kPins}});
  const double start = now();
  auto watching = std::async(std::launch::async, [&] {
    const std::string sentinel = ledName(kLeds) + '-';
    while (watcher.readLine().find(sentinel) == std::string_view::npos) {
    }
  });
  sendAhead(writer, requests);
  watching.get();
  return (now() - start) / static_cast<double>(count);
}

std::vector<Figure> socketPairTrips() {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) throw std::runtime_error("socketpair");
  char message[256] = {};
  const Child echo([&] {
    close(ends[0]);
    for (ssize_t got = 0; (got = read(ends[1], message, sizeof message)) > 0;)
      if (write(ends[1], message, static_cast<std::size_t>(got)) != got) return;
  });
  close(ends[1]);
  auto figures = timeTrips(trips() * 5, [&](std::size_t) {
    if (write(ends[0], message, sizeof message) != sizeof message ||
        read(ends[0], message, sizeof message) <= 0)
      throw std::runtime_error("the echo has ended");
  });
  close(ends[0]);
  return figures;
}

// A private message bus, with a service whose method sets an LED and whose signal reports the pin's value.
class Bus {
 public:
  Bus()
      : daemon_({"dbus-daemon", "--session", "--nofork", "--nopidfile", "--address=" + address()},
                folder_.file("log")),
        service_([this] { serve(); }),
        connection_(connect()),
        proxy_(sdbus::createProxy(*connection_, kName, kPath)) {
    proxy_->uponSignal("Value").onInterface(kName).call([this](std::uint32_t, std::uint32_t) { ++values_; });
    proxy_->finishRegistration();
    for (const double end = now() + 10; values_ == 0 && now() < end;) {  // until the service has started
      set(0);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      process();
    }
  }

  std::vector<Figure> trips() {
    return timeTrips(Bench::trips(), [this](std::size_t event) {
      const std::uint64_t before = values_;
      set(event);
      waitFor(before + 1);
    });
  }
  double pipelined() {
    const std::size_t count = quick() ? 2000 : 20'000;
    const std::uint64_t before = values_;
    const double start = now();
    for (std::size_t i = 0; i < count; ++i) {
      set(i);
      while (connection_->processPendingRequest()) {
      }
      if (before + i > values_ + 100) waitFor(values_ + 1);
    }
    waitFor(before + count);
    return (now() - start) / static_cast<double>(count);
  }

 private:
  static constexpr const char* kName = "org.pinlamp.Bench";
  static constexpr const char* kPath = "/leds";

  std::string address() const { return "unix:path=" + folder_.file("bus"); }
  std::unique_ptr<sdbus::IConnection> connect() const {
    setenv("DBUS_SESSION_BUS_ADDRESS", address().c_str(), 1);
    for (const double end = now() + 10;; std::this_thread::sleep_for(std::chrono::milliseconds(5))) try {
        return sdbus::createSessionBusConnection();
      } catch (const sdbus::Error&) {
        if (now() > end) throw;
      }
  }
  void serve() const {
    const auto connection = connect();
    connection->requestName(kName);
    const auto object = sdbus::createObject(*connection, kPath);
    object->registerMethod("Set")
        .onInterface(kName)
        .implementedAs([&](std::uint32_t led, std::uint32_t colour) {
          object->emitSignal("Value").onInterface(kName).withArguments(led, colour);
        })
        .withNoReply();
    object->registerSignal("Value").onInterface(kName).withParameters<std::uint32_t, std::uint32_t>();
    object->finishRegistration();
    connection->enterEventLoop();
  }
  void set(std::size_t event) {
    proxy_->callMethod("Set")
        .onInterface(kName)
        .withArguments(static_cast<std::uint32_t>(event % kLeds), static_cast<std::uint32_t>(event % kPins))
        .dontExpectReply();
  }
  void process() {
    while (connection_->processPendingRequest()) {
    }
  }
  void waitFor(std::uint64_t values) {
    for (process(); values_ < values; process()) {
      const auto data = connection_->getEventLoopPollData();
      pollfd waiting{data.fd, data.events, 0};
      if (poll(&waiting, 1, 10'000) == 0) throw std::runtime_error("the service does not answer");
    }
  }

  TemporaryFolder folder_;
  Child daemon_;
  Child service_;
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IProxy> proxy_;
  std::uint64_t values_ = 0;
};
Bus& bus() {
  static Bus instance;
  return instance;
}

// Times writing one page durably.
std::vector<Figure> syncTrips() {
  const TemporaryFolder folder;
  const int file = open(folder.file("page").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  const std::string page(4096, 'x');
  auto figures = timeTrips(trips() / 4, [&](std::size_t) {
    if (pwrite(file, page.data(), page.size(), 0) != 4096 || fdatasync(file) != 0)
      throw std::runtime_error("fdatasync");
  });
  close(file);
  return figures;
}

std::vector<Figure> single(double value) { return {{"", value}}; }

}  // namespace

void addRoundTrip() {
  addOnce("roundtrip/memory:", [] { return hostTrips("memory:"); });
  addOnce("roundtrip/socket pair", &socketPairTrips);
  addOnce("roundtrip/D-Bus", [] { return bus().trips(); });
  addOnce("pipelined/memory:", [] { return single(pipelined("memory:")); });
  addOnce("pipelined/D-Bus", [] { return single(bus().pipelined()); });
  addOnce("durable/sqlite:", [] { return hostTrips("sqlite:"); });
  addOnce("durable/fsync", &syncTrips);
  addOnce("durable/pipelined", [] { return single(pipelined("sqlite:")); });
}

}  // namespace Bench
