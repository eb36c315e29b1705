// The lease query client on its own, over the in-memory platform and the
// virtual clock: what goes out on the socket, what is published in the
// response record, and when.
#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "dhcp/DhcpCodec.h"
#include "model/TavrinCommon.h"
#include "platform/InMemoryPlatform.h"
#include "query/LeaseQuerySm.h"
#include "rt/Assert.h"

using namespace Tavrin;
using Rt::Ptr;

namespace {

const IpAddr kServerA = *IpAddr::parse("10.0.0.1");
const IpAddr kServerB = *IpAddr::parse("10.0.0.2");
const IpAddr kServerC = *IpAddr::parse("10.0.0.3");
const IpAddr kSource = *IpAddr::parse("10.0.0.254");
const IpAddr kClientIp = *IpAddr::parse("10.0.1.10");
const EthAddr kClientMac = *EthAddr::parse("02:00:00:00:00:01");
const IntfId kLocal("Vlan10");
const IntfId kPort("Ethernet1");

std::vector<IpGenAddr> pending(const Ptr<QueryContext>& ctx) {
   return {ctx->pendingServerAll().begin(), ctx->pendingServerAll().end()};
}

// Rounds go to the pending servers in address order, each once.
TEST(QueryContextTest, pendingServersStaySortedAndUnique) {
   auto ctx = Rt::makePtr<QueryContext>(IpMacPair{IpGenAddr(), kClientMac});
   for (IpAddr s : {kServerC, kServerA, kServerC, kServerB}) ctx->pendingServerIs(IpGenAddr(s));
   EXPECT_EQ(pending(ctx),
             (std::vector<IpGenAddr>{IpGenAddr(kServerA), IpGenAddr(kServerB), IpGenAddr(kServerC)}));
   ctx->pendingServerDel(IpGenAddr(kServerB));
   ctx->pendingServerDel(IpGenAddr(kSource));  // absent: no change
   EXPECT_EQ(pending(ctx), (std::vector<IpGenAddr>{IpGenAddr(kServerA), IpGenAddr(kServerC)}));
   EXPECT_TRUE(ctx->pendingServerHas(IpGenAddr(kServerC)));
   EXPECT_FALSE(ctx->pendingServerHas(IpGenAddr(kServerB)));
   ctx->pendingServerDel(IpGenAddr(kServerA));
   ctx->pendingServerDel(IpGenAddr(kServerC));
   EXPECT_TRUE(ctx->pendingServerAll().empty());
}

struct Sent {
   Seconds at;
   IpAddr dst;
   IpAddr src;
   uint32_t xid;
   bool byMac;
   IpAddr ciaddr;
   EthAddr chaddr;
   IpAddr giaddr;
};

struct Response {
   Seconds at;
   bool queryByMac;
   EthAddr mac;
   IpGenAddr ip;
   IpGenAddr dhcpAddr;
   IntfId intfId;
   Seconds lastTransactionTime;
   Seconds expirationTime;
   std::set<IpGenAddr> associatedIp;
   uint8_t messageType;
};

class ResponseLog : public LeaseQueryResponse::Notifiee {
 public:
   ResponseLog(const Ptr<LeaseQueryResponse>& r, std::vector<Response>& log)
       : LeaseQueryResponse::Notifiee(r), log_(log) {}
   void onVersionNumber() override {
      const auto& r = *notifier();
      log_.push_back({Rt::now(), r.queryByMac(), r.mac(), r.ip(), r.dhcpAddr(), r.intfId(),
                      r.lastTransactionTime(), r.expirationTime(), r.associatedIpAll(),
                      r.messageType()});
   }

