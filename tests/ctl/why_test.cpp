#include "ctl/why.h"

#include <gmock/gmock.h>

#include <functional>

#include "tests/ctl/testhost.h"
#include "tests/host/client.h"

namespace Ctl {
namespace {

using testing::HasSubstr;

enum : std::size_t { kOrange, kGreen, kRed, kYellow };

PinFacts pin(std::size_t colour, const char* name, std::optional<unsigned> value) {
  return {.colour = colour, .name = name, .mapped = true, .driven = true, .value = value};
}

// An LED that is set to green and shows it.
Reasons green() {
  Reasons reasons;
  reasons.lamp.name = "A";
  reasons.lamp.configured = reasons.lamp.mapped = reasons.lamp.ready = reasons.lamp.driven = true;
  reasons.lamp.wanted[kGreen] = reasons.lamp.shows[kGreen] = true;
  reasons.agentRuns = reasons.pinsMade = reasons.driven = true;
  reasons.lineAgentRuns = false;
  reasons.pins = {pin(kGreen, "g", 1U), pin(kRed, "r", 0U)};
  return reasons;
}

TEST(Why, NamesTheObstacleInOneLine) {
  const Json held{{"driven", false}, {"error", "line 3 of gpiochip0 is busy: held by 'x'"}};
  const std::pair<const char*, std::function<void(Reasons&)>> cases[] = {
      {"it is set to green", [](Reasons&) {}},
      {"its setting has no colour", [](Reasons& r) { r.lamp.wanted[kGreen] = false, r.pins[0].value = 0; }},
      {"it flashes green", [](Reasons& r) { r.lamp.flashInterval = 1, r.pins[0].value = 0; }},
      {"it has no mapping", [](Reasons& r) { r.driven = r.lamp.mapped = false; }},
      {"its mapping is not ready", [](Reasons& r) { r.driven = r.lamp.ready = false; }},
      {"it is set to green", [](Reasons& r) { r.lamp.ready = false; }},  // still driven
      {"it has no setting", [](Reasons& r) { r.driven = r.lamp.configured = false; }},
      {"no LED agent runs: its pins stay as they are", [](Reasons& r) { r.agentRuns = r.driven = false; }},
      {"orange is set and has no pin", [](Reasons& r) { r.lamp.wanted[kOrange] = true; }},
      {"green pin g2 was added to a ready mapping",
       [](Reasons& r) { r.pins.push_back(pin(kGreen, "g2", {})), r.pins.back().driven = false; }},
      {"green pin g was removed with the mapping of another LED",
       [](Reasons& r) { r.pins[0].value.reset(); }},
      {"green pin g was removed with the mapping of another LED",
       [](Reasons& r) { r.pins[0].detached = true; }},
      {"red pin r was removed from a ready mapping",
       [](Reasons& r) { r.pins[1].mapped = false, r.pins[1].value = 1; }},
      {"green pin g is also a pin of B and 1 more, which keeps it dark",
       [](Reasons& r) {
         r.pins[0].value = 0, r.pins[0].others = {"B", "C"};
       }},
      {"red pin r is also a pin of B, which lights it",
       [](Reasons& r) { r.pins[1].value = 1, r.pins[1].others = {"B"}; }},
      {"green pin g has no line: there is nothing at hardware/corvel/gpio/init/g",
       [](Reasons& r) {
         r.lineAgentRuns = r.pins[1].wired = true, r.pins[1].line = {{"driven", true}};
       }},
      {"green pin g has a line that is not driven: line 3 of gpiochip0 is busy: held by 'x'",
       [&](Reasons& r) { r.lineAgentRuns.reset(), r.pins[0].line = held; }},
      {"green pin g has a line that stays as it is: no line agent runs",
       [](Reasons& r) {
         r.pins[0].line = {{"driven", true}};
       }},
  };
  for (const auto& [text, make] : cases) {
    Reasons reasons = green();
    make(reasons);
    const auto texts = because(reasons);
    EXPECT_EQ(texts.size(), texts.front().ends_with("re-wired") ? 2U : 1U) << text;
    EXPECT_THAT(texts.front(), testing::StartsWith(text));
  }
}

TEST(Why, PhaseIsThatOfThePendingTick) {
  Reasons reasons = green();
  reasons.machine.tickIn = 3599.4;
  EXPECT_EQ(phaseText(reasons), std::nullopt) << "steady: the tick only ends flashing";
  reasons.lamp.flashInterval = 1;
  EXPECT_EQ(phaseText(reasons), "takes up the new interval at the next tick, in 3,599 s");
  reasons.machine.tickIn = 0.49512;
  EXPECT_EQ(phaseText(reasons), "lit, next tick in 0.495 s");
  reasons.lamp.wanted = {false, false, true, false};
  EXPECT_EQ(phaseText(reasons), "takes up the new colours at the next tick, in 0.495 s");
  reasons.machine.tickIn.reset();
  EXPECT_EQ(phaseText(reasons), std::nullopt);
}

TEST(WhyWithoutTheAgentsProcess, ListsItsFactsAsUnknown) {
  TestHost host;
  host.put(ledPath("A"), kLedType, {{"lightSetting", {{"green", true}}}});
  host.put(mapPath("A"), kMapType, {{"gpioGreenName", {"g"}}, {"ready", true}});
  for (const char* pin : {"g", "old"}) host.pinIs(pin, 1);
  ::Client process(host.socket);
  process.send(
      R"({"jsonrpc": "2.0", "id": 1, "method": "announce", "params": {"pid": 1, "socket": "/gone", )"
      R"("agents": [{"name": "led", "library": "l.so"}], "publishes": ["hardware/corvel/gpio/config"]}})"
      "\n");
  const Json facts = Json::parse(host.ctl({"why", "A", "--json"}).out).at("facts");
  EXPECT_EQ(facts.at("pins are made"), Json());
  EXPECT_EQ(facts.at("LED is configured"), true);
  EXPECT_THAT(host.ctl({"why", "A"}).out,
              testing::ContainsRegex("not known: process [0-9]+ can't reach pinlampd at /gone"));
  EXPECT_EQ(host.ctl({"led", "list"}).err, "note: lit, but in no mapping: old\n");
  EXPECT_THAT(host.ctl({"status"}).out,
              HasSubstr("led (l.so): not counted here: can't reach pinlampd at /gone"));
}

}  // namespace
}  // namespace Ctl
