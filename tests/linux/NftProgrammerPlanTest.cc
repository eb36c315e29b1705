#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>

#include "linux/NftProgrammerPlan.h"

using namespace Tavrin;
using namespace Tavrin::Linux::Nft;
using Rt::Ptr;

namespace {

const IntfId kA("swp1");
const IntfId kB("swp2");
const IntfId kC("swp3");
const EthAddr kMac = *EthAddr::parse("02:00:00:00:00:01");
const IpAddr kIp = *IpAddr::parse("10.0.0.1");
const IpMacLeaseKey kKey{kMac, IpGenAddr(kIp)};

AllowedElem at(IntfId port, EthAddr mac = kMac, IpAddr ip = kIp) {
   return {port, mac, ip};
}

// The entities as the agent writes them, with the planner following them
// the way the programmer does: every notification marks its key.
class NftPlanTest : public ::testing::Test {
 public:
   class StatusReactor : public IpMacLeaseTable::Notifiee {
    public:
      StatusReactor(Planner& p, const Ptr<Status>& s)
          : IpMacLeaseTable::Notifiee(Ptr<const IpMacLeaseTable>(s)), p_(p) {}
      void onIpMacLease(const IpMacLeaseKey& k) override { p_.pairDirty(k); }

    private:
      Planner& p_;
   };
   class RulesReactor : public ConfiguredInterfaceStatus::Notifiee {
    public:
      RulesReactor(Planner& p, const Ptr<ConfiguredInterfaceStatus>& r)
          : ConfiguredInterfaceStatus::Notifiee(r), p_(p) {}
      void onInterfaceRule(IntfId i) override { p_.portDirty(i); }

    private:
      Planner& p_;
   };

   void publish(IntfId port, EthAddr mac = kMac, IpAddr ip = kIp) {
      status->ipMacLeaseIs(IpMacLeaseEntry{{mac, IpGenAddr(ip)}, port, false});
   }
   void withdraw(EthAddr mac = kMac, IpAddr ip = kIp) {
      status->ipMacLeaseDel(IpMacLeaseKey{mac, IpGenAddr(ip)});
   }
   Plan plan() const { return planner.plan(Desired{*status, *rules}, kernel); }
   // The batch went through: the kernel holds what was planned.
   void committed() {
      apply(kernel, plan());
      planner.clear();
   }

   Ptr<Status> status = Rt::makePtr<Status>();
   Ptr<ConfiguredInterfaceStatus> rules = Rt::makePtr<ConfiguredInterfaceStatus>();
   KernelView kernel;
   Planner planner;
   StatusReactor statusReactor{planner, status};
   RulesReactor rulesReactor{planner, rules};
};

}  // namespace

// What one loop iteration did to one pair, from what the kernel held
// before, and the smallest batch that brings the kernel in line.
TEST_F(NftPlanTest, aPairsChangesInOneIterationCollapse) {
   struct Case {
      const char* what;
      std::optional<IntfId> before;  // the kernel's element for the pair
      std::function<void(NftPlanTest&)> changes;
      std::vector<AllowedElem> add;
      std::vector<AllowedElem> del;
   };
   const std::vector<Case> cases = {
       {"published", std::nullopt, [](NftPlanTest& t) { t.publish(kA); }, {at(kA)}, {}},
       {"published and withdrawn",
        std::nullopt,
        [](NftPlanTest& t) {
           t.publish(kA);
           t.withdraw();
        },
        {},
        {}},
       {"withdrawn", kA, [](NftPlanTest& t) { t.withdraw(); }, {}, {at(kA)}},
       {"moved", kA, [](NftPlanTest& t) { t.publish(kB); }, {at(kB)}, {at(kA)}},
       {"moved and moved back",
        kA,
        [](NftPlanTest& t) {
           t.publish(kB);
           t.publish(kA);
        },
        {},
        {}},
       {"withdrawn and published again",
        kA,
        [](NftPlanTest& t) {
           t.withdraw();
           t.publish(kA);
        },
        {},
        {}},
       {"moved a hundred times",
        kA,
        [](NftPlanTest& t) {
           for (int i = 0; i < 100; ++i) t.publish(i % 2 ? kB : kC);
        },
        {at(kB)},
        {at(kA)}},
       {"moved to a port the kernel cannot name",
        kA,
        [](NftPlanTest& t) { t.publish(IntfId("a-name-too-long0")); },
        {},
        {at(kA)}},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.what);
      status = Rt::makePtr<Status>();
      statusReactor.notifierIs(status);
      kernel.clear();
      planner.clear();
      if (c.before) {
         status->ipMacLeaseIs(IpMacLeaseEntry{kKey, *c.before, false});
         kernel.allowedIs(at(*c.before));
         planner.clear();
      }
      c.changes(*this);
      Plan p = plan();
      EXPECT_EQ(p.allowedAdd, c.add);
      EXPECT_EQ(p.allowedDel, c.del);
      EXPECT_EQ(p.size(), c.add.size() + c.del.size());
   }
}