 private:
   std::vector<Response>& log_;
};

struct LeaseQueryFixture : ::testing::Test {
   Platform::InMemoryPlatform platform;
   Ptr<CliConfig> cliConfig = Rt::makePtr<CliConfig>();
   Ptr<LeaseQueryRequest> request = Rt::makePtr<LeaseQueryRequest>();
   Ptr<LeaseQueryResponse> response = Rt::makePtr<LeaseQueryResponse>();
   Ptr<Platform::IpStatus> ipStatus = Rt::makePtr<Platform::IpStatus>();
   std::vector<Sent> sent;
   std::vector<Response> responses;
   ResponseLog responseLog{response, responses};
   Ptr<LeaseQuerySm> sm;

   LeaseQueryFixture() {
      platform.udpPamCreatedIs([this](Platform::FakeUdpPam& pam) {
         pam.onSentIs([this](const Platform::FakeUdpPam::Sent& s) {
            PacketParser p;
            ASSERT_TRUE(p.doParse(s.pkt));
            sent.push_back({Rt::now(), s.dst, s.src, p.xid(), p.htype() == 1 && p.hlen() == 6,
                            p.ciaddr(), p.chaddr(), p.giaddr()});
         });
      });
      cliConfig->localInterfaceIs(kLocal);
      ipStatus->ipIntfStatusIs(kLocal)->primaryAddrIs(kSource);
   }

   void start(std::initializer_list<IpAddr> servers) {
      for (auto s : servers) cliConfig->dhcpV4ServerIs(s);
      sm = leaseQuerySmFactory(cliConfig, request, response, ipStatus,
                               platform.taskScheduler());
   }
   void queryByMac(bool delay = false, bool force = false, IpGenAddr server = {}) {
      sendLeaseQuery(request, kClientMac, IpGenAddr(), kPort, delay, force, server);
   }
   void queryByIp(IpAddr ip, bool delay = false, bool force = false) {
      sendLeaseQuery(request, EthAddr(), IpGenAddr(ip), kPort, delay, force, IpGenAddr());
   }
   void answer(IpAddr from, DhcpAnswerFields f) {
      platform.udpPam("Tavrin")->deliver(buildDhcpAnswer(f), from);
   }
   DhcpAnswerFields activeForMac(uint32_t xid) const {
      DhcpAnswerFields f;
      f.messageType = uint8_t(DhcpMessageType::leaseActive);
      f.xid = xid;
      f.ciaddr = kClientIp;
      f.chaddr = kClientMac;
      f.leaseTime = 3600;
      f.lastTransaction = 5;
      return f;
   }
   Ptr<QueryContext> byMacQuery() const {
      return sm->queryContext(IpMacPair{IpGenAddr(), kClientMac});
   }
   std::vector<Sent> sentTo(IpAddr server) const {
      std::vector<Sent> out;
      for (const auto& s : sent) {
         if (s.dst == server) out.push_back(s);
      }
      return out;
   }
};

// Send times in seconds after `t0` (the scenario clock starts at 1000).
std::vector<double> offsets(const std::vector<Sent>& sent, Seconds t0 = 1000.0) {
   std::vector<double> out;
   for (const auto& s : sent) out.push_back(s.at - t0);
   return out;
}

std::vector<uint32_t> xids(const std::vector<Sent>& sent) {
   std::vector<uint32_t> out;
   for (const auto& s : sent) out.push_back(s.xid);
   return out;
}

}  // namespace

TEST_F(LeaseQueryFixture, firstRoundAsksEveryServerWithOneXid) {
   start({kServerC, kServerA, kServerB});
   queryByMac();
   ASSERT_EQ(sent.size(), 3u);
   std::vector<IpAddr> dsts;
   for (const auto& s : sent) {
      dsts.push_back(s.dst);
      EXPECT_EQ(s.xid, 1234u);
      EXPECT_TRUE(s.byMac);
      EXPECT_EQ(s.chaddr, kClientMac);
      EXPECT_EQ(s.ciaddr, IpAddr());
      EXPECT_EQ(s.giaddr, kSource);
      EXPECT_EQ(s.src, kSource);
   }
   EXPECT_EQ(dsts, (std::vector<IpAddr>{kServerA, kServerB, kServerC}));
   EXPECT_EQ(byMacQuery()->sentCount(), 1);

   sent.clear();
   queryByIp(kClientIp);
   ASSERT_EQ(sent.size(), 3u);
   EXPECT_FALSE(sent[0].byMac);
   EXPECT_EQ(sent[0].ciaddr, kClientIp);
   EXPECT_EQ(sent[0].xid, 1234u);
}

