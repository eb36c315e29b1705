#include <gtest/gtest.h>

#include "model/LeaseTable.h"
#include "model/TavrinCommon.h"
#include "model/WorkRecords.h"

using namespace Tavrin;
using Rt::Ptr;

namespace {

struct VersionCounter : LeaseQueryRequest::Notifiee {
   using LeaseQueryRequest::Notifiee::Notifiee;
   void onVersionNumber() override { ++calls; }
   int calls = 0;
};

const EthAddr kMac = *EthAddr::parse("02:00:00:00:00:01");
const IntfId kEth1("Ethernet1");
const IntfId kEth2("Ethernet2");

}  // namespace

TEST(VersionedRecord, eachPostingNotifiesAnd256PostingsWrapToTheStart) {
   auto req = Rt::makePtr<LeaseQueryRequest>();
   req->versionNumberIs(250);
   VersionCounter c(req);
   for (int i = 0; i < 256; ++i) sendLeaseQuery(req, kMac, {}, kEth1, false, false, {});
   EXPECT_EQ(c.calls, 256);
   EXPECT_EQ(req->versionNumber(), 250);
}

TEST(VersionedRecord, noChangeNotifiesNothing) {
   auto req = Rt::makePtr<LeaseQueryRequest>();
   VersionCounter c(req);
   req->versionNumberIs(0);
   req->versionNumberInc(0);
   req->versionNumberInc(256);
   EXPECT_EQ(c.calls, 0);
   req->versionNumberIs(9);
   req->versionNumberIs(9);
   EXPECT_EQ(c.calls, 1);
}

TEST(VersionedRecord, theReaderSeesAllFieldsOfThePostingItIsToldOf) {
   auto req = Rt::makePtr<LeaseQueryRequest>();
   struct Reader : LeaseQueryRequest::Notifiee {
      using LeaseQueryRequest::Notifiee::Notifiee;
      void onVersionNumber() override {
         auto& r = *notifier();
         seen.push_back(r.mac().str() + " " + r.ip().str() + " " + r.intfId().name() +
                        (r.delay() ? " d" : "") + (r.force() ? " f" : "") + " " +
                        r.dhcpAddr().str());
      }
      std::vector<std::string> seen;
   } reader(req);
   auto ip = *IpGenAddr::parse("10.0.0.5");
   auto server = *IpGenAddr::parse("10.0.0.1");
   sendLeaseQuery(req, kMac, {}, kEth1, true, true, {});
   sendLeaseQuery(req, EthAddr(), ip, kEth2, false, true, server);
   EXPECT_EQ(reader.seen, (std::vector<std::string>{
                              "02:00:00:00:00:01 0.0.0.0 Ethernet1 d f 0.0.0.0",
                              "00:00:00:00:00:00 10.0.0.5 Ethernet2 f 10.0.0.1"}));
}

TEST(LeaseTable, macToLeaseIsFindsOrCreatesAndRefusesAnotherInterface) {
   auto table = Rt::makePtr<LeaseTable>(Rt::makePtr<LeaseStatus>());
   auto c = table->macToLeaseIs(kMac, kEth1);
   EXPECT_EQ(table->macToLeaseIs(kMac, kEth1), c);
   try {
      table->macToLeaseIs(kMac, kEth2);
      FAIL() << "a second interface for the same MAC must be refused";
   } catch (const Rt::NameInUseError& e) {
      EXPECT_STREQ(e.what(),
                   "Reinstantiating the pointer interface where constructor parameter attribute "
                   "_intfId has a different value of Ethernet2 than the current value of "
                   "Ethernet1 not allowed");
   }
   EXPECT_EQ(table->macToLease(kMac), c);
   EXPECT_EQ(c->intfId(), kEth1);
   EXPECT_EQ(table->macToLeaseAll().size(), 1u);
}

