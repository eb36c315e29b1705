#include "daemon/Log.h"

#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace Tavrin::Daemon {

namespace {

bool gSyslog = false;

int syslogPriority(LogLevel l) {
   switch (l) {
      case LogLevel::error:
         return LOG_ERR;
      case LogLevel::warning:
         return LOG_WARNING;
      case LogLevel::info:
         return LOG_INFO;
   }
   return LOG_INFO;
}

const char* word(LogLevel l) {
   switch (l) {
      case LogLevel::error:
         return "error: ";
      case LogLevel::warning:
         return "warning: ";
      case LogLevel::info:
         return "";
   }
   return "";
}

}  // namespace

void logToSyslogIs(bool on) {
   if (on && !gSyslog) ::openlog("tavrind", LOG_PID, LOG_DAEMON);
   if (!on && gSyslog) ::closelog();
   gSyslog = on;
}

void log(LogLevel level, std::string_view message) {
   if (gSyslog) {
      ::syslog(syslogPriority(level), "%.*s", int(message.size()), message.data());
      return;
   }
   // journald sets JOURNAL_STREAM for the streams it reads.
   static const bool journal = std::getenv("JOURNAL_STREAM") != nullptr;
   std::string line;
   if (journal) line = "<" + std::to_string(syslogPriority(level)) + ">";
   line += "tavrind: ";
   line += word(level);
   line += message;
   line += '\n';
   std::fwrite(line.data(), 1, line.size(), stderr);
   std::fflush(stderr);
}

}  // namespace Tavrin::Daemon