TEST_F(LeaseQueryFixture, requestForAServerThatIsNotConfiguredIsAnAssertion) {
   start({kServerA});
   Rt::assertHandlerIs([](const char* expr, const char*, int) { throw std::logic_error(expr); });
   try {
      queryByMac(false, false, IpGenAddr(kServerB));
      ADD_FAILURE() << "no assertion";
   } catch (const std::logic_error& e) {
      EXPECT_STREQ(e.what(), "cliConfig()->dhcpV4ServerHas( dhcpAddr.v4Addr() )");
   }
   Rt::assertHandlerIs(nullptr);
   EXPECT_TRUE(sent.empty());
}

TEST_F(LeaseQueryFixture, forcedDelayedRequestRestartsTheScheduleWithANewGeneration) {
   start({kServerA});
   queryByMac();          // 1234 at 0
   platform.advance(1);   // 1235 at 1, next at 3
   queryByMac(true);      // ignored: already in flight
   EXPECT_EQ(sent.size(), 2u);
   queryByMac(true, true);  // reset: generation 1236, nothing sent now
   EXPECT_EQ(sent.size(), 2u);
   EXPECT_EQ(byMacQuery()->sentCount(), 0);
   platform.advance(4);
   // 1236 at 2 (first round of the restart), 1237 at 3, next at 5.
   EXPECT_EQ(offsets(sent), (std::vector<double>{0, 1, 2, 3, 5}));
   EXPECT_EQ(xids(sent), (std::vector<uint32_t>{1234, 1235, 1236, 1237, 1238}));
}

TEST_F(LeaseQueryFixture, giveUpReportsEachSilentServerOnce) {
   start({kServerA, kServerB});
   queryByMac();
   platform.advance(0.5);
   answer(kServerA, activeForMac(1234));
   ASSERT_EQ(responses.size(), 1u);
   EXPECT_EQ(responses[0].expirationTime, 1000.5 + 3600);

   platform.advance(100);
   EXPECT_EQ(sentTo(kServerA).size(), 1u);
   EXPECT_EQ(offsets(sentTo(kServerB)), (std::vector<double>{0, 1, 3, 7, 15, 31, 63}));
   ASSERT_EQ(responses.size(), 2u);
   const auto& r = responses[1];
   EXPECT_EQ(r.at, 1073.0);
   EXPECT_EQ(r.dhcpAddr, IpGenAddr(kServerB));
   EXPECT_TRUE(r.queryByMac);
   EXPECT_EQ(r.mac, kClientMac);
   EXPECT_EQ(r.ip, IpGenAddr());
   EXPECT_EQ(r.intfId, IntfId());
   EXPECT_EQ(r.lastTransactionTime, 0.0);
   EXPECT_EQ(r.expirationTime, 0.0);
   EXPECT_EQ(r.messageType, 0);
   EXPECT_TRUE(sm->queryContextAll().empty());
   EXPECT_TRUE(sm->timerReactorAll().empty());

   // A late answer finds no query.
   answer(kServerB, activeForMac(1240));
   EXPECT_EQ(responses.size(), 2u);
}

