#include "host/io/log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "host/io/traceoutput.h"
#include "platform/zel/core/printable.h"

namespace Host {

namespace {

bool isJournal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  struct stat status {};
  return stream && ::fstat(STDERR_FILENO, &status) == 0 &&
         stream == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

}  // namespace

std::string journalPrefix(Priority priority) {
  static const bool kIsJournal = isJournal();
  return kIsJournal ? "<" + std::to_string(static_cast<int>(priority)) + ">" : "";
}

Priority priorityOf(std::string_view record) {
  const std::size_t facility = record.find(' ');  // TIME FACILITY LEVEL …
  const std::size_t level = record.find(' ', facility + 1);
  return level != record.npos && record.substr(level).starts_with(" 0 ") ? Priority::warning
                                                                         : Priority::debug;
}

void log(Priority priority, std::string_view text) {
  TraceOutput::standardError().write(journalPrefix(priority) + "pinlampd: " + Zel::printable(text));
}

}  // namespace Host
