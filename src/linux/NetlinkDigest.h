// Rtnetlink messages reduced to what the followers need. Each message kind
// has a declared attribute policy (which attributes are read, their type and
// length), checked by libmnl's validators before any value is taken; the
// result is a plain struct, so nothing past this file sees netlink bytes.
//
// Kernel messages are outside input: a message that breaks its policy is
// reported as malformed with a reason, never asserted on. Messages the
// followers have no use for (IPv6 addresses, ARP neighbours, bridge port
// details) are reported as ignored.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "rt/Types.h"

namespace Tavrin::Linux {

// RTM_NEWLINK / RTM_DELLINK of the generic (AF_UNSPEC) family.
struct LinkMsg {
   bool removed = false;
   int ifindex = 0;
   std::string name;  // always set for a new link
   int master = 0;    // IFLA_MASTER; 0: none
   std::string kind;  // IFLA_INFO_KIND ("bridge", "veth"); empty when absent
   bool operator==(const LinkMsg&) const = default;
};

// RTM_NEWADDR / RTM_DELADDR of an IPv4 address.
struct AddrMsg {
   bool removed = false;
   int ifindex = 0;
   IpAddr local;  // IFA_LOCAL, else IFA_ADDRESS
   uint8_t prefixLen = 0;
   bool secondary = false;  // IFA_F_SECONDARY, in ifa_flags or IFA_FLAGS
   uint8_t scope = 0;       // RT_SCOPE_*: 0 universe ... 254 host
   bool operator==(const AddrMsg&) const = default;
};

// RTM_NEWNEIGH / RTM_DELNEIGH of the bridge family: one forwarding entry.
struct FdbMsg {
   bool removed = false;
   int ifindex = 0;            // the port (or the bridge itself for its own entries)
   std::optional<int> master;  // NDA_MASTER: the bridge that holds the entry
   EthAddr mac;
   uint16_t vlan = 0;   // NDA_VLAN; 0 without VLAN filtering
   uint16_t state = 0;  // ndm_state (NUD_*)
   uint8_t flags = 0;   // ndm_flags (NTF_*)
   bool operator==(const FdbMsg&) const = default;
};

using RtnlMsg = std::variant<LinkMsg, AddrMsg, FdbMsg>;

struct Digested {
   enum class Status : uint8_t { ok, ignored, malformed };
   Status status = Status::ignored;
   RtnlMsg msg;
   std::string reason;  // why ignored or malformed
};

// One message; the header's length must fit in the bytes given.
Digested digestRtnl(const nlmsghdr* nlh, size_t available);
// One message in a byte buffer of any alignment.
Digested digestRtnl(std::span<const uint8_t> bytes);
// Every message of a buffer as read from the socket; bytes left over that
// do not form a message give one malformed result.
std::vector<Digested> digestRtnlBatch(std::span<const uint8_t> bytes);

std::string str(const RtnlMsg& msg);

}  // namespace Tavrin::Linux
