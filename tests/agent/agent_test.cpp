// The agent's start and end, and the tables of its classes.
#include "agent/agent.h"

#include <algorithm>

#include "agent/factory.h"
#include "platform/zel/generic.h"
#include "tests/statemachine/bench.h"

namespace {

using Bench::Lines;
using Pinlamp::Agent;
using Pinlamp::ConfigReactor;
using Pinlamp::GpioLedStateMachine;
using Statedb::Change;
using Zel::GenericIf;
using Zel::Kind;
using Zel::Operation;
using Zel::Ptr;
using Zel::Value;

template <class T>
Value object(const Ptr<T>& pointer) {
  return Value::Object{pointer, false};
}

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
    mounts.push_back(mount.path + " " + mount.type + " " + mount.mode);
  EXPECT_EQ(mounts, (Lines{"hardware/gpio/config/led Hardware::Gpio::GpioLedSystemConfigDir r",
                           "hardware/led/config Hardware::Led::LedSystemConfigDir r",
                           "hardware/led/configInit Hardware::Led::LedSystemConfigDir r",
                           "hardware/fanController/config Zel::Dir r",
                           "environment/cooling/config Environment::Cooling::Config r",
                           "hardware/corvel/gpio/init Zel::Dir r", "hardware/gpio/config Zel::Dir r",
                           "hardware/corvel/gpio/config Zel::Dir wi"}));
  EXPECT_EQ(takeRecords(),
            (Lines{"3 Pinlamp:331 doInit: doInit", "3 Pinlamp:359 doMountsComplete: doMountsComplete"}));
  const auto rows = store.read("hardware/corvel/gpio/config/gpio7");
  ASSERT_EQ(rows.size(), 2U);
  EXPECT_EQ(rows[1].value, Value(1));
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
               "Ptr&\\): Assertion \"status == Statedb::mountSuccess_\" failed");
}

TEST_F(AgentTest, IsMadeInDirectoriesByName) {
  const auto dir = Zel::allocate<Zel::Dir>("agents");
  const auto made = Zel::dynamicPtrCast<Agent>(dir->entryIs("spare", "Pinlamp::Agent"));
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->Agent::name(), Zel::Name("spare"));
}

// One row of a class's table, and what its operations are tried with. A get is expected to give `value`.
struct Row {
  const char* name;
  Kind kind;
  std::string type;
  std::vector<Operation> operations;
  Value value = {};
  Value::List set = {}, del = {}, invoke = {};
};

constexpr Operation kGet = Operation::get, kSet = Operation::set, kDel = Operation::del,
                    kIterate = Operation::iterate, kInvoke = Operation::invoke;

void tryRows(const Zel::TypeNode& type, Zel::Notifier& target, const std::vector<Row>& rows) {
  ASSERT_EQ(type.attributes().size(), rows.size());
  Zel::AttributeIndex index = type.base() ? type.base()->endIndex() : 0;
  for (const Row& row : rows) {
    const auto& found = type.attribute(index);
    EXPECT_STREQ(found.name, row.name);
    EXPECT_EQ(found.kind, row.kind) << row.name;
    EXPECT_EQ(found.type ? found.type() : "", row.type) << row.name;
    for (const Operation operation : {kInvoke, kSet, kGet, kIterate, kDel}) {
      const auto perform = [&] {
        return GenericIf::perform(target, operation, index,
                                  operation == kSet   ? row.set
                                  : operation == kDel ? row.del
                                                      : row.invoke);
      };
      const bool allowed = row.kind == Kind::reserved || std::ranges::count(row.operations, operation) != 0;
      if (!allowed)
        EXPECT_THROW(perform(), Zel::OperationNotSupportedException) << row.name;
      else if (operation == kGet)
        EXPECT_EQ(perform(), row.value) << row.name;
      else
        EXPECT_NO_THROW(perform()) << row.name << " " << Zel::operationText(operation);
    }
    ++index;
  }
  EXPECT_EQ(index, type.endIndex());
  EXPECT_THROW(GenericIf::perform(target, kGet, index), Zel::RangeException);
}

