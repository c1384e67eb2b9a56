// The shared state database: the latency of a setting, beside what others do with the same server.
#include <hiredis/hiredis.h>

#include <cstring>

#include "bench/appliance.h"
#include "bench/client.h"
#include "bench/measure.h"
#include "bench/member.h"
#include "bench/redis.h"
#include "host/rpc/json.h"

namespace Bench {

namespace {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Durability;

constexpr std::size_t kFewLeds = 100;
constexpr std::size_t kManyReaders = 50;
const std::string kDatabase = "bench";

std::size_t trips() { return quick() ? 500 : 3000; }

std::string settingText(std::size_t trip) {
  return R"({"flashInterval":0.0,")" + std::string(Led::kPinColours[trip % kPins].name) + R"(":true})";
}
// Another colour than the LED has: RunningHost::fill() begins with its number.
Change setting(std::size_t trip) {
  const std::size_t led = trip % kFewLeds;
  return Change::put(std::string(Paths::kLeds) + "/leds/" + ledName(led), "Hardware::Led::LedConfig",
                     "lightSetting", Host::parseJson(settingText(led + trip / kFewLeds + 1)));
}

std::vector<Figure> figuresOf(std::vector<double>& times) {
  times.erase(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(times.size() / 10));  // not warm yet
  return {{"p50", quantile(times, 0.5)}, {"p99", quantile(times, 0.99)}};
}

// `set` sets an LED and returns when it was acknowledged; the readers have it before or after.
std::vector<Figure> timeReaders(Readers& readers, const std::function<void(std::size_t)>& set) {
  std::vector<double> times;
  for (std::size_t trip = 0; trip < trips(); ++trip) {
    const double start = now();
    set(trip);
    times.push_back(readers.wait() - start);
  }
  return figuresOf(times);
}

// From write() in one process to onChanges() in others.
std::vector<Figure> setThroughStore(std::size_t count) {
  const RedisServer server;
  Readers readers(count, [&](const auto& got) {
    Rounds rounds;
    Member(rounds, server.url(kDatabase), Paths::kLeds, got).follow();
  });
  Rounds rounds;
  Member writer(rounds, server.url(kDatabase), Paths::kLeds);
  return timeReaders(
      readers, [&](std::size_t trip) { writer.wait(writer.write({setting(trip)}, Durability::stored)); });
}

// HSET and PUBLISH in one request; the value is in the message.
void setBare(Bare& connection, const std::string& key, const std::string& field, const std::string& value) {
  connection.append({"HSET", key, field, value});
  connection.append({"PUBLISH", key, field + " " + value});
  connection.flush();
  connection.reply();
  connection.reply();
}

std::vector<Figure> setBarely(std::size_t count) {
  const RedisServer server;
  Readers readers(count, [&](const auto& got) {
    Bare connection(server.socket());
    connection.call({"SUBSCRIBE", "leds"});
    for (got();; got()) connection.reply();
  });
  Bare writer(server.socket());
  return timeReaders(readers, [&](std::size_t trip) {
    setBare(writer, "leds", ledName(trip % kFewLeds), settingText(trip / kFewLeds));
  });
}

// A hash for each LED; the event has its name, and the reader asks for the value.
std::vector<Figure> setWithKeyspaceEvents(std::size_t count) {
  const RedisServer server;
  Bare writer(server.socket());
  writer.call({"CONFIG", "SET", "notify-keyspace-events", "Kh"});
  const std::string channel = "__keyspace@0__:";
  Readers readers(count, [&](const auto& got) {
    Bare events(server.socket());
    Bare values(server.socket());
    events.call({"PSUBSCRIBE", channel + "led:*"});
    for (got();; got()) {
      const Bare::Reply event = events.reply();
      values.call({"HGETALL", event->element[2]->str + channel.size()});
    }
  });
  return timeReaders(readers, [&](std::size_t trip) {
    writer.call({"HSET", "led:" + ledName(trip % kFewLeds), "lightSetting", settingText(trip / kFewLeds)});
  });
}

// To the pins of an LED agent in another process, and back.
std::vector<Figure> tripThroughStore() {
  const RedisServer server;
  RunningHost host(server.url(kDatabase));
  host.fill(kFewLeds);
  Rounds rounds;
  Member member(rounds, server.url(kDatabase), Paths::kPins);
  std::vector<double> times;
  for (std::size_t trip = 0; trip < trips(); ++trip) {
    const std::size_t before = member.changes();
    const double start = now();
    const Statedb::Ticket ticket = member.write({setting(trip)}, Durability::stored);
    member.waitFor(before + 2);  // one pin goes dark, one is lit
    times.push_back(now() - start);
    member.wait(ticket);
  }
  return figuresOf(times);
}

std::vector<Figure> tripBarely() {
  const RedisServer server;
  Readers agent(1, [&](const auto& got) {
    Bare settings(server.socket());
    Bare pins(server.socket());
    settings.call({"SUBSCRIBE", "leds"});
    for (got();;) {
      settings.reply();
      setBare(pins, "pins", "Ethernet1-green", "1");
    }
  });
  Bare writer(server.socket());
  Bare reader(server.socket());
  reader.call({"SUBSCRIBE", "pins"});
  std::vector<double> times;
  for (std::size_t trip = 0; trip < trips(); ++trip) {
    const double start = now();
    setBare(writer, "leds", ledName(trip % kFewLeds), settingText(trip / kFewLeds));
    reader.reply();
    times.push_back(now() - start);
  }
  return figuresOf(times);
}

}  // namespace

void addShared() {
  for (const auto& [row, count] : {std::pair("shared-set", 1UL), std::pair("shared-readers", kManyReaders)}) {
    addOnce(row + std::string("/pinlamp"), [count = count] { return setThroughStore(count); });
    addOnce(row + std::string("/HSET + PUBLISH"), [count = count] { return setBarely(count); });
    addOnce(row + std::string("/keyspace"), [count = count] { return setWithKeyspaceEvents(count); });
  }
  addOnce("shared-trip/pinlamp", &tripThroughStore);
  addOnce("shared-trip/HSET + PUBLISH", &tripBarely);
}

}  // namespace Bench
