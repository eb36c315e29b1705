#include <gtest/gtest.h>

#include "dhcp/DhcpCodec.h"
#include "platform/InMemoryPlatform.h"
#include "triggers/RequestRecorder.h"
#include "triggers/TrappedIpSm.h"

using namespace Tavrin;
using TestKit::byMac;
using TestKit::Posting;

namespace {

const EthAddr kClient = EthAddr::fromU64(0x020000000001);
const EthAddr kOther = EthAddr::fromU64(0x020000000002);
const EthAddr kBroadcast = EthAddr::fromU64(0xffffffffffff);
const IpAddr kLeasedIp = IpAddr::fromBytes(10, 0, 0, 100);
const IpAddr kNewIp = IpAddr::fromBytes(10, 0, 0, 101);
const IpAddr kServer = IpAddr::fromBytes(10, 0, 0, 1);
const IntfId kEth1("Ethernet1");
const IntfId kEth2("Ethernet2");
const IntfId kEth3("Ethernet3");

Ptr<Rt::Pkt> frame(EthAddr srcMac, IpAddr srcIp) {
   return buildEthIpv4Frame(srcMac, srcIp, kBroadcast, IpAddr(0xffffffffu));
}

class TrappedIpSmTest : public ::testing::Test {
 protected:
   TrappedIpSmTest() {
      rules->interfaceRuleIs(kEth1, 1);
      rules->interfaceRuleIs(kEth2, 1);
      // The client holds 10.0.0.100 (its lease sits on Ethernet2).
      auto lease =
          leaseStatus->interfaceLeaseSetIs(kEth2)->ipMacLeaseIs({kClient, kLeasedIp, kServer});
      auto client = leaseTable->macToLeaseIs(kClient, kEth2);
      client->ipMacLeaseByIpIs(kLeasedIp, lease);
      leaseTable->ipToLeaseIs(kLeasedIp, client);
   }

   void start() { sm = trappedIpSmFactory(leaseTable, rules, request, nullptr, nullptr, nullptr); }
   std::set<IntfId> desired() const { return platform.pamDesiredIntfDir()->intfDesiredAll(); }
   std::set<IntfId> readers() const {
      std::set<IntfId> out;
      for (const auto& [intf, reader] : sm->intfPamSmAll()) out.insert(intf);
      return out;
   }

