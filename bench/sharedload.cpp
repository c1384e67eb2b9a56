// The shared state database under load: batches of pins, the server's share, a snapshot, many hosts.
#include <hiredis/hiredis.h>
#include <unistd.h>

#include <deque>

#include "agent/agent.h"
#include "agent/factory.h"
#include "bench/appliance.h"
#include "bench/client.h"
#include "bench/measure.h"
#include "bench/member.h"
#include "bench/redis.h"
#include "bench/table.h"
#include "host/rpc/json.h"
#include "host/store/stores.h"

namespace Bench {

namespace {

using Statedb::Change;
using Statedb::Changes;
using Statedb::Durability;
using Statedb::Path;

constexpr std::size_t kLoadLeds = 2'560;
constexpr std::size_t kSnapshotLeds = 100'000;

std::size_t loadEvents() { return quick() ? 20'000 : 100'000; }

// The pins of each LED, and the changes of an event: all four pins of one LED get a value.
class Events {
 public:
  Events() {
    for (std::size_t led = 0; led < kLoadLeds; ++led)
      for (std::size_t colour = 0; colour < kPins; ++colour) {
        names_.push_back(pinName(led, colour));
        paths_.emplace_back(pinPath(led, colour));
      }
  }
  const std::string& name(std::size_t event, std::size_t colour) const {
    return names_[place(event, colour)];
  }
  // Each pin gets another value in every round over the LEDs.
  static std::uint32_t value(std::size_t event, std::size_t colour) {
    return (event / kLoadLeds + colour) % 2 == 0;
  }
  Changes batch(std::size_t first, std::size_t count) const {
    Changes changes;
    for (std::size_t event = first; event < first + count; ++event)
      for (std::size_t colour = 0; colour < kPins; ++colour)
        changes.push_back(Change::put(paths_[place(event, colour)], type_, attribute_, value(event, colour)));
    return changes;
  }

