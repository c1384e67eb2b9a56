#include "facts/unitsource.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

namespace Facts {

namespace {

constexpr const char* kManager = "org.freedesktop.systemd1";
constexpr const char* kManagerPath = "/org/freedesktop/systemd1";
constexpr const char* kManagerInterface = "org.freedesktop.systemd1.Manager";
constexpr const char* kUnitInterface = "org.freedesktop.systemd1.Unit";
constexpr const char* kUnitsPath = "/org/freedesktop/systemd1/unit";
constexpr const char* kFailed = "failed";

constexpr std::size_t kMaxText = 256;  // bytes of a name, a state or an error; the rest is cut off

std::string cut(const char* text) { return std::string(std::string_view(text).substr(0, kMaxText)); }

// The message's next string. Throws SourceError where it is of another type.
std::string readText(sd_bus_message& message) {
  const char* text = nullptr;
  checkBus(sd_bus_message_read_basic(&message, 's', &text), "reading a message");
  return cut(text);
}

// Calls `each` with the message in every element of its next array.
template <class Each>
void forEach(sd_bus_message& message, char kind, const char* contents, Each each) {
  checkBus(sd_bus_message_enter_container(&message, 'a', nullptr), "reading a list");
  while (checkBus(sd_bus_message_enter_container(&message, kind, contents), "reading a list") > 0) {
    each();
    checkBus(sd_bus_message_exit_container(&message), "reading a list");
  }
  checkBus(sd_bus_message_exit_container(&message), "reading a list");
}

void throwIfError(sd_bus_message& answer, const std::string& doing) {
  const sd_bus_error* error = sd_bus_message_get_error(&answer);
  if (!error || std::strcmp(error->name, "org.freedesktop.systemd1.AlreadySubscribed") == 0) return;
  throw SourceError("the service manager, " + doing + ": " +
                    cut(error->message ? error->message : error->name));
}

// The next dictionary of properties.
UnitFact readProperties(sd_bus_message& message) {
  UnitFact unit;
  forEach(message, 'e', "sv", [&] {
    const std::string name = readText(message);
    std::string* wanted = name == "ActiveState" ? &unit.activeState
                          : name == "SubState"  ? &unit.subState
                                                : nullptr;
    if (!wanted) {
      checkBus(sd_bus_message_skip(&message, "v"), "reading a property");
      return;
    }
    checkBus(sd_bus_message_enter_container(&message, 'v', "s"), "reading a property");
    *wanted = readText(message);
    checkBus(sd_bus_message_exit_container(&message), "reading a property");
  });
  return unit;
}

// Empty where the path is not of a unit.
std::string unitAt(const char* path) {
  char* name = nullptr;
  if (!path || sd_bus_path_decode(path, kUnitsPath, &name) <= 0) return {};
  return cut(std::unique_ptr<char, decltype(&std::free)>(name, &std::free).get());
}

std::string managerSignal(const char* member) {
  return std::string("type='signal',sender='") + kManager + "',path='" + kManagerPath + "',interface='" +
         kManagerInterface + "',member='" + member + "'";
}

}  // namespace

UnitSource::UnitSource(Sink<UnitFact>& sink)
    : sink_(sink), bus_([this] { runFor(sink_, [this] { bus_.run(); }); }) {
  follow(std::string("type='signal',sender='") + kManager +
             "',interface='org.freedesktop.DBus.Properties',member='PropertiesChanged',path_namespace='" +
             kUnitsPath + "',arg0='" + kUnitInterface + "'",
         &onBus<UnitSource, &UnitSource::onProperties>);
  follow(managerSignal("UnitRemoved"), &onBus<UnitSource, &UnitSource::onRemoved>);
  follow(managerSignal("Reloading"), &onBus<UnitSource, &UnitSource::onReloading>);
  follow(std::string("type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
                     "member='NameOwnerChanged',arg0='") +
             kManager + "'",
         &onBus<UnitSource, &UnitSource::onOwner>);
  list();
  bus_.run();
}

void UnitSource::follow(const std::string& rule, sd_bus_message_handler_t handler) {
  checkBus(sd_bus_add_match_async(bus_.get(), nullptr, rule.c_str(), handler, nullptr, this), "subscribing");
}

void UnitSource::call(const char* member, sd_bus_message_handler_t handler, const char* state) {
  const int result = state
                         ? sd_bus_call_method_async(bus_.get(), nullptr, kManager, kManagerPath,
                                                    kManagerInterface, member, handler, this, "as", 1, state)
                         : sd_bus_call_method_async(bus_.get(), nullptr, kManager, kManagerPath,
                                                    kManagerInterface, member, handler, this, nullptr);
  checkBus(result, "calling the service manager");
}

// The manager sends signals of units to its subscribers alone. Signals that come before the list are in it.
void UnitSource::list() {
  call("Subscribe", &onBus<UnitSource, &UnitSource::onSubscribed>);
  call("ListUnitsFiltered", &onBus<UnitSource, &UnitSource::onList>, kFailed);
}

void UnitSource::onSubscribed(sd_bus_message& answer) { throwIfError(answer, "subscribing"); }

void UnitSource::onList(sd_bus_message& answer) {
  throwIfError(answer, "listing units");
  omitted_ = false;
  std::set<std::string> gone = units_;
  forEach(answer, 'r', "ssssssouso", [&] {
    const std::string name = readText(answer);
    checkBus(sd_bus_message_skip(&answer, "ss"), "reading a unit");
    UnitFact unit;
    unit.activeState = readText(answer);
    unit.subState = readText(answer);
    checkBus(sd_bus_message_skip(&answer, "souso"), "reading a unit");
    gone.erase(name);
    unitIs(name, unit);
  });
  for (const std::string& name : gone) unitDel(name);
  sink_.complete();
  report();
}

void UnitSource::onProperties(sd_bus_message& signal) {
  const std::string name = unitAt(sd_bus_message_get_path(&signal));
  if (name.empty() || readText(signal) != kUnitInterface) return;
  const UnitFact unit = readProperties(signal);
  if (!unit.activeState.empty()) unitIs(name, unit);
  report();
}

void UnitSource::onRemoved(sd_bus_message& signal) { unitDel(readText(signal)); }

void UnitSource::onReloading(sd_bus_message& signal) {
  int begins = 0;
  checkBus(sd_bus_message_read_basic(&signal, 'b', &begins), "reading a message");
  if (!begins) list();
}

// The manager leaves the bus for a moment when it re-executes itself: its facts are kept.
void UnitSource::onOwner(sd_bus_message& signal) {
  checkBus(sd_bus_message_skip(&signal, "ss"), "reading a message");
  if (!readText(signal).empty()) return list();
  sink_.errorIs("the service manager is not on the bus");
}

void UnitSource::unitIs(const std::string& name, const UnitFact& unit) {
  if (name.empty()) return;
  if (unit.activeState != kFailed) return unitDel(name);
  omitted_ = omitted_ || (units_.size() >= kMaxUnits && !units_.contains(name));
  if (units_.size() >= kMaxUnits && !units_.contains(name)) return;
  units_.insert(name);
  sink_.factIs(factName(name), unit);
}

void UnitSource::unitDel(const std::string& name) {
  if (units_.erase(name) == 0) return;
  sink_.factDel(factName(name));
  if (omitted_) list();
}

void UnitSource::report() {
  sink_.errorIs(omitted_ ? "more than " + std::to_string(kMaxUnits) + " units have failed" : "");
}

}  // namespace Facts
