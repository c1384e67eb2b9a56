// Shared by the fuzz targets.
#pragma once

#include <cstdio>
#include <string_view>

namespace Fuzz {

// Ends the run where a promise does not hold.
inline void check(bool holds) {
  if (!holds) __builtin_trap();
}

// Calls `use` with each part of the input between line ends.
template <class Use>
void forEachLine(std::string_view bytes, Use use) {
  for (std::size_t end; !bytes.empty(); bytes.remove_prefix(end == bytes.npos ? bytes.size() : end + 1)) {
    end = bytes.find('\n');
    use(bytes.substr(0, end));
  }
}

// Calls `act`, and takes any of these exceptions for a refusal.
template <class... Errors, class Act>
void refusable(Act act) {
  if constexpr (sizeof...(Errors) == 0) {
    act();
  } else {
    []<class First, class... Rest>(Act& inner, First*, Rest*...) {
      try {
        refusable<Rest...>(inner);
      } catch (const First&) {
      }
    }(act, static_cast<Errors*>(nullptr)...);
  }
}

}  // namespace Fuzz
