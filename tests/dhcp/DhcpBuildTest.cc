// The builders against hand-written bytes, and builder-to-parser round trips.
#include <gtest/gtest.h>

#include "dhcp/Bytes.h"
#include "dhcp/DhcpCodec.h"

using namespace Tavrin;
using namespace Tavrin::Test;

namespace {

constexpr IpAddr kGiaddr = IpAddr::fromBytes(10, 1, 2, 1);
constexpr IpAddr kServer = IpAddr::fromBytes(10, 9, 9, 9);
constexpr IpAddr kClient = IpAddr::fromBytes(10, 1, 2, 77);
constexpr EthAddr kMac = EthAddr::fromU64(0x0011223344aaULL);
constexpr uint32_t kXid = 0xdeadbeef;

// The part every lease query shares after the addresses: sname and file
// empty, the cookie, type 10, a request for 51, 91 and 92, the end option,
// and padding to the 300 bytes of a BOOTP message.
Bytes queryTail() {
   return cat({zeros(64 + 128),
               {0x63, 0x82, 0x53, 0x63},
               {53, 1, 10},
               {55, 3, 51, 91, 92},
               {255},
               zeros(51)});
}

}  // namespace

TEST(DhcpBuild, leaseQueryByMacBytes) {
   const Bytes expected = cat({
       {0x01, 0x01, 0x06, 0x00},  // BOOTREQUEST, Ethernet, hlen 6, hops
       {0xde, 0xad, 0xbe, 0xef},  // xid
       {0x00, 0x00, 0x00, 0x00},  // secs, flags
       {0, 0, 0, 0},              // ciaddr
       {0, 0, 0, 0},              // yiaddr
       {0, 0, 0, 0},              // siaddr
       {10, 1, 2, 1},             // giaddr
       {0x00, 0x11, 0x22, 0x33, 0x44, 0xaa},
       zeros(10),
       queryTail(),
   });
   auto pkt = buildDhcpLeaseQuery(true, kGiaddr, kServer, kMac, kClient, kXid);
   ASSERT_TRUE(pkt);
   EXPECT_EQ(pkt->bytes(), expected);
}

TEST(DhcpBuild, leaseQueryByIpBytes) {
   const Bytes expected = cat({
       {0x01, 0x00, 0x00, 0x00},  // BOOTREQUEST, no hardware address
       {0xde, 0xad, 0xbe, 0xef},
       {0x00, 0x00, 0x00, 0x00},
       {10, 1, 2, 77},  // ciaddr
       {0, 0, 0, 0},
       {0, 0, 0, 0},
       {10, 1, 2, 1},
       zeros(16),  // chaddr, though a MAC was passed
       queryTail(),
   });
   auto pkt = buildDhcpLeaseQuery(false, kGiaddr, kServer, kMac, kClient, kXid);
   ASSERT_TRUE(pkt);
   EXPECT_EQ(pkt->bytes(), expected);
}

TEST(DhcpBuild, answerBytes) {
   DhcpAnswerFields f;
   f.messageType = 13;
   f.xid = 0x01020304;
   f.ciaddr = kClient;
   f.chaddr = kMac;
   f.giaddr = kGiaddr;
   f.leaseTime = 3600;
   f.lastTransaction = 20;
   f.assoc = std::vector{IpAddr::fromBytes(10, 1, 2, 78)};
   f.serverId = kServer;
   const Bytes options = cat({
       {53, 1, 13},
       {54, 4, 10, 9, 9, 9},
       {51, 4, 0, 0, 0x0e, 0x10},
       {91, 4, 0, 0, 0, 20},
       {92, 4, 10, 1, 2, 78},
       {255},
   });
   const Bytes expected = cat({
       {0x02, 0x01, 0x06, 0x00},  // BOOTREPLY
       {0x01, 0x02, 0x03, 0x04},
       zeros(4),
       {10, 1, 2, 77},
       zeros(8),
       {10, 1, 2, 1},
       {0x00, 0x11, 0x22, 0x33, 0x44, 0xaa},
       zeros(10 + 64 + 128),
       {0x63, 0x82, 0x53, 0x63},
       options,
       zeros(300 - 240 - options.size()),
   });
   EXPECT_EQ(buildDhcpAnswer(f)->bytes(), expected);
}

