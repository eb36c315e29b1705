// NFLOG digestion and frame rebuilding from canned bytes. The captured
// messages are what a real kernel sent (6.x, bridge family, bridge br0 of
// ifindex 2 with port p1 of ifindex 3, rule "meta protocol ip log group 7"
// on the input hook): they check the policy against what the kernel writes,
// not against what we believe it writes. The rest are built with libmnl for
// the cases a capture does not easily give, and a corpus of broken messages
// that must come back malformed, never crash or assert.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if_arp.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_log.h>

#include <cstring>
#include <functional>
#include <string_view>

#include "dhcp/DhcpCodec.h"
#include "linux/NflogDigest.h"

using namespace Tavrin;
using namespace Tavrin::Linux;
using Status = NflogDigested::Status;

namespace {

std::vector<uint8_t> hex(std::string_view text) {
   std::vector<uint8_t> out;
   auto nibble = [](char c) { return c <= '9' ? c - '0' : c - 'a' + 10; };
   for (size_t i = 0; i + 1 < text.size(); i += 2) {
      out.push_back(uint8_t(nibble(text[i]) << 4 | nibble(text[i + 1])));
   }
   return out;
}

EthAddr mac(std::string_view s) {
   return *EthAddr::parse(s);
}

// A UDP datagram from 02:00:5e:10:00:01 / 10.9.0.7, broadcast, untagged.
constexpr std::string_view kUntagged =
    "b800000000040000000000000000000007000007080001000800010005000a000000000008000600000000030800"
    "040000000002100008000006000002005e100001000006000f000001000006001100000e000012001000ffffffff"
    "ffff02005e1000010800000014000300000000006b01c10a000000000002c8d012001500ffffffffffff02005e10"
    "000108000000280009004500002400010000401166af0a0900070a0900019c4000090010000074617672696e2121";
// The same sender as 10.9.0.8 in VLAN 10, priority 3: the driver took the
// tag off, so it comes in the NFULA_VLAN nest and not in the L2 header.
constexpr std::string_view kTagged =
    "dc00000000040000000000000000000007000007080001000800010005000a000000000008000600000000030800"
    "040000000002100008000006000002005e100001000006000f000001000006001100000e000012001000ffffffff"
    "ffff02005e1000010800000014000300000000006b01c10a000000000002c99a08000b000000000008000e000000"
    "00001400148006000200600a0000060001008100000012001500ffffffffffff02005e1000010800000028000900"
    "4500002400010000401166ae0a0900080a0900019c4000090010000074617672696e2121";
// The end of the kernel's batch, which came in the same datagram.
constexpr std::string_view kDone = "1400000003000000000000000000000000000007";

// The IPv4 packet both captures carry after their link-layer header.
std::vector<uint8_t> capturedPayload(std::string_view source) {
   auto bytes = hex(source);
   return {bytes.end() - 36, bytes.end()};
}

// Builds NFLOG packet messages for what no capture shows.
class MsgBuilder {
 public:
   explicit MsgBuilder(uint16_t type = (NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_PACKET) {
      nlh_ = mnl_nlmsg_put_header(buf_);
      nlh_->nlmsg_type = type;
      auto* gen = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(nlh_, sizeof(nfgenmsg)));
      gen->nfgen_family = 7;
      gen->res_id = htons(7);
   }
   MsgBuilder& u32(uint16_t type, uint32_t v) {
      mnl_attr_put_u32(nlh_, type, htonl(v));
      return *this;
   }
   MsgBuilder& u16(uint16_t type, uint16_t v) {
      mnl_attr_put_u16(nlh_, type, htons(v));
      return *this;
   }
   MsgBuilder& bytes(uint16_t type, const std::vector<uint8_t>& b) {
      mnl_attr_put(nlh_, type, b.size(), b.data());
      return *this;
   }
   MsgBuilder& str(uint16_t type, const char* s) {
      mnl_attr_put_strz(nlh_, type, s);
      return *this;
   }
   MsgBuilder& hwAddr(EthAddr a, uint16_t len = 6) {
      nfulnl_msg_packet_hw hw{};
      hw.hw_addrlen = htons(len);
      std::memcpy(hw.hw_addr, a.bytes().data(), 6);
      mnl_attr_put(nlh_, NFULA_HWADDR, sizeof hw, &hw);
      return *this;
   }
   MsgBuilder& vlan(std::optional<uint16_t> proto, std::optional<uint16_t> tci) {
      nlattr* nest = mnl_attr_nest_start(nlh_, NFULA_VLAN);
      if (proto) mnl_attr_put_u16(nlh_, NFULA_VLAN_PROTO, htons(*proto));
      if (tci) mnl_attr_put_u16(nlh_, NFULA_VLAN_TCI, htons(*tci));
      mnl_attr_nest_end(nlh_, nest);
      return *this;
   }
   // A VLAN nest whose tag is four bytes wide.
   MsgBuilder& wideVlan() {
      nlattr* nest = mnl_attr_nest_start(nlh_, NFULA_VLAN);
      mnl_attr_put_u16(nlh_, NFULA_VLAN_PROTO, htons(0x8100));
      mnl_attr_put_u32(nlh_, NFULA_VLAN_TCI, htonl(10));
      mnl_attr_nest_end(nlh_, nest);
      return *this;
   }
   std::vector<uint8_t> done() const {
      const auto* p = reinterpret_cast<const uint8_t*>(nlh_);
      return {p, p + nlh_->nlmsg_len};
   }

