// The control commands on the in-memory platform: what each show reads from
// the entities, which lease table operation each clear and requery asks
// for (through a recording fake), and the same commands against the real
// agent, whose machines must carry them out.
#include <gtest/gtest.h>

#include "daemon/ControlHandlers.h"
#include "platform/InMemoryPlatform.h"

using namespace Tavrin;
using namespace Tavrin::Daemon;

namespace {

const IntfId swp1{"swp1"}, swp2{"swp2"}, swp3{"swp3"}, swp9{"swp9"}, vlan10{"vlan10"};
const IpAddr s1 = IpAddr::fromBytes(192, 0, 2, 10), s2 = IpAddr::fromBytes(192, 0, 2, 11);
EthAddr mac(unsigned n) {
   return EthAddr::fromU64(0x02005e100000ULL + n);
}
IpAddr ip(unsigned n) {
   return IpAddr::fromBytes(10, 0, 0, uint8_t(n));
}

// Records what was asked; removes from the lease status as the machine
// would, so that the handlers' count of removed leases has something to see.
class FakeOps : public LeaseOps {
 public:
   explicit FakeOps(Ptr<LeaseStatus> status) : status_(std::move(status)) {}
   bool removeIntf(IntfId intf) override {
      calls.push_back("removeIntf " + intf.name());
      if (running) status_->interfaceLeaseSetDel(intf);
      return running;
   }
   bool removeDhcpServer(IpAddr server) override {
      calls.push_back("removeDhcpServer " + server.str());
      return running;
   }
   bool removeLeaseByMac(EthAddr m, IpAddr server) override {
      calls.push_back("removeLeaseByMac " + m.str() + " " + server.str());
      if (!running) return false;
      for (const auto& [intf, set] : status_->interfaceLeaseSetAll()) {
         std::vector<LeaseKey> gone;
         for (const auto& [k, l] : set->ipMacLeaseAll()) {
            if (k.mac == m && k.dhcpAddr == IpGenAddr(server)) gone.push_back(k);
         }
         for (const auto& k : gone) set->ipMacLeaseDel(k);
      }
      return true;
   }
   std::optional<size_t> queryAllMacs(std::optional<IpAddr> server) override {
      calls.push_back("queryAllMacs " + (server ? server->str() : std::string("all")));
      if (!running) return std::nullopt;
      return 3;
   }
   std::vector<IpAddr> serversOfMac(EthAddr) const override { return servers; }

   bool running = true;
   std::vector<IpAddr> servers;
   std::vector<std::string> calls;

 private:
   Ptr<LeaseStatus> status_;
};

struct Handlers : ::testing::Test {
   Platform::InMemoryPlatform platform{1000.0};
   Ptr<CliConfig> cli;
   Ptr<LeaseStatus> leases;
   Ptr<ConfiguredInterfaceStatus> rules;
   Ptr<Platform::IpStatus> ipStatus;
   Ptr<Platform::BridgingStatus> fdb;
   CounterRegistry counters;

   Handlers() {
      registerTavrinTypes(platform.types());
      cli = Rt::ptrCast<CliConfig>(platform.stateEntityIs("tavrin/cliConfig", "Tavrin::CliConfig"));
      platform.stateEntityIs("tavrin/hardware/config", "Tavrin::Hardware::Config");
      ipStatus = Rt::ptrCast<Platform::IpStatus>(platform.stateEntityIs("ip/status", "Ip::Status"));
      rules = Rt::ptrCast<ConfiguredInterfaceStatus>(
          platform.stateEntityIs("tavrin/interfaceStatus", "Tavrin::ConfiguredInterfaceStatus"));
      leases = Rt::ptrCast<LeaseStatus>(
          platform.stateEntityIs("tavrin/leaseStatus", "Tavrin::LeaseStatus"));
      platform.shmEntityIs("tavrin/status", "Tavrin::Status");
      platform.shmEntityIs("tavrin/hardware/installedConfig", "Tavrin::Hardware::InstalledConfig");
      platform.shmEntityIs("tavrin/hardware/arpdrops", "Tavrin::Hardware::ArpDropCounterStatus");
      fdb = Rt::ptrCast<Platform::BridgingStatus>(
          platform.shmEntityIs("bridging/status", "ShmTable::Bridging::Status"));
      declareDaemonFamilies(counters);
   }

