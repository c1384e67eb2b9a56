// libsensors, on a tree of files in the place of /sys: the test's process gets another root directory.
#include "facts/sensorsource.h"

#include <gmock/gmock.h>
#include <linux/magic.h>
#include <sched.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>

#include "running.h"
#include "tests/host/folder.h"

// libsensors asks libc's statfs whether /sys is the kernel's, and gets the program's instead.
extern "C" ZEL_API int statfsOfTest(const char*, struct statfs* found) noexcept asm("statfs");
int statfsOfTest(const char*, struct statfs* found) noexcept {
  found->f_type = SYSFS_MAGIC;
  return ::access("/sys", F_OK);
}

namespace {

namespace fs = std::filesystem;

using Facts::SensorFact;
using Facts::SensorKind;

// A chip of the tree: "hwmon0" with its files.
void chipIs(const std::string& chip, const std::map<std::string, std::string>& files) {
  const fs::path folder = fs::path("/sys/class/hwmon") / chip;
  fs::create_directories(folder);
  for (const auto& [name, content] : files) contentIs((folder / name).string(), content + "\n");
}

// As root or in a user namespace. Without either nothing can be tested.
bool enter(const std::string& root) {
  if (::geteuid() != 0 && ::unshare(CLONE_NEWUSER) != 0) return false;
  EXPECT_TRUE(::chroot(root.c_str()) == 0 && ::chdir("/") == 0);
  return true;
}

SensorFact fact(SensorKind kind, const char* label, double value) {
  SensorFact made;
  made.kind = kind;
  made.label = label;
  made.value = value;
  return made;
}

void followSensors() {
  chipIs("hwmon0", {{"name", "lm75"}, {"temp1_input", "41500"}, {"temp1_max", "80000"}});
  Running running;
  Recorder<SensorFact> sink;
  Facts::SensorSource source(sink, running.poll);
  SensorFact inside = fact(SensorKind::temperature, "temp1", 41.5);
  inside.high = 80;
  ASSERT_TRUE(running.until([&] { return sink.completions == 1; })) << sink.failure;
  EXPECT_THAT(sink.facts, testing::ElementsAre(testing::Pair("lm75-virtual-0.temp1", inside)));

  // Alarms: beyond a limit where the chip has none; where it has one, that counts.
  chipIs("hwmon0", {{"temp1_input", "80500"}});
  chipIs("hwmon1", {{"name", "board"},
                    {"fan1_input", "100"},
                    {"fan1_min", "600"},
                    {"fan1_alarm", "0"},
                    {"fan1_label", "Front"},
                    {"fan2_input", "0"},
                    {"fan2_min", "600"},
                    {"fan2_fault", "1"},
                    {"temp1_crit_alarm", "1"},
                    {"temp2_input", "no number"},
                    {"in0_input", "12100"},
                    {"curr1_input", "1500"},
                    {"curr1_max", "1400"},
                    {"power1_average", "18000000"},
                    {"power2_input", "nan"},
                    {"humidity1_input", "40000"}});
  inside.value = 80.5;
  inside.alarm = true;
  SensorFact front = fact(SensorKind::fan, "Front", 100), stuck = fact(SensorKind::fan, "fan2", 0);
  front.low = stuck.low = 600;
  stuck.fault = stuck.alarm = true;
  SensorFact hot = fact(SensorKind::temperature, "temp1", 0),
             broken = fact(SensorKind::temperature, "temp2", 0);
  SensorFact unknown = fact(SensorKind::power, "power2", 0);
  hot.alarm = broken.fault = unknown.fault = true;
  SensorFact drawn = fact(SensorKind::current, "curr1", 1.5);
  drawn.high = 1.4;
  drawn.alarm = true;
  const std::map<std::string, SensorFact> all{
      {"lm75-virtual-0.temp1", inside},   {"board-virtual-0.fan1", front},
      {"board-virtual-0.fan2", stuck},    {"board-virtual-0.temp1", hot},
      {"board-virtual-0.temp2", broken},  {"board-virtual-0.in0", fact(SensorKind::voltage, "in0", 12.1)},
      {"board-virtual-0.curr1", drawn},   {"board-virtual-0.power1", fact(SensorKind::power, "power1", 18)},
      {"board-virtual-0.power2", unknown}};
  EXPECT_TRUE(running.until([&] { return sink.facts == all; }));
  EXPECT_EQ(sink.facts, all);

  fs::remove_all("/sys/class/hwmon/hwmon1");
  EXPECT_TRUE(running.until([&] { return sink.facts.size() == 1; })) << "the sensors went with their chip";
  EXPECT_EQ(sink.completions, 1);
  EXPECT_EQ(sink.error + sink.failure, "");
}

// Ends the process with the failures of the test so far.
[[noreturn]] void finish() {
  const testing::TestResult& result = *testing::UnitTest::GetInstance()->current_test_info()->result();
  for (int i = 0; i < result.total_part_count(); ++i)
    std::cerr << result.GetTestPartResult(i).message() << "\n";
  std::_Exit(result.Failed() ? 1 : 0);  // the leak sanitizer needs /proc, which this root has not
}

// Runs a part of the test in a process of its own, with the folder as its root.
void inside(const Folder& root, const std::function<void()>& part) {
  EXPECT_EXIT(
      {
        if (enter(root.at(""))) part();
        finish();
      },
      testing::ExitedWithCode(0), "");
}

TEST(SensorSource, SensorsAreReadAndFollowed) {
  const Folder root;
  fs::create_directories(root.at("sys/class/hwmon"));
  inside(root, followSensors);
}

TEST(SensorSource, WithoutSysfsItFails) {
  const Folder root;
  inside(root, [] {
    Running running;
    Recorder<SensorFact> sink;
    const Facts::SensorSource source(sink, running.poll);
    EXPECT_TRUE(running.until([&] { return !sink.failure.empty(); }));
  });
}

}  // namespace
