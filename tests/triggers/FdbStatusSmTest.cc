#include <gtest/gtest.h>

#include "triggers/FdbStatusSm.h"
#include "triggers/RequestRecorder.h"

using namespace Tavrin;
using TestKit::byMac;
using TestKit::Posting;

namespace {

const EthAddr kMacA = EthAddr::fromU64(0x020000000001);
const EthAddr kMacB = EthAddr::fromU64(0x020000000002);
const EthAddr kMacC = EthAddr::fromU64(0x020000000003);
const IntfId kEth1("Ethernet1");
const IntfId kEth2("Ethernet2");
const IntfId kEth3("Ethernet3");
const IpAddr kServer = IpAddr::fromBytes(10, 0, 0, 1);

class FdbStatusSmTest : public ::testing::Test {
 protected:
   FdbStatusSmTest() {
      cliConfig->dhcpV4ServerIs(kServer);
      cliConfig->interfaceIs(kEth1, true);
      cliConfig->interfaceIs(kEth2, true);
   }

   void start() {
      sm = fdbStatusSmFactory(leaseTable, request, movedMac, macIntfMap, intfMacSetMap, fdb,
                              cliConfig);
   }
   void learn(uint16_t fid, EthAddr mac, IntfId intf) { fdb->fdbStatusIs({fid, mac}, {intf}); }
   void age(uint16_t fid, EthAddr mac) { fdb->fdbStatusDel({fid, mac}); }

   // The shared maps, read back as plain values.
   std::set<EthAddr> macsOn(IntfId intf) const {
      auto set = intfMacSetMap->intfMacSet(intf);
      return set ? set->macAll() : std::set<EthAddr>();
   }
   std::map<EthAddr, IntfId> macIntf() const {
      return {macIntfMap->intfIdAll().begin(), macIntfMap->intfIdAll().end()};
   }

   Ptr<LeaseStatus> leaseStatus = Rt::makePtr<LeaseStatus>();
   Ptr<LeaseTable> leaseTable = Rt::makePtr<LeaseTable>(leaseStatus);
   Ptr<LeaseQueryRequest> request = Rt::makePtr<LeaseQueryRequest>();
   Ptr<MovedMac> movedMac = Rt::makePtr<MovedMac>();
   Ptr<MacIntfMap> macIntfMap = Rt::makePtr<MacIntfMap>();
   Ptr<IntfMacSetMap> intfMacSetMap = Rt::makePtr<IntfMacSetMap>();
   Ptr<Platform::BridgingStatus> fdb = Rt::makePtr<Platform::BridgingStatus>();
   Ptr<CliConfig> cliConfig = Rt::makePtr<CliConfig>();
   TestKit::RequestRecorder requests{request};
   Ptr<FdbStatusSm> sm;
};

TEST_F(FdbStatusSmTest, learnedMacIsQueriedDelayedAndForcedWhereAQueryCanGo) {
   struct Case {
      const char* what;
      bool configured;
      bool ipv4;
      bool server;
      bool queried;
      bool mapped;
   } cases[] = {
       {"configured, ipv4, server", true, true, true, true, true},
       {"ipv4 off", true, false, true, false, true},
       {"no DHCPv4 server", true, true, false, false, true},
       {"not configured", false, false, true, false, false},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.what);
      cliConfig = Rt::makePtr<CliConfig>();
      if (c.server) cliConfig->dhcpV4ServerIs(kServer);
      if (c.configured) cliConfig->interfaceIs(kEth3, c.ipv4);
      macIntfMap = Rt::makePtr<MacIntfMap>();
      intfMacSetMap = Rt::makePtr<IntfMacSetMap>();
      fdb = Rt::makePtr<Platform::BridgingStatus>();
      start();
      requests.take();

      learn(1, kMacA, kEth3);

      std::vector<Posting> expected;
      if (c.queried) expected.push_back(byMac(kMacA, kEth3, true, true));
      EXPECT_EQ(requests.take(), expected);
      EXPECT_EQ(macIntfMap->intfIdHas(kMacA), c.mapped);
      EXPECT_EQ(macsOn(kEth3), c.mapped ? std::set<EthAddr>{kMacA} : std::set<EthAddr>{});
   }
}

