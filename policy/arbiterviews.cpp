// The arbiter's queries.
#include <algorithm>

#include "policy/arbiter.h"

namespace Policy {

std::optional<Led::LightSetting> Arbiter::setting(Zel::Name led) const {
  const auto found = byName_.find(led);
  if (found == byName_.end()) return std::nullopt;
  const auto& slots = lamps_[found->second].slots;
  for (auto slot = slots.rbegin(); slot != slots.rend(); ++slot)
    if (!slots_[*slot].isGone) return slots_[*slot].setting;
  return std::nullopt;
}

std::vector<Arbiter::Asking> Arbiter::asking(Zel::Name led, std::size_t most) const {
  std::vector<Asking> all;
  const auto found = byName_.find(led);
  if (found == byName_.end()) return all;
  const auto& slots = lamps_[found->second].slots;
  for (auto slot = slots.rbegin(); slot != slots.rend(); ++slot)
    if (all.size() < most && !slots_[*slot].isGone)
      all.push_back({slots_[*slot].source, slots_[*slot].priority});
  return all;
}

std::size_t Arbiter::askingCount(Zel::Name led) const {
  const auto found = byName_.find(led);
  if (found == byName_.end()) return 0;
  const auto isHere = [&](Slot slot) { return !slots_[slot].isGone; };
  return static_cast<std::size_t>(std::ranges::count_if(lamps_[found->second].slots, isHere));
}

// Why a name or a pattern has no effect; empty where it has.
std::string Arbiter::effect(const Pattern& pattern) const {
  if (!pattern.isGlob())
    return hasLed(pattern.text()) ? "" : "no LED is named '" + pattern.text().stdString() + "'";
  const auto isNear = [&](const auto& each) { return each.first.starts_with(pattern.prefix()); };
  for (auto at = byText_.lower_bound(pattern.prefix()); at != byText_.end() && isNear(*at); ++at)
    if (pattern.fits(lamps_[at->second].name)) return {};
  return "no LED matches '" + pattern.text().stdString() + "'";
}

Arbiter::Standing Arbiter::standing(const Source& source) const {
  constexpr std::size_t kMostNoted = 4;
  const Entry& entry = slots_[bySource_.at(source)];
  Standing standing{entry.lamps.size(), {}};
  std::size_t noted = 0;
  const auto note = [&](const std::string& text) {
    if (!text.empty() && noted++ < kMostNoted) standing.note += (noted > 1 ? "; " : "") + text;
  };
  if (entry.isCut) note("LEDs were left out: all requests together ask for too many");
  for (const Pattern& each : entry.leds) note(effect(each));
  for (const Pattern& each : entry.skip)
    if (const std::string none = effect(each); !none.empty()) note("'skip': " + none);
  if (entry.lamps.empty() && noted == 0) note("'skip' leaves no LED");
  if (noted > kMostNoted) standing.note += "; and " + std::to_string(noted - kMostNoted) + " more";
  return standing;
}

}  // namespace Policy
