// A process of this machine as a text that names no other process later.
#pragma once

#include <cstdint>
#include <string>

namespace Host {

// The boot, the process id, and the time when the process started, in clock ticks since the boot: "BOOT PID
// TICKS". Empty if /proc can't be read.
std::string ownProcessText();
// The process id in such a text, if that process runs; 0 if it does not, or the text is another.
std::int64_t runningProcess(const std::string& text);

}  // namespace Host
