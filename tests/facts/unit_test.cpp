// A service manager of the test's own on a bus of the test's own.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

#include "facts/unitsource.h"
#include "running.h"
#include "tests/host/folder.h"

namespace {

using Facts::UnitFact;
using Facts::UnitSource;
using testing::ElementsAre;
using testing::Pair;

constexpr const char* kConfiguration = R"(<busconfig><listen>unix:path=%</listen><auth>EXTERNAL</auth>
<policy context="default"><allow send_destination="*"/><allow receive_sender="*"/><allow own="*"/></policy></busconfig>)";

// dbus-daemon, until it is stopped.
class BusDaemon {
 public:
  BusDaemon() {
    std::string configuration = kConfiguration;
    contentIs(folder_.at("bus.conf"), configuration.replace(configuration.find('%'), 1, folder_.at("bus")));
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe(ends.data()), 0);
    const std::string file = "--config-file=" + folder_.at("bus.conf"),
                      print = "--print-address=" + std::to_string(ends[1]);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::execlp("dbus-daemon", "dbus-daemon", file.c_str(), print.c_str(), "--nofork", nullptr);
      ::_exit(127);
    }
    ::close(ends[1]);
    char first = 0;
    EXPECT_EQ(::read(ends[0], &first, 1), 1) << "dbus-daemon does not start";
    ::close(ends[0]);
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + folder_.at("bus")).c_str(), 1);
  }
  ~BusDaemon() { stop(); }
  void stop() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(std::exchange(pid_, 0), nullptr, 0);
    }
  }

 private:
  Folder folder_;
  pid_t pid_ = 0;
};

std::string unitPath(const std::string& unit) {
  char* path = nullptr;
  EXPECT_GE(sd_bus_path_encode("/org/freedesktop/systemd1/unit", unit.c_str(), &path), 0);
  return std::unique_ptr<char, decltype(&std::free)>(path, &std::free).get();
}

