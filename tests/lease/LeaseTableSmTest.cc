// Lease admission, removal, re-evaluation, moves, the rebuild at start and
// the configuration follower, on hand-built entities.
#include <gtest/gtest.h>

#include <stdexcept>

#include "lease/LeaseHarness.h"
#include "rt/Assert.h"

using namespace Tavrin;
using namespace Tavrin::Test;
using Strings = std::vector<std::string>;

namespace {

const std::string A = mac(1).str(), B = mac(2).str(), C = mac(3).str(), D = mac(4).str();

std::string lease(IntfId intf, const std::string& m, unsigned i, unsigned s, int lastTx, int exp) {
   return intf.name() + " " + m + " " + ip(i).str() + " " + server(s).str() + " " +
          std::to_string(lastTx) + " " + std::to_string(exp);
}
std::string entry(const std::string& m, unsigned i, IntfId intf) {
   return m + " " + ip(i).str() + " " + intf.name();
}
std::string byMacQuery(const std::string& m, IntfId intf, const std::string& s = "0.0.0.0") {
   return m + " 0.0.0.0 " + intf.name() + " delay=0 force=1 server=" + s;
}
std::string byIpQuery(unsigned i, IntfId intf) {
   return "00:00:00:00:00:00 " + ip(i).str() + " " + intf.name() +
          " delay=0 force=1 server=0.0.0.0";
}

bool traced(const TraceLog& trace, const std::string& text) {
   return std::any_of(trace.lines.begin(), trace.lines.end(),
                      [&](const std::string& l) { return l.find(text) != std::string::npos; });
}

// Client A on Ethernet1 holds 10.1.0.10 from server 1 since time 100, and
// 10.1.0.11 and 10.1.0.12 from server 1 and 10.1.0.20 from server 2; client
// B on Ethernet2 holds 10.1.0.30 from server 2.
struct Clients : LeaseHarness {
   Clients() {
      persist(eth1, mac(1), ip(10), server(1), 100, 4000);
      persist(eth1, mac(1), ip(11), server(1), 110, 4000);
      persist(eth1, mac(1), ip(12), server(1), 120, 4000);
      persist(eth1, mac(1), ip(20), server(2), 100, 4000);
      persist(eth2, mac(2), ip(30), server(2), 100, 4000);
      start();
      requests();
   }
};

struct AssertThrows {
   AssertThrows() {
      Rt::assertHandlerIs([](const char* expr, const char*, int) { throw std::logic_error(expr); });
   }
   ~AssertThrows() { Rt::assertHandlerIs(nullptr); }
};

}  // namespace

