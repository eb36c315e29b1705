#include <gtest/gtest.h>

#include "triggers/ArpDropCounterStatusSm.h"
#include "triggers/RequestRecorder.h"

using namespace Tavrin;
using TestKit::byMac;
using TestKit::Posting;

namespace {

const EthAddr kMacA = EthAddr::fromU64(0x020000000001);
const EthAddr kMacB = EthAddr::fromU64(0x020000000002);
const EthAddr kMacC = EthAddr::fromU64(0x020000000003);
const EthAddr kStranger = EthAddr::fromU64(0x0200000000ff);
const IntfId kEth1("Ethernet1");
const IntfId kEth2("Ethernet2");
const IntfId kEth3("Ethernet3");
const IpAddr kServer = IpAddr::fromBytes(10, 0, 0, 1);

class ArpDropCounterStatusSmTest : public ::testing::Test {
 protected:
   ArpDropCounterStatusSmTest() {
      cliConfig->dhcpV4ServerIs(kServer);
      cliConfig->interfaceIs(kEth1, true);
      cliConfig->interfaceIs(kEth2, true);
      for (auto mac : {kMacA, kMacB, kMacC}) intfMacSetMap->intfMacSetIs(kEth1)->macIs(mac);
   }

   void start() {
      sm = arpDropCounterStatusSmFactory(counters, cliConfig, intfMacSetMap, request, response);
   }
   void drop(IntfId intf) { counters->arpDropCounterIs(intf, ++count_); }
   void respond(EthAddr mac, Seconds expirationTime = 0) {
      response->macIs(mac);
      response->expirationTimeIs(expirationTime);
      response->versionNumberInc(1);
   }
   std::set<EthAddr> pending(IntfId intf) const {
      auto set = sm->pendingIntfMacSet(intf);
      return set ? set->macAll() : std::set<EthAddr>();
   }

   Ptr<Hardware::ArpDropCounterStatus> counters = Rt::makePtr<Hardware::ArpDropCounterStatus>();
   Ptr<CliConfig> cliConfig = Rt::makePtr<CliConfig>();
   Ptr<IntfMacSetMap> intfMacSetMap = Rt::makePtr<IntfMacSetMap>();
   Ptr<LeaseQueryRequest> request = Rt::makePtr<LeaseQueryRequest>();
   Ptr<LeaseQueryResponse> response = Rt::makePtr<LeaseQueryResponse>();
   TestKit::RequestRecorder requests{request};
   Ptr<ArpDropCounterStatusSm> sm;

 private:
   uint64_t count_ = 0;
};

TEST_F(ArpDropCounterStatusSmTest, batchOpensIgnoresRepeatsShrinksWithAnswersAndCloses) {
   start();
   const std::vector<Posting> batch{byMac(kMacA, kEth1, false, false),
                                    byMac(kMacB, kEth1, false, false),
                                    byMac(kMacC, kEth1, false, false)};
   drop(kEth1);
   EXPECT_EQ(requests.take(), batch);
   EXPECT_EQ(pending(kEth1), (std::set<EthAddr>{kMacA, kMacB, kMacC}));
   for (auto mac : {kMacA, kMacB, kMacC}) EXPECT_EQ(sm->macToIntf(mac), kEth1);

   drop(kEth1);  // while the batch is open
   EXPECT_TRUE(requests.take().empty());

   respond(kMacB, 5000);  // an active lease
   respond(kStranger);    // never queried here: nothing changes
   respond(kMacA);        // no lease: closes its part just the same
   EXPECT_EQ(pending(kEth1), std::set<EthAddr>{kMacC});
   EXPECT_FALSE(sm->macToIntfAll().count(kMacA));
   drop(kEth1);
   EXPECT_TRUE(requests.take().empty());

   respond(kMacC);
   EXPECT_TRUE(sm->pendingIntfMacSetAll().empty());
   EXPECT_TRUE(sm->macToIntfAll().empty());

   drop(kEth1);  // closed: the next change sends a new batch
   EXPECT_EQ(requests.take(), batch);
}

TEST_F(ArpDropCounterStatusSmTest, macClaimedByAnotherInterfacesBatchLeavesItsFirstBatch) {
   start();
   drop(kEth1);
   // A and B move to Ethernet2 before Ethernet1's batch is answered.
   intfMacSetMap->intfMacSetIs(kEth2)->macIs(kMacA);
   intfMacSetMap->intfMacSetIs(kEth2)->macIs(kMacB);
   requests.take();

   drop(kEth2);
   EXPECT_EQ(requests.take(), (std::vector<Posting>{byMac(kMacA, kEth2, false, false),
                                                    byMac(kMacB, kEth2, false, false)}));
   EXPECT_EQ(pending(kEth1), std::set<EthAddr>{kMacC});
   EXPECT_EQ(pending(kEth2), (std::set<EthAddr>{kMacA, kMacB}));
   EXPECT_EQ(sm->macToIntf(kMacA), kEth2);

   // C moves too: Ethernet1's batch loses its last MAC and closes.
   intfMacSetMap->intfMacSetIs(kEth3)->macIs(kMacC);
   cliConfig->interfaceIs(kEth3, true);
   drop(kEth3);
   EXPECT_FALSE(sm->pendingIntfMacSet(kEth1));
   EXPECT_EQ(pending(kEth3), std::set<EthAddr>{kMacC});
}

TEST_F(ArpDropCounterStatusSmTest, changeOnAnInterfaceThatCannotBeQueriedIsOnlyTraced) {
   start();
   struct Case {
      const char* what;
      IntfId intf;
   } cases[] = {{"not configured", kEth3}, {"no MACs known", kEth2}};
   for (const auto& c : cases) {
      SCOPED_TRACE(c.what);
      drop(c.intf);
      EXPECT_TRUE(requests.take().empty());
      EXPECT_TRUE(sm->pendingIntfMacSetAll().empty());
   }
   cliConfig->interface(kEth1)->ipv4Is(false);
   drop(kEth1);
   EXPECT_TRUE(requests.take().empty());

   // An open batch survives the loss of the last server; new changes do nothing.
   cliConfig->interface(kEth1)->ipv4Is(true);
   drop(kEth1);
   requests.take();
   cliConfig->dhcpV4ServerDel(kServer);
   respond(kMacA);
   drop(kEth1);
   EXPECT_TRUE(requests.take().empty());
   EXPECT_EQ(pending(kEth1), (std::set<EthAddr>{kMacB, kMacC}));
}

TEST_F(ArpDropCounterStatusSmTest, countersPresentAtStartOpenTheirBatches) {
   counters->arpDropCounterIs(kEth1, 7);
   counters->arpDropCounterIs(kEth3, 2);  // not configured
   start();
   EXPECT_EQ(requests.take().size(), 3u);
   EXPECT_EQ(pending(kEth1), (std::set<EthAddr>{kMacA, kMacB, kMacC}));
}

TEST_F(ArpDropCounterStatusSmTest, toleratesMissingInputs) {
   sm = arpDropCounterStatusSmFactory(nullptr, nullptr, nullptr, request, nullptr);
   drop(kEth1);
   sm = arpDropCounterStatusSmFactory(counters, nullptr, intfMacSetMap, request, response);
   drop(kEth1);
   respond(kMacA);
   EXPECT_TRUE(requests.take().empty());
   EXPECT_TRUE(sm->pendingIntfMacSetAll().empty());
}

}  // namespace