TEST_F(LeaseQueryFixture, serverConfigurationChangesWhileAQueryWaits) {
   struct Case {
      const char* name;
      std::vector<IpAddr> servers;
      std::function<void(CliConfig&)> change;
      std::vector<IpGenAddr> pending;  // empty: the query ended
   } cases[] = {
       {"only server removed", {kServerA}, [](CliConfig& c) { c.dhcpV4ServerDel(kServerA); }, {}},
       {"one of two removed",
        {kServerA, kServerB},
        [](CliConfig& c) { c.dhcpV4ServerDel(kServerA); },
        {IpGenAddr(kServerB)}},
       {"server added", {kServerA}, [](CliConfig& c) { c.dhcpV4ServerIs(kServerB); },
        {IpGenAddr(kServerA)}},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      Platform::InMemoryPlatform fresh;
      auto cli = Rt::makePtr<CliConfig>();
      cli->localInterfaceIs(kLocal);
      for (auto s : c.servers) cli->dhcpV4ServerIs(s);
      auto req = Rt::makePtr<LeaseQueryRequest>();
      auto resp = Rt::makePtr<LeaseQueryResponse>();
      std::vector<Response> log;
      ResponseLog watch(resp, log);
      auto machine = leaseQuerySmFactory(cli, req, resp, ipStatus, fresh.taskScheduler());
      sendLeaseQuery(req, kClientMac, IpGenAddr(), kPort, false, false, IpGenAddr());
      c.change(*cli);
      auto ctx = machine->queryContext(IpMacPair{IpGenAddr(), kClientMac});
      if (c.pending.empty()) {
         EXPECT_FALSE(ctx);
         EXPECT_TRUE(machine->timerReactorAll().empty());
      } else {
         ASSERT_TRUE(ctx);
         EXPECT_EQ(pending(ctx), c.pending);
      }
      fresh.advance(100);
      // Whatever happened, no server is reported without a lease because
      // of the configuration change itself.
      EXPECT_EQ(log.size(), c.pending.size());
   }
}

TEST_F(LeaseQueryFixture, missingSourceAddressUsesUpNoRound) {
   struct Case {
      const char* name;
      std::function<void(Platform::IpStatus&)> breakSource;
   } cases[] = {
       {"no ip status", [](Platform::IpStatus& s) { s.ipIntfStatusDel(kLocal); }},
       {"no primary address", [](Platform::IpStatus& s) {
           s.ipIntfStatusIs(kLocal)->primaryAddrIs(IpAddr());
        }},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      sent.clear();
      responses.clear();
      c.breakSource(*ipStatus);
      if (!sm) start({kServerA});
      const Seconds t0 = Rt::now();
      queryByMac();
      platform.advance(5.5);
      ASSERT_TRUE(byMacQuery());
      EXPECT_EQ(byMacQuery()->sentCount(), 0);
      EXPECT_EQ(byMacQuery()->genId(), 1234u);
      EXPECT_TRUE(sent.empty());

      // The address comes back: the full schedule still lies ahead.
      ipStatus->ipIntfStatusIs(kLocal)->primaryAddrIs(kSource);
      platform.advance(200);
      EXPECT_EQ(offsets(sent, t0), (std::vector<double>{6, 7, 9, 13, 21, 37, 69}));
      EXPECT_EQ(xids(sent), (std::vector<uint32_t>{1234, 1235, 1236, 1237, 1238, 1239, 1240}));
      ASSERT_EQ(responses.size(), 1u);
      EXPECT_EQ(responses[0].at - t0, 79.0);
   }
}

