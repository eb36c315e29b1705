// The DHCP codec: building DHCPLEASEQUERY messages (RFC 4388) and parsing
// DHCP messages and trapped Ethernet/IPv4 frames.
//
// Pure functions over byte spans. Parsing goes only through a bounds-checked
// reader; malformed input is a parse failure (false), never a crash, an
// assertion, an out-of-bounds read or an allocation sized by untrusted data.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "dhcp/DhcpOptions.h"
#include "rt/Pkt.h"
#include "rt/Types.h"

namespace Tavrin {

// DHCP message types (option 53), IANA registry; RFC 4388 section 6.1 for
// the lease query types.
enum class DhcpMessageType : uint8_t {
   discover = 1,
   offer = 2,
   request = 3,
   decline = 4,
   ack = 5,
   nak = 6,
   release = 7,
   inform = 8,
   forceRenew = 9,
   leaseQuery = 10,
   leaseUnassigned = 11,
   leaseUnknown = 12,
   leaseActive = 13,
};

// "DHCPLEASEACTIVE" and so on; for a number without a registered name,
// "DHCPTYPE<n>"; for a message without option 53, "BOOTP".
std::string dhcpMessageTypeName(std::optional<uint8_t> type);

// A DHCPLEASEQUERY: op BOOTREQUEST, the given xid and giaddr; a query by MAC
// carries htype Ethernet, hlen 6 and chaddr (ciaddr 0.0.0.0); a query by IP
// carries ciaddr (htype and hlen 0, chaddr zero). Options: message type 10,
// a parameter request list asking for 51, 91 and 92, and the end option,
// then zeros to the 300-byte BOOTP minimum (RFC 1542 section 2.1).
// `server` is the destination; it is not part of the message and is kept in
// the signature because callers name it (and a future option may carry it).
Rt::Ptr<Rt::Pkt> buildDhcpLeaseQuery(bool byMac, IpAddr giaddr, IpAddr server, EthAddr chaddr,
                                     IpAddr ciaddr, uint32_t xid);

// A server's answer, for tests and the simulator: options 53, 54, 51, 91
// and 92 in that order, the end option, zeros to 300 bytes. Options whose
// field is empty are left out; a long option 92 is split (RFC 3396).
struct DhcpAnswerFields {
   uint8_t messageType = uint8_t(DhcpMessageType::leaseActive);
   uint32_t xid = 0;
   IpAddr ciaddr;
   EthAddr chaddr;
   IpAddr giaddr;
   std::optional<uint32_t> leaseTime;         // option 51, seconds
   std::optional<uint32_t> lastTransaction;   // option 91, seconds ago
   std::optional<std::vector<IpAddr>> assoc;  // option 92 (an empty list is left out too)
   std::optional<IpAddr> serverId;            // option 54
};
Rt::Ptr<Rt::Pkt> buildDhcpAnswer(const DhcpAnswerFields& fields);

// An untagged (or, with vlan set, 802.1Q-tagged) Ethernet frame carrying a
// minimal IPv4/UDP packet (port 68 to 67, no payload), padded with zeros to
// the 60-byte Ethernet minimum, for tests and the simulator's trapped frames.
Rt::Ptr<Rt::Pkt> buildEthIpv4Frame(EthAddr srcMac, IpAddr srcIp, EthAddr dstMac, IpAddr dstIp,
                                   std::optional<uint16_t> vlan = std::nullopt);

// Reads one DHCP message or one Ethernet/IPv4 frame. Accessors are valid
// after a successful parse of the matching kind.
class PacketParser {
 public:
   // A DHCP message (the UDP payload). Strict on the fixed header (BOOTP
   // length, op 1 or 2, hlen <= 16) and the magic cookie; tolerant of unknown
   // options; honours option overload (52) and concatenates split options
   // (RFC 3396). A known option (Dhcp::optionTable) whose concatenated length
   // its definition refuses fails the whole message, as does an option
   // running past its field; a missing end option is accepted at the end of
   // a field. Repeating a single-valued option (two 53s) concatenates to a
   // bad length, so fails too.
   bool doParse(std::span<const uint8_t> bytes);
   bool doParse(const Rt::Ptr<Rt::Pkt>& pkt) {
      return doParse(pkt ? pkt->span() : std::span<const uint8_t>());
   }

   uint8_t op() const { return op_; }
   uint8_t htype() const { return htype_; }
   uint8_t hlen() const { return hlen_; }
   uint32_t xid() const { return xid_; }
   IpAddr ciaddr() const { return ciaddr_; }
   IpAddr yiaddr() const { return yiaddr_; }
   IpAddr giaddr() const { return giaddr_; }
   // The first six bytes of chaddr (the Ethernet address when hlen is 6).
   EthAddr chaddr() const { return chaddr_; }
   std::optional<uint8_t> messageType() const { return messageType_; }
   std::string messageTypeName() const { return dhcpMessageTypeName(messageType_); }
   std::optional<uint32_t> leaseTime() const { return leaseTime_; }
   std::optional<uint32_t> clientLastTransactionTime() const { return lastTransaction_; }
   // Option 92, in packet order; empty when absent.
   const std::vector<IpAddr>& associatedIp() const { return associatedIp_; }
   bool hasAssociatedIp() const { return hasAssociatedIp_; }
   // Option 55, in packet order; empty when absent.
   const std::vector<uint8_t>& parameterRequestList() const { return parameterRequestList_; }
   std::optional<IpAddr> serverId() const { return options_.ipv4(Dhcp::Opt::serverId); }
   // Every option of the message, known or not, after concatenation.
   const Dhcp::OptionSet& options() const { return options_; }
   // Why the last parse of either kind failed, for traces; empty after success.
   std::string_view error() const { return error_; }

   // An Ethernet frame carrying IPv4, untagged or with one or two 802.1Q /
   // 802.1ad tags. `intf` and `strict` are the caller's context; with strict
   // set the IPv4 header must be complete and well-formed (version 4,
   // IHL >= 5, total length within the frame). Without strict only the 20
   // fixed header bytes must be present. The header checksum is not checked
   // in either mode. A frame with a third tag, or not IPv4, fails.
   bool doParseIpPkt(const Rt::Ptr<Rt::Pkt>& pkt, IntfId intf, bool strict);
   bool doParseIpPkt(std::span<const uint8_t> frame, bool strict);
   EthAddr srcMac() const { return srcMac_; }
   EthAddr dstMac() const { return dstMac_; }
   IpAddr srcIp() const { return srcIp_; }
   IpAddr dstIp() const { return dstIp_; }
   // The outer VLAN id, when the frame was tagged.
   std::optional<uint16_t> vlan() const { return vlan_; }
   IntfId intf() const { return intf_; }

 private:
   // Each kind of parse clears only its own results, so a frame and the
   // DHCP message it carries can be read with one parser.
   void resetDhcp();
   void resetIp();

   uint8_t op_ = 0, htype_ = 0, hlen_ = 0;
   uint32_t xid_ = 0;
   IpAddr ciaddr_, yiaddr_, giaddr_;
   EthAddr chaddr_;
   std::optional<uint8_t> messageType_;
   std::optional<uint32_t> leaseTime_, lastTransaction_;
   std::vector<IpAddr> associatedIp_;
   bool hasAssociatedIp_ = false;
   std::vector<uint8_t> parameterRequestList_;
   Dhcp::OptionSet options_;
   std::string_view error_;

   EthAddr srcMac_, dstMac_;
   IpAddr srcIp_, dstIp_;
   std::optional<uint16_t> vlan_;
   IntfId intf_;
};

}  // namespace Tavrin
