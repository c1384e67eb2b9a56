// Refused starts, where a service manager would repeat them for ever.
#pragma once

#include <chrono>
#include <string>

#include "host/systemd.h"

namespace Host {

// A manager starts a process that has ended again at once: a state file that is damaged, or a library that is
// missing, would fill the journal with five failures a second. So under a manager the process itself tries
// again, ever less often.
//
//     Refusals refusals;
//     for (;;) try { … } catch (const StartError& error) { if (!refusals.waits(error.what())) return 1; }
class Refusals {
 public:
  // False, at once, where no manager would start the process again. Else logs the reason if it is another
  // than the last, shows it as the status, sleeps for 200 ms, twice as long each time until it is 10 s, and
  // returns true. A signal that ends the process ends the sleep.
  bool waits(const std::string& reason);

 private:
  ServiceManager manager_;
  std::string reason_{};
  std::chrono::milliseconds pause_{200};
};

}  // namespace Host
