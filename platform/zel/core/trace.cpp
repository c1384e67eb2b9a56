#include "platform/zel/core/trace.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>

#include "platform/zel/core/exception.h"
#include "platform/zel/core/printable.h"

namespace Zel {

struct TraceFacilities {
  std::mutex mutex;
  std::map<std::string, std::unique_ptr<TraceFacility>, std::less<>> byName;

  TraceFacility& named(std::string_view name) {
    const std::lock_guard lock(mutex);
    const auto found = byName.find(name);
    if (found != byName.end()) return *found->second;
    return *byName.emplace(name, std::unique_ptr<TraceFacility>(new TraceFacility(name))).first->second;
  }
};

namespace {

// Never destroyed: records are written until the process ends.
TraceFacilities& facilities() {
  static auto& instance = *new TraceFacilities;
  return instance;
}

TraceSink& sink() {
  static auto& instance = *new TraceSink;
  return instance;
}

std::string timeText() {
  const auto now = std::chrono::system_clock::now();
  const auto seconds = std::chrono::floor<std::chrono::seconds>(now);
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(now - seconds).count();
  const std::time_t time = std::chrono::system_clock::to_time_t(seconds);
  std::tm parts{};
  gmtime_r(&time, &parts);
  char text[40];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text + length, sizeof text - length, ".%06d", static_cast<int>(micros));
  return text;
}

unsigned parseLevel(std::string_view text, std::string_view whole) {
  unsigned level = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), level);
  if (error != std::errc() || end != text.data() + text.size() || level >= TraceFacility::kLevels)
    throw ValueError("'" + std::string(text) + "' in '" + std::string(whole) +
                     "' is no trace level; levels are numbers from 0 to 31, ranges such as 6-9, or *");
  return level;
}

std::uint32_t parseLevels(std::string_view text, std::string_view whole) {
  if (text == "*") return ~0U;
  std::uint32_t mask = 0;
  while (!text.empty()) {
    const std::string_view part = text.substr(0, text.find(','));
    text.remove_prefix(std::min(text.size(), part.size() + 1));
    const std::size_t dash = part.find('-');
    const unsigned first = parseLevel(part.substr(0, dash), whole);
    const unsigned last = dash == std::string_view::npos ? first : parseLevel(part.substr(dash + 1), whole);
    if (last < first)
      throw ValueError("'" + std::string(part) + "' in '" + std::string(whole) +
                       "' runs backwards; a range is written from its lower level");
    for (unsigned level = first; level <= last; ++level) mask |= 1U << level;
  }
  return mask;
}

}  // namespace

TraceFacility& TraceFacility::named(std::string_view name) { return facilities().named(name); }

TraceFacility* TraceFacility::existing(std::string_view name) {
  const std::lock_guard lock(facilities().mutex);
  const auto found = facilities().byName.find(name);
  return found == facilities().byName.end() ? nullptr : found->second.get();
}

std::vector<TraceFacility*> TraceFacility::all() {
  const std::lock_guard lock(facilities().mutex);
  std::vector<TraceFacility*> all;
  for (const auto& [name, facility] : facilities().byName) all.push_back(facility.get());
  return all;
}

// The lock also guards the lists of handles.
void TraceFacility::maskIs(std::uint32_t mask) {
  const std::lock_guard lock(facilities().mutex);
  mask_.store(mask, std::memory_order_relaxed);
  for (TraceHandle* handle : handles_) handle->mask_.store(mask, std::memory_order_relaxed);
}

void traceLevelsIs(std::string_view text) {
  const std::size_t slash = text.find('/');
  if (slash == std::string_view::npos || slash == 0)
    throw ValueError("'" + std::string(text) +
                     "' names no facility and levels; write FACILITY/LEVELS, as in Pinlamp/3,6-9");
  const std::uint32_t mask = parseLevels(text.substr(slash + 1), text);
  TraceFacility::named(text.substr(0, slash)).maskIs(mask);
}

std::string traceLevelsText(std::uint32_t mask) {
  if (mask == ~0U) return "*";
  std::string text;
  for (unsigned first = 0; first < TraceFacility::kLevels; ++first) {
    if ((mask >> first & 1U) == 0) continue;
    unsigned last = first;
    while (last + 1 < TraceFacility::kLevels && (mask >> (last + 1) & 1U) != 0) ++last;
    text += (text.empty() ? "" : ",") + std::to_string(first);
    if (last != first) text += "-" + std::to_string(last);
    first = last;
  }
  return text;
}

void traceSinkIs(TraceSink newSink) { sink() = std::move(newSink); }

TraceHandle::TraceHandle(const String& facility, bool immediateFlush)
    : facility_(TraceFacility::named(facility.view())), immediateFlush_(immediateFlush) {
  const std::lock_guard lock(facilities().mutex);
  facility_.handles_.push_back(this);
  mask_.store(facility_.mask(), std::memory_order_relaxed);
}

TraceHandle::~TraceHandle() {
  const std::lock_guard lock(facilities().mutex);
  std::erase(facility_.handles_, this);
}

TraceHelper* TraceHelper::createIfEnabled(const TraceHandle& handle, TraceFacility::FacilityLevel level,
                                          TraceHelperStorage& storage) {
  if (!handle.enabled(level)) return nullptr;
  return new (storage.bytes) TraceHelper(handle, level);
}

TraceHelper::~TraceHelper() = default;

void TraceHelper::trace(const char* source, int line, const char* function) {
  std::string record = timeText() + ' ' + handle_.facility().name() + ' ' + std::to_string(level_) + ' ' +
                       source + ':' + std::to_string(line) + ' ' + function + ": ";
  record += printable(text_.view());
  if (sink()) return sink()(record);
  record += '\n';
  std::fwrite(record.data(), 1, record.size(), stderr);
}

}  // namespace Zel
