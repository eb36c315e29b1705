#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "linux/SendWindow.h"

using namespace Tavrin;
using Tavrin::Linux::SendWindow;

namespace {

const IpAddr kServerA(0xC0000201);  // 192.0.2.1
const IpAddr kServerB(0xC0000202);
const IpAddr kSource(0x0A000001);

// A BOOTP-sized packet for client `mac` (last byte) and ciaddr `ip` (last
// byte), tagged with `xid` so that the test can tell rounds apart.
Rt::Ptr<Rt::Pkt> query(uint8_t mac, uint8_t ip, uint8_t xid) {
   std::vector<uint8_t> b(240, 0);
   b[4] = xid;
   b[15] = ip;
   b[28] = 0x02;
   b[33] = mac;
   return Rt::makePtr<Rt::Pkt>(std::move(b));
}

struct Fixture {
   explicit Fixture(size_t limit = 2, Seconds timeout = 1.0)
       : window([this](const SendWindow::Query& q) { sent.push_back(describe(q)); }, limit,
                timeout) {}
   static std::string describe(const SendWindow::Query& q) {
      const auto& b = q.pkt->bytes();
      return q.dst.str() + " mac" + std::to_string(b[33]) + " ip" + std::to_string(b[15]) + " xid" +
             std::to_string(b[4]);
   }
   void ask(IpAddr server, uint8_t mac, uint8_t ip, uint8_t xid, Seconds now) {
      window.queryIs({query(mac, ip, xid), server, kSource, 67}, now);
   }
   std::vector<std::string> take() { return std::exchange(sent, {}); }

   std::vector<std::string> sent;
   SendWindow window;
};

using V = std::vector<std::string>;

TEST(SendWindow, answersReleaseWaitingQueriesOneEachInOrder) {
   Fixture f(2);
   for (uint8_t m = 1; m <= 5; ++m) f.ask(kServerA, m, 0, 1, 0.0);
   EXPECT_EQ(f.take(), (V{"192.0.2.1 mac1 ip0 xid1", "192.0.2.1 mac2 ip0 xid1"}));
   EXPECT_EQ(f.window.waiting(), 3u);
   f.window.answerFrom(kServerA, 0.1);
   EXPECT_EQ(f.take(), (V{"192.0.2.1 mac3 ip0 xid1"}));
   f.window.answerFrom(kServerA, 0.1);
   f.window.answerFrom(kServerA, 0.1);
   EXPECT_EQ(f.take(), (V{"192.0.2.1 mac4 ip0 xid1", "192.0.2.1 mac5 ip0 xid1"}));
   EXPECT_EQ(f.window.deferred(), 3u);
   // An idle server's window is open again.
   f.window.answerFrom(kServerA, 0.2);
   f.window.answerFrom(kServerA, 0.2);
   f.ask(kServerA, 6, 0, 1, 0.3);
   EXPECT_EQ(f.take(), (V{"192.0.2.1 mac6 ip0 xid1"}));
}

TEST(SendWindow, aNewerRoundForAWaitingClientTakesItsPlace) {
   Fixture f(1);
   f.ask(kServerA, 1, 0, 1, 0.0);
   f.ask(kServerA, 2, 0, 1, 0.0);
   f.ask(kServerA, 3, 0, 1, 0.0);
   f.ask(kServerA, 2, 0, 2, 0.0);  // mac2's next round: replaces, keeps its place
   f.ask(kServerA, 2, 9, 1, 0.0);  // the same MAC asked by IP is another query
   f.take();
   EXPECT_EQ(f.window.replaced(), 1u);
   for (int i = 0; i < 3; ++i) f.window.answerFrom(kServerA, 0.1);
   EXPECT_EQ(f.take(),
             (V{"192.0.2.1 mac2 ip0 xid2", "192.0.2.1 mac3 ip0 xid1", "192.0.2.1 mac2 ip9 xid1"}));
}

TEST(SendWindow, anUnansweredQueryGivesUpItsPlaceAfterTheTimeout) {
   Fixture f(2, 1.0);
   f.ask(kServerA, 1, 0, 1, 0.0);
   f.ask(kServerA, 2, 0, 1, 0.5);
   f.ask(kServerA, 3, 0, 1, 0.5);
   f.ask(kServerA, 4, 0, 1, 0.5);
   f.take();
   ASSERT_TRUE(f.window.nextDeadline());
   EXPECT_DOUBLE_EQ(*f.window.nextDeadline(), 1.0);
   f.window.expire(0.99);
   EXPECT_TRUE(f.take().empty());
   f.window.expire(1.0);
   EXPECT_EQ(f.take(), (V{"192.0.2.1 mac3 ip0 xid1"}));
   EXPECT_DOUBLE_EQ(*f.window.nextDeadline(), 1.5);
   f.window.expire(1.5);
   EXPECT_EQ(f.take(), (V{"192.0.2.1 mac4 ip0 xid1"}));
   EXPECT_FALSE(f.window.nextDeadline());  // nothing waits
}

TEST(SendWindow, serversHaveWindowsOfTheirOwn) {
   Fixture f(1);
   f.ask(kServerA, 1, 0, 1, 0.0);
   f.ask(kServerA, 2, 0, 1, 0.0);
   f.ask(kServerB, 1, 0, 1, 0.0);
   EXPECT_EQ(f.take(), (V{"192.0.2.1 mac1 ip0 xid1", "192.0.2.2 mac1 ip0 xid1"}));
   f.window.answerFrom(kServerB, 0.1);   // B's answer does not free A's place
   f.window.answerFrom(IpAddr(0), 0.1);  // nor does a client's broadcast
   EXPECT_TRUE(f.take().empty());
   f.window.answerFrom(kServerA, 0.1);
   EXPECT_EQ(f.take(), (V{"192.0.2.1 mac2 ip0 xid1"}));
}

TEST(SendWindow, clearDropsWhatWaits) {
   Fixture f(1);
   f.ask(kServerA, 1, 0, 1, 0.0);
   f.ask(kServerA, 2, 0, 1, 0.0);
   f.window.clear();
   f.take();
   EXPECT_EQ(f.window.waiting(), 0u);
   f.ask(kServerA, 3, 0, 1, 0.1);
   EXPECT_EQ(f.take(), (V{"192.0.2.1 mac3 ip0 xid1"}));
}

}  // namespace