// The parts of the service manager that a follower of units uses.
class Manager {
 public:
  Manager() {
    static const sd_bus_vtable kMethods[] = {
        SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Subscribe", "", "", &onSubscribe, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("ListUnitsFiltered", "as", "a(ssssssouso)", &onList, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END};
    EXPECT_GE(sd_bus_add_object_vtable(bus_.get(), nullptr, "/org/freedesktop/systemd1",
                                       "org.freedesktop.systemd1.Manager", kMethods, this),
              0);
    nameIs(true);
  }
  void nameIs(bool owned) {
    const char* name = "org.freedesktop.systemd1";
    EXPECT_GE(owned ? sd_bus_request_name(bus_.get(), name, 0) : sd_bus_release_name(bus_.get(), name), 0);
    bus_.run();
  }
  void change(const std::string& unit, const char* active, const char* sub) {
    sent(sd_bus_emit_signal(bus_.get(), unitPath(unit).c_str(), "org.freedesktop.DBus.Properties",
                            "PropertiesChanged", "sa{sv}as", "org.freedesktop.systemd1.Unit", 3,
                            "ActiveState", "s", active, "Job", "(uo)", 0, "/", "SubState", "s", sub, 0));
  }
  void remove(const std::string& unit) {
    sent(sd_bus_emit_signal(bus_.get(), "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager",
                            "UnitRemoved", "so", unit.c_str(), unitPath(unit).c_str()));
  }
  void reloading(bool active) {
    sent(sd_bus_emit_signal(bus_.get(), "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager",
                            "Reloading", "b", active));
  }
  void garble(const std::string& unit) {
    sent(sd_bus_emit_signal(bus_.get(), unitPath(unit).c_str(), "org.freedesktop.DBus.Properties",
                            "PropertiesChanged", "sa{sv}as", "org.freedesktop.systemd1.Unit", 1,
                            "ActiveState", "u", 7, 0));
  }

  std::vector<std::string> units;  // that failed
  int subscribers = 0;

 private:
  void sent(int result) {
    EXPECT_GE(result, 0);
    bus_.run();
  }
  static int onSubscribe(sd_bus_message* call, void* self, sd_bus_error*) {
    ++static_cast<Manager*>(self)->subscribers;
    return sd_bus_reply_method_return(call, nullptr);
  }
  static int onList(sd_bus_message* call, void* self, sd_bus_error*) {
    sd_bus_message* answer = nullptr;
    sd_bus_message_new_method_return(call, &answer);
    sd_bus_message_open_container(answer, 'a', "(ssssssouso)");
    for (const std::string& unit : static_cast<Manager*>(self)->units)
      sd_bus_message_append(answer, "(ssssssouso)", unit.c_str(), "A unit", "loaded", "failed", "failed", "",
                            unitPath(unit).c_str(), 0, "", "/");
    sd_bus_message_close_container(answer);
    const int result = sd_bus_send(nullptr, answer, nullptr);
    sd_bus_message_unref(answer);
    return result;
  }

  // Goes on where the bus has gone: the test ends it with the daemon.
  void run() {
    try {
      bus_.run();
    } catch (const Facts::SourceError&) {
    }
  }

  Facts::Bus bus_{[this] { run(); }};
};

class UnitSources : public testing::Test, protected Running {
 protected:
  bool has(const std::vector<std::string>& names) {
    return until([&] {
      std::vector<std::string> there;
      for (const auto& [name, fact] : sink.facts) there.push_back(name);
      return there == names;
    });
  }
  BusDaemon daemon;
  Recorder<UnitFact> sink;
};

TEST_F(UnitSources, FailedUnitsComeAndGo) {
  Manager manager;
  manager.units = {"disk.mount"};
  UnitSource source(sink);
  ASSERT_TRUE(until([&] { return sink.completions == 1; }));
  EXPECT_THAT(sink.facts, ElementsAre(Pair("disk.mount", UnitFact{"failed", "failed"})));
  EXPECT_EQ(manager.subscribers, 1);
  manager.change("ssh.service", "activating", "start");
  manager.change("dev-a\\x2db.device", "failed", "tentative");
  EXPECT_TRUE(has({"dev-a\\x2db.device", "disk.mount"}));
  EXPECT_EQ(sink.facts["dev-a\\x2db.device"].subState, "tentative");
  manager.change("disk.mount", "inactive", "dead");
  EXPECT_TRUE(has({"dev-a\\x2db.device"}));
  manager.remove("dev-a\\x2db.device");
  EXPECT_TRUE(has({}));
  manager.units = {"late.service"};
  manager.reloading(true);
  manager.reloading(false);
  EXPECT_TRUE(has({"late.service"})) << "they were listed again";
  EXPECT_TRUE(std::isinf(activity.nextWakeUp())) << "nothing to wait for";

  manager.units = {"later.service"};
  manager.nameIs(false);
  EXPECT_TRUE(until([&] { return sink.error == "the service manager is not on the bus"; }));
  manager.nameIs(true);
  EXPECT_TRUE(has({"later.service"}));
  EXPECT_TRUE(until([&] { return sink.error.empty(); }));
  EXPECT_EQ(sink.failure, "");
  daemon.stop();
  EXPECT_TRUE(until([&] { return !sink.failure.empty(); })) << "the bus is gone";
}

TEST_F(UnitSources, FailuresAreReportedWithTheirReason) {
  try {  // the bus may answer while the source is made
    const UnitSource source(sink);
    EXPECT_TRUE(until([&] { return !sink.failure.empty(); }));
  } catch (const Facts::SourceError& error) {
    sink.failure = error.what();
  }
  EXPECT_THAT(sink.failure, testing::StartsWith("the service manager, "));
  sink.failure.clear();
  Manager manager;
  const UnitSource source(sink);
  ASSERT_TRUE(until([&] { return sink.completions == 1; }));
  manager.garble("ssh.service");
  EXPECT_TRUE(until([&] { return !sink.failure.empty(); })) << "a message of another shape";
  daemon.stop();
  EXPECT_THROW(UnitSource another(sink), Facts::SourceError) << "there is no bus";
}

}  // namespace