TEST_F(LeaseQueryFixture, noLeaseAnswers) {
   struct Case {
      const char* name;
      bool byMac;
      DhcpMessageType type;
      bool reportedNow;  // else the server stays pending until give-up
   } cases[] = {
       {"unknown, by IP", false, DhcpMessageType::leaseUnknown, true},
       {"unassigned, by IP", false, DhcpMessageType::leaseUnassigned, true},
       {"unknown, by MAC", true, DhcpMessageType::leaseUnknown, false},
       {"unassigned, by MAC (a server fault)", true, DhcpMessageType::leaseUnassigned, false},
   };
   start({kServerA});
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      responses.clear();
      if (c.byMac) {
         queryByMac();
      } else {
         queryByIp(kClientIp);
      }
      const IpMacPair pair = c.byMac ? IpMacPair{IpGenAddr(), kClientMac}
                                     : IpMacPair{IpGenAddr(kClientIp), EthAddr()};
      DhcpAnswerFields f;
      f.messageType = uint8_t(c.type);
      f.xid = 1234;
      if (c.byMac) {
         f.chaddr = kClientMac;
      } else {
         f.ciaddr = kClientIp;
      }
      answer(kServerA, f);
      if (c.reportedNow) {
         ASSERT_EQ(responses.size(), 1u);
         EXPECT_EQ(responses[0].ip, pair.ip);
         EXPECT_EQ(responses[0].expirationTime, 0.0);
         EXPECT_FALSE(sm->queryContext(pair));
      } else {
         EXPECT_TRUE(responses.empty());
         ASSERT_TRUE(sm->queryContext(pair));
         EXPECT_TRUE(sm->queryContext(pair)->pendingServerHas(IpGenAddr(kServerA)));
      }
      platform.advance(100);
      EXPECT_FALSE(sm->queryContext(pair));
      EXPECT_EQ(responses.size(), 1u);
   }
}

TEST_F(LeaseQueryFixture, unknownFromOneServerAfterAnotherVouchedEndsTheQuery) {
   start({kServerA, kServerB});
   queryByMac();
   answer(kServerA, activeForMac(1234));
   DhcpAnswerFields unknown;
   unknown.messageType = uint8_t(DhcpMessageType::leaseUnknown);
   unknown.xid = 1234;
   unknown.chaddr = kClientMac;
   answer(kServerB, unknown);
   ASSERT_EQ(responses.size(), 2u);
   EXPECT_EQ(responses[1].dhcpAddr, IpGenAddr(kServerB));
   EXPECT_EQ(responses[1].expirationTime, 0.0);
   EXPECT_TRUE(sm->queryContextAll().empty());
}

TEST_F(LeaseQueryFixture, activeAnswerIsAnchoredOnOurClockAndConfirmsAssociatedIps) {
   start({kServerA, kServerB});
   queryByMac();
   platform.advance(2.5);  // second round, xid 1235, went out at 1
   sent.clear();
   auto f = activeForMac(1235);
   const IpAddr b = *IpAddr::parse("10.0.1.12"), c = *IpAddr::parse("10.0.1.11");
   f.assoc = std::vector<IpAddr>{b, c};
   answer(kServerA, f);

   ASSERT_EQ(responses.size(), 1u);
   const auto& r = responses[0];
   EXPECT_TRUE(r.queryByMac);
   EXPECT_EQ(r.mac, kClientMac);
   EXPECT_EQ(r.ip, IpGenAddr(kClientIp));
   EXPECT_EQ(r.dhcpAddr, IpGenAddr(kServerA));
   EXPECT_EQ(r.intfId, kPort);
   EXPECT_EQ(r.lastTransactionTime, 1002.5 - 5);
   EXPECT_EQ(r.expirationTime, 1002.5 + 3600);
   EXPECT_EQ(r.associatedIp, (std::set<IpGenAddr>{IpGenAddr(b), IpGenAddr(c)}));
   EXPECT_EQ(r.messageType, uint8_t(DhcpMessageType::leaseActive));

   // Follow-ups only to the answering server, by IP, xid = 1235 + 1234.
   ASSERT_EQ(sent.size(), 2u);
   for (const auto& s : sent) {
      EXPECT_EQ(s.dst, kServerA);
      EXPECT_FALSE(s.byMac);
      EXPECT_EQ(s.xid, 2469u);
   }
   EXPECT_EQ(sent[0].ciaddr, c);
   EXPECT_EQ(sent[1].ciaddr, b);
   auto followUp = sm->queryContext(IpMacPair{IpGenAddr(b), EthAddr()});
   ASSERT_TRUE(followUp);
   EXPECT_EQ(followUp->intfId(), kPort);
   // The by-MAC query now waits for the other server only.
   ASSERT_TRUE(byMacQuery());
   EXPECT_TRUE(byMacQuery()->receivedValidLease());
   EXPECT_EQ(pending(byMacQuery()), std::vector<IpGenAddr>{IpGenAddr(kServerB)});
}