   void lease(IntfId intf, unsigned m, unsigned i, IpAddr server, Seconds lastTx, Seconds exp) {
      auto l = leases->interfaceLeaseSetIs(intf)->ipMacLeaseIs({mac(m), ip(i), server});
      l->lastTransactionTimeIs(lastTx);
      l->expirationTimeIs(exp);
   }

   void startAgent() {
      platform.start(
          [](const std::string& n, Platform::AgentFrame& f) {
             return Ptr<Platform::AgentBase>(agentFactory(n, f));
          },
          "Tavrin");
   }

   Reply ask(ControlHandlers& h, const std::string& line) {
      auto reply = h.handleLine(line);
      EXPECT_EQ(reply.find('\n'), reply.size() - 1) << line;
      return parseReply(std::string_view(reply).substr(0, reply.size() - 1));
   }
};

}  // namespace

TEST_F(Handlers, showLeasesListsEveryPersistedLeaseSortedWithItsTimes) {
   lease(swp2, 1, 5, s1, 900, 1600);
   lease(swp1, 2, 7, s2, 950, 1300.5);
   lease(swp1, 2, 6, s1, 940, 990);  // expired ten seconds ago
   FakeOps ops(leases);
   ControlHandlers h(platform, ops, counters, {});
   auto r = ask(h, R"({"command":"show-leases"})");
   ASSERT_TRUE(r.ok) << r.error;
   ASSERT_EQ(r.result.size(), 3u);
   std::vector<std::string> order;
   for (const auto& l : r.result)
      order.push_back(l["interface"].get<std::string>() + " " + l["ip"].get<std::string>());
   EXPECT_EQ(order, (std::vector<std::string>{"swp1 10.0.0.6", "swp1 10.0.0.7", "swp2 10.0.0.5"}));
   const auto& first = r.result[0];
   EXPECT_EQ(first["mac"], mac(2).str());
   EXPECT_EQ(first["server"], s1.str());
   EXPECT_EQ(first["last_transaction"], 940);
   EXPECT_EQ(first["expiration"], 990);
   EXPECT_EQ(first["expires_in"], -10);
   EXPECT_EQ(r.result[1]["expires_in"], 300.5);
}

TEST_F(Handlers, showInterfacesNamesEveryInterfaceAnyoneKnowsOf) {
   cli->localInterfaceIs(vlan10);
   cli->dhcpV4ServerIs(s1);
   cli->interfaceIs(swp1, true);
   cli->interfaceIs(swp3, false);
   rules->interfaceRuleIs(swp1, 1);
   lease(swp1, 1, 5, s1, 900, 1600);
   lease(swp9, 2, 6, s1, 900, 1600);  // left from a configuration since changed
   fdb->fdbStatusIs({0, mac(1)}, {swp1});
   fdb->fdbStatusIs({10, mac(1)}, {swp1});
   fdb->fdbStatusIs({0, mac(3)}, {swp3});
   FakeOps ops(leases);
   ControlHandlers h(platform, ops, counters, {});

   auto r = ask(h, R"({"command":"show-interfaces"})");
   ASSERT_TRUE(r.ok) << r.error;
   EXPECT_EQ(r.result["local_interface"], "vlan10");
   EXPECT_TRUE(r.result["local_address"].is_null()) << "no address: nothing can be sent";
   EXPECT_EQ(r.result["servers"], Json::array({"192.0.2.10"}));
   EXPECT_EQ(r.result["agent_running"], false);
   std::map<std::string, Json> byName;
   for (const auto& i : r.result["interfaces"]) byName[i["name"]] = i;
   ASSERT_EQ(byName.size(), 3u);
   EXPECT_EQ(byName["swp1"], (Json{{"name", "swp1"},
                                   {"configured", true},
                                   {"ipv4", true},
                                   {"locked", true},
                                   {"leases", 1},
                                   {"macs", 2}}));
   EXPECT_EQ(byName["swp3"]["ipv4"], false);
   EXPECT_EQ(byName["swp3"]["macs"], 1);
   EXPECT_EQ(byName["swp9"]["configured"], false);
   EXPECT_EQ(byName["swp9"]["leases"], 1);

   ipStatus->ipIntfStatusIs(vlan10)->primaryAddrIs(IpAddr::fromBytes(10, 0, 0, 1));
   EXPECT_EQ(ask(h, R"({"command":"show-interfaces"})").result["local_address"], "10.0.0.1");
}

