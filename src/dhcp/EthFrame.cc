// Ethernet/IPv4 frames: building the trapped frames tests and the simulator
// feed in, and reading the addresses out of real ones.
#include "dhcp/ByteIo.h"
#include "dhcp/DhcpCodec.h"
#include "rt/Assert.h"

namespace Tavrin {

using Dhcp::ByteReader;
using Dhcp::ByteWriter;

namespace {

constexpr uint16_t kEtherTypeIpv4 = 0x0800;
constexpr uint16_t kEtherTypeVlan = 0x8100;  // 802.1Q
constexpr uint16_t kEtherTypeQinQ = 0x88a8;  // 802.1ad service tag
constexpr size_t kMaxTags = 2;
constexpr size_t kMinFrameSize = 60;  // 64 on the wire, less the FCS
constexpr size_t kIpv4HeaderSize = 20;
constexpr size_t kUdpHeaderSize = 8;
constexpr uint8_t kProtoUdp = 17;
constexpr uint16_t kBootpClientPort = 68;
constexpr uint16_t kBootpServerPort = 67;

// RFC 791 section 3.1: the one's complement of the one's complement sum of
// the header's 16-bit words.
uint16_t ipv4Checksum(std::span<const uint8_t> header) {
   ByteReader r(header);
   uint32_t sum = 0;
   while (r.remaining() >= 2) sum += r.u16();
   while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
   return uint16_t(~sum);
}

}  // namespace

Rt::Ptr<Rt::Pkt> buildEthIpv4Frame(EthAddr srcMac, IpAddr srcIp, EthAddr dstMac, IpAddr dstIp,
                                   std::optional<uint16_t> vlan) {
   auto pkt = Rt::makePtr<Rt::Pkt>();
   auto& bytes = pkt->bytes();
   ByteWriter w(bytes);
   w.eth(dstMac);
   w.eth(srcMac);
   if (vlan) {
      TAVRIN_ASSERT(*vlan < 4096);
      w.u16(kEtherTypeVlan);
      w.u16(*vlan);  // priority 0, drop eligible 0
   }
   w.u16(kEtherTypeIpv4);

   const size_t ipStart = w.size();
   w.u8(0x45);  // version 4, 5 words of header
   w.u8(0);     // DSCP, ECN
   w.u16(uint16_t(kIpv4HeaderSize + kUdpHeaderSize));
   w.u16(0);  // identification
   w.u16(0);  // flags, fragment offset
   w.u8(64);  // TTL
   w.u8(kProtoUdp);
   const size_t checksumAt = w.size();
   w.u16(0);
   w.ip(srcIp);
   w.ip(dstIp);
   w.u16At(checksumAt, ipv4Checksum(std::span(bytes).subspan(ipStart, kIpv4HeaderSize)));

   w.u16(kBootpClientPort);
   w.u16(kBootpServerPort);
   w.u16(uint16_t(kUdpHeaderSize));
   w.u16(0);  // no checksum (RFC 768)
   // Frames come off the wire padded; the parser must cope with the padding.
   if (w.size() < kMinFrameSize) w.zeros(kMinFrameSize - w.size());
   return pkt;
}

void PacketParser::resetIp() {
   srcMac_ = dstMac_ = EthAddr();
   srcIp_ = dstIp_ = IpAddr();
   vlan_.reset();
   intf_ = IntfId();
   error_ = {};
}

bool PacketParser::doParseIpPkt(const Rt::Ptr<Rt::Pkt>& pkt, IntfId intf, bool strict) {
   bool ok = doParseIpPkt(pkt ? pkt->span() : std::span<const uint8_t>(), strict);
   intf_ = intf;
   return ok;
}

bool PacketParser::doParseIpPkt(std::span<const uint8_t> frame, bool strict) {
   resetIp();
   auto fail = [this](std::string_view why) {
      error_ = why;
      return false;
   };

   ByteReader r(frame);
   dstMac_ = r.eth();
   srcMac_ = r.eth();
   uint16_t etherType = r.u16();
   for (size_t tags = 0; tags < kMaxTags; ++tags) {
      if (etherType != kEtherTypeVlan && etherType != kEtherTypeQinQ) break;
      uint16_t tci = r.u16();
      if (!vlan_) vlan_ = uint16_t(tci & 0x0fff);
      etherType = r.u16();
   }
   if (!r.ok()) return fail("short Ethernet header");
   if (etherType != kEtherTypeIpv4) return fail("not IPv4");

   // The addresses are at fixed offsets whatever the header length says, so
   // a lenient read needs only the 20 fixed bytes.
   const auto ipBytes = r.bytes(r.remaining());
   ByteReader ip(ipBytes);
   uint8_t versionIhl = ip.u8();
   ip.skip(1);
   uint16_t totalLength = ip.u16();
   ip.skip(8);  // identification, fragments, TTL, protocol, checksum
   srcIp_ = ip.ip();
   dstIp_ = ip.ip();
   if (!ip.ok()) return fail("short IPv4 header");
   if (!strict) return true;

   const size_t ipSize = ipBytes.size();
   const size_t headerSize = size_t(versionIhl & 0x0f) * 4;
   if (versionIhl >> 4 != 4) return fail("IPv4 version not 4");
   if (headerSize < kIpv4HeaderSize || headerSize > ipSize) return fail("bad IPv4 header length");
   if (totalLength < headerSize || totalLength > ipSize) return fail("bad IPv4 total length");
   return true;
}

}  // namespace Tavrin
