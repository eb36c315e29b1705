// Publication of the lease table into the shared-memory table: every change
// of one IP is mirrored at once, and creation resynchronises with what an
// earlier run left behind.
#include <gtest/gtest.h>

#include "lease/LeaseHarness.h"

using namespace Tavrin;
using namespace Tavrin::Test;
using Strings = std::vector<std::string>;

namespace {

struct Table {
   Ptr<LeaseStatus> leaseStatus = Rt::makePtr<LeaseStatus>();
   Ptr<LeaseTable> table = Rt::makePtr<LeaseTable>(leaseStatus);
   Ptr<Status> shm = Rt::makePtr<Status>();

   // Indexes one lease the way lease admission does, without the machine.
   Ptr<ClientLease> hold(EthAddr m, IpGenAddr i, IntfId intf) {
      auto client = table->macToLeaseIs(m, intf);
      auto lease = leaseStatus->interfaceLeaseSetIs(intf)->ipMacLeaseIs({m, i, server(1)});
      client->ipMacLeaseByIpIs(i, lease);
      table->ipToLeaseIs(i, client);
      return client;
   }
   Strings published() const {
      Strings out;
      for (const auto& [key, e] : shm->ipMacLeaseAll()) {
         out.push_back(key.mac.str() + " " + key.ip.str() + " " + e.intfId.name());
      }
      std::sort(out.begin(), out.end());
      return out;
   }
};

}  // namespace

TEST(LeasePublication, followsEachIpOfTheLeaseTable) {
   Table t;
   auto sm = leaseTableShmTableSmFactory(t.table, t.shm, nullptr);
   auto a = t.hold(mac(1), ip(10), eth1);
   t.hold(mac(1), ip(11), eth1);
   EXPECT_EQ(t.published(), (Strings{mac(1).str() + " 10.1.0.10 Ethernet1",
                                     mac(1).str() + " 10.1.0.11 Ethernet1"}));

   // The IP handed straight to another client: the old pair must not stay.
   t.hold(mac(2), ip(10), eth2);
   EXPECT_EQ(t.published(), (Strings{mac(1).str() + " 10.1.0.11 Ethernet1",
                                     mac(2).str() + " 10.1.0.10 Ethernet2"}));

   t.table->ipToLeaseDel(ip(11));
   EXPECT_EQ(t.published(), (Strings{mac(2).str() + " 10.1.0.10 Ethernet2"}));
   EXPECT_EQ(sm->ipToLeaseKeySize(), 1u);

   // Withdrawing an IP that was never published writes nothing.
   t.table->ipToLeaseDel(ip(99));
   EXPECT_EQ(t.published().size(), 1u);
}

TEST(LeasePublication, creationDropsWhatTheTableDoesNotHoldAndWritesTheRest) {
   TraceLog trace;
   Table t;
   t.hold(mac(1), ip(10), eth1);
   t.hold(mac(2), ip(20), eth2);
   t.shm->ipMacLeaseIs({{mac(1), ip(10)}, eth1, false});  // current
   t.shm->ipMacLeaseIs({{mac(2), ip(20)}, eth1, false});  // the client moved since
   t.shm->ipMacLeaseIs({{mac(3), ip(10)}, eth1, false});  // the IP changed hands
   t.shm->ipMacLeaseIs({{mac(4), ip(40)}, eth1, false});  // nobody holds it
   auto sm = leaseTableShmTableSmFactory(t.table, t.shm, nullptr);
   EXPECT_EQ(t.published(), (Strings{mac(1).str() + " 10.1.0.10 Ethernet1",
                                     mac(2).str() + " 10.1.0.20 Ethernet2"}));
   EXPECT_TRUE(trace.has("Deleting mac " + mac(4).str() + ", ip 10.1.0.40, intfId Ethernet1"));
   EXPECT_TRUE(trace.has("Adding mac " + mac(2).str() + ", ip 10.1.0.20, intfId Ethernet2"));
   // Later withdrawals need no read of the shared table.
   t.table->ipToLeaseDel(ip(20));
   EXPECT_EQ(t.published(), (Strings{mac(1).str() + " 10.1.0.10 Ethernet1"}));
}

TEST(LeasePublication, stopsFollowingWhenDestroyedAndToleratesMissingInputs) {
   Table t;
   auto sm = leaseTableShmTableSmFactory(t.table, t.shm, nullptr);
   sm = nullptr;
   t.hold(mac(1), ip(10), eth1);
   EXPECT_EQ(t.published(), Strings{});
   auto noTable = leaseTableShmTableSmFactory(t.table, nullptr, nullptr);
   auto noShm = leaseTableShmTableSmFactory(nullptr, t.shm, nullptr);
   t.hold(mac(2), ip(20), eth1);
   EXPECT_EQ(t.published(), Strings{});
}