TEST_F(FdbStatusSmTest, sameMacInTwoVlansIsLeftAloneUntilOneEntryAgesOut) {
   start();
   learn(1, kMacA, kEth1);
   ASSERT_EQ(requests.take(), std::vector<Posting>{byMac(kMacA, kEth1, true, true)});

   // Same port, second VLAN: two forwarding databases count as two interfaces.
   learn(2, kMacA, kEth1);
   EXPECT_TRUE(requests.take().empty());
   EXPECT_EQ(macIntf(), (std::map<EthAddr, IntfId>{{kMacA, kEth1}}));
   EXPECT_EQ(sm->fdbMacIntfColl(kMacA)->intfIdSize(), 2u);

   // Even a real second port changes nothing while the MAC is ambiguous.
   learn(3, kMacA, kEth2);
   EXPECT_TRUE(requests.take().empty());
   EXPECT_EQ(macIntf(), (std::map<EthAddr, IntfId>{{kMacA, kEth1}}));
   EXPECT_EQ(movedMac->versionNumber(), 0);

   age(3, kMacA);
   EXPECT_TRUE(requests.take().empty());  // still two entries

   // Left on one interface: queried again, delayed, and mapped there.
   age(2, kMacA);
   EXPECT_EQ(requests.take(), std::vector<Posting>{byMac(kMacA, kEth1, true, true)});
   EXPECT_EQ(macIntf(), (std::map<EthAddr, IntfId>{{kMacA, kEth1}}));
   EXPECT_EQ(macsOn(kEth1), std::set<EthAddr>{kMacA});
   // The mirror still has the MAC on the port the remaining entry names.
   EXPECT_EQ(sm->fdbIntfMacSet(kEth1)->macAll(), std::set<EthAddr>{kMacA});
   EXPECT_FALSE(sm->fdbIntfMacSet(kEth2));
}

TEST_F(FdbStatusSmTest, lastEntryAgingOutIsQueriedAtOnceOnTheInterfaceItLeft) {
   start();
   learn(1, kMacA, kEth1);
   learn(1, kMacB, kEth1);
   requests.take();

   age(1, kMacA);
   EXPECT_EQ(requests.take(), std::vector<Posting>{byMac(kMacA, kEth1, false, true)});
   EXPECT_EQ(macIntf(), (std::map<EthAddr, IntfId>{{kMacB, kEth1}}));
   EXPECT_EQ(macsOn(kEth1), std::set<EthAddr>{kMacB});
   EXPECT_FALSE(sm->fdbMacIntfColl(kMacA));

   // The interface it left is no longer valid: no query, but the maps still let go.
   cliConfig->interfaceDel(kEth1);
   requests.take();
   learn(1, kMacC, kEth1);
   age(1, kMacC);
   EXPECT_TRUE(requests.take().empty());
   EXPECT_FALSE(macIntfMap->intfIdHas(kMacC));
   EXPECT_EQ(sm->fdbIntfMacSet(kEth1)->macAll(), std::set<EthAddr>{kMacB});
}

TEST_F(FdbStatusSmTest, macMovingToAnotherPortIsAnnouncedOnceWithItsNewInterface) {
   start();
   leaseTable->macToLeaseIs(kMacA, kEth1);  // the client's leases are on Ethernet1
   learn(1, kMacA, kEth1);
   EXPECT_EQ(movedMac->versionNumber(), 0) << "no change in interface: no write";

   learn(1, kMacA, kEth2);  // the same key, learned on another port
   EXPECT_EQ(movedMac->versionNumber(), 1);
   EXPECT_EQ(movedMac->mac(), kMacA);
   EXPECT_EQ(movedMac->newIntfId(), kEth2);
   // It is queried where it is now, and nothing keeps it on the port it left.
   EXPECT_EQ(requests.take(), (std::vector<Posting>{byMac(kMacA, kEth1, true, true),
                                                    byMac(kMacA, kEth2, true, true)}));
   EXPECT_EQ(macIntf(), (std::map<EthAddr, IntfId>{{kMacA, kEth2}}));
   EXPECT_EQ(macsOn(kEth1), std::set<EthAddr>{});
   EXPECT_EQ(macsOn(kEth2), std::set<EthAddr>{kMacA});
   EXPECT_FALSE(sm->fdbIntfMacSet(kEth1));

   // A MAC without a client lease has nothing to move.
   learn(1, kMacB, kEth1);
   learn(1, kMacB, kEth2);
   EXPECT_EQ(movedMac->versionNumber(), 1);
}

TEST_F(FdbStatusSmTest, configuringAnInterfaceMapsAndQueriesItsSingleInterfaceMacs) {
   start();
   learn(1, kMacA, kEth3);
   learn(1, kMacB, kEth3);
   learn(1, kMacC, kEth3);
   learn(2, kMacC, kEth1);  // C is ambiguous: skipped
   requests.take();
   EXPECT_EQ(macsOn(kEth3), std::set<EthAddr>{});

   cliConfig->interfaceIs(kEth3, true);
   EXPECT_EQ(requests.take(), (std::vector<Posting>{byMac(kMacA, kEth3, false, true),
                                                    byMac(kMacB, kEth3, false, true)}));
   EXPECT_EQ(macsOn(kEth3), (std::set<EthAddr>{kMacA, kMacB}));

   // Its ipv4 flag is followed: off maps without querying, on queries again.
   cliConfig->interface(kEth3)->ipv4Is(false);
   EXPECT_TRUE(requests.take().empty());
   EXPECT_EQ(macsOn(kEth3), (std::set<EthAddr>{kMacA, kMacB}));
   cliConfig->interface(kEth3)->ipv4Is(true);
   EXPECT_EQ(requests.take().size(), 2u);

   // Unconfigured: its set goes and its MACs leave the map.
   cliConfig->interfaceDel(kEth3);
   EXPECT_TRUE(requests.take().empty());
   EXPECT_FALSE(intfMacSetMap->intfMacSet(kEth3));
   EXPECT_FALSE(macIntfMap->intfIdHas(kMacA));
   EXPECT_FALSE(macIntfMap->intfIdHas(kMacB));
   EXPECT_EQ(sm->intfConfigSmSize(), 2u);
}

