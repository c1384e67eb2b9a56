// A visible sign that the state database is lost: light settings that this host shows by itself.
//
//     WhenLost whenLost(loop, Fallback::parse("10s=Status=red flash 1; Beacon=off"), *manager, log);
//     whenLost.check(store.state().isReached);  // in every turn
//
// Only the entities of this process show them: nothing is written. When the store is reached again, the
// snapshot of those LEDs is requested, which reverts them.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "host/io/loop.h"
#include "platform/statedb/mount/entitymanager.h"
#include "platform/zel/object/value.h"

namespace Host {

// The settings to show, and after how long.
struct Fallback {
  struct Setting {
    std::string leds;  // a name, or a pattern as the shell has them
    Zel::Value lightSetting;
  };
  std::uint64_t after = 0;  // milliseconds without the state database
  std::vector<Setting> settings{};

  static constexpr std::size_t kLongest = 4096;  // bytes of the text

  // From `TIME=LED=WORDS[; LED=WORDS…]`: the time as 500ms, 10s or 2m, the words as "red green flash 1" or
  // "off". A later setting wins. Throws StartError.
  static Fallback parse(const std::string& text);
  // Null where no pattern fits the LED's name.
  const Zel::Value* settingOf(const std::string& led) const;
};

class WhenLost {
 public:
  using Log = std::function<void(const std::string& text)>;

  // `loop` and `manager` must outlive it.
  WhenLost(Loop& loop, Fallback fallback, Statedb::EntityManager& manager, Log log);

  // Starts to count where the store is not reached any more, and stops where it is.
  void check(bool isReached);

 private:
  void show();

  const Fallback fallback_;
  Statedb::EntityManager& manager_;
  const Log log_;
  UvHandle<uv_timer_t> timer_;
  bool wasReached_ = true;
  bool isShown_ = false;
};

}  // namespace Host
