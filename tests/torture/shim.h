// A preloaded library that watches a process's state file: it counts the steps that change it, lets them
// fail, and records them. The library is in shim.cpp; Shim is the side of the scenes.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

namespace Torture {

// A step that changes what is on the disk, or what others know of it.
enum class Step : std::uint32_t {
  open = 1,  // that may create a file or write to it
  write = 2,
  truncate = 4,
  sync = 8,
  unlink = 16,
  rename = 32,
  close = 64,  // recorded only
  sent = 128,  // to a client; recorded only
};
inline constexpr std::uint32_t kAllSteps = 63;

// In memory that both processes map.
struct ShimControl {
  std::atomic<std::uint32_t> steps;  // so far
  // The kinds of steps that fail, from this number on.
  std::atomic<std::uint32_t> kinds, from;
  std::atomic<std::uint32_t> count;   // as many of them
  std::atomic<std::int32_t> error;    // errno
  std::atomic<std::uint32_t> half;    // the first write that fails writes its first half
  std::atomic<std::uint32_t> failed;  // as many did
  std::atomic<std::uint32_t> delay;   // microseconds that each takes
};

// A record: this, then `size` bytes of content, or of the path, then `extra` of the other path.
struct ShimRecord {
  Step step;
  std::int32_t descriptor;
  std::uint64_t offset;
  std::uint32_t size, extra;
};

// The side of the scenes. A process that is started with its environment has the state file `state`: that
// file, all whose names begin so, and their folder are watched, and their steps recorded in `record` unless
// it is empty. Its numbers are shared by all such processes.
class Shim {
 public:
  Shim(const std::string& control, const std::string& state, const std::string& record = "");
  ~Shim();
  Shim(const Shim&) = delete;
  Shim& operator=(const Shim&) = delete;

  const std::map<std::string, std::string>& environment() const { return environment_; }
  ShimControl* operator->() const { return control_; }
  // Lets `count` steps of these kinds fail, from the one that comes `after` so many on.
  void fail(std::uint32_t kinds, int error, std::uint32_t after = 0, std::uint32_t count = ~0U);
  void heal();

 private:
  std::map<std::string, std::string> environment_;
  ShimControl* control_;
};

}  // namespace Torture
