// tavrinctl's command line and output: which request a command line makes,
// and how a reply reads on a terminal. Kept apart from main() so that the
// mapping from words to requests is tested without a daemon.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "daemon/ControlProtocol.h"

namespace Tavrin::Daemon {

// Exit statuses of tavrinctl.
enum CtlExit : int {
   kCtlOk = 0,
   kCtlDaemonError = 1,  // the daemon refused or failed the request
   kCtlUsage = 2,        // bad command line
   kCtlUnreachable = 3,  // no daemon answered on the socket
};

struct CtlInvocation {
   Request request;
   bool json = false;
   std::string socket = "/run/tavrin/tavrind.sock";
   double timeoutSeconds = 30.0;
};

// Declares every subcommand and option on app; after app.parse() the
// invocation holds the request. Arguments are checked as they are parsed
// (addresses, interface names), so a typing error never reaches the daemon.
void ctlAppIs(CLI::App& app, CtlInvocation& inv);

// The reply's result as a person reads it (the --json form is the result
// itself, printed by the caller).
std::string ctlText(Command command, const Json& result, double now);

}  // namespace Tavrin::Daemon
