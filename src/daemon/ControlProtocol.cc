#include "daemon/ControlProtocol.h"

#include <array>
#include <utility>

namespace Tavrin::Daemon {

namespace {

constexpr std::array<std::pair<Command, std::string_view>, 8> kCommandNames = {{
    {Command::showLeases, "show-leases"},
    {Command::showQueries, "show-queries"},
    {Command::showInterfaces, "show-interfaces"},
    {Command::showCounters, "show-counters"},
    {Command::clearLeases, "clear-leases"},
    {Command::requery, "requery"},
    {Command::reload, "reload"},
    {Command::metrics, "metrics"},
}};

// Reads one optional string argument and parses it with T::parse.
template <class T>
std::optional<std::string> readArg(const Json& j, const char* key, const char* what,
                                   std::optional<T>& out) {
   auto it = j.find(key);
   if (it == j.end()) return std::nullopt;
   if (!it->is_string()) return std::string("'") + key + "' must be a string";
   const auto& text = it->get_ref<const std::string&>();
   out = T::parse(text);
   if (!out) return "bad " + std::string(what) + " '" + text + "'";
   return std::nullopt;
}

std::optional<std::string> checkSelectors(const Request& r) {
   const bool any = r.intf || r.server || r.mac;
   switch (r.command) {
      case Command::clearLeases:
         if (!any) return "clear-leases needs one of 'interface', 'server' or 'mac'";
         if (r.intf && (r.server || r.mac)) {
            return "clear-leases takes 'interface' alone";
         }
         return std::nullopt;
      case Command::requery:
         if (r.intf || r.mac) return "requery takes only 'server'";
         return std::nullopt;
      default:
         if (any) return std::string(commandName(r.command)) + " takes no arguments";
         return std::nullopt;
   }
}

}  // namespace

std::string_view commandName(Command c) {
   for (const auto& [cmd, name] : kCommandNames) {
      if (cmd == c) return name;
   }
   return "?";
}

std::optional<Command> commandNamed(std::string_view name) {
   for (const auto& [cmd, n] : kCommandNames) {
      if (n == name) return cmd;
   }
   return std::nullopt;
}

std::string requestLine(const Request& r) {
   Json j = {{"command", commandName(r.command)}};
   if (r.intf) j["interface"] = r.intf->name();
   if (r.server) j["server"] = r.server->str();
   if (r.mac) j["mac"] = r.mac->str();
   return j.dump() + "\n";
}

std::variant<Request, std::string> parseRequest(std::string_view line) {
   Json j = Json::parse(line, nullptr, false);
   if (j.is_discarded()) return std::string("request is not JSON");
   if (!j.is_object()) return std::string("request must be a JSON object");
   for (const auto& [key, value] : j.items()) {
      if (key != "command" && key != "interface" && key != "server" && key != "mac") {
         return "unknown field '" + key + "'";
      }
   }
   auto cmd = j.find("command");
   if (cmd == j.end() || !cmd->is_string()) return std::string("request has no 'command'");
   Request r;
   const auto& name = cmd->get_ref<const std::string&>();
   auto command = commandNamed(name);
   if (!command) return "unknown command '" + name + "'";
   r.command = *command;
   if (auto e = readArg(j, "interface", "interface name", r.intf)) return *e;
   if (auto e = readArg(j, "server", "server address", r.server)) return *e;
   if (auto e = readArg(j, "mac", "MAC address", r.mac)) return *e;
   if (auto e = checkSelectors(r)) return *e;
   return r;
}

std::string replyOk(const Json& result) {
   Json j = {{"ok", true}, {"result", result}};
   // Lease and interface names come from outside; never let a byte that is
   // not UTF-8 turn a reply into an exception.
   return j.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string replyError(std::string_view message) {
   Json j = {{"ok", false}, {"error", std::string(message)}};
   return j.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

Reply parseReply(std::string_view line) {
   Reply r;
   Json j = Json::parse(line, nullptr, false);
   if (j.is_discarded() || !j.is_object() || !j.contains("ok") || !j["ok"].is_boolean()) {
      r.error = "the daemon's reply is not a reply";
      return r;
   }
   r.ok = j["ok"].get<bool>();
   if (r.ok) {
      r.result = j.value("result", Json());
   } else {
      auto e = j.find("error");
      r.error = e != j.end() && e->is_string() ? e->get<std::string>() : "unspecified error";
   }
   return r;
}

bool LineBuffer::append(std::string_view bytes) {
   if (overflowed_) return false;
   // Drop what was consumed before growing, so the buffer holds little more
   // than one line.
   if (start_ > 0) {
      buf_.erase(0, start_);
      start_ = 0;
   }
   buf_.append(bytes);
   auto nl = buf_.rfind('\n');
   size_t keep = nl == std::string::npos ? 0 : nl + 1;
   // One byte of slack: the line may yet turn out to end in "\r\n".
   if (buf_.size() - keep > maxLine_ + 1) {
      // The complete lines before the overlong one are still served.
      buf_.resize(keep);
      overflowed_ = true;
   }
   return !overflowed_;
}

std::optional<std::string> LineBuffer::nextLine() {
   auto nl = buf_.find('\n', start_);
   if (nl == std::string::npos) return std::nullopt;
   size_t end = nl;
   if (end > start_ && buf_[end - 1] == '\r') --end;
   if (end - start_ > maxLine_) {
      buf_.clear();
      start_ = 0;
      overflowed_ = true;
      return std::nullopt;
   }
   std::string line = buf_.substr(start_, end - start_);
   start_ = nl + 1;
   return line;
}

}  // namespace Tavrin::Daemon
