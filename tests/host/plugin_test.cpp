// Loading agents from valid and invalid libraries.
#include "host/plugin.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "folder.h"
#include "host/io/starterror.h"
#include "platform/zel/notify/activity.h"
#include "tests/places.h"
#include "tests/support.h"

namespace {

using Host::AgentOption;
using Host::Plugin;
using Host::StartError;

TEST(AgentOption, OmittedPartsHaveDefaults) {
  const std::array<const char*, 4> cases[] = {
      {"libpinlamp.so", "libpinlamp.so", "Pinlamp", "pinlamp"},
      {"/a/b/libx-1.so.0.2", "/a/b/libx-1.so.0.2", "Pinlamp", "x-1"},
      {"./l.so:Foo", "./l.so", "Foo", "l"},
      {"l.so:Foo::Bar:led 7", "l.so", "Foo::Bar", "led 7"},
      {"l.so::led", "l.so::led", "Pinlamp", "l"},
  };
  for (const auto& [text, library, nameSpace, name] : cases) {
    const AgentOption option = AgentOption::parse(text);
    EXPECT_EQ(option.library, library) << text;
    EXPECT_EQ(option.nameSpace, nameSpace) << text;
    EXPECT_EQ(option.agentName, name) << text;
  }
  for (const char* text : {"", ":Foo", "l.so:Foo Bar", "l.so:9", "l.so:Foo::", "l.so?x", "l.so?=1", "?x=1"})
    EXPECT_THROW(AgentOption::parse(text), StartError) << text;
}

TEST(Plugin, InvalidLibrariesAreRefusedWithTheReason) {
  const Folder folder;
  contentIs(folder.at("text.so"), "no library");
  const std::string agents = Places::testAgents();
  const std::pair<std::string, std::string> cases[] = {
      {folder.at("absent.so"), "there is no such file"},
      {"absent-from-everywhere.so", "and the library path"},
      {folder.at("text.so"), "does not load"},
      {Places::oldAgent(), "was built with the framework's ABI 0.0; this host has the ABI " ZEL_ABI},
      {Places::alienAgent(), "was not built with this framework"},
      {agents, "has no factory 'Pinlamp::agentFactory(Zel::Name)'"},
      {agents + ":Null", "returned null"},
      {agents + ":Plain?poll=3", "takes no options"},
      {agents + ":Optional?alarm=11", "option 'alarm=11': expected a number from 0 to 10"},
      {agents + ":Optional?alarm=1s", "option 'alarm=1s': expected a number from 0 to 10"},
      {agents + ":Optional?alarm=nan", "option 'alarm=nan': expected a number from 0 to 10"},
      {agents + ":Optional?zones=rear,left", "expected a list of these, separated by commas: front, rear"},
      {agents + ":Optional?alarms=1", "there is no option 'alarms'; there are: alarm, zones"},
      {agents + ":Optional?alarm=1&alarm=2",
       "agent '" + agents + ":Optional': option 'alarm' is there twice"},
  };
  for (const auto& [option, reason] : cases) {
    EXPECT_THAT(Support::errorOf<StartError>(
                    [&option = option] { return Plugin(AgentOption::parse(option)).agent(); }),
                ::testing::HasSubstr(reason));
  }
}

TEST(Plugin, OptionsReachTheFactoryAndMayBeLeftOut) {
  for (const char* options : {"", "?", "?alarm=3.5", "?zones=front&alarm=1e1"})
    EXPECT_TRUE(Plugin(AgentOption::parse(Places::testAgents() + ":Optional:lamp" + options)).agent())
        << options;
}

TEST(Plugin, TheAgentHasItsNameAndEndsBeforeItsLibrary) {
  const Plugin plugin(AgentOption::parse(Places::testAgents() + ":Plain:front panel"));
  EXPECT_EQ(plugin.agent()->name(), Zel::Name("front panel"));
  EXPECT_EQ(plugin.agent()->fwkType().name(), Zel::Name("Test::Agent"));
}

}  // namespace
