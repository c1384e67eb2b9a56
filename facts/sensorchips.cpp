#include "facts/sensorchips.h"

#include <dirent.h>
#include <sensors/error.h>
#include <sensors/sensors.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <optional>
#include <span>

namespace Facts {

namespace {

// The subfeatures of one kind of sensor, in libsensors' words.
struct Kind {
  sensors_feature_type feature;
  SensorKind kind;
  std::vector<sensors_subfeature_type> values;  // the first that there is counts
  sensors_subfeature_type low, high;
  std::optional<sensors_subfeature_type> critical;
  std::vector<sensors_subfeature_type> alarms;
  std::optional<sensors_subfeature_type> fault;
};

const std::array<Kind, 5>& kinds() {
  static const std::array<Kind, 5> all{{
      {SENSORS_FEATURE_FAN,
       SensorKind::fan,
       {SENSORS_SUBFEATURE_FAN_INPUT},
       SENSORS_SUBFEATURE_FAN_MIN,
       SENSORS_SUBFEATURE_FAN_MAX,
       {},
       {SENSORS_SUBFEATURE_FAN_ALARM, SENSORS_SUBFEATURE_FAN_MIN_ALARM, SENSORS_SUBFEATURE_FAN_MAX_ALARM},
       SENSORS_SUBFEATURE_FAN_FAULT},
      {SENSORS_FEATURE_TEMP,
       SensorKind::temperature,
       {SENSORS_SUBFEATURE_TEMP_INPUT},
       SENSORS_SUBFEATURE_TEMP_MIN,
       SENSORS_SUBFEATURE_TEMP_MAX,
       SENSORS_SUBFEATURE_TEMP_CRIT,
       {SENSORS_SUBFEATURE_TEMP_ALARM, SENSORS_SUBFEATURE_TEMP_MIN_ALARM, SENSORS_SUBFEATURE_TEMP_MAX_ALARM,
        SENSORS_SUBFEATURE_TEMP_CRIT_ALARM, SENSORS_SUBFEATURE_TEMP_LCRIT_ALARM,
        SENSORS_SUBFEATURE_TEMP_EMERGENCY_ALARM},
       SENSORS_SUBFEATURE_TEMP_FAULT},
      {SENSORS_FEATURE_IN,
       SensorKind::voltage,
       {SENSORS_SUBFEATURE_IN_INPUT, SENSORS_SUBFEATURE_IN_AVERAGE},
       SENSORS_SUBFEATURE_IN_MIN,
       SENSORS_SUBFEATURE_IN_MAX,
       SENSORS_SUBFEATURE_IN_CRIT,
       {SENSORS_SUBFEATURE_IN_ALARM, SENSORS_SUBFEATURE_IN_MIN_ALARM, SENSORS_SUBFEATURE_IN_MAX_ALARM,
        SENSORS_SUBFEATURE_IN_CRIT_ALARM, SENSORS_SUBFEATURE_IN_LCRIT_ALARM},
       {}},
      {SENSORS_FEATURE_CURR,
       SensorKind::current,
       {SENSORS_SUBFEATURE_CURR_INPUT, SENSORS_SUBFEATURE_CURR_AVERAGE},
       SENSORS_SUBFEATURE_CURR_MIN,
       SENSORS_SUBFEATURE_CURR_MAX,
       SENSORS_SUBFEATURE_CURR_CRIT,
       {SENSORS_SUBFEATURE_CURR_ALARM, SENSORS_SUBFEATURE_CURR_MIN_ALARM, SENSORS_SUBFEATURE_CURR_MAX_ALARM,
        SENSORS_SUBFEATURE_CURR_CRIT_ALARM, SENSORS_SUBFEATURE_CURR_LCRIT_ALARM},
       {}},
      {SENSORS_FEATURE_POWER,
       SensorKind::power,
       {SENSORS_SUBFEATURE_POWER_INPUT, SENSORS_SUBFEATURE_POWER_AVERAGE},
       SENSORS_SUBFEATURE_POWER_MIN,
       SENSORS_SUBFEATURE_POWER_MAX,
       SENSORS_SUBFEATURE_POWER_CRIT,
       {SENSORS_SUBFEATURE_POWER_ALARM, SENSORS_SUBFEATURE_POWER_MIN_ALARM,
        SENSORS_SUBFEATURE_POWER_MAX_ALARM, SENSORS_SUBFEATURE_POWER_CRIT_ALARM,
        SENSORS_SUBFEATURE_POWER_CAP_ALARM, SENSORS_SUBFEATURE_POWER_LCRIT_ALARM},
       {}},
  }};
  return all;
}

struct CloseFolder {
  void operator()(DIR* folder) const { ::closedir(folder); }
};

// One sensor, as libsensors knows it.
struct HwmonSensor {
  const sensors_chip_name* chip;
  const sensors_feature* feature;

