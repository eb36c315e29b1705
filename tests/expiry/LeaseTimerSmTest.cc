#include <gtest/gtest.h>

#include "expiry/LeaseTimerSm.h"
#include "platform/InMemoryPlatform.h"
#include "triggers/RequestRecorder.h"

using namespace Tavrin;
using TestKit::byMac;
using TestKit::Posting;

namespace {

#ifndef TAVRIN_LEASE_TIMER_COUNT
#define TAVRIN_LEASE_TIMER_COUNT 1000000
#endif
// A million in the debug and release builds; the sanitizer build lowers it.
constexpr size_t kManyLeases = TAVRIN_LEASE_TIMER_COUNT;

const EthAddr kMacA = EthAddr::fromU64(0x020000000001);
const EthAddr kMacB = EthAddr::fromU64(0x020000000002);
const IpAddr kIpA = IpAddr::fromBytes(10, 0, 0, 100);
const IpAddr kIpB = IpAddr::fromBytes(10, 0, 0, 101);
const IpAddr kServer = IpAddr::fromBytes(10, 0, 0, 1);
const IntfId kEth1("Ethernet1");
const IntfId kEth2("Ethernet2");

// The virtual clock starts at 1000.
class LeaseTimerSmTest : public ::testing::Test {
 protected:
   void start() { sm = leaseTimerSmFactory(leaseStatus, request, platform.scheduler()); }
   Ptr<IpMacLease> lease(IntfId intf, EthAddr mac, IpAddr ip, Seconds expirationTime) {
      auto l = leaseStatus->interfaceLeaseSetIs(intf)->ipMacLeaseIs({mac, ip, kServer});
      l->expirationTimeIs(expirationTime);
      return l;
   }
   // Moves the clock to t, returning the postings made on the way, each
   // stamped with the instant it was made.
   std::vector<std::pair<Seconds, Posting>> runUntil(Seconds t) {
      std::vector<std::pair<Seconds, Posting>> out;
      platform.advance(t - now(), [&] {
         for (auto& p : requests.take()) out.emplace_back(now(), p);
      });
      return out;
   }
   Seconds now() const { return platform.virtualClock().now(); }
   size_t armed() { return platform.scheduler()->armed(); }

