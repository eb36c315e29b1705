// tavrind's own messages (start, stop, reload, errors), as opposed to the
// agent's traces, which go to the trace file.
//
// They go to standard error, which systemd hands to the journal: there each
// line carries the "<N>" priority prefix journald reads (sd-daemon(3)), so
// `journalctl -p err` finds the errors. A daemon that detached itself has
// no standard error any more and logs to syslog instead.
#pragma once

#include <string_view>

namespace Tavrin::Daemon {

enum class LogLevel { error, warning, info };

// Sends messages to syslog from now on (after detaching).
void logToSyslogIs(bool on);
void log(LogLevel level, std::string_view message);

inline void logError(std::string_view m) {
   log(LogLevel::error, m);
}
inline void logWarning(std::string_view m) {
   log(LogLevel::warning, m);
}
inline void logInfo(std::string_view m) {
   log(LogLevel::info, m);
}

}  // namespace Tavrin::Daemon