 private:
  static std::size_t place(std::size_t event, std::size_t colour) {
    return event % kLoadLeds * kPins + colour;
  }
  std::vector<std::string> names_;
  std::vector<Path> paths_;
  // As an agent has them.
  const Zel::Name type_{"Hardware::Gpio::CorvelPinConfig"}, attribute_{"value"};
};

// Runs batches for every LED once, and then times them.
struct Load {
  double wall = 0, server = 0;  // seconds an event
};
Load timeLoad(const RedisServer& server, std::size_t events, const std::function<void(std::size_t)>& batch) {
  std::size_t event = 0;
  for (; event < kLoadLeds; event += events) batch(event);
  const double before = server.processorTime();
  const double start = now();
  for (; event < kLoadLeds + loadEvents(); event += events) batch(event);
  const auto count = static_cast<double>(event - kLoadLeds);
  return {(now() - start) / count, (server.processorTime() - before) / count};
}
std::vector<Figure> figuresOf(const char* contestant, const Load& load) {
  results().add(std::string("shared-server/") + contestant, "", load.server);
  return {{"", load.wall}};
}

// Stored rows: a ticket is done when the entry of its batch has come back. `ahead` batches wait for theirs.
std::vector<Figure> loadStored(const char* contestant, std::size_t events, std::size_t ahead) {
  const RedisServer server;
  const Events all;
  Rounds rounds;
  Member writer(rounds, server.url("bench&log=1000"), Paths::kPins);
  std::deque<Statedb::Ticket> tickets;
  const auto batch = [&](std::size_t event) {
    tickets.push_back(writer.write(all.batch(event, events), Durability::stored));
    for (; tickets.size() > ahead; tickets.pop_front()) writer.wait(tickets.front());
  };
  return figuresOf(contestant, timeLoad(server, events, batch));
}

// As an agent publishes: volatile rows, which another store has before the next batch is written.
double loadVolatile(std::size_t events) {
  const RedisServer server;
  const Events all;
  Rounds rounds;
  Member writer(rounds, server.url("bench&log=1000"), Paths::kPins);
  Member reader(rounds, server.url("bench&log=1000"), Paths::kPins);
  std::size_t changes = 0;
  return timeLoad(server, events,
                  [&](std::size_t event) {
                    const Changes batch = all.batch(event, events);
                    writer.write(batch, Durability::volatile_);
                    reader.waitFor(changes += batch.size());
                  })
      .server;
}

// Four requests sent together, one for each pin. Nobody is notified.
std::vector<Figure> loadHsets(const char* contestant) {
  const RedisServer server;
  const Events all;
  Bare writer(server.socket());
  const auto batch = [&](std::size_t event) {
    for (std::size_t colour = 0; colour < kPins; ++colour)
      writer.append({"HSET", "pins", all.name(event, colour), Events::value(event, colour) ? "1" : "0"});
    for (std::size_t colour = 0; colour < kPins; ++colour) writer.reply();
  };
  return figuresOf(contestant, timeLoad(server, 1, batch));
}

// One HSET and one PUBLISH for all pins of the batch, with a subscriber.
std::vector<Figure> loadBare(const char* contestant, std::size_t events) {
  const RedisServer server;
  const Events all;
  const Readers reader(1, [&](const auto& got) {
    Bare connection(server.socket());
    connection.call({"SUBSCRIBE", "pins"});
    for (got();;) connection.reply();
  });
  Bare writer(server.socket());
  const auto batch = [&](std::size_t first) {
    Bare::Words words{"HSET", "pins"};
    std::string message;
    for (std::size_t event = first; event < first + events; ++event)
      for (std::size_t colour = 0; colour < kPins; ++colour) {
        const char* value = Events::value(event, colour) ? "1" : "0";
        words.insert(words.end(), {all.name(event, colour), value});
        message.append(all.name(event, colour)).append(" ").append(value).append("\n");
      }
    writer.append(words);
    writer.append({"PUBLISH", "pins", message});
    writer.reply();
    writer.reply();
  };
  return figuresOf(contestant, timeLoad(server, events, batch));
}

// A server with the LEDs, kept for all repetitions.
const RedisServer& filledServer() {
  static RedisServer server;
  static const bool filled = [] {
    Rounds rounds;
    Member writer(rounds, server.url("bench"), Paths::kPins);
    for (std::size_t led = 0; led < kSnapshotLeds;) {
      Changes changes;
      for (const std::size_t end = led + 1000; led < end; ++led)
        changes.push_back(Change::put(std::string(Paths::kLeds) + "/leds/" + ledName(led),
                                      "Hardware::Led::LedConfig", "lightSetting",
                                      Host::parseJson(R"({"flashInterval":0.0,"green":true})")));
      writer.wait(writer.write(changes, Durability::stored));
    }
    return true;
  }();
  (void)filled;
  return server;
}

// Until the LED agent has mounted the rows, and the longest round until then; the longest one while it reads
// them again, after other settings were shown, as --when-lost does.
std::vector<Figure> mountSnapshot() {
  const RedisServer& server = filledServer();
  const double start = now();
  Rounds rounds;
  Zel::ActivityManager activity;
  const auto store = Host::makeStore(server.url("bench"), rounds.loop(), [](const std::string&) {});
  const auto manager = Zel::allocate<Statedb::EntityManager>(*store);
  const auto agent = Pinlamp::agentFactory("agent");
  agent->entityManagerIs(manager);
  agent->doInit();
  store->announce({.pid = ::getpid(), .publishes = {Paths::kPins}});
  rounds.loop().turnIs([&] {
    store->flush();
    activity.step();
    store->flush();
    return activity.nextWakeUp();
  });
  rounds.runUntil([&] { return agent->configReactor() != nullptr; });
  const double took = now() - start, first = rounds.takeLongest();
  const auto leds = manager->membersOf(Paths::kLeds);
  if (leds.size() != kSnapshotLeds) throw std::runtime_error(std::to_string(leds.size()) + " LEDs");
  for (const Path& led : leds) manager->showLocally(led, "lightSetting", Host::parseJson(R"({"red":true})"));
  manager->readAgain(Paths::kLeds);
  rounds.runUntil([&] { return uv_backend_timeout(rounds.loop().uv()) != 0; });
  manager->stop();
  return {{"", took}, {"round", first}, {"again", rounds.takeLongest()}};
}

// Until a new process has the rows, and the most processor time that it takes without a pause.
std::vector<Figure> readSnapshot() {
  const RedisServer& server = filledServer();
  const double start = now();
  Rounds rounds;
  const Member reader(rounds, server.url("bench"), Paths::kLeds);
  return {{"", now() - start}, {"round", rounds.takeLongest()}};
}

std::vector<Figure> readHash() {
  Bare connection(filledServer().socket());
  const std::string key = "{bench}:s:d:" + std::string(Paths::kLeds) + "/leds";
  const double start = now();
  std::size_t fields = 0;
  for (std::string cursor = "0"; fields == 0 || cursor != "0";) {
    const Bare::Reply page = connection.call({"HSCAN", key, cursor, "COUNT", "1000"});
    cursor = page->element[0]->str;
    fields += page->element[1]->elements / 2;
  }
  const double took = now() - start;
  if (fields < 2 * kSnapshotLeds) throw std::runtime_error("only " + std::to_string(fields) + " fields");
  return {{"", took}};
}

}  // namespace

void addSharedLoad() {
  addOnce("shared-batch/1 a batch", [] { return loadStored("1 a batch", 1, 0); });
  addOnce("shared-batch/16 a batch", [] { return loadStored("16 a batch", 16, 3); });
  addOnce("shared-batch/64 a batch", [] { return loadStored("64 a batch", 64, 3); });
  for (const auto& [name, events] :
       {std::pair("volatile 1", 1UL), {"volatile 16", 16UL}, {"volatile 64", 64UL}})
    addOnce(std::string("shared-server/") + name, [=, events = events] {
      return std::vector<Figure>{{"", loadVolatile(events)}};
    });
  addOnce("shared-batch/4 HSETs", [] { return loadHsets("4 HSETs"); });
  for (const auto& [name, events] : {std::pair("HSET + PUBLISH", 1UL), {"HSET + PUBLISH 64", 64UL}})
    addOnce(std::string("shared-batch/") + name,
            [=, name = name, events = events] { return loadBare(name, events); });
  addOnce("shared-snapshot/pinlamp", &readSnapshot);
  addOnce("shared-snapshot/LED agent", &mountSnapshot);
  addOnce("shared-snapshot/HSCAN", &readHash);
}

}  // namespace Bench