   Platform::InMemoryPlatform platform;
   Ptr<LeaseStatus> leaseStatus = Rt::makePtr<LeaseStatus>();
   Ptr<LeaseQueryRequest> request = Rt::makePtr<LeaseQueryRequest>();
   TestKit::RequestRecorder requests{request};
   Ptr<LeaseTimerSm> sm;
};

using Timeline = std::vector<std::pair<Seconds, Posting>>;

TEST_F(LeaseTimerSmTest, expiryReQueriesByMacForcedAndDelayedAtTheExactInstant) {
   start();
   auto a = lease(kEth1, kMacA, kIpA, 1100);
   EXPECT_EQ(armed(), 1u);
   EXPECT_EQ(runUntil(1099.999), Timeline{});
   EXPECT_EQ(runUntil(2000), (Timeline{{1100, byMac(kMacA, kEth1, true, true)}}))
       << "once: the lease stays due until its answer changes it";

   a->expirationTimeIs(4700);  // renewed by the answer
   EXPECT_EQ(runUntil(5000), (Timeline{{4700, byMac(kMacA, kEth1, true, true)}}));
}

TEST_F(LeaseTimerSmTest, changingTheExpirationTimeReschedulesTheOneTimer) {
   start();
   auto a = lease(kEth1, kMacA, kIpA, 1100);
   auto b = lease(kEth2, kMacB, kIpB, 1100);
   a->expirationTimeIs(1200);  // later
   b->expirationTimeIs(1050);  // earlier
   EXPECT_EQ(runUntil(1300), (Timeline{{1050, byMac(kMacB, kEth2, true, true)},
                                       {1200, byMac(kMacA, kEth1, true, true)}}));

   // Moved into the past while armed: re-queried at once, and not again later.
   a->expirationTimeIs(1400);
   a->expirationTimeIs(1250);
   EXPECT_EQ(requests.take(), std::vector<Posting>{byMac(kMacA, kEth1, true, true)});
   EXPECT_EQ(armed(), 0u);
   EXPECT_EQ(runUntil(2000), Timeline{});
}

TEST_F(LeaseTimerSmTest, leaseWithoutExpiryNeverFires) {
   start();
   auto a = lease(kEth1, kMacA, kIpA, 1100);
   a->expirationTimeIs(0);
   EXPECT_EQ(armed(), 0u);
   EXPECT_TRUE(requests.take().empty());
   EXPECT_EQ(runUntil(1e9), Timeline{});
}

TEST_F(LeaseTimerSmTest, removingALeaseOrItsInterfaceCancelsItsTimer) {
   start();
   lease(kEth1, kMacA, kIpA, 1100);
   lease(kEth1, kMacB, kIpB, 1100);
   lease(kEth2, kMacA, kIpB, 1100);
   EXPECT_EQ(armed(), 3u);

   leaseStatus->interfaceLeaseSet(kEth1)->ipMacLeaseDel({kMacA, kIpA, kServer});
   EXPECT_EQ(armed(), 2u);
   leaseStatus->interfaceLeaseSetDel(kEth2);
   EXPECT_EQ(armed(), 1u);
   EXPECT_FALSE(sm->interfaceLeaseSetSm(kEth2));
   EXPECT_EQ(runUntil(2000), (Timeline{{1100, byMac(kMacB, kEth1, true, true)}}));

   // A lease filed again under the interface gets a fresh timer.
   lease(kEth2, kMacA, kIpB, 2100);
   EXPECT_EQ(runUntil(3000), (Timeline{{2100, byMac(kMacA, kEth2, true, true)}}));
}

TEST_F(LeaseTimerSmTest, leasesRestoredAtStartAreReQueriedAtOnceWhenAlreadyDue) {
   lease(kEth1, kMacA, kIpA, 900);   // expired while the agent was down
   lease(kEth1, kMacB, kIpB, 1500);  // still running
   lease(kEth2, kMacB, kIpA, 0);     // no expiry
   start();
   EXPECT_EQ(requests.take(), std::vector<Posting>{byMac(kMacA, kEth1, true, true)});
   EXPECT_EQ(armed(), 1u);
   EXPECT_EQ(runUntil(2000), (Timeline{{1500, byMac(kMacB, kEth1, true, true)}}));
   EXPECT_EQ(sm->interfaceLeaseSetSmAll().size(), 2u);
   EXPECT_EQ(sm->interfaceLeaseSetSm(kEth1)->ipMacLeaseSmSize(), 2u);
}

TEST_F(LeaseTimerSmTest, stoppingTheMachineCancelsEveryTimer) {
   start();
   lease(kEth1, kMacA, kIpA, 1100);
   sm = nullptr;
   EXPECT_EQ(armed(), 0u);
   EXPECT_EQ(runUntil(2000), Timeline{});
}

TEST_F(LeaseTimerSmTest, toleratesMissingInputs) {
   lease(kEth1, kMacA, kIpA, 900);
   sm = leaseTimerSmFactory(nullptr, request, platform.scheduler());
   sm = leaseTimerSmFactory(leaseStatus, request, nullptr);
   EXPECT_TRUE(requests.take().empty());
   EXPECT_TRUE(sm->interfaceLeaseSetSmAll().empty());
}

// A million armed leases cost nothing until they are due: the scheduler
// holds them, and only the due ones run.
TEST_F(LeaseTimerSmTest, manyArmedLeasesCostNoPeriodicWork) {
   const IntfId intfs[] = {kEth1, kEth2, IntfId("Ethernet3"), IntfId("Ethernet4")};
   for (size_t i = 0; i < kManyLeases; ++i) {
      // One lease a millisecond, from 2000 on, spread over four interfaces.
      lease(intfs[i % 4], EthAddr::fromU64(0x020000000000 + i), IpAddr(0x0a000000u + uint32_t(i)),
            2000 + Seconds(i) / 1000);
   }
   start();
   ASSERT_EQ(armed(), kManyLeases);

   size_t runs = 0;
   platform.advance(1999.9995 - now(), [&] { ++runs; });
   EXPECT_EQ(runs, 0u);
   EXPECT_TRUE(requests.postings.empty());

   constexpr size_t k = 5;  // across the expiries of 2000.000 to 2000.004
   platform.advance(2000.0045 - now(), [&] { ++runs; });
   EXPECT_EQ(runs, k);
   ASSERT_EQ(requests.postings.size(), k);
   EXPECT_EQ(requests.postings.front(), byMac(EthAddr::fromU64(0x020000000000), kEth1, true, true));
   EXPECT_EQ(requests.postings.back(), byMac(EthAddr::fromU64(0x020000000004), kEth1, true, true));
   EXPECT_EQ(armed(), kManyLeases - k);
}

}  // namespace