TEST_F(FdbStatusSmTest, configuringWithoutServersFillsTheMapsButQueriesNothing) {
   cliConfig->dhcpV4ServerDel(kServer);
   start();
   learn(1, kMacA, kEth3);
   cliConfig->interfaceIs(kEth3, true);
   EXPECT_TRUE(requests.take().empty());
   EXPECT_EQ(macsOn(kEth3), std::set<EthAddr>{kMacA});
}

TEST_F(FdbStatusSmTest, startUpScanMapsValidSingleInterfaceMacsAndQueriesNothing) {
   cliConfig->interfaceIs(kEth3, false);
   learn(1, kMacA, kEth1);  // valid
   learn(1, kMacB, kEth3);  // configured but ipv4 off
   learn(1, kMacC, kEth2);  // two forwarding databases
   learn(2, kMacC, kEth2);
   start();

   EXPECT_TRUE(requests.take().empty());
   EXPECT_EQ(macIntf(), (std::map<EthAddr, IntfId>{{kMacA, kEth1}}));
   EXPECT_EQ(sm->fdbMacIntfCollSize(), 3u);
   EXPECT_EQ(sm->fdbIntfMacSet(kEth2)->macAll(), std::set<EthAddr>{kMacC});

   // The mirror is live: the later change of C is handled from it.
   age(2, kMacC);
   EXPECT_EQ(requests.take(), std::vector<Posting>{byMac(kMacC, kEth2, true, true)});
   EXPECT_EQ(macsOn(kEth2), std::set<EthAddr>{kMacC});
}

TEST_F(FdbStatusSmTest, toleratesMissingInputs) {
   sm = fdbStatusSmFactory(nullptr, request, movedMac, macIntfMap, intfMacSetMap, nullptr, nullptr);
   learn(1, kMacA, kEth1);
   EXPECT_TRUE(requests.take().empty());
   EXPECT_EQ(sm->fdbMacIntfCollSize(), 0u);

   // Without a lease table or configuration the table is still followed.
   sm = fdbStatusSmFactory(nullptr, request, movedMac, macIntfMap, intfMacSetMap, fdb, nullptr);
   learn(1, kMacB, kEth1);
   EXPECT_TRUE(requests.take().empty());
   EXPECT_EQ(sm->fdbMacIntfCollSize(), 2u);
}

// ---------------------------------------------------------------- shared helpers

TEST(MacIntfMapHelpers, setWithOneMemberIsDroppedWholeWhicheverMacThatIs) {
   auto macIntfMap = Rt::makePtr<MacIntfMap>();
   auto intfMacSetMap = Rt::makePtr<IntfMacSetMap>();
   macIntfMap->intfIdIs(kMacA, kEth1);
   intfMacSetMap->intfMacSetIs(kEth1)->macIs(kMacB);
   delFromMacIntfMap(macIntfMap, intfMacSetMap, kMacA);
   EXPECT_FALSE(macIntfMap->intfIdHas(kMacA));
   EXPECT_FALSE(intfMacSetMap->intfMacSet(kEth1));

   addToMacIntfMap(macIntfMap, intfMacSetMap, kMacA, kEth1);
   addToMacIntfMap(macIntfMap, intfMacSetMap, kMacB, kEth1);
   delFromMacIntfMap(macIntfMap, intfMacSetMap, kMacA);
   EXPECT_EQ(intfMacSetMap->intfMacSet(kEth1)->macAll(), std::set<EthAddr>{kMacB});
   EXPECT_EQ(macIntfMap->intfId(kMacB), kEth1);
}

TEST(MacIntfMapHelpers, checkIntfValidNeedsConfigurationIpv4AndAServer) {
   auto cli = Rt::makePtr<CliConfig>();
   cli->interfaceIs(kEth1, true);
   cli->interfaceIs(kEth2, false);
   EXPECT_FALSE(checkIntfValid(cli, kEth1)) << "no server";
   cli->dhcpV4ServerIs(kServer);
   EXPECT_TRUE(checkIntfValid(cli, kEth1));
   EXPECT_FALSE(checkIntfValid(cli, kEth2)) << "ipv4 off";
   EXPECT_FALSE(checkIntfValid(cli, kEth3)) << "not configured";
   EXPECT_FALSE(checkIntfValid(nullptr, kEth1));
}

}  // namespace
