#include "host/io/processid.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>

namespace Host {

namespace {

std::string bootId() {
  std::string id;
  std::ifstream("/proc/sys/kernel/random/boot_id") >> id;
  return id;
}

// Field 22 of /proc/PID/stat: after the command, which is in parentheses and may hold anything, come the
// state and 18 more. Empty if there is no such process, or it has ended and its parent has not waited for it.
std::string startOf(std::int64_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  const std::string all(std::istreambuf_iterator<char>(file), {});
  std::istringstream words(all.substr(std::min(all.size(), all.rfind(')') + 1)));
  std::string state, word;
  words >> state;
  for (int field = 4; field <= 22; ++field) words >> word;
  return words && state != "Z" ? word : std::string();
}

std::string textOf(std::int64_t pid) {
  const std::string boot = bootId();
  const std::string start = startOf(pid);
  return boot.empty() || start.empty() ? std::string() : boot + ' ' + std::to_string(pid) + ' ' + start;
}

}  // namespace

std::string ownProcessText() { return textOf(::getpid()); }

std::int64_t runningProcess(const std::string& text) {
  std::istringstream words(text);
  std::string boot;
  std::int64_t pid = 0;
  words >> boot >> pid;
  return words && pid > 0 && textOf(pid) == text ? pid : 0;
}

}  // namespace Host
