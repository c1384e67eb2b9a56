// The plug-in as a host sees it: a library that is loaded and unloaded.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <memory>
#include <set>
#include <string>

#include "platform/warden/cagent.h"
#include "platform/zel/core/trace.h"
#include "platform/zel/object/type.h"
#include "tests/places.h"

namespace {

TEST(Plugin, ItsTypesComeAndGoWithTheLibrary) {
  using Factory = Zel::Ptr<Warden::CAgent> (*)(Zel::Name);
  for (int time = 0; time < 2; ++time) {
    void* library = dlopen(Places::ledAgent().c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    for (const char* type : {"Pinlamp::ConfigReactor", "Pinlamp::Agent", "Pinlamp::GpioLedStateMachine"})
      EXPECT_NE(Zel::typeNode(type), nullptr) << type;
    const auto factory = reinterpret_cast<Factory>(dlsym(library, "_ZN7Pinlamp12agentFactoryEN3Zel4NameE"));
    ASSERT_NE(factory, nullptr);
    auto agent = factory("lamps");
    EXPECT_EQ(agent->name(), Zel::Name("lamps"));
    EXPECT_EQ(agent->fwkType().name(), Zel::Name("Pinlamp::Agent"));
    EXPECT_EQ(Zel::TraceFacility::existing("Pinlamp"), nullptr) << "its handle is made by the first record";
    agent = nullptr;
    EXPECT_EQ(Zel::typeNode("Pinlamp::Agent")->allocations().objects(), 0U);
    dlclose(library);
    EXPECT_EQ(dlopen(Places::ledAgent().c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
    for (const auto* type : Zel::typeNodes()) EXPECT_NE(type->name().view().substr(0, 9), "Pinlamp::");
  }
}

TEST(Plugin, ExportsItsFactoryAndTheUtilitiesOnly) {
  const std::unique_ptr<FILE, int (*)(FILE*)> symbols(
      popen(("nm -DC --defined-only '" + Places::ledAgent() + "'").c_str(), "r"), &pclose);
  std::set<std::string> names;
  for (std::array<char, 512> line; std::fgets(line.data(), line.size(), symbols.get());)
    names.insert(std::string(line.data()).substr(19));
  EXPECT_EQ(names, (std::set<std::string>{
                       "Pinlamp::agentFactory(Zel::Name)\n", "Lampwise::ledToDevice(Zel::Name)\n",
                       "Lampwise::portSubString(Zel::Name)\n", "Lampwise::shortenLinkMode(Zel::String)\n",
                       "Lampwise::roundVal(double, int)\n", "Lampwise::isColorValid(Zel::String)\n",
                       "Zel::String Lampwise::toString<Led::Color>(Led::Color)\n", "zelAbi\n"}));
}

}  // namespace
