// Packets logged to an NFLOG group (nfnetlink_log), reduced to what the trap
// reader needs, and turned back into the Ethernet frame the agent's packet
// parser reads.
//
// Each attribute we read has a row in a declared policy (its netlink type,
// the libmnl data type it is validated as, its length where fixed); libmnl's
// validators check it before any value is taken, and the result is a plain
// struct. The kernel is outside input: a message that breaks its policy is
// reported as malformed with a reason, never asserted on.
//
// What the kernel sends for a packet logged by a rule of the bridge family:
// the payload starts at the network header; the link-layer header comes
// apart, whole in NFULA_L2HDR (VLAN tags carried in the frame included),
// its first 14 bytes in NFULA_HWHEADER, the source MAC in NFULA_HWADDR, and
// a VLAN tag the driver took off the frame in the NFULA_VLAN nest. The
// receiving bridge port is NFULA_IFINDEX_PHYSINDEV (NFULA_IFINDEX_INDEV is
// then the bridge); without bridge netfilter in the kernel, INDEV is the port.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "rt/Types.h"

namespace Tavrin::Linux {

struct NflogVlan {
   uint16_t proto = 0;  // TPID, host order (0x8100, 0x88a8)
   uint16_t tci = 0;    // host order
   bool operator==(const NflogVlan&) const = default;
};

// One NFULNL_MSG_PACKET. Byte fields are empty when the kernel left the
// attribute out; numbers are in host order.
struct NflogPacket {
   uint8_t family = 0;       // nfgen_family: NFPROTO_BRIDGE for the bridge table's rules
   uint16_t group = 0;       // the NFLOG group (res_id)
   uint16_t hwProtocol = 0;  // the frame's EtherType as the kernel saw it
   uint8_t hook = 0;
   uint32_t indev = 0;               // 0: absent
   uint32_t physindev = 0;           // 0: absent
   std::optional<EthAddr> hwSource;  // NFULA_HWADDR, when it is a 6-byte address
   uint16_t hwType = 0;              // NFULA_HWTYPE (ARPHRD_*); 0: absent
   std::vector<uint8_t> hwHeader;    // NFULA_HWHEADER
   std::vector<uint8_t> l2Header;    // NFULA_L2HDR
   std::optional<NflogVlan> vlan;    // NFULA_VLAN
   std::vector<uint8_t> payload;     // NFULA_PAYLOAD: the packet from its network header
   std::string prefix;               // NFULA_PREFIX: the rule's log prefix

   // The ifindex of the port the packet came in on; 0 when the kernel said none.
   uint32_t inPort() const { return physindev ? physindev : indev; }
   bool operator==(const NflogPacket&) const = default;
};

// The same packet read in place: its byte fields point into the message and
// are valid only as long as the buffer it was read from. The trap reader
// takes this one, so that a flood of trapped packets costs one copy of each
// (into the frame the agent reads) rather than one per attribute and another
// for the frame.
struct NflogPacketRef {
   uint8_t family = 0;
   uint16_t group = 0;
   uint16_t hwProtocol = 0;
   uint8_t hook = 0;
   uint32_t indev = 0;
   uint32_t physindev = 0;
   std::optional<EthAddr> hwSource;
   uint16_t hwType = 0;
   std::span<const uint8_t> hwHeader;
   std::span<const uint8_t> l2Header;
   std::optional<NflogVlan> vlan;
   std::span<const uint8_t> payload;
   std::string_view prefix;

   uint32_t inPort() const { return physindev ? physindev : indev; }
   // A copy that owns its bytes.
   NflogPacket owned() const;
};

struct NflogDigested {
   enum class Status : uint8_t { ok, ignored, malformed };
   Status status = Status::ignored;
   NflogPacket packet;
   std::string reason;  // why ignored or malformed
};

struct NflogDigestedRef {
   NflogDigested::Status status = NflogDigested::Status::ignored;
   NflogPacketRef packet;
   std::string reason;  // why ignored or malformed
};

// One message, read in place; the header's length must fit in the bytes given.
NflogDigestedRef digestNflogInPlace(const nlmsghdr* nlh, size_t available);
// One message, copied out; the header's length must fit in the bytes given.
NflogDigested digestNflog(const nlmsghdr* nlh, size_t available);
// One message in a byte buffer of any alignment (tests, captures).
NflogDigested digestNflog(std::span<const uint8_t> bytes);

// The longest link-layer header taken from the kernel: Ethernet with a few
// VLAN tags. A longer one is not Ethernet, and the frame is refused.
constexpr size_t kMaxL2Header = 14 + 4 * 4;

// The Ethernet frame of a logged packet: its link-layer header (the whole one
// when the kernel gave it, else one rebuilt from the source MAC and the
// EtherType), a VLAN tag the driver had taken off put back in place, then the
// payload. A string says why no frame can be made.
std::variant<std::vector<uint8_t>, std::string> trappedFrame(const NflogPacket& p);
// The same frame written into `frame` (replacing what it held); returns why
// no frame can be made, empty when one was.
std::string trappedFrameInto(const NflogPacketRef& p, std::vector<uint8_t>& frame);

}  // namespace Tavrin::Linux