TEST(LeaseAdmission, answersAgainstAHeldLease) {
   struct Case {
      const char* name;
      Answer answer;
      Strings leases, published, requests;
      std::string trace;
   } cases[] = {
       {"a newer answer from another MAC takes the IP; the displaced MAC is asked again",
        {false, mac(2), ip(10), server(1), 200, 5000, eth1},
        {lease(eth1, B, 10, 1, 200, 5000)},
        {entry(B, 10, eth1)},
        {byMacQuery(A, eth1)},
        "Lease for ip 10.1.0.10 is stale"},
       {"an equal last transaction time does not win",
        {false, mac(2), ip(10), server(1), 100, 5000, eth1},
        {lease(eth1, A, 10, 1, 100, 4000)},
        {entry(A, 10, eth1)},
        {},
        "Disregarding LeaseActive because Lease for ip 10.1.0.10 is latest"},
       {"an older answer does not win either",
        {false, mac(2), ip(10), server(2), 50, 5000, eth1},
        {lease(eth1, A, 10, 1, 100, 4000)},
        {entry(A, 10, eth1)},
        {},
        "Disregarding LeaseActive because Lease for ip 10.1.0.10 is latest"},
       {"a refresh from the same server only moves the times",
        {false, mac(1), ip(10), server(1), 300, 6000},
        {lease(eth1, A, 10, 1, 300, 6000)},
        {entry(A, 10, eth1)},
        {},
        "Lease for ip 10.1.0.10 is stale"},
       {"a newer lease of the same pair from another server replaces the first server's",
        {false, mac(1), ip(10), server(2), 300, 6000},
        {lease(eth1, A, 10, 2, 300, 6000)},
        {entry(A, 10, eth1)},
        {},
        "Lease for ip 10.1.0.10 is stale"},
       {"no client for the IP at the granting server removes the lease",
        {false, EthAddr(), ip(10), server(1), 0, 0},
        {},
        {},
        {},
        "Deleting ClientLease for mac:" + A},
       {"no client for the IP at another server leaves the lease alone",
        {false, EthAddr(), ip(10), server(2), 0, 0},
        {lease(eth1, A, 10, 1, 100, 4000)},
        {entry(A, 10, eth1)},
        {},
        "Not deleting DHCP Server's lease because it is not used"},
       {"no client for an IP nobody holds changes nothing",
        {false, EthAddr(), ip(99), server(1), 0, 0},
        {lease(eth1, A, 10, 1, 100, 4000)},
        {entry(A, 10, eth1)},
        {},
        "No lease present for this IP"},
       {"a new IP for a known client joins it",
        {false, mac(1), ip(11), server(2), 300, 6000},
        {lease(eth1, A, 10, 1, 100, 4000), lease(eth1, A, 11, 2, 300, 6000)},
        {entry(A, 10, eth1), entry(A, 11, eth1)},
        {},
        "Adding IP 10.1.0.11 to client lease of MAC " + A},
       {"an answer on an interface that is not configured is dropped",
        {false, mac(5), ip(50), server(1), 300, 6000, eth9},
        {lease(eth1, A, 10, 1, 100, 4000)},
        {entry(A, 10, eth1)},
        {},
        "void Tavrin::LeaseTableSm::handleLeaseQueryResponse(): intf Ethernet9 not configured"},
       {"an answer without a server is dropped with its message type",
        {false, mac(1), ip(10), IpAddr(), 300, 6000, eth1, 13},
        {lease(eth1, A, 10, 1, 100, 4000)},
        {entry(A, 10, eth1)},
        {},
        "No dhcp addr or intfId in leasequery response 13"},
       {"a by-IP answer for a MAC whose interface nobody knows is dropped",
        {false, mac(5), ip(50), server(1), 300, 6000},
        {lease(eth1, A, 10, 1, 100, 4000)},
        {entry(A, 10, eth1)},
        {},
        "No intfId in leasequery response 13"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      TraceLog trace;
      LeaseHarness h;
      h.persist(eth1, mac(1), ip(10), server(1), 100, 4000);
      h.start();
      h.requests();
      h.post(c.answer);
      EXPECT_EQ(h.leases(), c.leases);
      EXPECT_EQ(h.published(), c.published);
      EXPECT_EQ(h.requests(), c.requests);
      EXPECT_EQ(h.violations(), Strings{});
      EXPECT_TRUE(traced(trace, c.trace)) << c.trace;
   }
}

TEST(LeaseAdmission, aRepeatedNewerAnswerRaisesTheServersNewestTime) {
   LeaseHarness h;
   h.persist(eth1, mac(1), ip(10), server(1), 100, 4000);
   h.persist(eth1, mac(1), ip(11), server(1), 150, 4000);
   h.start();
   auto newest = [&] {
      return h.table->macToLease(mac(1))->dhcpLeaseSet(server(1)).newestLastTransactionTime();
   };
   EXPECT_EQ(newest(), 150);
   h.post({false, mac(1), ip(10), server(1), 200, 5000});
   EXPECT_EQ(newest(), 200);
   // Losing the newest lease brings the time back to the newest that remains.
   h.post({false, EthAddr(), ip(10), server(1), 0, 0});
   EXPECT_EQ(newest(), 150);
   EXPECT_EQ(h.violations(), Strings{});
}

// A server's answer about one client puts the client's other IPs from that
// server in doubt: each is asked about again by IP; whether it goes at once
// depends on whether the answer was taken.
TEST(LeaseReevaluation, aServersAnswerForAClientReachesItsOtherIpsFromThatServer) {
   struct Case {
      const char* name;
      Answer answer;
      Strings leases, requests;
   } cases[] = {
       {"a by-MAC answer naming no IP withdraws every IP of that server",
        {true, mac(1), IpGenAddr(), server(1), 0, 0},
        {lease(eth1, A, 20, 2, 100, 4000), lease(eth2, B, 30, 2, 100, 4000)},
        {byIpQuery(10, eth1), byIpQuery(11, eth1), byIpQuery(12, eth1)}},
       {"a by-MAC answer naming one IP keeps it and withdraws the others of that server",
        {true, mac(1), ip(11), server(1), 200, 5000},
        {lease(eth1, A, 11, 1, 200, 5000), lease(eth1, A, 20, 2, 100, 4000),
         lease(eth2, B, 30, 2, 100, 4000)},
        {byIpQuery(10, eth1), byIpQuery(12, eth1)}},
       {"a disregarded by-MAC answer asks again but keeps the leases until answered",
        {true, mac(1), ip(11), server(1), 110, 5000},
        {lease(eth1, A, 10, 1, 100, 4000), lease(eth1, A, 11, 1, 110, 4000),
         lease(eth1, A, 12, 1, 120, 4000), lease(eth1, A, 20, 2, 100, 4000),
         lease(eth2, B, 30, 2, 100, 4000)},
        {byIpQuery(10, eth1), byIpQuery(12, eth1)}},
       {"a by-MAC answer with a new IP withdraws the server's old ones",
        {true, mac(1), ip(13), server(2), 200, 5000},
        {lease(eth1, A, 10, 1, 100, 4000), lease(eth1, A, 11, 1, 110, 4000),
         lease(eth1, A, 12, 1, 120, 4000), lease(eth1, A, 13, 2, 200, 5000),
         lease(eth2, B, 30, 2, 100, 4000)},
        {byIpQuery(20, eth1)}},
       {"a by-MAC answer naming no IP for a client without leases changes nothing",
        {true, mac(7), IpGenAddr(), server(1), 0, 0},
        {lease(eth1, A, 10, 1, 100, 4000), lease(eth1, A, 11, 1, 110, 4000),
         lease(eth1, A, 12, 1, 120, 4000), lease(eth1, A, 20, 2, 100, 4000),
         lease(eth2, B, 30, 2, 100, 4000)},
        {}},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      Clients h;
      h.post(c.answer);
      EXPECT_EQ(h.leases(), c.leases);
      EXPECT_EQ(h.requests(), c.requests);
      EXPECT_EQ(h.violations(), Strings{});
   }
}

TEST(LeaseAdmission, aByMacAnswerWithoutAnyInterfaceIsAnInternalFault) {
   AssertThrows asserts;
   LeaseHarness h;
   h.start();
   try {
      h.post({true, mac(5), ip(50), server(1), 300, 6000});
      FAIL() << "no assertion";
   } catch (const std::logic_error& e) {
      EXPECT_STREQ(e.what(), "!leaseQueryResponse()->queryByMac()");
   }
}

TEST(LeaseMove, aClientsLeasesFollowItsMacWithTheirServersAndTimes) {
   TraceLog trace;
   Clients h;
   h.move(mac(1), eth2);
   EXPECT_EQ(h.leases(),
             (Strings{lease(eth2, A, 10, 1, 100, 4000), lease(eth2, A, 11, 1, 110, 4000),
                      lease(eth2, A, 12, 1, 120, 4000), lease(eth2, A, 20, 2, 100, 4000),
                      lease(eth2, B, 30, 2, 100, 4000)}));
   EXPECT_EQ(h.published(), (Strings{entry(A, 10, eth2), entry(A, 11, eth2), entry(A, 12, eth2),
                                     entry(A, 20, eth2), entry(B, 30, eth2)}));
   EXPECT_TRUE(traced(trace, "mac: " + A + ", old intfId: Ethernet1, new intfId: Ethernet2"));
   // Every server set holds the re-filed records, not the dropped ones.
   EXPECT_EQ(h.violations(), Strings{});
   EXPECT_EQ(h.requests(), Strings{});
}

TEST(LeaseMove, movesThatDoNotApply) {
   struct Case {
      const char* name;
      EthAddr mac;
      IntfId intf;
      std::string trace;
   } cases[] = {
       {"a MAC without leases", mac(7), eth2, "No lease for MAC " + mac(7).str()},
       {"an interface that is not locked", mac(1), eth9, "intf Ethernet9 not configured"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      TraceLog trace;
      Clients h;
      auto before = h.leases();
      h.move(c.mac, c.intf);
      EXPECT_EQ(h.leases(), before);
      EXPECT_TRUE(traced(trace, c.trace)) << c.trace;
   }
}

TEST(LeaseMove, anAnswerSeenOnTheMacsNewInterfaceMovesTheClient) {
   TraceLog trace;
   Clients h;
   h.macIntfMap->intfIdIs(mac(1), eth2);
   h.post({true, mac(1), ip(10), server(1), 200, 5000});
   EXPECT_TRUE(traced(trace, "Existing lease for mac " + A +
                                 " is on Ethernet1 . Moving the lease to intf Ethernet2"));
   EXPECT_EQ(h.leases(),
             (Strings{lease(eth2, A, 10, 1, 200, 5000), lease(eth2, A, 20, 2, 100, 4000),
                      lease(eth2, B, 30, 2, 100, 4000)}));
   EXPECT_EQ(h.requests(), (Strings{byIpQuery(11, eth2), byIpQuery(12, eth2)}));
   EXPECT_EQ(h.violations(), Strings{});
}

TEST(LeaseRebuild, persistedLeasesAreReEnteredAsTheConfigurationAndMacTableNowStand) {
   TraceLog trace;
   LeaseHarness h;
   h.cliConfig->interfaceIs(eth3, false);
   h.persist(eth1, mac(1), ip(10), server(1), 100, 4000);
   h.persist(eth1, mac(1), ip(11), server(2), 110, 4100);
   h.persist(eth2, mac(2), ip(30), server(1), 130, 4300);  // B has moved to Ethernet1
   h.persist(eth3, mac(3), ip(40), server(1), 140, 4400);  // ipv4 off: dropped
   h.persist(eth9, mac(3), ip(41), server(1), 140, 4400);  // not configured: dropped
   h.persist(eth2, mac(4), ip(50), server(9), 150, 4500);  // server no longer configured
   h.macIntfMap->intfIdIs(mac(2), eth1);
   h.macIntfMap->intfIdIs(mac(6), eth2);  // known MAC without leases
   h.publishedIs(mac(1), ip(10), eth2);   // wrong interface
   h.publishedIs(mac(8), ip(80), eth1);   // nobody holds it
   h.publishedIs(mac(4), ip(50), eth2);
   h.start();
   EXPECT_EQ(h.leases(),
             (Strings{lease(eth1, A, 10, 1, 100, 4000), lease(eth1, A, 11, 2, 110, 4100),
                      lease(eth1, B, 30, 1, 130, 4300)}));
   EXPECT_EQ(h.published(), (Strings{entry(A, 10, eth1), entry(A, 11, eth1), entry(B, 30, eth1)}));
   EXPECT_FALSE(h.leaseStatus->interfaceLeaseSet(eth3));
   EXPECT_FALSE(h.leaseStatus->interfaceLeaseSet(eth9));
   // Every known MAC is asked again, by MAC, at every server.
   EXPECT_EQ(h.requests(),
             (Strings{byMacQuery(A, eth1), byMacQuery(B, eth1), byMacQuery(mac(6).str(), eth2)}));
   EXPECT_TRUE(traced(trace, "Deleting mac " + mac(8).str() + ", ip 10.1.0.80, intfId Ethernet1"));
   EXPECT_EQ(h.violations(), Strings{});
   EXPECT_TRUE(h.sm->initialized());
}

// What an earlier run or an operator left behind is resolved the way
// admission would have resolved it.
TEST(LeaseRebuild, conflictingPersistedLeasesKeepTheNewest) {
   LeaseHarness h;
   h.persist(eth1, mac(1), ip(10), server(1), 100, 4000);
   h.persist(eth2, mac(2), ip(10), server(1), 200, 5000);  // same IP, newer
   h.persist(eth1, mac(3), ip(20), server(1), 300, 6000);
   h.persist(eth1, mac(3), ip(20), server(2), 250, 6000);  // same pair, older
   h.persist(eth2, mac(3), ip(21), server(1), 300, 6000);  // the MAC on two interfaces
   h.start();
   EXPECT_EQ(h.leases(),
             (Strings{lease(eth1, C, 20, 1, 300, 6000), lease(eth1, C, 21, 1, 300, 6000),
                      lease(eth2, B, 10, 1, 200, 5000)}));
   EXPECT_EQ(h.violations(), Strings{});
}

TEST(LeaseConfiguration, serversAndInterfacesThatLeaveTakeTheirLeases) {
   struct Case {
      const char* name;
      std::function<void(CliConfig&)> change;
      Strings leases, requests;
   } cases[] = {
       {"a server removed",
        [](CliConfig& c) { c.dhcpV4ServerDel(server(1)); },
        {lease(eth1, A, 20, 2, 100, 4000), lease(eth2, B, 30, 2, 100, 4000)},
        {}},
       {"a server added: every known MAC is asked at it",
        [](CliConfig& c) { c.dhcpV4ServerIs(server(3)); },
        {lease(eth1, A, 10, 1, 100, 4000), lease(eth1, A, 11, 1, 110, 4000),
         lease(eth1, A, 12, 1, 120, 4000), lease(eth1, A, 20, 2, 100, 4000),
         lease(eth2, B, 30, 2, 100, 4000)},
        {byMacQuery(A, eth1, "10.0.0.3"), byMacQuery(B, eth2, "10.0.0.3"),
         byMacQuery(D, eth2, "10.0.0.3")}},
       {"an interface removed",
        [](CliConfig& c) { c.interfaceDel(eth1); },
        {lease(eth2, B, 30, 2, 100, 4000)},
        {}},
       {"an interface with ipv4 switched off",
        [](CliConfig& c) { c.interface(eth2)->ipv4Is(false); },
        {lease(eth1, A, 10, 1, 100, 4000), lease(eth1, A, 11, 1, 110, 4000),
         lease(eth1, A, 12, 1, 120, 4000), lease(eth1, A, 20, 2, 100, 4000)},
        {}},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      Clients h;
      h.macIntfMap->intfIdIs(mac(4), eth2);
      c.change(*h.cliConfig);
      EXPECT_EQ(h.leases(), c.leases);
      EXPECT_EQ(h.requests(), c.requests);
      EXPECT_EQ(h.violations(), Strings{});
   }
}

TEST(LeaseConfiguration, anInterfaceSwitchedBackOnAdmitsAnswersAgain) {
   Clients h;
   h.cliConfig->interface(eth2)->ipv4Is(false);
   Answer answer{false, mac(2), ip(30), server(2), 200, 5000, eth2};
   h.post(answer);
   EXPECT_EQ(h.table->macToLease(mac(2)), nullptr);
   h.cliConfig->interface(eth2)->ipv4Is(true);
   EXPECT_TRUE(h.leaseStatus->interfaceLeaseSet(eth2));
   h.post(answer);
   EXPECT_NE(h.table->macToLease(mac(2)), nullptr);
   // A re-added interface is followed again.
   h.cliConfig->interfaceDel(eth2);
   h.cliConfig->interfaceIs(eth2, false);
   h.cliConfig->interface(eth2)->ipv4Is(true);
   h.post(answer);
   EXPECT_EQ(h.leases().size(), 5u);
   h.cliConfig->interface(eth2)->ipv4Is(false);
   EXPECT_EQ(h.leases().size(), 4u);
   EXPECT_EQ(h.violations(), Strings{});
}

TEST(LeaseTableSm, toleratesMissingInputs) {
   LeaseHarness h;
   h.persist(eth1, mac(1), ip(10), server(1), 100, 4000);
   // Without a configuration nothing persisted is withdrawn and nothing new
   // is admitted.
   auto sm = leaseTableSmFactory(h.table, nullptr, nullptr, h.response, nullptr, nullptr);
   h.post({false, mac(2), ip(20), server(1), 200, 5000, eth1});
   EXPECT_EQ(h.leases(), (Strings{lease(eth1, A, 10, 1, 100, 4000)}));
   EXPECT_EQ(h.table->ipToLeaseAll().size(), 1u);
   auto none = leaseTableSmFactory(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
   EXPECT_FALSE(none->initialized());
}
