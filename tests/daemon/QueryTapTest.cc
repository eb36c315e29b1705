// The tap on the query socket: how it sorts what the agent reads, when it
// calls a server silent and when it takes that back, and that the socket
// underneath gets every setting the agent makes on the tapped one.
#include <gtest/gtest.h>

#include "daemon/QueryTap.h"
#include "dhcp/DhcpCodec.h"

using namespace Tavrin;
using namespace Tavrin::Daemon;

namespace {

const IpAddr server = IpAddr::fromBytes(192, 0, 2, 10);
const IpAddr stranger = IpAddr::fromBytes(192, 0, 2, 66);
const IpAddr giaddr = IpAddr::fromBytes(10, 0, 0, 1);

Ptr<Rt::Pkt> answer(uint8_t type) {
   DhcpAnswerFields f;
   f.messageType = type;
   f.xid = 1234;
   return buildDhcpAnswer(f);
}

struct Tap : ::testing::Test {
   Rt::VirtualClock clock{1000.0};
   std::vector<std::string> notices;
   QueryTap tap{clock, [this](LogLevel, const std::string& m) { notices.push_back(m); }};
   Ptr<CliConfig> cli = Rt::makePtr<CliConfig>();
   Tap() {
      cli->dhcpV4ServerIs(server);
      tap.cliConfigIs(cli);
   }
};

}  // namespace

TEST_F(Tap, sortsWhatTheAgentReadsAsTheQueryClientDoes) {
   struct Case {
      const char* what;
      IpAddr from;
      Ptr<Rt::Pkt> pkt;
      const char* drop;  // nullptr: an answer of the packet's type
   } cases[] = {
       {"active", server, answer(13), nullptr},
       {"unknown", server, answer(12), nullptr},
       {"unassigned", server, answer(11), nullptr},
       {"a client's discover on port 67", stranger, answer(1), QueryTap::kUnknownSender},
       {"an answer from a server we do not ask", stranger, answer(13), QueryTap::kUnknownSender},
       {"garbage", server, Rt::makePtr<Rt::Pkt>(std::vector<uint8_t>(40, 0xab)),
        QueryTap::kUnparsable},
       {"a request, not an answer", server, answer(3), QueryTap::kNotAnAnswer},
       {"a lease query, not an answer", server, answer(10), QueryTap::kNotAnAnswer},
   };
   for (const auto& c : cases) {
      const uint8_t type = c.pkt->size() > 242 ? c.pkt->bytes()[242] : 0;
      const uint64_t answersBefore = tap.answers(type);
      const uint64_t dropsBefore = c.drop ? tap.drops(c.drop) : 0;
      tap.received(c.from, *c.pkt);
      if (c.drop) {
         EXPECT_EQ(tap.drops(c.drop), dropsBefore + 1) << c.what;
         EXPECT_EQ(tap.answers(type), answersBefore) << c.what;
      } else {
         EXPECT_EQ(tap.answers(type), answersBefore + 1) << c.what;
      }
   }
   std::vector<Sample> out;
   tap.collect(out);
   EXPECT_NE(std::find(out.begin(), out.end(),
                       Sample{"tavrin_answers_total", {{"type", "DHCPLEASEACTIVE"}}, 1}),
             out.end());
   EXPECT_NE(std::find(out.begin(), out.end(),
                       Sample{"tavrin_drops_total", {{"reason", QueryTap::kUnknownSender}}, 2}),
             out.end());
}

TEST_F(Tap, aServerAskedForTenSecondsWithoutAWordIsCalledSilentOnce) {
   // The retry schedule of one query: rounds at 0, 1, 3, 7, 15 s.
   for (Seconds t : {0.0, 1.0, 3.0, 7.0}) {
      clock.timeIs(1000 + t);
      tap.sent(server, giaddr);
   }
   EXPECT_FALSE(tap.silent(server));
   EXPECT_TRUE(notices.empty());
   clock.timeIs(1015);
   tap.sent(server, giaddr);
   EXPECT_TRUE(tap.silent(server));
   ASSERT_EQ(notices.size(), 1u);
   EXPECT_NE(notices[0].find("192.0.2.10 has not answered"), std::string::npos) << notices[0];
   EXPECT_NE(notices[0].find("10.0.0.1"), std::string::npos) << "names where queries come from";
   clock.timeIs(1031);
   tap.sent(server, giaddr);
   EXPECT_EQ(notices.size(), 1u) << "said once, not at every round";

   std::vector<Sample> out;
   tap.collect(out);
   EXPECT_NE(std::find(out.begin(), out.end(),
                       Sample{"tavrin_server_silent", {{"server", "192.0.2.10"}}, 1}),
             out.end());

   // Any datagram back, even one the client drops, ends the silence.
   tap.received(server, *answer(3));
   EXPECT_FALSE(tap.silent(server));
   ASSERT_EQ(notices.size(), 2u);
   EXPECT_NE(notices[1].find("answers lease queries again"), std::string::npos);
   // And the next silence is timed from its own first query.
   clock.timeIs(1040);
   tap.sent(server, giaddr);
   clock.timeIs(1049);
   tap.sent(server, giaddr);
   EXPECT_FALSE(tap.silent(server));
}

TEST_F(Tap, aServerThatAnswersIsNeverSilentHoweverLongItIsAsked) {
   for (int i = 0; i < 100; ++i) {
      clock.timeIs(1000 + i);
      tap.sent(server, giaddr);
      tap.received(server, *answer(13));
   }
   EXPECT_FALSE(tap.silent(server));
   EXPECT_TRUE(notices.empty());
}

TEST_F(Tap, theTappedSocketPassesEverySettingToTheOneBeneath) {
   auto inner = Rt::makePtr<Platform::FakeUdpPam>("Tavrin");
   auto pam = Rt::makePtr<TappedUdpPam>(inner, tap);
   size_t readable = 0;
   struct Counter : Platform::UdpPam::Notifiee {
      Counter(const Ptr<const Platform::UdpPam>& p, size_t& n) : Notifiee(p), n(n) {}
      void onReadableCount() override { ++n; }
      size_t& n;
   } counter(pam, readable);

   pam->rxIpAddrIs(IpAddr());
   pam->rxPortIs(67);
   pam->modeIs(Platform::UdpPam::Mode::txRx);
   EXPECT_EQ(inner->mode(), Platform::UdpPam::Mode::txRx);
   EXPECT_EQ(inner->rxPort(), 67);

   pam->txDstIpAddrIs(server);
   pam->txPortIs(67);
   pam->txSrcIpAddrIs(giaddr);
   auto query = buildDhcpLeaseQuery(true, giaddr, server, EthAddr::fromU64(1), IpAddr(), 1234);
   pam->pktIs(query);
   ASSERT_EQ(inner->sent().size(), 1u);
   EXPECT_EQ(inner->sent()[0].dst, server);
   EXPECT_EQ(inner->sent()[0].port, 67);
   EXPECT_EQ(inner->sent()[0].src, giaddr);
   EXPECT_EQ(inner->sent()[0].pkt, query);

   auto reply = answer(13);
   inner->deliver(reply, server);
   EXPECT_EQ(readable, 1u) << "the agent hears of what arrives underneath";
   EXPECT_EQ(pam->rxPkt(), reply);
   EXPECT_EQ(pam->rxSrcIpAddr(), server);
   EXPECT_EQ(pam->rxPkt(), nullptr);
   EXPECT_EQ(tap.answers(13), 1u);
}