TEST_F(LeaseQueryFixture, activeAnswerWithoutItsTimesLeavesTheServerPending) {
   struct Case {
      const char* name;
      bool leaseTime, lastTransaction;
   } cases[] = {{"no lease time", false, true}, {"no last transaction time", true, false}};
   start({kServerA});
   queryByMac();
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      auto f = activeForMac(1234);
      if (!c.leaseTime) f.leaseTime.reset();
      if (!c.lastTransaction) f.lastTransaction.reset();
      answer(kServerA, f);
      EXPECT_TRUE(responses.empty());
      ASSERT_TRUE(byMacQuery());
      EXPECT_TRUE(byMacQuery()->receivedValidLease());
      EXPECT_TRUE(byMacQuery()->pendingServerHas(IpGenAddr(kServerA)));
   }
}

TEST_F(LeaseQueryFixture, answersThatMatchNoQueryChangeNothing) {
   struct Case {
      const char* name;
      IpAddr from;
      std::function<void(DhcpAnswerFields&)> edit;
   } cases[] = {
       {"previous generation", kServerA, [](DhcpAnswerFields& f) { f.xid = 1234; }},
       {"next generation", kServerA, [](DhcpAnswerFields& f) { f.xid = 1236; }},
       {"unconfigured sender", kServerC, [](DhcpAnswerFields&) {}},
       {"configured server not asked", kServerB, [](DhcpAnswerFields&) {}},
       {"another MAC", kServerA,
        [](DhcpAnswerFields& f) { f.chaddr = *EthAddr::parse("02:00:00:00:00:09"); }},
       {"not a lease query answer", kServerA,
        [](DhcpAnswerFields& f) { f.messageType = uint8_t(DhcpMessageType::ack); }},
   };
   start({kServerA, kServerB});
   queryByMac(false, false, IpGenAddr(kServerA));
   platform.advance(1);  // now at generation 1235
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      auto f = activeForMac(1235);
      c.edit(f);
      answer(c.from, f);
      EXPECT_TRUE(responses.empty());
      ASSERT_TRUE(byMacQuery());
      EXPECT_FALSE(byMacQuery()->receivedValidLease());
      EXPECT_EQ(pending(byMacQuery()), std::vector<IpGenAddr>{IpGenAddr(kServerA)});
   }
   platform.udpPam("Tavrin")->deliver(Rt::makePtr<Rt::Pkt>(std::vector<uint8_t>{1, 2, 3}),
                                      kServerA);
   EXPECT_TRUE(responses.empty());
   // The real answer still counts.
   answer(kServerA, activeForMac(1235));
   EXPECT_EQ(responses.size(), 1u);
}

TEST_F(LeaseQueryFixture, emptyInputsAreTolerated) {
   auto alone = leaseQuerySmFactory(nullptr, nullptr, nullptr, nullptr, nullptr);
   EXPECT_TRUE(alone->initialized());
   // No configuration: requests ask nobody.
   auto noConfig = leaseQuerySmFactory(nullptr, request, response, ipStatus,
                                       platform.taskScheduler());
   queryByMac();
   EXPECT_TRUE(noConfig->queryContextAll().empty());
   noConfig = nullptr;
   // No response record and no IP status: the query waits for a source and
   // goes with its machine.
   cliConfig->dhcpV4ServerIs(kServerA);
   auto blind = leaseQuerySmFactory(cliConfig, request, nullptr, nullptr,
                                    platform.taskScheduler());
   queryByMac();
   ASSERT_EQ(blind->queryContextAll().size(), 1u);
   platform.advance(3);
   EXPECT_EQ((*blind->queryContextAll().begin()).second->sentCount(), 0);
   blind = nullptr;
   EXPECT_EQ(platform.taskScheduler()->armed(), 0u);
}
