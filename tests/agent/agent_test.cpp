// The agent's start and end, and the tables of its classes.
#include "agent/agent.h"

#include "agent/factory.h"
#include "platform/statedb/store/memorystore.h"
#include "platform/zel/entity/generic.h"
#include "tests/statemachine/bench.h"

namespace {

using Bench::Lines;
using Pinlamp::Agent;
using Statedb::Change;
using Zel::GenericIf;
using Zel::Operation;
using Zel::Ptr;
using Zel::Value;

class AgentTest : public Bench::Test {
 protected:
  AgentTest() {
    const std::string mapping = "hardware/gpio/config/led/gpioLeds/Fan1",
                      led = "hardware/led/config/leds/Fan1";
    const char* const mappingType = "Hardware::Gpio::GpioLedConfig";
    const char* const ledType = "Hardware::Led::LedConfig";
    store.write({Change::put("hardware/gpio/config/led", "Hardware::Gpio::GpioLedSystemConfigDir", "", {}),
                 Change::put("hardware/led/config", "Hardware::Led::LedSystemConfigDir", "", {}),
                 Change::put(mapping, mappingType, "", {}), Change::put(led, ledType, "", {}),
                 Change::put(mapping, mappingType, "gpioRedName", Value::List{"gpio7"}),
                 Change::put(mapping, mappingType, "ready", true),
                 Change::put(led, ledType, "lightSetting", Value::Fields{{"red", true}})},
                Statedb::Durability::stored);
    database->reportIs([](const std::string& text) { ADD_FAILURE() << text; });
  }
  ~AgentTest() override { database->stop(); }
  void mount() {
    agent->entityManagerIs(database);
    agent->doInit();
    for (int pass = 0; pass < 5; ++pass) manager.step();
  }

