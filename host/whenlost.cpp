#include "host/whenlost.h"

#include <fnmatch.h>

#include <charconv>
#include <cmath>
#include <optional>
#include <utility>

#include "host/io/starterror.h"
#include "platform/model/lightwords.h"
#include "platform/model/paths.h"

namespace Host {

namespace {

constexpr double kLongestTime = 24 * 3600.0;  // seconds

[[noreturn]] void refuse(const std::string& why) {
  throw StartError("--when-lost: " + why +
                   "; expected TIME=LED=COLOURS, such as 10s='Status=red flash 1; Beacon=off'");
}

std::string_view trimmed(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
  return text.substr(0, text.find_last_not_of(" \t") + 1);
}

// The parts before and after the first `separator`; nullopt where there is none.
std::optional<std::pair<std::string_view, std::string_view>> cut(std::string_view text, char separator) {
  const std::size_t at = text.find(separator);
  if (at == std::string_view::npos) return std::nullopt;
  return std::pair(trimmed(text.substr(0, at)), trimmed(text.substr(at + 1)));
}

std::uint64_t milliseconds(std::string_view time) {
  static constexpr std::pair<std::string_view, double> kUnits[] = {{"ms", 1.0}, {"s", 1e3}, {"m", 60e3}};
  double value = 0.0;
  const char* const end = time.data() + time.size();
  const auto [read, error] = std::from_chars(time.data(), end, value);
  const std::string_view unit(read, static_cast<std::size_t>(end - read));
  for (const auto& [name, factor] : kUnits)
    if (error == std::errc() && unit == name && value >= 0.0 && value * factor <= kLongestTime * 1e3)
      return static_cast<std::uint64_t>(std::llround(value * factor));
  refuse("'" + std::string(time) + "' is no time: a number with ms, s or m, a day at the most");
}

Fallback::Setting setting(std::string_view text) {
  const auto parts = cut(text, '=');
  if (!parts || parts->first.empty()) refuse("'" + std::string(text) + "' names no LED");
  try {
    return {std::string(parts->first), Led::settingFrom(parts->second)};
  } catch (const Zel::ValueError& error) {
    refuse("LED '" + std::string(parts->first) + "': " + error.what());
  }
}

}  // namespace

Fallback Fallback::parse(const std::string& text) {
  if (text.size() > kLongest) refuse("longer than " + std::to_string(kLongest) + " bytes");
  const auto parts = cut(text, '=');
  if (!parts) refuse("'" + text + "' has no '='");
  Fallback fallback{milliseconds(parts->first)};
  for (auto rest = std::optional(std::pair(std::string_view(), parts->second)); rest;) {
    const std::string_view list = rest->second;
    rest = cut(list, ';');
    const std::string_view one = rest ? rest->first : list;
    if (!one.empty()) fallback.settings.push_back(setting(one));
  }
  if (fallback.settings.empty()) refuse("no LED is named");
  return fallback;
}

const Zel::Value* Fallback::settingOf(const std::string& led) const {
  const Zel::Value* found = nullptr;
  for (const Setting& each : settings)
    if (::fnmatch(each.leds.c_str(), led.c_str(), 0) == 0) found = &each.lightSetting;
  return found;
}

WhenLost::WhenLost(Loop& loop, Fallback fallback, Statedb::EntityManager& manager, Log log)
    : fallback_(std::move(fallback)), manager_(manager), log_(std::move(log)), timer_(new uv_timer_t) {
  uv_timer_init(loop.uv(), timer_.get());
  timer_->data = this;
}

void WhenLost::check(bool isReached) {
  if (std::exchange(wasReached_, isReached) == isReached) return;
  if (isReached) {
    uv_timer_stop(timer_.get());
    if (std::exchange(isShown_, false)) manager_.readAgain(Paths::kLeds);
    return;
  }
  const auto show = [](uv_timer_t* timer) {
    Loop::guard(timer->loop, [timer] { static_cast<WhenLost*>(timer->data)->show(); });
  };
  uv_timer_start(timer_.get(), show, fallback_.after, 0);
}

void WhenLost::show() {
  std::size_t shown = 0;
  for (const Statedb::Path& path : manager_.membersOf(Paths::kLeds)) {
    const Zel::Value* setting = fallback_.settingOf(manager_.entityAt(path)->name().stdString());
    if (setting) shown += manager_.showLocally(path, "lightSetting", *setting);
  }
  isShown_ = shown > 0;
  log_("the state database is lost: " + std::to_string(shown) +
       (shown == 1 ? " LED setting of --when-lost is shown" : " LED settings of --when-lost are shown") +
       " until it is back");
}

}  // namespace Host