 private:
   alignas(nlmsghdr) char buf_[4096]{};
   nlmsghdr* nlh_;
};

NflogPacket digestOk(const std::vector<uint8_t>& bytes) {
   NflogDigested d = digestNflog(bytes);
   EXPECT_EQ(d.status, Status::ok) << d.reason;
   return d.packet;
}

std::vector<uint8_t> frameOf(const NflogPacket& p) {
   auto f = trappedFrame(p);
   if (auto* why = std::get_if<std::string>(&f)) {
      ADD_FAILURE() << "no frame: " << *why;
      return {};
   }
   return std::get<std::vector<uint8_t>>(f);
}

std::string refusal(const NflogPacket& p) {
   auto f = trappedFrame(p);
   auto* why = std::get_if<std::string>(&f);
   return why ? *why : "(a frame)";
}

}  // namespace

// ---------------------------------------------------------------- captures

TEST(NflogDigest, CapturedUntaggedPacket) {
   NflogPacket p = digestOk(hex(kUntagged));
   EXPECT_EQ(p.family, 7);  // NFPROTO_BRIDGE
   EXPECT_EQ(p.group, 7);
   EXPECT_EQ(p.hwProtocol, 0x0800);
   EXPECT_EQ(p.hook, 1);  // bridge input
   // With bridge netfilter, INDEV is the bridge and PHYSINDEV the port.
   EXPECT_EQ(p.indev, 2u);
   EXPECT_EQ(p.physindev, 3u);
   EXPECT_EQ(p.inPort(), 3u);
   EXPECT_EQ(p.hwSource, mac("02:00:5e:10:00:01"));
   EXPECT_EQ(p.hwType, ARPHRD_ETHER);
   EXPECT_EQ(p.l2Header, hex("ffffffffffff02005e1000010800"));
   EXPECT_EQ(p.hwHeader, p.l2Header);
   EXPECT_FALSE(p.vlan);
   EXPECT_EQ(p.payload, capturedPayload(kUntagged));
   EXPECT_EQ(p.prefix, "");
}

TEST(NflogDigest, CapturedTaggedPacketCarriesItsTagApart) {
   NflogPacket p = digestOk(hex(kTagged));
   ASSERT_TRUE(p.vlan);
   EXPECT_EQ(p.vlan->proto, 0x8100);
   EXPECT_EQ(p.vlan->tci, (3 << 13) | 10);
   // The L2 header as the kernel gives it ends in the inner EtherType.
   EXPECT_EQ(p.l2Header, hex("ffffffffffff02005e1000010800"));
}