TEST_F(Handlers, clearLeasesAsksTheLeaseTableForTheRightRemoval) {
   struct Case {
      const char* what;
      const char* line;
      std::vector<IpAddr> serversOfMac;
      std::vector<std::string> calls;
   } cases[] = {
       {"by interface",
        R"({"command":"clear-leases","interface":"swp1"})",
        {},
        {"removeIntf swp1"}},
       {"by server",
        R"({"command":"clear-leases","server":"192.0.2.11"})",
        {},
        {"removeDhcpServer 192.0.2.11"}},
       {"one client of one server",
        R"({"command":"clear-leases","mac":"02:00:5e:10:00:01","server":"192.0.2.11"})",
        {s1, s2},
        {"removeLeaseByMac 02:00:5e:10:00:01 192.0.2.11"}},
       {"one client of every server it has leases from",
        R"({"command":"clear-leases","mac":"02:00:5e:10:00:01"})",
        {s1, s2},
        {"removeLeaseByMac 02:00:5e:10:00:01 192.0.2.10",
         "removeLeaseByMac 02:00:5e:10:00:01 192.0.2.11"}},
       {"a client without leases",
        R"({"command":"clear-leases","mac":"02:00:5e:10:00:01"})",
        {},
        {}},
   };
   for (const auto& c : cases) {
      FakeOps ops(leases);
      ops.servers = c.serversOfMac;
      ControlHandlers h(platform, ops, counters, {});
      startAgent();
      auto r = ask(h, c.line);
      EXPECT_TRUE(r.ok) << c.what << ": " << r.error;
      EXPECT_EQ(ops.calls, c.calls) << c.what;
      platform.stop();
   }
}

TEST_F(Handlers, clearLeasesCountsWhatWentAndFailsWithoutAnAgent) {
   lease(swp1, 1, 5, s1, 900, 1600);
   lease(swp1, 1, 6, s2, 900, 1600);
   lease(swp2, 2, 7, s1, 900, 1600);
   FakeOps ops(leases);
   ControlHandlers h(platform, ops, counters, {});
   ops.servers = {s1, s2};
   auto r = ask(h, R"({"command":"clear-leases","mac":"02:00:5e:10:00:01"})");
   ASSERT_TRUE(r.ok) << r.error;
   EXPECT_EQ(r.result["removed"], 2);

   ops.running = false;
   r = ask(h, R"({"command":"clear-leases","interface":"swp2"})");
   EXPECT_FALSE(r.ok);
   EXPECT_EQ(r.error, "the agent is not running");
   ops.servers = {};
   r = ask(h, R"({"command":"clear-leases","mac":"02:00:5e:10:00:09"})");
   EXPECT_FALSE(r.ok) << "no agent: not even nothing can be cleared";
}

TEST_F(Handlers, requeryOfAnUnconfiguredServerNeverReachesTheAgent) {
   cli->dhcpV4ServerIs(s1);
   FakeOps ops(leases);
   ControlHandlers h(platform, ops, counters, {});
   // The query machine treats a request for an unknown server as a broken
   // invariant and stops the agent: the handler must filter it.
   auto r = ask(h, R"({"command":"requery","server":"192.0.2.11"})");
   EXPECT_FALSE(r.ok);
   EXPECT_EQ(r.error, "server 192.0.2.11 is not configured");
   EXPECT_TRUE(ops.calls.empty());

   r = ask(h, R"({"command":"requery","server":"192.0.2.10"})");
   EXPECT_TRUE(r.ok) << r.error;
   EXPECT_EQ(r.result["macs"], 3);
   r = ask(h, R"({"command":"requery"})");
   EXPECT_TRUE(r.ok) << r.error;
   EXPECT_EQ(ops.calls, (std::vector<std::string>{"queryAllMacs 192.0.2.10", "queryAllMacs all"}));
}

TEST_F(Handlers, reloadAndBadRequestsAnswerWithTheReason) {
   FakeOps ops(leases);
   std::variant<Json, std::string> outcome = std::string("tavrin.yaml:3: unknown key 'brige'");
   ControlHandlers h(platform, ops, counters, [&] { return outcome; });
   auto r = ask(h, R"({"command":"reload"})");
   EXPECT_FALSE(r.ok);
   EXPECT_EQ(r.error, "tavrin.yaml:3: unknown key 'brige'");
   outcome = Json{{"changes", Json::array({"interface swp4 added, ipv4 on"})}};
   r = ask(h, R"({"command":"reload"})");
   EXPECT_TRUE(r.ok);
   EXPECT_EQ(r.result["changes"][0], "interface swp4 added, ipv4 on");

   r = ask(h, "not json");
   EXPECT_FALSE(r.ok);
   EXPECT_TRUE(ops.calls.empty());
}