TEST(LeaseTable, serverSetsAreFindOrCreateAndHoldTheClientsLeasesOfTheirServer) {
   auto table = Rt::makePtr<LeaseTable>(Rt::makePtr<LeaseStatus>());
   auto client = table->macToLeaseIs(kMac, kEth1);
   auto server = *IpGenAddr::parse("10.0.0.1");
   auto other = *IpGenAddr::parse("10.0.0.2");
   auto lease = Rt::makePtr<IpMacLease>(LeaseKey{kMac, *IpGenAddr::parse("10.0.0.5"), server});
   auto fromOther = Rt::makePtr<IpMacLease>(LeaseKey{kMac, *IpGenAddr::parse("10.0.0.4"), other});
   client->ipMacLeaseByIpIs(lease->ip(), lease);
   client->ipMacLeaseByIpIs(fromOther->ip(), fromOther);
   client->dhcpLeaseSetIs(server).newestLastTransactionTimeIs(7);
   auto again = client->dhcpLeaseSetIs(server);
   EXPECT_EQ(again.newestLastTransactionTime(), 7);
   EXPECT_TRUE(again.ipMacLeaseHas(lease));
   EXPECT_FALSE(again.ipMacLeaseHas(fromOther));
   EXPECT_EQ(again.ipMacLeaseSize(), 1u);
   EXPECT_EQ(*again.ipMacLeaseAll().begin(), lease);
   EXPECT_EQ(client->dhcpLeaseSetSize(), 1u);
   EXPECT_FALSE(client->dhcpLeaseSet(other));
   // A lease that leaves the client leaves the set with it.
   client->ipMacLeaseByIpDel(lease->ip());
   EXPECT_EQ(client->dhcpLeaseSet(server).ipMacLeaseSize(), 0u);
}

TEST(LeaseTable, ipToLeaseMapsSeveralIpsToOneClientAndNotifiesPerIp) {
   auto table = Rt::makePtr<LeaseTable>(Rt::makePtr<LeaseStatus>());
   struct Watcher : LeaseTable::Notifiee {
      using LeaseTable::Notifiee::Notifiee;
      void onIpToLease(const IpGenAddr& ip) override { seen.push_back(ip.str()); }
      std::vector<std::string> seen;
   } w(table);
   auto client = table->macToLeaseIs(kMac, kEth1);
   auto a = *IpGenAddr::parse("10.0.0.5"), b = *IpGenAddr::parse("10.0.0.6");
   table->ipToLeaseIs(a, client);
   table->ipToLeaseIs(b, client);
   table->ipToLeaseIs(b, client);  // no change, no notification
   table->ipToLeaseDel(a);
   EXPECT_EQ(table->ipToLease(b), client);
   EXPECT_FALSE(table->ipToLease(a));
   EXPECT_EQ(w.seen, (std::vector<std::string>{"10.0.0.5", "10.0.0.6", "10.0.0.5"}));
}

TEST(LeaseStatus, leasesThatDifferOnlyInTheServerAreTwoMembers) {
   auto status = Rt::makePtr<LeaseStatus>();
   auto set = status->interfaceLeaseSetIs(kEth1);
   auto ip = *IpGenAddr::parse("10.0.0.5");
   auto l1 = set->ipMacLeaseIs({kMac, ip, *IpGenAddr::parse("10.0.0.1")});
   auto l2 = set->ipMacLeaseIs({kMac, ip, *IpGenAddr::parse("10.0.0.2")});
   EXPECT_NE(l1, l2);
   EXPECT_EQ(set->ipMacLeaseSize(), 2u);
   EXPECT_EQ(status->interfaceLeaseSetIs(kEth1), set);
}

TEST(Status, aSecondEntryForThePairReplacesTheFirstWhateverItsInterface) {
   auto status = Rt::makePtr<Status>();
   IpMacLeaseKey key{kMac, *IpGenAddr::parse("10.0.0.5")};
   status->ipMacLeaseIs({key, kEth1, false});
   status->ipMacLeaseIs({key, kEth2, false});
   EXPECT_EQ(status->ipMacLeaseSize(), 1u);
   EXPECT_EQ(status->ipMacLease(key)->intfId, kEth2);
}
