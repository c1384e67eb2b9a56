// The classes of priority that requests and rules for LEDs name: words alone, for clients that know no
// entity.
#pragma once

#include <cstdint>

namespace Led {

struct PriorityClass {
  const char* name;
  std::uint32_t level;
  const char* use;
};

// Lowest first. A priority is the level of a class or a number above it, so each class has a hundred levels.
inline constexpr PriorityClass kPriorityClasses[] = {
    {"base", 0, "instead of the stored setting, while nothing else is asked for"},
    {"policy", 100, "rules, and agents that show the state of the machine; from 150 on faults"},
    {"operator", 200, "people: a mark for a colleague"},
    {"identify", 300, "to find a device by its LED"},
    {"lampTest", 400, "to see that the lamps work"}};
inline constexpr std::uint32_t kHighestPriority = 499;
// Faults are shown from this level on. A night mode has the level below: it darkens all else.
inline constexpr std::uint32_t kFaultLevel = 150;
inline constexpr std::uint32_t kNightLevel = kFaultLevel - 1;
inline constexpr std::uint32_t kLampTestLevel = 400;

// The class that a level belongs to. REQUIRES: level <= kHighestPriority.
constexpr const PriorityClass& classOf(std::uint32_t level) {
  const PriorityClass* found = kPriorityClasses;
  for (const PriorityClass& each : kPriorityClasses)
    if (each.level <= level) found = &each;
  return *found;
}

}  // namespace Led