   Platform::InMemoryPlatform platform;
   Ptr<ConfiguredInterfaceStatus> rules = Rt::makePtr<ConfiguredInterfaceStatus>();
   Ptr<LeaseStatus> leaseStatus = Rt::makePtr<LeaseStatus>();
   Ptr<LeaseTable> leaseTable = Rt::makePtr<LeaseTable>(leaseStatus);
   Ptr<LeaseQueryRequest> request = Rt::makePtr<LeaseQueryRequest>();
   TestKit::RequestRecorder requests{request};
   Ptr<TrappedIpSm> sm;
};

TEST_F(TrappedIpSmTest, packetAccessFollowsTheLockedInterfaces) {
   rules->interfaceRuleIs(kEth3, 2);  // not a locking rule
   start();
   EXPECT_EQ(desired(), (std::set<IntfId>{kEth1, kEth2}));
   auto manager = platform.ethDevPamManager();
   ASSERT_TRUE(manager);
   EXPECT_EQ(manager->ethProtocol(), 0x1043);
   EXPECT_TRUE(manager->enabled());
   EXPECT_EQ(readers(), (std::set<IntfId>{kEth1, kEth2}));
   EXPECT_EQ(sm->intfPamSm(kEth1)->pam(), platform.pam(kEth1));

   rules->interfaceRuleIs(kEth3, 1);
   EXPECT_EQ(desired(), (std::set<IntfId>{kEth1, kEth2, kEth3}));
   EXPECT_EQ(readers(), (std::set<IntfId>{kEth1, kEth2, kEth3}));

   rules->interfaceRuleIs(kEth1, 2);  // changed away from locking
   rules->interfaceRuleDel(kEth3);
   EXPECT_EQ(desired(), std::set<IntfId>{kEth2});
   EXPECT_EQ(readers(), std::set<IntfId>{kEth2});
   EXPECT_FALSE(platform.pam(kEth1));
}

TEST_F(TrappedIpSmTest, packetOfAnUnknownPairIsQueriedByMacOnTheReceivingInterface) {
   struct Case {
      const char* what;
      Ptr<Rt::Pkt> pkt;
      std::vector<Posting> expected;
   } cases[] = {
       {"known pair, even on another interface", frame(kClient, kLeasedIp), {}},
       {"known MAC, new IP", frame(kClient, kNewIp), {byMac(kClient, kEth1, false, false)}},
       {"unknown MAC", frame(kOther, kLeasedIp), {byMac(kOther, kEth1, false, false)}},
       {"no address yet", frame(kOther, IpAddr()), {}},
       {"zero MAC", frame(EthAddr(), kNewIp), {}},
       {"truncated frame", Rt::makePtr<Rt::Pkt>(std::vector<uint8_t>(20, 0x45)), {}},
       {"not IPv4", Rt::makePtr<Rt::Pkt>(std::vector<uint8_t>(60, 0x08)), {}},
   };
   start();
   auto pam = platform.pam(kEth1);
   ASSERT_TRUE(pam);
   for (const auto& c : cases) {
      SCOPED_TRACE(c.what);
      pam->deliver({c.pkt});
      EXPECT_EQ(requests.take(), c.expected);
      EXPECT_EQ(pam->queued(), 0u);
   }

   // Read as one batch, the same frames get the same verdicts, in order.
   std::vector<Ptr<Rt::Pkt>> burst;
   std::vector<Posting> expected;
   for (const auto& c : cases) {
      burst.push_back(c.pkt);
      expected.insert(expected.end(), c.expected.begin(), c.expected.end());
   }
   pam->deliver(burst);
   EXPECT_EQ(requests.take(), expected);
}

TEST_F(TrappedIpSmTest, repeatedPacketsFromAnUnknownSourceAreEachQueried) {
   start();
   platform.pam(kEth2)->deliver({frame(kOther, kNewIp), frame(kOther, kNewIp)});
   EXPECT_EQ(requests.take(), (std::vector<Posting>{byMac(kOther, kEth2, false, false),
                                                    byMac(kOther, kEth2, false, false)}));
}

TEST_F(TrappedIpSmTest, readingStopsAfterTheSliceAndResumesAtTheNextNotification) {
   start();
   auto pam = platform.pam(kEth1);
   // Each packet costs 1 ms of virtual time, so one batch overruns the 5 ms
   // slice: the clock is read between batches, and one batch is read per
   // notification.
   const size_t batch = IntfPamSm::kReadBatch;
   pam->rxCostIs(0.001, [this](Seconds dt) { platform.virtualClock().advance(dt); });
   std::vector<Ptr<Rt::Pkt>> burst;
   std::vector<Posting> all;
   for (uint64_t i = 1; i <= 2 * batch + 3; ++i) {
      burst.push_back(frame(EthAddr::fromU64(0x020000000100 + i), kNewIp));
      all.push_back(byMac(EthAddr::fromU64(0x020000000100 + i), kEth1, false, false));
   }

   pam->deliver(burst);
   EXPECT_EQ(requests.postings.size(), batch);
   EXPECT_EQ(pam->queued(), batch + 3);
   pam->deliver({});  // the next readable notification
   EXPECT_EQ(requests.postings.size(), 2 * batch);
   pam->deliver({});
   EXPECT_EQ(pam->queued(), 0u);
   EXPECT_EQ(requests.take(), all) << "every packet read once, in order";

   // Without a cost, one notification drains the whole burst.
   pam->rxCostIs(0, {});
   pam->deliver(burst);
   EXPECT_EQ(requests.take(), all);
}

TEST_F(TrappedIpSmTest, toleratesMissingInputs) {
   sm = trappedIpSmFactory(nullptr, nullptr, request, nullptr, nullptr, nullptr);
   EXPECT_TRUE(desired().empty());
   EXPECT_TRUE(platform.ethDevPamManager()->enabled());
   // Without a lease table every pair is unknown.
   sm->processTrappedIp(frame(kClient, kLeasedIp), kEth1);
   EXPECT_EQ(requests.take(), std::vector<Posting>{byMac(kClient, kEth1, false, false)});
}

}  // namespace
