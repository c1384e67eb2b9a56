// A pinlampd of this command's own, for a state database that is used without a host.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace Ctl {

class OwnHost {
 public:
  // Starts the pinlampd beside this program on a store, without agents, with the libraries of `types`. It
  // serves the other end of descriptor(), where it also sends why it could not start, and ends when that is
  // closed. Throws Refusal.
  OwnHost(const std::string& store, const std::vector<std::string>& types);
  // Waits until it has ended, so that the store is free for the next command. REQUIRES: the descriptor is
  // closed.
  ~OwnHost();
  OwnHost(const OwnHost&) = delete;
  OwnHost& operator=(const OwnHost&) = delete;

  // The caller closes it.
  int descriptor() const { return descriptor_; }

 private:
  int descriptor_ = -1;
  pid_t process_ = -1;
};

}  // namespace Ctl