TEST_F(NftPlanTest, pairsTheTableCannotHoldAreLeftOut) {
   status->ipMacLeaseIs(
       IpMacLeaseEntry{{kMac, IpGenAddr(*Ip6Addr::parse("2001:db8::1"))}, kA, false});
   status->ipMacLeaseIs(IpMacLeaseEntry{{kMac, IpGenAddr()}, kA, false});
   EXPECT_TRUE(plan().empty());
   EXPECT_EQ(
       unrepresentable(*status->ipMacLease({kMac, IpGenAddr(*Ip6Addr::parse("2001:db8::1"))})),
       "not an IPv4 address");
}

// Only the pair the agent published may pass on the port it names: an
// element someone else added for the same pair on another port goes.
TEST_F(NftPlanTest, elementsNobodyPublishedAreRemoved) {
   publish(kA);
   kernel.allowedIs(at(kB));
   Plan p = plan();
   EXPECT_EQ(p.allowedAdd, std::vector<AllowedElem>{at(kA)});
   EXPECT_EQ(p.allowedDel, std::vector<AllowedElem>{at(kB)});
}

TEST_F(NftPlanTest, aPortsLockCollapsesToo) {
   // Locked: a counter, the map element naming it, then the lock.
   rules->interfaceRuleIs(kA, 1);
   Plan p = plan();
   EXPECT_EQ(p.counterAdd, std::vector<IntfId>{kA});
   EXPECT_EQ(p.arpMapAdd, std::vector<IntfId>{kA});
   EXPECT_EQ(p.lockedAdd, std::vector<IntfId>{kA});
   EXPECT_EQ(p.size(), 3u);
   committed();
   EXPECT_TRUE(plan().empty());

   // Unlocked and locked again in one iteration: nothing to do.
   rules->interfaceRuleDel(kA);
   rules->interfaceRuleIs(kA, 1);
   EXPECT_TRUE(plan().empty());

   // Unlocked: all three go.
   rules->interfaceRuleDel(kA);
   p = plan();
   EXPECT_EQ(p.lockedDel, std::vector<IntfId>{kA});
   EXPECT_EQ(p.arpMapDel, std::vector<IntfId>{kA});
   EXPECT_EQ(p.counterDel, std::vector<IntfId>{kA});
   EXPECT_EQ(p.size(), 3u);

   // A rule other than 1 is not a lock.
   rules->interfaceRuleIs(kA, 2);
   EXPECT_EQ(plan().lockedDel, std::vector<IntfId>{kA});
}

TEST_F(NftPlanTest, aMapElementNamingAnotherCounterIsReplaced) {
   rules->interfaceRuleIs(kA, 1);
   committed();
   kernel.arpMapIs(kA, "someone_elses");
   planner.portDirty(kA);
   Plan p = plan();
   EXPECT_EQ(p.arpMapDel, std::vector<IntfId>{kA});
   EXPECT_EQ(p.arpMapAdd, std::vector<IntfId>{kA});
   EXPECT_EQ(p.size(), 2u);
}

// After the kernel's view was read afresh, everything is compared, also
// what no notification pointed at.
TEST_F(NftPlanTest, aFullComparisonFindsWhatNoChangePointedAt) {
   publish(kA);
   rules->interfaceRuleIs(kA, 1);
   committed();
   const auto other = at(kB, *EthAddr::parse("02:00:00:00:00:09"), *IpAddr::parse("10.0.0.9"));
   kernel.allowedIs(other);
   kernel.lockedIs(kC);
   kernel.allowedDel(at(kA));
   EXPECT_TRUE(plan().empty());  // nobody said anything changed

   planner.allDirty();
   Plan p = plan();
   EXPECT_EQ(p.allowedAdd, std::vector<AllowedElem>{at(kA)});
   EXPECT_EQ(p.allowedDel, std::vector<AllowedElem>{other});
   EXPECT_EQ(p.lockedDel, std::vector<IntfId>{kC});
   EXPECT_EQ(p.size(), 3u);
   committed();
   planner.allDirty();
   EXPECT_TRUE(plan().empty());
}

// A full comparison plans each element once, whichever side it is found
// from: a published pair held on a second port, an element nobody
// published, and a published pair the table cannot hold but the kernel
// has (someone else's element) are each one delete.
TEST_F(NftPlanTest, aFullComparisonPlansEachElementOnce) {
   const IntfId tooLong("a-port-name-of-20ch");
   const auto odd = at(tooLong, *EthAddr::parse("02:00:00:00:00:07"), *IpAddr::parse("10.0.0.7"));
   const auto stray = at(kC, *EthAddr::parse("02:00:00:00:00:08"), *IpAddr::parse("10.0.0.8"));
   publish(kA);
   publish(tooLong, odd.mac, odd.ip);
   kernel.allowedIs(at(kA));
   kernel.allowedIs(at(kB));
   kernel.allowedIs(odd);
   kernel.allowedIs(stray);
   planner.allDirty();
   Plan p = plan();
   EXPECT_TRUE(p.allowedAdd.empty());
   std::vector<AllowedElem> expected = {at(kB), odd, stray};
   std::sort(expected.begin(), expected.end());
   EXPECT_EQ(p.allowedDel, expected);
   committed();
   EXPECT_EQ(kernel.allowedSize(), 1u);
   EXPECT_TRUE(kernel.allowedHas(at(kA)));
}

