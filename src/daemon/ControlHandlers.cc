#include "daemon/ControlHandlers.h"

#include <algorithm>
#include <set>
#include <tuple>

#include "rt/Clock.h"

namespace Tavrin::Daemon {

namespace {

Json optionalAddr(const IpGenAddr& a) {
   return a.isEmpty() ? Json() : Json(a.str());
}
Json optionalMac(EthAddr m) {
   return m.isZero() ? Json() : Json(m.str());
}

}  // namespace

ControlHandlers::ControlHandlers(const Platform::Framework& framework, LeaseOps& ops,
                                 const CounterRegistry& counters, ReloadFn reload)
    : framework_(framework), ops_(ops), counters_(counters), reload_(std::move(reload)) {}

std::string ControlHandlers::handleLine(std::string_view line) {
   auto parsed = parseRequest(line);
   if (auto* why = std::get_if<std::string>(&parsed)) return replyError(*why);
   auto result = handle(std::get<Request>(parsed));
   if (auto* why = std::get_if<std::string>(&result)) return replyError(*why);
   return replyOk(std::get<Json>(result));
}

std::variant<Json, std::string> ControlHandlers::handle(const Request& r) {
   switch (r.command) {
      case Command::showLeases:
         return showLeases();
      case Command::showQueries:
         return showQueries();
      case Command::showInterfaces:
         return showInterfaces();
      case Command::showCounters:
         return countersJson(counters_.collect());
      case Command::clearLeases:
         return clearLeases(r);
      case Command::requery:
         return requery(r);
      case Command::reload:
         return reload();
      case Command::metrics:
         return Json(prometheusText(counters_.families(), counters_.collect()));
   }
   return std::string("unhandled command");
}

Ptr<TavrinRoot> ControlHandlers::root() const {
   auto agent = Rt::ptrCast<Agent>(framework_.agent());
   return agent ? agent->tavrinRoot() : nullptr;
}

// ---------------------------------------------------------------- show

Json ControlHandlers::showLeases() const {
   auto out = Json::array();
   auto status = framework_.state<LeaseStatus>("tavrin/leaseStatus");
   if (!status) return out;
   std::vector<std::tuple<IntfId, LeaseKey, Ptr<IpMacLease>>> rows;
   for (const auto& [intf, set] : status->interfaceLeaseSetAll()) {
      for (const auto& [key, lease] : set->ipMacLeaseAll()) rows.emplace_back(intf, key, lease);
   }
   // The table's own order is a hash order; people read sorted lists.
   std::sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) {
      return std::tie(std::get<0>(a), std::get<1>(a)) < std::tie(std::get<0>(b), std::get<1>(b));
   });
   const Seconds now = Rt::now();
   for (const auto& [intf, key, lease] : rows) {
      out.push_back({{"interface", intf.name()},
                     {"mac", key.mac.str()},
                     {"ip", key.ip.str()},
                     {"server", key.dhcpAddr.str()},
                     {"last_transaction", lease->lastTransactionTime()},
                     {"expiration", lease->expirationTime()},
                     {"expires_in", lease->expirationTime() - now}});
   }
   return out;
}

Json ControlHandlers::showQueries() const {
   auto out = Json::array();
   auto r = root();
   if (!r || !r->leaseQuerySm()) return out;
   // In pair order: the table itself has none.
   std::vector<std::pair<IpMacPair, Ptr<QueryContext>>> queries;
   for (const auto& [pair, ctx] : r->leaseQuerySm()->queryContextAll()) queries.emplace_back(pair, ctx);
   std::sort(queries.begin(), queries.end(),
             [](const auto& a, const auto& b) { return a.first < b.first; });
   for (const auto& [pair, ctx] : queries) {
      auto pending = Json::array();
      for (const auto& s : ctx->pendingServerAll()) pending.push_back(s.str());
      out.push_back({{"by", pair.mac.isZero() ? "ip" : "mac"},
                     {"ip", optionalAddr(pair.ip)},
                     {"mac", optionalMac(pair.mac)},
                     {"interface", ctx->intfId().isEmpty() ? Json() : Json(ctx->intfId().name())},
                     {"xid", ctx->genId()},
                     {"rounds", ctx->sentCount()},
                     {"pending", pending},
                     {"active_answer", ctx->receivedValidLease()}});
   }
   return out;
}