  Statedb::MemoryStore store;
  Ptr<Statedb::EntityManager> database = Zel::allocate<Statedb::EntityManager>(store);
  Ptr<Agent> agent = Pinlamp::agentFactory("lamps");
};

TEST_F(AgentTest, MountsInOrderAndLightsWhatIsConfigured) {
  Zel::traceLevelsIs("Pinlamp/3");
  mount();
  Lines mounts;
  for (const auto& mount : database->mounts())
    mounts.push_back(mount.path.text() + " " + mount.type.stdString() + " " + mount.mode);
  EXPECT_EQ(mounts, (Lines{"hardware/gpio/config/led Hardware::Gpio::GpioLedSystemConfigDir r",
                           "hardware/led/config Hardware::Led::LedSystemConfigDir r",
                           "hardware/led/configInit Hardware::Led::LedSystemConfigDir r",
                           "hardware/fanController/config Zel::Dir r",
                           "environment/cooling/config Environment::Cooling::Config r",
                           "hardware/corvel/gpio/init Zel::Dir r", "hardware/gpio/config Zel::Dir r",
                           "hardware/corvel/gpio/config Zel::Dir wi"}));
  EXPECT_EQ(takeRecords(),
            (Lines{"3 Pinlamp:331 doInit: doInit", "3 Pinlamp:359 doMountsComplete: doMountsComplete"}));
  const auto pin = store.read("hardware/corvel/gpio/config/gpio7");
  ASSERT_EQ(pin.size(), 1U);
  EXPECT_EQ(*pin[0]->find("value"), Value(1));
}

TEST_F(AgentTest, AnEntityThatKeepsItFromStartingIsNamed) {
  store.write({Change::put("hardware/corvel/gpio/config/gpio7", "Zel::Dir", "", {})},
              Statedb::Durability::stored);
  EXPECT_EQ(
      Support::errorOf<Zel::HandlerFault>([this] { mount(); }),
      "agent 'lamps', doMountsComplete: null ValidPtr ('hardware/corvel/gpio/config/gpio7' exists as a "
      "Zel::Dir, expected a Hardware::Gpio::CorvelPinConfig; delete that entity, from a host without this "
      "agent if this one can't start)");
}

TEST_F(AgentTest, KeepsOneReactorForTheSameThreeDirectories) {
  EXPECT_EQ(agent->configReactorDel(), nullptr);
  mount();
  const auto first = agent->configReactor();
  ASSERT_NE(first, nullptr);
  const auto again = [this](const Ptr<Zel::Dir>& pins) {
    return agent->configReactorIs(agent->gpioLedSystemConfigDir(), agent->hwLedConfigDir(), pins);
  };
  first->hasNotificationActiveIs(false);
  EXPECT_EQ(again(agent->gpioPinConfigDir()), first);
  EXPECT_FALSE(first->hasNotificationActive());
  first->hasNotificationActiveIs(true);
  const auto second = again(Zel::allocate<Zel::Dir>("elsewhere"));
  EXPECT_NE(second, first);
  EXPECT_NE(agent->configReactorIs(nullptr, second->hwLedConfigDir(), second->gpioPinConfigDir()), second);
  const auto withLeds = agent->configReactor();
  EXPECT_NE(agent->configReactorIs(nullptr, nullptr, second->gpioPinConfigDir()), withLeds);
  EXPECT_TRUE(first->hasNotificationActive() && second->hasNotificationActive());
  const auto third = agent->configReactor();
  agent = nullptr;
  EXPECT_FALSE(third->hasNotificationActive());
}

TEST_F(AgentTest, AMissingOrMistypedDirectoryIsNull) {
  agent->entityManagerIs(database);
  const auto group = database->getMountGroup(Pinlamp::agentFactory("other"));
  group->doMount(Statedb::Mount("hardware/led/config", "Hardware::Led::LedSystemConfigDir", "r"));
  group->doMount(Statedb::Mount("hardware/corvel/gpio/config", "Hardware::Led::LedSystemConfigDir", "r"));
  group->doClose(false, "", 0.0);
  for (int pass = 0; pass < 5; ++pass) manager.step();
  agent->doMountsComplete(Statedb::mountSuccess_, database);
  EXPECT_EQ(agent->gpioLedSystemConfigDir(), nullptr);
  EXPECT_EQ(agent->gpioPinConfigDir(), nullptr);
  EXPECT_NE(agent->hwLedConfigDir(), nullptr);
  EXPECT_NE(agent->configReactor(), nullptr);
}

TEST_F(AgentTest, AFailedMountStopsTheProcess) {
  EXPECT_DEATH(agent->doMountsComplete(Statedb::mountFailure_, database),
               "Pinlamp:360: virtual void Pinlamp::Agent::doMountsComplete\\(Statedb::MountStatus, const "
               "Ptr&\\): Assertion `status == Statedb::mountSuccess_' failed");
}

TEST_F(AgentTest, MutatorsOfSeveralArgumentsAreCalledByName) {
  mount();
  const auto reactor = agent->configReactor();
  const auto machine = reactor->gpioLedStateMachine().find("Fan1");
  EXPECT_EQ(GenericIf::perform(*reactor, Operation::set, "gpioLedStateMachine",
                               Value::List{Value::Object{machine->corvelGpioLedConfig(), false},
                                           Value::Object{machine->hwLedConfig()}}),
            Value(Value::Object{machine, false}));
  EXPECT_EQ(GenericIf::perform(*reactor, Operation::get, "gpioLedStateMachine", Value::List{"none"}),
            Value(Value::Object{nullptr, false}));
  EXPECT_EQ(GenericIf::perform(*agent, Operation::set, "configReactor",
                               Value::List{Value::Object{agent->gpioLedSystemConfigDir()},
                                           Value::Object{agent->hwLedConfigDir()},
                                           Value::Object{agent->gpioPinConfigDir(), false}}),
            Value(Value::Object{reactor, false}));
}

TEST_F(AgentTest, EveryChangeIsAnnouncedWithItsAttribute) {
  mount();
  Lines notified;
  const auto reactor = agent->configReactor();
  const auto machine = reactor->gpioLedStateMachine().find("Fan1");
  const auto log = [&](const std::string& attribute, Zel::Name key) {
    notified.push_back(attribute + " " + key.stdString());
  };
  const Ptr<Support::Watcher> raw[] = {Zel::allocate<Support::Watcher>(machine, log),
                                       Zel::allocate<Support::Watcher>(reactor, log),
                                       Zel::allocate<Support::Watcher>(agent, log)};
  const auto changes = [&] {
    manager.step();
    return std::exchange(notified, {});
  };
  machine->flashingStateIs(true);
  machine->flashingStateIs(true);
  machine->clockDel();
  machine->hwLedConfigDel();
  EXPECT_EQ(changes(), (Lines{"hwLedConfig ", "clock ", "flashingState "}));
  reactor->gpioLedConfigIs(agent->gpioLedSystemConfigDir()->gpioLeds("Fan1"));  // the one that is there
  EXPECT_EQ(changes(), Lines{});
  reactor->gpioLedConfigDel("Fan1");
  reactor->corvelLedSystemConfigDel();
  reactor->hwLedConfigDirDel();
  EXPECT_EQ(changes(), (Lines{"hwLedConfigDir ", "corvelLedSystemConfig ", "gpioLedStateMachine Fan1",
                              "gpioLedConfig Fan1"}));
  agent->configReactorDel();
  EXPECT_EQ(changes(), Lines{"configReactor "});
}

}  // namespace
