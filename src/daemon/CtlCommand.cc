#include "daemon/CtlCommand.h"

#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

namespace Tavrin::Daemon {

namespace {

template <class T>
CLI::Validator parsedAs(const std::string& what) {
   return CLI::Validator(
       [what](std::string& text) -> std::string {
          return T::parse(text) ? std::string() : "'" + text + "' is not " + what;
       },
       what);
}

void showIs(CLI::App& show, CtlInvocation& inv, const char* name, const char* help,
            Command command) {
   auto* sub = show.add_subcommand(name, help);
   sub->add_flag("--json", inv.json, "Print the daemon's JSON result");
   sub->callback([&inv, command] { inv.request.command = command; });
}

// ---------------------------------------------------------------- text output

// A table whose columns are as wide as their widest cell.
class Table {
 public:
   explicit Table(std::vector<std::string> header) { rows_.push_back(std::move(header)); }
   void rowIs(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
   std::string str() const {
      std::vector<size_t> width;
      for (const auto& r : rows_) {
         width.resize(std::max(width.size(), r.size()));
         for (size_t i = 0; i < r.size(); ++i) width[i] = std::max(width[i], r[i].size());
      }
      std::string out;
      for (const auto& r : rows_) {
         std::string line;
         for (size_t i = 0; i < r.size(); ++i) {
            line += r[i];
            if (i + 1 < r.size()) line += std::string(width[i] - r[i].size() + 2, ' ');
         }
         out += line + "\n";
      }
      return out;
   }

 private:
   std::vector<std::vector<std::string>> rows_;
};

std::string text(const Json& j) {
   if (j.is_null()) return "-";
   if (j.is_string()) return j.get<std::string>();
   if (j.is_boolean()) return j.get<bool>() ? "yes" : "no";
   return j.dump();
}

std::string localTime(double t) {
   if (!std::isfinite(t) || t <= 0) return "-";
   time_t secs = time_t(t);
   struct tm tm {};
   if (!localtime_r(&secs, &tm)) return "-";
   char buf[32];
   std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
   return buf;
}

// "1h02m03s", "4m05s", "6s".
std::string duration(double seconds) {
   long s = long(std::llround(std::fabs(seconds)));
   char buf[48];
   if (s >= 3600) {
      std::snprintf(buf, sizeof buf, "%ldh%02ldm%02lds", s / 3600, s / 60 % 60, s % 60);
   } else if (s >= 60) {
      std::snprintf(buf, sizeof buf, "%ldm%02lds", s / 60, s % 60);
   } else {
      std::snprintf(buf, sizeof buf, "%lds", s);
   }
   return buf;
}

std::string leasesText(const Json& result, double now) {
   if (!result.is_array() || result.empty()) return "no leases\n";
   Table t({"INTERFACE", "MAC", "IP", "SERVER", "LAST TRANSACTION", "EXPIRES", "LEFT"});
   for (const auto& l : result) {
      double exp = l.value("expiration", 0.0);
      std::string left = exp - now >= 0 ? duration(exp - now) : "expired " + duration(now - exp);
      t.rowIs({text(l.value("interface", Json())), text(l.value("mac", Json())),
               text(l.value("ip", Json())), text(l.value("server", Json())),
               localTime(l.value("last_transaction", 0.0)), localTime(exp), left});
   }
   return t.str();
}

std::string queriesText(const Json& result) {
   if (!result.is_array() || result.empty()) return "no queries in flight\n";
   Table t({"BY", "MAC", "IP", "INTERFACE", "XID", "ROUNDS", "WAITING FOR"});
   for (const auto& q : result) {
      std::string pending;
      for (const auto& s : q.value("pending", Json::array())) {
         pending += (pending.empty() ? "" : ",") + text(s);
      }
      t.rowIs({text(q.value("by", Json())), text(q.value("mac", Json())),
               text(q.value("ip", Json())), text(q.value("interface", Json())),
               text(q.value("xid", Json())), text(q.value("rounds", Json())),
               pending.empty() ? "-" : pending});
   }
   return t.str();
}

std::string interfacesText(const Json& result) {
   std::string out;
   std::string servers;
   for (const auto& s : result.value("servers", Json::array())) {
      servers += (servers.empty() ? "" : ", ") + text(s);
   }
   out += "local interface: " + text(result.value("local_interface", Json()));
   out += " (address " + text(result.value("local_address", Json())) + ")\n";
   out += "dhcp servers: " + (servers.empty() ? std::string("none") : servers) + "\n";
   if (!result.value("agent_running", false)) out += "the agent is not running\n";
   Table t({"INTERFACE", "CONFIGURED", "IPV4", "LOCKED", "LEASES", "MACS"});
   for (const auto& i : result.value("interfaces", Json::array())) {
      t.rowIs({text(i.value("name", Json())), text(i.value("configured", Json())),
               text(i.value("ipv4", Json())), text(i.value("locked", Json())),
               text(i.value("leases", Json())), text(i.value("macs", Json()))});
   }
   return out + "\n" + t.str();
}

std::string countersText(const Json& result) {
   std::string out;
   for (const auto& c : result) {
      std::string line = text(c.value("name", Json()));
      const auto labels = c.value("labels", Json::object());
      if (!labels.empty()) {
         std::string inner;
         for (const auto& [k, v] : labels.items()) {
            inner += (inner.empty() ? "" : ",") + k + "=" + text(v);
         }
         line += "{" + inner + "}";
      }
      double v = c.value("value", 0.0);
      char buf[32];
      std::snprintf(buf, sizeof buf, v == std::floor(v) ? "%.0f" : "%g", v);
      out += line + " " + buf + "\n";
   }
   return out;
}

std::string reloadText(const Json& result) {
   std::string out;
   const auto changes = result.value("changes", Json::array());
   if (changes.empty()) out += "reloaded: no change\n";
   for (const auto& c : changes) out += "reloaded: " + text(c) + "\n";
   for (const auto& r : result.value("restart_needed", Json::array())) {
      out += "needs a restart of tavrind to take effect: " + text(r) + "\n";
   }
   return out;
}

}  // namespace

void ctlAppIs(CLI::App& app, CtlInvocation& inv) {
   app.description("Shows and changes the state of a running tavrind.");
   app.add_option("--socket", inv.socket, "tavrind's control socket")->capture_default_str();
   app.add_option("--timeout", inv.timeoutSeconds, "Seconds to wait for the daemon's reply")
       ->check(CLI::Range(0.1, 3600.0))
       ->capture_default_str();
   app.require_subcommand(1);

   auto* show = app.add_subcommand("show", "Show the agent's state");
   show->require_subcommand(1);
   showIs(*show, inv, "leases", "Leases held, with their times", Command::showLeases);
   showIs(*show, inv, "queries", "Lease queries waiting for an answer", Command::showQueries);
   showIs(*show, inv, "interfaces", "Configured and locked interfaces", Command::showInterfaces);
   showIs(*show, inv, "counters", "Query, answer and lease counters", Command::showCounters);

   auto* clear = app.add_subcommand("clear", "Remove state");
   clear->require_subcommand(1);
   auto* leases = clear->add_subcommand("leases",
                                        "Remove leases (they are asked for again "
                                        "when their client is next seen)");
   auto* intf = leases->add_option_function<std::string>(
       "--interface", [&inv](const std::string& s) { inv.request.intf = IntfId::parse(s); },
       "Every lease on this interface");
   intf->check(parsedAs<IntfId>("an interface name"));
   auto* server = leases->add_option_function<std::string>(
       "--server", [&inv](const std::string& s) { inv.request.server = IpAddr::parse(s); },
       "Every lease from this DHCP server (with --mac: only that client's)");
   server->check(parsedAs<IpAddr>("an IPv4 address"));
   auto* mac = leases->add_option_function<std::string>(
       "--mac", [&inv](const std::string& s) { inv.request.mac = EthAddr::parse(s); },
       "Every lease of this client");
   mac->check(parsedAs<EthAddr>("a MAC address"));
   intf->excludes(server);
   intf->excludes(mac);
   leases->require_option(1, 2);
   leases->callback([&inv] { inv.request.command = Command::clearLeases; });

   auto* requery = app.add_subcommand("requery", "Ask the servers again about every known MAC");
   requery
       ->add_option_function<std::string>(
           "--server", [&inv](const std::string& s) { inv.request.server = IpAddr::parse(s); },
           "Ask only this configured server")
       ->check(parsedAs<IpAddr>("an IPv4 address"));
   requery->callback([&inv] { inv.request.command = Command::requery; });

   app.add_subcommand("reload", "Re-read the configuration file")->callback([&inv] {
      inv.request.command = Command::reload;
   });
   app.add_subcommand("metrics", "Counters in the Prometheus text format")->callback([&inv] {
      inv.request.command = Command::metrics;
   });
}

std::string ctlText(Command command, const Json& result, double now) {
   switch (command) {
      case Command::showLeases:
         return leasesText(result, now);
      case Command::showQueries:
         return queriesText(result);
      case Command::showInterfaces:
         return interfacesText(result);
      case Command::showCounters:
         return countersText(result);
      case Command::clearLeases: {
         auto n = result.value("removed", 0);
         return "removed " + std::to_string(n) + (n == 1 ? " lease\n" : " leases\n");
      }
      case Command::requery: {
         auto n = result.value("macs", 0);
         return "asked again about " + std::to_string(n) + (n == 1 ? " MAC\n" : " MACs\n");
      }
      case Command::reload:
         return reloadText(result);
      case Command::metrics:
         return result.is_string() ? result.get<std::string>() : result.dump() + "\n";
   }
   return result.dump() + "\n";
}

}  // namespace Tavrin::Daemon