Json ControlHandlers::showInterfaces() const {
   auto cli = framework_.state<CliConfig>("tavrin/cliConfig");
   auto rules = framework_.state<ConfiguredInterfaceStatus>("tavrin/interfaceStatus");
   auto status = framework_.state<LeaseStatus>("tavrin/leaseStatus");
   auto fdb = framework_.shm<Platform::BridgingStatus>("bridging/status");
   auto ipStatus = framework_.state<Platform::IpStatus>("ip/status");

   // Every interface anyone knows of: configured, locked, or holding leases
   // (leases may outlive a configuration the daemon has not yet re-read).
   std::set<IntfId> names;
   if (cli) {
      for (const auto& [intf, c] : cli->interfaceAll()) names.insert(intf);
   }
   if (rules) {
      for (const auto& [intf, rule] : rules->interfaceRuleAll()) names.insert(intf);
   }
   if (status) {
      for (const auto& [intf, set] : status->interfaceLeaseSetAll()) names.insert(intf);
   }
   std::map<IntfId, size_t> macs;
   if (fdb) {
      for (const auto& [key, entry] : fdb->fdbStatusAll()) ++macs[entry.intf];
   }
   auto list = Json::array();
   for (auto intf : names) {
      auto c = cli ? cli->interface(intf) : nullptr;
      auto set = status ? status->interfaceLeaseSet(intf) : nullptr;
      list.push_back({{"name", intf.name()},
                      {"configured", bool(c)},
                      {"ipv4", c && c->ipv4()},
                      {"locked", rules && rules->interfaceRule(intf).has_value()},
                      {"leases", set ? set->ipMacLeaseSize() : 0},
                      {"macs", macs.count(intf) ? macs[intf] : 0}});
   }
   Json out = {{"interfaces", list}};
   auto servers = Json::array();
   if (cli) {
      for (auto s : cli->dhcpV4ServerAll()) servers.push_back(s.str());
   }
   out["servers"] = servers;
   IntfId local = cli ? cli->localInterface() : IntfId();
   out["local_interface"] = local.isEmpty() ? Json() : Json(local.name());
   // The queries' source and giaddr: without it nothing is sent, which is
   // the first thing to check when no lease ever appears.
   Json address;
   if (!local.isEmpty() && ipStatus) {
      if (auto s = ipStatus->ipIntfStatus(local); s && !s->primaryAddr().isAny()) {
         address = s->primaryAddr().str();
      }
   }
   out["local_address"] = address;
   out["agent_running"] = bool(root());
   return out;
}

// ---------------------------------------------------------------- changes

size_t ControlHandlers::leaseCount() const {
   size_t n = 0;
   if (auto status = framework_.state<LeaseStatus>("tavrin/leaseStatus")) {
      for (const auto& [intf, set] : status->interfaceLeaseSetAll()) n += set->ipMacLeaseSize();
   }
   return n;
}

std::variant<Json, std::string> ControlHandlers::clearLeases(const Request& r) {
   const size_t before = leaseCount();
   bool ran = false;
   if (r.intf) {
      ran = ops_.removeIntf(*r.intf);
   } else if (r.mac) {
      // Without a server, every server the client holds leases from.
      std::vector<IpAddr> servers =
          r.server ? std::vector<IpAddr>{*r.server} : ops_.serversOfMac(*r.mac);
      ran = true;
      for (auto s : servers) ran = ops_.removeLeaseByMac(*r.mac, s) && ran;
      if (servers.empty()) ran = bool(root());
   } else if (r.server) {
      ran = ops_.removeDhcpServer(*r.server);
   }
   if (!ran) return std::string("the agent is not running");
   const size_t after = leaseCount();
   return Json{{"removed", before >= after ? before - after : 0}};
}

std::variant<Json, std::string> ControlHandlers::requery(const Request& r) {
   if (r.server) {
      // The query machine takes a request for an unknown server as a broken
      // invariant; a typing error must not stop the agent.
      auto cli = framework_.state<CliConfig>("tavrin/cliConfig");
      if (!cli || !cli->dhcpV4ServerHas(*r.server)) {
         return "server " + r.server->str() + " is not configured";
      }
   }
   auto n = ops_.queryAllMacs(r.server);
   if (!n) return std::string("the agent is not running");
   return Json{{"macs", *n}};
}

std::variant<Json, std::string> ControlHandlers::reload() {
   if (!reload_) return std::string("reload is not available");
   return reload_();
}

}  // namespace Tavrin::Daemon
