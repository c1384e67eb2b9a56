// The trace facility.
//
// Nothing is formatted while a record's level is off: it costs a load and a branch, and as much again where
// the handle is made on first use. Levels are small integers, 0 to 31, set for each facility by name, also
// before the facility's first handle exists.
//
//     TraceHelperStorage storage;
//     EnsureTraceHelperIsDestroyed helper(TraceHelper::createIfEnabled(handle, 6, storage));
//     if (helper) { helper->stream() << "text"; helper->trace("Source", __LINE__, __func__); }
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <new>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/zel/core/export.h"
#include "platform/zel/core/string.h"

namespace Zel {

class TraceHandle;

// One facility's levels. One object a name, alive for the life of the process.
class ZEL_API TraceFacility {
 public:
  using FacilityLevel = unsigned;
  static constexpr FacilityLevel kLevels = 32;

  // The facility of that name; made where there was none.
  static TraceFacility& named(std::string_view name);
  // Null where no facility of that name was named yet.
  static TraceFacility* existing(std::string_view name);
  // Every facility, by name.
  static std::vector<TraceFacility*> all();

  const std::string& name() const { return name_; }
  // Bit n: level n is on.
  std::uint32_t mask() const { return mask_.load(std::memory_order_relaxed); }
  void maskIs(std::uint32_t mask);

 private:
  explicit TraceFacility(std::string_view name) : name_(name) {}
  friend struct TraceFacilities;
  friend class TraceHandle;

  const std::string name_;
  std::atomic<std::uint32_t> mask_{0};
  std::vector<TraceHandle*> handles_;  // these have a copy of the mask
};

// Sets levels from text: `FACILITY/LEVELS`, LEVELS being numbers and ranges joined by commas ("3,6-9"), "*"
// for all, or nothing for none. Throws ValueError, and changes nothing, where the text is not like that.
ZEL_API void traceLevelsIs(std::string_view text);
// The inverse for one facility's mask: "3,6-9", "*" or "".
ZEL_API std::string traceLevelsText(std::uint32_t mask);

// Receives the records: one line, without its line end, a call, on the thread that traces. Null restores the
// default, which writes lines to the standard error stream.
using TraceSink = std::function<void(std::string_view line)>;
ZEL_API void traceSinkIs(TraceSink sink);

// A library's handle of a facility. It has a copy of the facility's levels, so that asking whether one is on
// takes one load. `immediateFlush` asks for each record to be handed on at once by a sink that collects; the
// sinks of this framework hand on every record at once anyway.
class ZEL_API TraceHandle {
 public:
  TraceHandle(const String& facility, bool immediateFlush);
  ~TraceHandle();
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  // False for a level that does not exist.
  bool enabled(TraceFacility::FacilityLevel level) const {
    return level < TraceFacility::kLevels && (mask_.load(std::memory_order_relaxed) >> level & 1U) != 0;
  }
  const TraceFacility& facility() const { return facility_; }
  bool immediateFlush() const { return immediateFlush_; }

 private:
  friend class TraceFacility;

  TraceFacility& facility_;
  std::atomic<std::uint32_t> mask_{0};
  const bool immediateFlush_;
};

class TraceHelper;
struct TraceHelperStorage;

// Builds one record. Made in storage that the caller provides.
class ZEL_API TraceHelper {
 public:
  // Null, and nothing is made, where the level is off.
  static TraceHelper* createIfEnabled(const TraceHandle& handle, TraceFacility::FacilityLevel level,
                                      TraceHelperStorage& storage);

  ~TraceHelper();

  // The message goes here.
  std::ostream& stream() { return text_; }
  // Emits `TIME FACILITY LEVEL SOURCE:LINE FUNCTION: MESSAGE` as one line, TIME being UTC with microseconds.
  // The message is made printable: a line end or another control character in it is written as \xXX.
  void trace(const char* source, int line, const char* function);

 private:
  friend class EnsureTraceHelperIsDestroyed;
  TraceHelper(const TraceHandle& handle, TraceFacility::FacilityLevel level)
      : handle_(handle), level_(level) {}

  const TraceHandle& handle_;
  const TraceFacility::FacilityLevel level_;
  std::ostringstream text_;
};

struct TraceHelperStorage {
  alignas(TraceHelper) unsigned char bytes[sizeof(TraceHelper)];
};

// Disposes of a helper on every path out of a scope.
class EnsureTraceHelperIsDestroyed {
 public:
  explicit EnsureTraceHelperIsDestroyed(TraceHelper* helper) : helper_(helper) {}
  ~EnsureTraceHelperIsDestroyed() {
    if (helper_) helper_->~TraceHelper();
  }
  EnsureTraceHelperIsDestroyed(const EnsureTraceHelperIsDestroyed&) = delete;
  EnsureTraceHelperIsDestroyed& operator=(const EnsureTraceHelperIsDestroyed&) = delete;

  explicit operator bool() const { return helper_ != nullptr; }
  TraceHelper* operator->() const { return helper_; }

 private:
  TraceHelper* const helper_;
};

// Writes one record where the level is on: `write` gets the stream, and does not run while the level is off.
// Always inline, so that tracing that is off costs a load and a branch.
template <class Write>
[[gnu::always_inline]] inline void traceRecord(const TraceHandle& handle, TraceFacility::FacilityLevel level,
                                               const char* source, int line, const char* function,
                                               Write&& write) {
  if (!handle.enabled(level)) [[likely]]
    return;
  TraceHelperStorage storage;
  const EnsureTraceHelperIsDestroyed helper(TraceHelper::createIfEnabled(handle, level, storage));
  if (!helper) return;
  write(helper->stream());
  helper->trace(source, line, function);
}

}  // namespace Zel