TEST(DhcpBuild, leaseQueryRoundTrip) {
   struct Case {
      bool byMac;
      uint8_t htype, hlen;
      EthAddr chaddr;
      IpAddr ciaddr;
   };
   for (const Case& c : {Case{true, 1, 6, kMac, IpAddr()}, Case{false, 0, 0, EthAddr(), kClient}}) {
      SCOPED_TRACE(c.byMac ? "by MAC" : "by IP");
      PacketParser p;
      ASSERT_TRUE(p.doParse(buildDhcpLeaseQuery(c.byMac, kGiaddr, kServer, kMac, kClient, kXid)))
          << p.error();
      EXPECT_EQ(p.op(), 1);
      EXPECT_EQ(p.htype(), c.htype);
      EXPECT_EQ(p.hlen(), c.hlen);
      EXPECT_EQ(p.xid(), kXid);
      EXPECT_EQ(p.giaddr(), kGiaddr);
      EXPECT_EQ(p.chaddr(), c.chaddr);
      EXPECT_EQ(p.ciaddr(), c.ciaddr);
      EXPECT_EQ(p.messageTypeName(), "DHCPLEASEQUERY");
      EXPECT_EQ(p.parameterRequestList(), (std::vector<uint8_t>{51, 91, 92}));
      EXPECT_FALSE(p.leaseTime());
   }
}

TEST(DhcpBuild, answerRoundTrip) {
   std::vector<IpAddr> many;  // 400 bytes: more than one option can hold
   for (uint32_t i = 0; i < 100; ++i) many.push_back(IpAddr(0x0a000000 + i));

   struct Case {
      const char* name;
      DhcpAnswerFields fields;
      bool hasAssoc;
   };
   const Case cases[] = {
       {"active, every option", {13, 7, kClient, kMac, kGiaddr, 86400, 0, many, kServer}, true},
       {"active, one address",
        {13, 8, kClient, kMac, kGiaddr, 1, 5, std::vector{kClient}, {}},
        true},
       {"unassigned, bare", {11, 9, IpAddr(), kMac, kGiaddr, {}, {}, {}, {}}, false},
       {"unknown, empty assoc list",
        {12, 10, kClient, EthAddr(), kGiaddr, {}, {}, std::vector<IpAddr>{}, {}},
        false},
   };
   for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      const DhcpAnswerFields& f = c.fields;
      PacketParser p;
      ASSERT_TRUE(p.doParse(buildDhcpAnswer(f))) << p.error();
      EXPECT_EQ(p.op(), 2);
      EXPECT_EQ(p.messageType(), f.messageType);
      EXPECT_EQ(p.xid(), f.xid);
      EXPECT_EQ(p.ciaddr(), f.ciaddr);
      EXPECT_EQ(p.chaddr(), f.chaddr);
      EXPECT_EQ(p.giaddr(), f.giaddr);
      EXPECT_EQ(p.leaseTime(), f.leaseTime);
      EXPECT_EQ(p.clientLastTransactionTime(), f.lastTransaction);
      EXPECT_EQ(p.serverId(), f.serverId);
      EXPECT_EQ(p.hasAssociatedIp(), c.hasAssoc);
      EXPECT_EQ(p.associatedIp(), c.hasAssoc ? *f.assoc : std::vector<IpAddr>());
   }
}

TEST(DhcpBuild, messageTypeNames) {
   const std::pair<std::optional<uint8_t>, const char*> cases[] = {
       {1, "DHCPDISCOVER"},
       {2, "DHCPOFFER"},
       {3, "DHCPREQUEST"},
       {4, "DHCPDECLINE"},
       {5, "DHCPACK"},
       {6, "DHCPNAK"},
       {7, "DHCPRELEASE"},
       {8, "DHCPINFORM"},
       {9, "DHCPFORCERENEW"},
       {10, "DHCPLEASEQUERY"},
       {11, "DHCPLEASEUNASSIGNED"},
       {12, "DHCPLEASEUNKNOWN"},
       {13, "DHCPLEASEACTIVE"},
       {0, "DHCPTYPE0"},
       {14, "DHCPTYPE14"},
       {255, "DHCPTYPE255"},
       {std::nullopt, "BOOTP"},
   };
   for (const auto& [type, name] : cases) EXPECT_EQ(dhcpMessageTypeName(type), name);
}

// 100 addresses need two option 92s; the split falls between addresses so
// that a server-side reader that does not join parts still sees whole ones.
TEST(DhcpBuild, longAssociatedListSplitsOnAddresses) {
   DhcpAnswerFields f;
   f.assoc.emplace();
   for (uint32_t i = 0; i < 100; ++i) f.assoc->push_back(IpAddr(i));
   const Bytes b = buildDhcpAnswer(f)->bytes();
   ASSERT_EQ(b.size(), 240u + 3 + 2 + 252 + 2 + 148 + 1);
   EXPECT_EQ((Bytes{b[243], b[244]}), (Bytes{92, 252}));
   EXPECT_EQ((Bytes{b[497], b[498]}), (Bytes{92, 148}));
   EXPECT_EQ(b.back(), 255);
}