TEST_F(Handlers, metricsAndCountersShowTheSameSamples) {
   counters.sourceIs("leases", std::make_unique<LeaseChangeCounter>(leases));
   lease(swp1, 1, 5, s1, 900, 1600);
   FakeOps ops(leases);
   ControlHandlers h(platform, ops, counters, {});
   auto m = ask(h, R"({"command":"metrics"})");
   ASSERT_TRUE(m.ok);
   EXPECT_NE(m.result.get<std::string>().find("\ntavrin_leases_added_total 1\n"), std::string::npos)
       << m.result.get<std::string>();
   auto c = ask(h, R"({"command":"show-counters"})");
   ASSERT_TRUE(c.ok);
   EXPECT_EQ(
       c.result,
       (Json::array(
           {{{"name", "tavrin_leases_added_total"}, {"labels", Json::object()}, {"value", 1}},
            {{"name", "tavrin_leases_removed_total"}, {"labels", Json::object()}, {"value", 0}}})));
}

// ---------------------------------------------------------------- with the agent's machines

struct AgentHandlers : Handlers {
   AgentHandlers() {
      cli->configuredIs(true);
      cli->localInterfaceIs(vlan10);
      cli->dhcpV4ServerIs(s1);
      cli->dhcpV4ServerIs(s2);
      cli->interfaceIs(swp1, true);
      cli->interfaceIs(swp2, true);
      ipStatus->ipIntfStatusIs(vlan10)->primaryAddrIs(IpAddr::fromBytes(10, 0, 0, 1));
   }
   size_t leaseCount() const {
      size_t n = 0;
      for (const auto& [intf, set] : leases->interfaceLeaseSetAll()) n += set->ipMacLeaseSize();
      return n;
   }
   size_t sentSoFar() const {
      auto pam = platform.udpPam("Tavrin");
      return pam ? pam->sent().size() : 0;
   }
};

TEST_F(AgentHandlers, theLeaseTableCarriesOutWhatTheSocketAsks) {
   // Persisted by an earlier run, as the database hands them over.
   lease(swp1, 1, 5, s1, 900, 5000);
   lease(swp1, 1, 6, s2, 900, 5000);
   lease(swp2, 2, 7, s1, 900, 5000);
   lease(swp2, 3, 8, s2, 900, 5000);
   startAgent();
   AgentLeaseOps ops([this] { return Rt::ptrCast<Agent>(platform.agent()); });
   ControlHandlers h(platform, ops, counters, {});
   ASSERT_EQ(leaseCount(), 4u);

   auto servers = ops.serversOfMac(mac(1));
   EXPECT_EQ(servers, (std::vector<IpAddr>{s1, s2}));

   auto r = ask(h, R"({"command":"clear-leases","mac":"02:00:5e:10:00:01"})");
   ASSERT_TRUE(r.ok) << r.error;
   EXPECT_EQ(r.result["removed"], 2);
   EXPECT_EQ(leaseCount(), 2u);

   r = ask(h, R"({"command":"clear-leases","server":"192.0.2.11"})");
   ASSERT_TRUE(r.ok) << r.error;
   EXPECT_EQ(r.result["removed"], 1);

   const size_t before = sentSoFar();
   r = ask(h, R"({"command":"requery","server":"192.0.2.10"})");
   ASSERT_TRUE(r.ok) << r.error;
   EXPECT_EQ(r.result["macs"], 1) << "only mac 2 still holds a lease";
   platform.advance(1.5);
   EXPECT_GT(sentSoFar(), before) << "the requery went out";

   r = ask(h, R"({"command":"clear-leases","interface":"swp2"})");
   ASSERT_TRUE(r.ok) << r.error;
   EXPECT_EQ(r.result["removed"], 1);
   EXPECT_EQ(leaseCount(), 0u);

   r = ask(h, R"({"command":"show-queries"})");
   ASSERT_TRUE(r.ok) << r.error;
   ASSERT_FALSE(r.result.empty());
   EXPECT_EQ(r.result[0]["by"], "mac");
   EXPECT_TRUE(r.result[0]["ip"].is_null());
}
