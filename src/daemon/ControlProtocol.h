// The control socket's protocol, shared by tavrind and tavrinctl so that
// both sides agree on every name: one JSON object per line in each
// direction, a request {"command": ..., arguments} answered by exactly one
// reply {"ok": true, "result": ...} or {"ok": false, "error": "..."}.
// docs/control.md is the user's description of it.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "rt/Types.h"

namespace Tavrin::Daemon {

using Json = nlohmann::json;

// A request line longer than this is refused and the connection closed: the
// longest legitimate request is well under a hundred bytes, and the agent's
// thread should not buffer whatever a confused client streams at it.
constexpr size_t kMaxRequestBytes = 4096;

enum class Command {
   showLeases,
   showQueries,
   showInterfaces,
   showCounters,
   clearLeases,
   requery,
   reload,
   metrics,
};

// The wire name of a command ("show-leases", "clear-leases", ...).
std::string_view commandName(Command c);
std::optional<Command> commandNamed(std::string_view name);

// One validated request. Which selectors a command takes is checked by
// parseRequest: clear-leases needs exactly one of intf, server, mac (a mac
// may be narrowed by a server); requery takes an optional server; the
// others take nothing.
struct Request {
   Command command = Command::showLeases;
   std::optional<IntfId> intf;
   std::optional<IpAddr> server;
   std::optional<EthAddr> mac;
   bool operator==(const Request&) const = default;
};

// The request's line, newline included.
std::string requestLine(const Request& r);

// A request line (without its newline) to a request, or the reason it is
// not one; the reason is sent back to the client as it stands.
std::variant<Request, std::string> parseRequest(std::string_view line);

// Reply lines, newline included.
std::string replyOk(const Json& result);
std::string replyError(std::string_view message);

// A reply line to its result, or the daemon's error text (or why the line is
// not a reply at all).
struct Reply {
   bool ok = false;
   Json result;
   std::string error;
};
Reply parseReply(std::string_view line);

// Cuts a byte stream into lines. A line longer than the limit makes the
// buffer refuse everything after it: the stream has lost its framing.
class LineBuffer {
 public:
   explicit LineBuffer(size_t maxLine) : maxLine_(maxLine) {}
   // False once the unfinished line is longer than the limit.
   bool append(std::string_view bytes);
   // The next complete line without its "\n" (and without a "\r" before it).
   std::optional<std::string> nextLine();
   bool overflowed() const { return overflowed_; }
   size_t buffered() const { return buf_.size() - start_; }

 private:
   size_t maxLine_;
   std::string buf_;
   size_t start_ = 0;
   bool overflowed_ = false;
};

}  // namespace Tavrin::Daemon