TEST_F(AgentTest, EveryRowOfTheTablesAllowsItsOperationsAndNoOthers) {
  mount();
  const auto reactor = agent->configReactor();
  const auto machine = reactor->gpioLedStateMachine().find("Fan1");
  const auto output = machine->corvelGpioLedConfig();
  const Value name = "Fan1", names = Value::List{"Fan1"}, setting = Value::Fields{{"yellow", true}};
  const auto writer = [&](const char* row) {
    return Row{row, Kind::procedure, "", {kInvoke}, {}, {}, {}, {object(output), 9}};
  };
  const std::string gpio = "Hardware::Gpio::", led = "Hardware::Led::";
  tryRows(GpioLedStateMachine::typeNode(), *machine,
          {{"corvelGpioLedConfig", Kind::pointer, gpio + "CorvelGpioLedConfig", {kGet}, object(output)},
           {"hwLedConfig", Kind::pointer, led + "LedConfig", {kGet}, Value::Object{machine->hwLedConfig()}},
           {"name", Kind::value, "Zel::Name", {kGet}, name},
           {"handleHwLedConfig", Kind::procedure, "", {kInvoke}},
           writer("handleCorvelGpioYellow"),
           writer("handleCorvelGpioGreen"),
           writer("handleCorvelGpioRed"),
           writer("handleCorvelGpioOrange"),
           {"handleLedSystemConfig", Kind::procedure, "", {kInvoke}, {}, {}, {}, {name, setting}},
           {"clock", Kind::pointer, "Zel::Clock", {kGet, kSet}, {Value::Object{}}, {Value()}},
           {"handleClockTimeout", Kind::procedure, "", {kInvoke}},
           {"flashingState", Kind::value, "bool", {kGet, kSet}, true, {true}},
           {"initialized", Kind::value, "bool", {kGet, kSet}, false, {false}},
           {"handleInitialized", Kind::procedure, "", {kInvoke}}});
  EXPECT_EQ(output->gpioRed().find("gpio7")->value(), 1U) << "handleInitialized applies the setting anew";
  EXPECT_EQ(machine->clock(), manager.clock());

  const Value mapping = Value::Object{agent->gpioLedSystemConfigDir()->gpioLeds("Fan1")};
  tryRows(ConfigReactor::typeNode(), *reactor,
          {{"gpioLedSystemConfigDir",
            Kind::pointer,
            gpio + "GpioLedSystemConfigDir",
            {kGet},
            Value::Object{agent->gpioLedSystemConfigDir()}},
           {"hwLedConfigDir",
            Kind::pointer,
            led + "LedSystemConfigDir",
            {kGet},
            Value::Object{agent->hwLedConfigDir()}},
           {"gpioPinConfigDir", Kind::pointer, "Zel::Dir", {kGet}, object(agent->gpioPinConfigDir())},
           {"gpioLedStateMachine",
            Kind::collection,
            "Pinlamp::GpioLedStateMachine",
            {kGet, kSet, kDel, kIterate},
            names,
            {object(output), Value::Object{machine->hwLedConfig()}},
            {name}},
           {"handleGpioConfigCleanup", Kind::procedure, "", {kInvoke}, {}, {}, {}, {"Nobody"}},
           {"gpioLedConfig",
            Kind::collection,
            "Pinlamp::ConfigReactor::ZelGpioLedConfig",
            {kGet, kSet, kDel, kIterate},
            names,
            {mapping},
            {name}},
           {"", Kind::reserved, "", {}},
           {"createDriver", Kind::procedure, "", {kInvoke}, {}, {}, {}, {name}},
           {"", Kind::reserved, "", {}},
           {"corvelLedSystemConfig",
            Kind::pointer,
            gpio + "CorvelGpioLedSystemConfigDir",
            {kGet, kSet, kDel},
            object(reactor->corvelLedSystemConfig()),
            {"ledSystem"}},
           {"handleInitialized", Kind::procedure, "", {kInvoke}}});
  EXPECT_TRUE(reactor->gpioLedStateMachine().empty() && reactor->gpioLedConfig().empty());

  const Value dirs[] = {Value::Object{agent->gpioLedSystemConfigDir()},
                        Value::Object{agent->hwLedConfigDir()}, object(agent->gpioPinConfigDir())};
  tryRows(Agent::typeNode(), *agent,
          {{"doMountsComplete", Kind::procedure, "", {kInvoke}, {}, {}, {}, {"success"}},
           {"doInit", Kind::procedure, "", {kInvoke}},
           {"gpioPinConfigDir", Kind::pointer, "Zel::Dir", {kGet}, dirs[2]},
           {"gpioLedSystemConfigDir", Kind::pointer, gpio + "GpioLedSystemConfigDir", {kGet}, dirs[0]},
           {"hwLedConfigDir", Kind::pointer, led + "LedSystemConfigDir", {kGet}, dirs[1]},
           {"configReactor",
            Kind::pointer,
            "Pinlamp::ConfigReactor",
            {kGet, kSet, kDel},
            object(reactor),
            {dirs[0], dirs[1], dirs[2]}}});
  EXPECT_EQ(agent->configReactor(), nullptr);
  EXPECT_EQ(Agent::typeNode().indexOf("doInit"), Agent::typeNode().firstIndex() + 1)
      << "not the base's entry";
}

struct RawSpy : Zel::Reactor<RawSpy, Zel::RawNotifiee> {
  static constexpr const char* kTypeName = "Test::RawSpy";
  RawSpy(const Ptr<const Zel::PtrInterface>& target, Lines& log) : lines(log) { notifierIs(target); }
  void onRawAttribute(Zel::AttributeIndex index, Zel::Name key) override {
    const auto& type = static_cast<const Zel::PtrInterface*>(notifierBase())->fwkType();
    lines.push_back(type.attribute(index).name + (" " + key.stdString()));
  }
  Lines& lines;
};

TEST_F(AgentTest, EveryChangeIsAnnouncedWithItsAttribute) {
  mount();
  Lines heard;
  const auto reactor = agent->configReactor();
  const auto machine = reactor->gpioLedStateMachine().find("Fan1");
  const Ptr<RawSpy> raw[] = {Zel::allocate<RawSpy>(machine, heard), Zel::allocate<RawSpy>(reactor, heard),
                             Zel::allocate<RawSpy>(agent, heard)};
  const auto changes = [&] {
    manager.step();
    return std::exchange(heard, {});
  };
  machine->flashingStateIs(true);
  machine->flashingStateIs(true);
  machine->clockDel();
  machine->hwLedConfigDel();
  EXPECT_EQ(changes(), (Lines{"hwLedConfig ", "clock ", "flashingState "}));
  reactor->gpioLedConfigDel("Fan1");
  reactor->corvelLedSystemConfigDel();
  reactor->hwLedConfigDirDel();
  EXPECT_EQ(changes(), (Lines{"hwLedConfigDir ", "corvelLedSystemConfig ", "gpioLedStateMachine Fan1",
                              "gpioLedConfig Fan1"}));
  agent->configReactorDel();
  EXPECT_EQ(changes(), Lines{"configReactor "});
}

}  // namespace
