// The consistency check must see each kind of broken index, or the
// randomised test that relies on it proves nothing.
#include <gtest/gtest.h>

#include <functional>

#include "lease/LeaseHarness.h"

using namespace Tavrin;
using namespace Tavrin::Test;

TEST(LeaseTableCheck, findsEachKindOfBrokenIndex) {
   struct Case {
      const char* name;
      std::function<void(LeaseHarness&)> breakIt;
      const char* expected;  // part of a reported violation
   } cases[] = {
       {"an IP missing from ipToLease", [](LeaseHarness& h) { h.table->ipToLeaseDel(ip(10)); },
        "ipToLease 10.1.0.10"},
       {"a client that no longer lists the server of its leases",
        [](LeaseHarness& h) { h.table->macToLease(mac(1))->dhcpLeaseSetDel(server(1)); },
        "missing from its server set"},
       {"a server left listed in a client without leases from it",
        [](LeaseHarness& h) { h.table->macToLease(mac(1))->dhcpLeaseSetIs(server(2)); },
        "keeps an empty set"},
       {"a wrong newest time",
        [](LeaseHarness& h) {
           h.table->macToLease(mac(1))->dhcpLeaseSet(server(1)).newestLastTransactionTimeIs(1);
        },
        "newest time"},
       {"a persisted lease deleted behind the table's back",
        [](LeaseHarness& h) {
           h.leaseStatus->interfaceLeaseSet(eth1)->ipMacLeaseDel({mac(1), ip(10), server(1)});
        },
        "is not persisted there"},
       {"a persisted lease the table does not index",
        [](LeaseHarness& h) {
           h.leaseStatus->interfaceLeaseSet(eth1)->ipMacLeaseIs({mac(1), ip(99), server(1)});
        },
        "is not indexed"},
       {"a client left in a server set it no longer belongs to",
        [](LeaseHarness& h) {
           h.table->dhcpServerLeaseSetIs(server(2))->clientLeaseIs(h.table->macToLease(mac(1)));
        },
        "without its leases"},
       {"a client missing from its interface set",
        [](LeaseHarness& h) {
           h.table->interfaceClientLeaseSet(eth1)->clientLeaseDel(h.table->macToLease(mac(1)));
        },
        "missing from the set of its interface"},
       {"a published entry on the wrong interface",
        [](LeaseHarness& h) {
           h.shm->ipMacLeaseIs({{mac(1), ip(10)}, eth2, false});
        },
        "is published on Ethernet2"},
       {"a published entry nobody holds",
        [](LeaseHarness& h) {
           h.shm->ipMacLeaseIs({{mac(9), ip(90)}, eth1, false});
        },
        "published entries but"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      LeaseHarness h;
      h.persist(eth1, mac(1), ip(10), server(1), 100, 4000);
      h.persist(eth1, mac(1), ip(11), server(1), 110, 4000);
      h.persist(eth2, mac(2), ip(20), server(2), 100, 4000);
      h.start();
      ASSERT_EQ(h.violations(), std::vector<std::string>{});
      // The machines must not repair what the test breaks.
      h.shmSm = nullptr;
      h.sm = nullptr;
      c.breakIt(h);
      auto found = h.violations();
      bool named = std::any_of(found.begin(), found.end(), [&](const std::string& v) {
         return v.find(c.expected) != std::string::npos;
      });
      EXPECT_TRUE(named) << c.expected << "\nfound:\n" << ::testing::PrintToString(found);
   }
}