  bool has(sensors_subfeature_type type) const {
    return sensors_get_subfeature(chip, feature, type) != nullptr;
  }
  // nullopt where there is no such value, reading it fails, or it is not finite.
  std::optional<double> read(sensors_subfeature_type type) const {
    const sensors_subfeature* found = sensors_get_subfeature(chip, feature, type);
    double value = 0;
    if (!found || sensors_get_value(chip, found->number, &value) < 0 || !std::isfinite(value))
      return std::nullopt;
    return value;
  }
  bool isSet(sensors_subfeature_type type) const { return read(type).value_or(0) != 0; }
  std::string label() const {
    const std::unique_ptr<char, decltype(&std::free)> text(sensors_get_label(chip, feature), &std::free);
    return text ? std::string(text.get()).substr(0, Zel::Name::kLongest) : feature->name;
  }
};

bool beyondLimits(const SensorFact& fact) {
  return (fact.low != 0 && fact.value < fact.low) || (fact.high != 0 && fact.value > fact.high) ||
         (fact.critical != 0 && fact.value >= fact.critical);
}

// nullopt where the sensor has neither a value nor an alarm.
std::optional<SensorFact> factOf(const HwmonSensor& sensor, const Kind& kind) {
  const auto there = [&](sensors_subfeature_type type) { return sensor.has(type); };
  const auto isSet = [&](sensors_subfeature_type type) { return sensor.isSet(type); };
  const auto input = std::ranges::find_if(kind.values, there);
  const bool hasAlarms = std::ranges::any_of(kind.alarms, there);
  if (input == kind.values.end() && !hasAlarms) return std::nullopt;
  SensorFact fact{.kind = kind.kind, .label = sensor.label()};
  const auto value = input == kind.values.end() ? 0.0 : sensor.read(*input);
  fact.value = value.value_or(0);
  fact.low = sensor.read(kind.low).value_or(0);
  fact.high = sensor.read(kind.high).value_or(0);
  if (kind.critical) fact.critical = sensor.read(*kind.critical).value_or(0);
  fact.fault = !value || (kind.fault && isSet(*kind.fault));
  fact.alarm = hasAlarms ? std::ranges::any_of(kind.alarms, isSet) : value && beyondLimits(fact);
  return fact;
}

std::string nameOf(const sensors_chip_name& chip) {
  std::array<char, 256> text{};
  sensors_snprintf_chip_name(text.data(), text.size(), &chip);
  return text.data();
}

void readChip(const sensors_chip_name& chip, SensorFacts& facts) {
  int at = 0;
  while (const sensors_feature* feature = sensors_get_features(&chip, &at)) {
    const auto kind = std::ranges::find(kinds(), feature->type, &Kind::feature);
    if (kind == kinds().end() || facts.size() >= SensorChips::kMaxSensors) continue;
    if (const auto fact = factOf({&chip, feature}, *kind)) facts[nameOf(chip) + "." + feature->name] = *fact;
  }
}

}  // namespace

SensorChips::~SensorChips() { close(); }

void SensorChips::close() {
  if (std::exchange(open_, false)) sensors_cleanup();
}

void SensorChips::open() {
  if (const int error = sensors_init(nullptr); error != 0)
    throw SourceError(std::string("libsensors: ") + sensors_strerror(error));
  open_ = true;
}

// A chip that goes and comes again within one poll has another inode.
SensorChips::Folder SensorChips::chipsNow() {
  Folder chips;
  const std::unique_ptr<DIR, CloseFolder> folder(::opendir("/sys/class/hwmon"));
  while (const dirent* entry = folder ? ::readdir(folder.get()) : nullptr)
    if (entry->d_name[0] != '.') chips.emplace_back(entry->d_name, entry->d_ino);
  std::ranges::sort(chips);
  return chips;
}

SensorFacts SensorChips::read() {
  if (Folder chips = chipsNow(); !open_ || chips != chips_) {
    close();
    open();
    chips_ = std::move(chips);
  }
  SensorFacts facts;
  int at = 0;
  while (const sensors_chip_name* chip = sensors_get_detected_chips(nullptr, &at)) readChip(*chip, facts);
  return facts;
}

}  // namespace Facts
