// Trapped Ethernet/IPv4 frames: the builder's bytes and the parser's checks.
#include <gtest/gtest.h>

#include "dhcp/Bytes.h"
#include "dhcp/DhcpCodec.h"

using namespace Tavrin;
using namespace Tavrin::Test;

namespace {

constexpr EthAddr kSrcMac = EthAddr::fromU64(0x020000000002ULL);
constexpr EthAddr kDstMac = EthAddr::fromU64(0xffffffffffffULL);
constexpr IpAddr kSrcIp = IpAddr::fromBytes(10, 0, 0, 2);
constexpr IpAddr kDstIp = IpAddr::fromBytes(10, 0, 0, 1);

const Bytes kMacs = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x02, 0, 0, 0, 0, 0x02};
const Bytes kIpv4Type = {0x08, 0x00};

// 10.0.0.2 -> 10.0.0.1, UDP 68 -> 67; the checksum worked out by hand.
Bytes ipUdp(uint8_t versionIhl = 0x45, uint16_t totalLength = 28) {
   return cat({{versionIhl, 0, uint8_t(totalLength >> 8), uint8_t(totalLength)},
               {0, 0, 0, 0},          // identification, fragments
               {64, 17, 0x66, 0xcf},  // TTL, UDP, header checksum
               {10, 0, 0, 2},
               {10, 0, 0, 1},
               {0, 68, 0, 67},  // ports
               {0, 8, 0, 0}});  // UDP length, no checksum
}

Bytes tag(uint16_t type, uint16_t vid) {
   return {uint8_t(type >> 8), uint8_t(type), uint8_t(vid >> 8), uint8_t(vid)};
}

Bytes frame(const Bytes& tags, const Bytes& type, const Bytes& ip) {
   return padded(cat({kMacs, tags, type, ip}), 60);
}

}  // namespace

TEST(EthFrame, builtBytes) {
   EXPECT_EQ(buildEthIpv4Frame(kSrcMac, kSrcIp, kDstMac, kDstIp)->bytes(),
             frame({}, kIpv4Type, ipUdp()));
   EXPECT_EQ(buildEthIpv4Frame(kSrcMac, kSrcIp, kDstMac, kDstIp, 100)->bytes(),
             frame(tag(0x8100, 100), kIpv4Type, ipUdp()));
}

TEST(EthFrame, parse) {
   struct Case {
      const char* name;
      Bytes frame;
      const char* strictError;  // "" when a strict parse succeeds
      bool lenientOk;
      std::optional<uint16_t> vlan;
   };
   const char* kNotIpv4 = "not IPv4";
   const char* kShortEth = "short Ethernet header";
   const Case cases[] = {
       {"untagged", frame({}, kIpv4Type, ipUdp()), "", true, {}},
       {"unpadded", cat({kMacs, kIpv4Type, ipUdp()}), "", true, {}},
       {"802.1Q", frame(tag(0x8100, 0x2064), kIpv4Type, ipUdp()), "", true, 100},
       {"802.1ad then 802.1Q", frame(cat({tag(0x88a8, 200), tag(0x8100, 100)}), kIpv4Type, ipUdp()),
        "", true, 200},
       {"three tags",
        frame(cat({tag(0x88a8, 1), tag(0x8100, 2), tag(0x8100, 3)}), kIpv4Type, ipUdp()),
        kNotIpv4,
        false,
        {}},
       {"ARP", frame({}, {0x08, 0x06}, ipUdp()), kNotIpv4, false, {}},
       {"IPv6", frame({}, {0x86, 0xdd}, ipUdp()), kNotIpv4, false, {}},
       {"tagged ARP", frame(tag(0x8100, 5), {0x08, 0x06}, ipUdp()), kNotIpv4, false, {}},
       {"13 bytes", cat({kMacs, {0x08}}), kShortEth, false, {}},
       {"tag cut short", cat({kMacs, {0x81, 0x00, 0x00}}), kShortEth, false, {}},
       {"IPv4 header cut at 19 bytes",
        cat({kMacs, kIpv4Type, firstBytes(ipUdp(), 19)}),
        "short IPv4 header",
        false,
        {}},
       {"IHL 4", frame({}, kIpv4Type, ipUdp(0x44)), "bad IPv4 header length", true, {}},
       {"IHL 15 past the frame",
        cat({kMacs, kIpv4Type, ipUdp(0x4f)}),
        "bad IPv4 header length",
        true,
        {}},
       {"version 6", frame({}, kIpv4Type, ipUdp(0x65)), "IPv4 version not 4", true, {}},
       {"total length past the frame",
        frame({}, kIpv4Type, ipUdp(0x45, 47)),
        "bad IPv4 total length",
        true,
        {}},
       {"total length within padding", frame({}, kIpv4Type, ipUdp(0x45, 46)), "", true, {}},
       {"total length inside the header",
        frame({}, kIpv4Type, ipUdp(0x45, 19)),
        "bad IPv4 total length",
        true,
        {}},
   };
   for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      PacketParser strict, lenient;
      const bool strictOk = std::string_view(c.strictError).empty();
      EXPECT_EQ(strict.doParseIpPkt(c.frame, true), strictOk);
      EXPECT_EQ(strict.error(), c.strictError);
      EXPECT_EQ(lenient.doParseIpPkt(c.frame, false), c.lenientOk);
      if (!c.lenientOk) continue;
      EXPECT_EQ(lenient.srcMac(), kSrcMac);
      EXPECT_EQ(lenient.dstMac(), kDstMac);
      EXPECT_EQ(lenient.srcIp(), kSrcIp);
      EXPECT_EQ(lenient.dstIp(), kDstIp);
      EXPECT_EQ(lenient.vlan(), c.vlan);
   }
}

TEST(EthFrame, packetCarriesInterface) {
   const IntfId intf("Ethernet7");
   PacketParser p;
   ASSERT_TRUE(p.doParseIpPkt(buildEthIpv4Frame(kSrcMac, kSrcIp, kDstMac, kDstIp, 7), intf, true));
   EXPECT_EQ(p.intf(), intf);
   EXPECT_EQ(p.vlan(), 7);
   EXPECT_FALSE(p.doParseIpPkt(Rt::Ptr<Rt::Pkt>(), intf, true));
   EXPECT_FALSE(p.vlan());
}

// The frame and the DHCP message it carries can be read with one parser.
TEST(EthFrame, frameParseKeepsDhcpResults) {
   PacketParser p;
   ASSERT_TRUE(p.doParse(buildDhcpLeaseQuery(true, kDstIp, kDstIp, kSrcMac, IpAddr(), 42)));
   ASSERT_TRUE(p.doParseIpPkt(frame({}, kIpv4Type, ipUdp()), true));
   EXPECT_EQ(p.xid(), 42u);
   EXPECT_EQ(p.messageTypeName(), "DHCPLEASEQUERY");
   EXPECT_EQ(p.srcIp(), kSrcIp);
}
