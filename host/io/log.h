// The host's messages for the people who run it.
#pragma once

#include <string>
#include <string_view>

namespace Host {

// As in syslog(3).
enum class Priority { error = 3, warning = 4, debug = 7 };

// "<4>" where the standard error stream is the journal's (JOURNAL_STREAM), which takes it as the priority of
// the line; else empty.
std::string journalPrefix(Priority priority);
// That of a trace record: `warning` at level 0, at which agents log troubles, else `debug`.
Priority priorityOf(std::string_view record);

// Writes "pinlampd: TEXT" to the standard error stream, without control characters. Never blocks.
void log(Priority priority, std::string_view text);

}  // namespace Host