TEST(NflogDigest, ControlAndOtherMessagesAreIgnored) {
   EXPECT_EQ(digestNflog(hex(kDone)).status, Status::ignored);
   // A configuration message, and one of another netfilter subsystem.
   EXPECT_EQ(digestNflog(MsgBuilder((NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_CONFIG).done()).status,
             Status::ignored);
   EXPECT_EQ(digestNflog(MsgBuilder((NFNL_SUBSYS_QUEUE << 8) | 0).done()).status, Status::ignored);
}

TEST(NflogDigest, KernelWithoutBridgeNetfilterNamesThePortAsIndev) {
   auto p = digestOk(MsgBuilder().u32(NFULA_IFINDEX_INDEV, 9).bytes(NFULA_PAYLOAD, {1}).done());
   EXPECT_EQ(p.inPort(), 9u);
   EXPECT_EQ(digestOk(MsgBuilder().bytes(NFULA_PAYLOAD, {1}).done()).inPort(), 0u);
}

TEST(NflogDigest, PrefixAndNonEthernetAddress) {
   auto p = digestOk(
       MsgBuilder().str(NFULA_PREFIX, "tavrin-trap").hwAddr(mac("02:00:00:00:00:09"), 8).done());
   EXPECT_EQ(p.prefix, "tavrin-trap");
   // An 8-byte link address is not a MAC: left out, not cut down to one.
   EXPECT_FALSE(p.hwSource);
}

// ---------------------------------------------------------------- frames

// Whatever the kernel gave, the agent's own parser must read the sender's
// pair from the frame (strictly, as the trap machine does).
TEST(NflogFrame, TheAgentsParserReadsTheRebuiltFrames) {
   struct Case {
      const char* name;
      NflogPacket packet;
      const char* srcIp;
      uint16_t vlan;
   };
   const NflogPacket untagged = digestOk(hex(kUntagged));
   const NflogPacket tagged = digestOk(hex(kTagged));
   NflogPacket deviceHeaderOnly = untagged;  // inet family rules: no L2HDR
   deviceHeaderOnly.l2Header.clear();
   NflogPacket addressOnly = untagged;  // no header at all, only the sender
   addressOnly.l2Header.clear();
   addressOnly.hwHeader.clear();
   NflogPacket addressOnlyTagged = tagged;
   addressOnlyTagged.l2Header.clear();
   addressOnlyTagged.hwHeader.clear();
   NflogPacket notEthernetDevice = untagged;  // its header is not ours to read
   notEthernetDevice.l2Header.clear();
   notEthernetDevice.hwType = ARPHRD_LOOPBACK + 1000;
   NflogPacket inFrameTag = untagged;  // a tag the driver left in the frame
   inFrameTag.l2Header = hex("ffffffffffff02005e1000018100000a0800");
   const Case cases[] = {
       {"untagged", untagged, "10.9.0.7", 0},
       {"tag from the nest", tagged, "10.9.0.8", 10},
       {"device header", deviceHeaderOnly, "10.9.0.7", 0},
       {"source address only", addressOnly, "10.9.0.7", 0},
       {"source address and nest tag", addressOnlyTagged, "10.9.0.8", 10},
       {"non-Ethernet device", notEthernetDevice, "10.9.0.7", 0},
       {"tag in the frame", inFrameTag, "10.9.0.7", 10},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      auto frame = frameOf(c.packet);
      PacketParser parser;
      ASSERT_TRUE(parser.doParseIpPkt(frame, true)) << parser.error();
      EXPECT_EQ(parser.srcMac(), mac("02:00:5e:10:00:01"));
      EXPECT_EQ(parser.srcIp(), *IpAddr::parse(c.srcIp));
      EXPECT_EQ(parser.vlan().value_or(0), c.vlan);
   }
}

TEST(NflogFrame, TagGoesBackBetweenTheAddressesAndTheEtherType) {
   EXPECT_EQ(frameOf(digestOk(hex(kTagged))), [] {
      auto f = hex("ffffffffffff02005e1000018100600a0800");
      auto payload = capturedPayload(kTagged);
      f.insert(f.end(), payload.begin(), payload.end());
      return f;
   }());
}

// The trap reader reads each message in place, straight out of its read
// buffer, and writes the frame into the packet it hands on: the frame must
// be the whole of that buffer whatever it held, and the same as the copy's.
TEST(NflogFrame, InPlaceFramesReplaceWhatTheirBufferHeld) {
   for (auto capture : {kUntagged, kTagged}) {
      const auto bytes = hex(capture);
      std::vector<uint32_t> aligned((bytes.size() + 3) / 4);
      std::memcpy(aligned.data(), bytes.data(), bytes.size());
      const auto* nlh = reinterpret_cast<const nlmsghdr*>(aligned.data());
      NflogDigestedRef d = digestNflogInPlace(nlh, bytes.size());
      ASSERT_EQ(d.status, Status::ok) << d.reason;
      EXPECT_EQ(d.packet.owned(), digestOk(bytes));
      std::vector<uint8_t> frame(300, 0xee);
      EXPECT_EQ(trappedFrameInto(d.packet, frame), "");
      EXPECT_EQ(frame, frameOf(digestOk(bytes)));
      // A refusal leaves no bytes of an earlier frame behind.
      d.packet.payload = {};
      EXPECT_NE(trappedFrameInto(d.packet, frame), "");
      EXPECT_TRUE(frame.empty());
   }
}

TEST(NflogFrame, PacketsNoFrameCanBeMadeOfAreRefusedWithAReason) {
   const NflogPacket base = digestOk(hex(kUntagged));
   struct Case {
      const char* name;
      std::function<void(NflogPacket&)> change;
      const char* reason;
   };
   const Case cases[] = {
       {"no payload", [](NflogPacket& p) { p.payload.clear(); }, "no packet bytes"},
       {"nothing of the link layer",
        [](NflogPacket& p) {
           p.l2Header.clear();
           p.hwHeader.clear();
           p.hwSource.reset();
        },
        "no link-layer header and no source MAC"},
       {"short header", [](NflogPacket& p) { p.l2Header.resize(13); }, "13 bytes is not Ethernet"},
       {"odd header", [](NflogPacket& p) { p.l2Header.resize(16); }, "16 bytes is not Ethernet"},
       {"long header", [](NflogPacket& p) { p.l2Header.resize(kMaxL2Header + 4); },
        "34 bytes is not Ethernet"},
       {"address without EtherType",
        [](NflogPacket& p) {
           p.l2Header.clear();
           p.hwHeader.clear();
           p.hwProtocol = 0;
        },
        "no link-layer header and no source MAC"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      NflogPacket p = base;
      c.change(p);
      EXPECT_NE(refusal(p).find(c.reason), std::string::npos) << refusal(p);
   }
}

// ---------------------------------------------------------------- malformed

TEST(NflogDigest, BrokenMessagesAreMalformedWithAReason) {
   auto cutLength = [](std::vector<uint8_t> m, size_t by) {
      // The header says less than the attributes claim.
      uint32_t len;
      std::memcpy(&len, m.data(), 4);
      len -= uint32_t(by);
      std::memcpy(m.data(), &len, 4);
      return m;
   };
   struct Case {
      const char* name;
      std::vector<uint8_t> bytes;
      const char* reason;
   };
   const Case cases[] = {
       {"ifindex of two bytes", MsgBuilder().u16(NFULA_IFINDEX_PHYSINDEV, 3).done(), "attribute 6"},
       {"packet header of two bytes", MsgBuilder().u16(NFULA_PACKET_HDR, 0x800).done(),
        "attribute 1"},
       {"hardware address cut", MsgBuilder().bytes(NFULA_HWADDR, {0, 6, 0, 0, 2, 0}).done(),
        "attribute 8"},
       {"prefix without its NUL", MsgBuilder().bytes(NFULA_PREFIX, {'a', 'b'}).done(),
        "attribute 10"},
       {"hardware type of four bytes", MsgBuilder().u32(NFULA_HWTYPE, 1).done(), "attribute 15"},
       {"VLAN without its tag", MsgBuilder().vlan(0x8100, std::nullopt).done(),
        "VLAN without its protocol or tag"},
       {"VLAN tag of four bytes", MsgBuilder().wideVlan().done(), "VLAN: attribute 2"},
       {"attribute past the end", cutLength(hex(kUntagged), 8), "runs past the end"},
       {"shorter than its header", hex("140000000004000000000000000000000700"), "does not fit"},
       {"no family header", hex("1000000000040000000000000000000000"), "shorter than its header"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      NflogDigested d = digestNflog(c.bytes);
      EXPECT_EQ(d.status, Status::malformed);
      EXPECT_NE(d.reason.find(c.reason), std::string::npos) << d.reason;
   }
}

// Every cut of a real message, with its length field left as captured or
// made to match the cut: refused or read, never read past the end.
TEST(NflogDigest, EveryTruncationIsRefusedOrReadWithinBounds) {
   for (auto source : {kUntagged, kTagged}) {
      const auto whole = hex(source);
      for (size_t n = 0; n < whole.size(); ++n) {
         std::vector<uint8_t> cut(whole.begin(), whole.begin() + n);
         EXPECT_NE(digestNflog(cut).status, Status::ok) << "cut at " << n;
         if (n < sizeof(nlmsghdr)) continue;
         uint32_t len = uint32_t(n);
         std::memcpy(cut.data(), &len, 4);
         NflogDigested d = digestNflog(cut);
         if (d.status == Status::ok) {
            EXPECT_LE(d.packet.payload.size(), n) << "cut at " << n;
         }
      }
   }
}