// The view keeps a million elements in flat slots with the runs of linear
// probing shifted back on deletion; whatever the order of additions and
// deletions, it answers as a plain ordered set of the same elements would.
// A small domain (few MACs, addresses and ports) makes long runs, shared
// pairs and wrap-around at the table's end common.
TEST(NftKernelView, allowedElementsAnswerAsASetWouldUnderChurn) {
   const IntfId ports[] = {IntfId("swp1"), IntfId("swp2"), IntfId("swp3")};
   auto elemOf = [&](uint32_t r) {
      return AllowedElem{ports[r % 3], EthAddr::fromU64(0x020000000000ull + (r / 3) % 48),
                         IpAddr(0x0a000000u + (r / 144) % 16)};
   };
   KernelView view;
   std::set<AllowedElem> model;
   uint32_t rng = 12345;
   auto random = [&rng] {
      rng = rng * 1664525u + 1013904223u;
      return rng >> 8;
   };
   auto sameAsModel = [&](int step) {
      ASSERT_EQ(view.allowedSize(), model.size()) << "step " << step;
      std::vector<AllowedElem> listed;
      view.allowedForEach([&](const AllowedElem& e) { listed.push_back(e); });
      std::sort(listed.begin(), listed.end());
      ASSERT_EQ(listed, std::vector<AllowedElem>(model.begin(), model.end())) << "step " << step;
      for (uint32_t r = 0; r < 3 * 48 * 16; r += 3) {
         const auto e = elemOf(r);
         std::vector<IntfId> want;
         for (auto port : ports) {
            if (model.count(AllowedElem{port, e.mac, e.ip})) want.push_back(port);
         }
         auto got = view.allowedPorts(PairKey{e.mac, e.ip});
         std::sort(got.begin(), got.end());
         ASSERT_EQ(got, want) << "step " << step << ", " << e;
      }
   };
   for (int round = 0; round < 2; ++round) {
      for (int step = 0; step < 6000; ++step) {
         const auto e = elemOf(random());
         // More additions than deletions at first, then the other way round,
         // so that the table both grows through its resizes and empties.
         const bool add = (random() % 10) < (step < 3000 ? 7u : 3u);
         if (add) {
            ASSERT_EQ(view.allowedIs(e), model.insert(e).second) << "step " << step;
         } else {
            ASSERT_EQ(view.allowedDel(e), model.erase(e) == 1) << "step " << step;
         }
         ASSERT_EQ(view.allowedHas(e), model.count(e) == 1) << "step " << step;
         if (step % 500 == 0) sameAsModel(step);
      }
      sameAsModel(-1);
      // Cleared, it starts over from nothing, also with room set aside.
      view.clear();
      model.clear();
      view.allowedReserve(1000);
      EXPECT_EQ(view.allowedSize(), 0u);
      EXPECT_FALSE(view.allowedHas(elemOf(0)));
      EXPECT_TRUE(view.allowedPorts(PairKey{elemOf(0).mac, elemOf(0).ip}).empty());
   }
}

// A big change goes as several transactions; each part keeps the order in
// which the kernel needs things (a counter before the map element that
// names it, a map element gone before its counter goes).
TEST(NftPlanSplit, partsKeepTheOrderAndTheirBound) {
   Plan plan;
   plan.counterAdd = {kA, kB};
   plan.arpMapAdd = {kA, kB};
   for (uint32_t i = 0; i < 7; ++i) plan.allowedAdd.push_back(at(kA, kMac, IpAddr(0x0a000000 + i)));
   plan.arpMapDel = {kC};
   plan.counterDel = {kC};

   auto parts = splitPlan(plan, 4);
   ASSERT_EQ(parts.size(), 4u);
   Plan joined;
   for (const auto& part : parts) {
      EXPECT_LE(part.size(), 4u);
      EXPECT_FALSE(part.empty());
      auto append = [](auto& to, const auto& from) {
         to.insert(to.end(), from.begin(), from.end());
      };
      append(joined.counterAdd, part.counterAdd);
      append(joined.arpMapDel, part.arpMapDel);
      append(joined.arpMapAdd, part.arpMapAdd);
      append(joined.allowedDel, part.allowedDel);
      append(joined.allowedAdd, part.allowedAdd);
      append(joined.lockedAdd, part.lockedAdd);
      append(joined.lockedDel, part.lockedDel);
      append(joined.counterDel, part.counterDel);
   }
   EXPECT_EQ(joined, plan);
   // Both counters are in the first part, with the map elements after them.
   EXPECT_EQ(parts[0].counterAdd, (std::vector<IntfId>{kA, kB}));
   EXPECT_EQ(parts[0].arpMapDel, std::vector<IntfId>{kC});
   EXPECT_EQ(parts[0].arpMapAdd, std::vector<IntfId>{kA});
   EXPECT_EQ(parts.back().counterDel, std::vector<IntfId>{kC});
   EXPECT_EQ(splitPlan(Plan{}, 4).size(), 1u);
}
