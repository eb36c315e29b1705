#include "linux/NflogDigest.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if_arp.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_log.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

namespace Tavrin::Linux {

namespace {

// One row per attribute we read: its netlink type, the libmnl data type it
// is validated as, and for binary data the exact payload length (0: any).
// Attributes not in the table (timestamps, marks, uids, conntrack) are
// skipped unread, so a newer kernel may add any.
struct AttrRule {
   uint16_t type;
   mnl_attr_data_type dataType;
   size_t len;
};

constexpr std::array kPacketPolicy{
    AttrRule{NFULA_PACKET_HDR, MNL_TYPE_BINARY, sizeof(nfulnl_msg_packet_hdr)},
    AttrRule{NFULA_IFINDEX_INDEV, MNL_TYPE_U32, 0},
    AttrRule{NFULA_IFINDEX_PHYSINDEV, MNL_TYPE_U32, 0},
    AttrRule{NFULA_HWADDR, MNL_TYPE_BINARY, sizeof(nfulnl_msg_packet_hw)},
    AttrRule{NFULA_PAYLOAD, MNL_TYPE_BINARY, 0},
    AttrRule{NFULA_PREFIX, MNL_TYPE_NUL_STRING, 0},
    AttrRule{NFULA_HWTYPE, MNL_TYPE_U16, 0},
    AttrRule{NFULA_HWHEADER, MNL_TYPE_BINARY, 0},
    AttrRule{NFULA_VLAN, MNL_TYPE_NESTED, 0},
    AttrRule{NFULA_L2HDR, MNL_TYPE_BINARY, 0},
};
constexpr std::array kVlanPolicy{
    AttrRule{NFULA_VLAN_PROTO, MNL_TYPE_U16, 0},
    AttrRule{NFULA_VLAN_TCI, MNL_TYPE_U16, 0},
};

constexpr size_t kEthHeader = 14;
constexpr size_t kMacPair = 12;

// The validated attributes of one message (or one nest), by type.
template <size_t Max>
struct AttrTable {
   std::array<const nlattr*, Max + 1> attr{};
   std::span<const AttrRule> rules;
   // Where the walk got to: libmnl stops quietly at an attribute that claims
   // more bytes than are left, so this tells a cut message from a whole one.
   const char* walked = nullptr;
   std::string error;

   const nlattr* operator[](uint16_t type) const { return type <= Max ? attr[type] : nullptr; }
};

template <size_t Max>
int attrCallback(const nlattr* a, void* data) {
   auto& t = *static_cast<AttrTable<Max>*>(data);
   t.walked = reinterpret_cast<const char*>(a) + MNL_ALIGN(a->nla_len);
   const uint16_t type = mnl_attr_get_type(a);
   auto rule = std::find_if(t.rules.begin(), t.rules.end(),
                            [type](const AttrRule& r) { return r.type == type; });
   if (type > Max || rule == t.rules.end()) return MNL_CB_OK;
   const int rc = rule->len ? mnl_attr_validate2(a, rule->dataType, rule->len)
                            : mnl_attr_validate(a, rule->dataType);
   if (rc < 0) {
      t.error = "attribute " + std::to_string(type) + " of " +
                std::to_string(mnl_attr_get_payload_len(a)) + " bytes: " + std::strerror(errno);
      return MNL_CB_ERROR;
   }
   t.attr[type] = a;
   return MNL_CB_OK;
}

template <size_t Max>
void checkWalked(AttrTable<Max>& t, const char* first, const char* tail) {
   if (!t.error.empty()) return;
   const char* end = t.walked ? t.walked : first;
   if (tail - end >= ptrdiff_t(sizeof(nlattr))) t.error = "an attribute runs past the end";
}

template <size_t Max, size_t N>
bool parseAttrs(const nlmsghdr* nlh, const std::array<AttrRule, N>& policy, AttrTable<Max>& t) {
   t.rules = policy;
   if (mnl_attr_parse(nlh, sizeof(nfgenmsg), attrCallback<Max>, &t) < 0 && t.error.empty()) {
      t.error = "attributes do not parse";
   }
   checkWalked(t, static_cast<const char*>(mnl_nlmsg_get_payload_offset(nlh, sizeof(nfgenmsg))),
               static_cast<const char*>(mnl_nlmsg_get_payload_tail(nlh)));
   return t.error.empty();
}

template <size_t Max, size_t N>
bool parseNested(const nlattr* nest, const std::array<AttrRule, N>& policy, AttrTable<Max>& t) {
   t.rules = policy;
   if (mnl_attr_parse_nested(nest, attrCallback<Max>, &t) < 0 && t.error.empty()) {
      t.error = "nested attributes do not parse";
   }
   const char* first = static_cast<const char*>(mnl_attr_get_payload(nest));
   checkWalked(t, first, first + mnl_attr_get_payload_len(nest));
   return t.error.empty();
}

NflogDigested malformed(std::string reason) {
   return {NflogDigested::Status::malformed, {}, std::move(reason)};
}
NflogDigested ignored(std::string reason) {
   return {NflogDigested::Status::ignored, {}, std::move(reason)};
}

std::vector<uint8_t> bytesOf(const nlattr* a) {
   const auto* p = static_cast<const uint8_t*>(mnl_attr_get_payload(a));
   return {p, p + mnl_attr_get_payload_len(a)};
}

// Numbers in NFLOG attributes are in network order.
uint32_t be32(const nlattr* a) {
   return ntohl(mnl_attr_get_u32(a));
}
uint16_t be16(const nlattr* a) {
   return ntohs(mnl_attr_get_u16(a));
}

std::string readVlan(const nlattr* nest, NflogPacket& p) {
   AttrTable<NFULA_VLAN_MAX> t;
   if (!parseNested(nest, kVlanPolicy, t)) return "VLAN: " + t.error;
   if (!t[NFULA_VLAN_PROTO] || !t[NFULA_VLAN_TCI]) return "VLAN without its protocol or tag";
   p.vlan = NflogVlan{be16(t[NFULA_VLAN_PROTO]), be16(t[NFULA_VLAN_TCI])};
   return {};
}

void readHwAddr(const nlattr* a, NflogPacket& p) {
   nfulnl_msg_packet_hw hw;
   std::memcpy(&hw, mnl_attr_get_payload(a), sizeof hw);
   // Other link types report other address lengths; only a MAC is of use.
   if (ntohs(hw.hw_addrlen) != 6) return;
   std::array<uint8_t, 6> mac;
   std::memcpy(mac.data(), hw.hw_addr, mac.size());
   p.hwSource = EthAddr(mac);
}

}  // namespace

NflogDigested digestNflog(const nlmsghdr* nlh, size_t available) {
   if (available < sizeof(nlmsghdr) || nlh->nlmsg_len < sizeof(nlmsghdr) ||
       nlh->nlmsg_len > available) {
      return malformed("message length " + std::to_string(nlh->nlmsg_len) + " does not fit in " +
                       std::to_string(available) + " bytes");
   }
   if (NFNL_SUBSYS_ID(nlh->nlmsg_type) != NFNL_SUBSYS_ULOG ||
       NFNL_MSG_TYPE(nlh->nlmsg_type) != NFULNL_MSG_PACKET) {
      return ignored("message type " + std::to_string(nlh->nlmsg_type));
   }
   if (mnl_nlmsg_get_payload_len(nlh) < sizeof(nfgenmsg)) {
      return malformed("packet message shorter than its header");
   }
   const auto* gen = static_cast<const nfgenmsg*>(mnl_nlmsg_get_payload(nlh));
   AttrTable<NFULA_MAX> t;
   if (!parseAttrs(nlh, kPacketPolicy, t)) return malformed("packet: " + t.error);

   NflogDigested d;
   d.status = NflogDigested::Status::ok;
   NflogPacket& p = d.packet;
   p.family = gen->nfgen_family;
   p.group = ntohs(gen->res_id);
   if (t[NFULA_PACKET_HDR]) {
      nfulnl_msg_packet_hdr hdr;
      std::memcpy(&hdr, mnl_attr_get_payload(t[NFULA_PACKET_HDR]), sizeof hdr);
      p.hwProtocol = ntohs(hdr.hw_protocol);
      p.hook = hdr.hook;
   }
   if (t[NFULA_IFINDEX_INDEV]) p.indev = be32(t[NFULA_IFINDEX_INDEV]);
   if (t[NFULA_IFINDEX_PHYSINDEV]) p.physindev = be32(t[NFULA_IFINDEX_PHYSINDEV]);
   if (t[NFULA_HWADDR]) readHwAddr(t[NFULA_HWADDR], p);
   if (t[NFULA_HWTYPE]) p.hwType = be16(t[NFULA_HWTYPE]);
   if (t[NFULA_HWHEADER]) p.hwHeader = bytesOf(t[NFULA_HWHEADER]);
   if (t[NFULA_L2HDR]) p.l2Header = bytesOf(t[NFULA_L2HDR]);
   if (t[NFULA_PAYLOAD]) p.payload = bytesOf(t[NFULA_PAYLOAD]);
   if (t[NFULA_PREFIX]) p.prefix = mnl_attr_get_str(t[NFULA_PREFIX]);
   if (t[NFULA_VLAN]) {
      if (auto why = readVlan(t[NFULA_VLAN], p); !why.empty()) return malformed(why);
   }
   return d;
}

NflogDigested digestNflog(std::span<const uint8_t> bytes) {
   if (bytes.size() < sizeof(nlmsghdr)) {
      return malformed("only " + std::to_string(bytes.size()) + " bytes");
   }
   // Netlink attributes are read in place, so the bytes go to an aligned copy.
   std::vector<uint32_t> aligned((bytes.size() + 3) / 4);
   std::memcpy(aligned.data(), bytes.data(), bytes.size());
   return digestNflog(reinterpret_cast<const nlmsghdr*>(aligned.data()), bytes.size());
}

std::variant<std::vector<uint8_t>, std::string> trappedFrame(const NflogPacket& p) {
   if (p.payload.empty()) return std::string("no packet bytes (copy mode is not packet)");
   // The L2 header ends where the network header starts, so its last two
   // bytes are the EtherType the payload goes with, tags or not. The device
   // header of an Ethernet port is the same thing without in-frame tags.
   std::span<const uint8_t> header;
   if (!p.l2Header.empty()) {
      header = p.l2Header;
   } else if (p.hwType == ARPHRD_ETHER && !p.hwHeader.empty()) {
      header = p.hwHeader;
   }
   std::vector<uint8_t> frame;
   frame.reserve(kMaxL2Header + 4 + p.payload.size());
   if (!header.empty()) {
      if (header.size() < kEthHeader || header.size() > kMaxL2Header ||
          (header.size() - kEthHeader) % 4 != 0) {
         return "link-layer header of " + std::to_string(header.size()) + " bytes is not Ethernet";
      }
      frame.assign(header.begin(), header.end());
   } else if (p.hwSource && p.hwProtocol != 0) {
      // No header came, only the sender: the destination is of no interest
      // to a reader of the source pair, so it stays zero.
      frame.assign(6, 0);
      frame.insert(frame.end(), p.hwSource->bytes().begin(), p.hwSource->bytes().end());
      frame.push_back(uint8_t(p.hwProtocol >> 8));
      frame.push_back(uint8_t(p.hwProtocol));
   } else {
      return std::string("no link-layer header and no source MAC");
   }
   if (p.vlan) {
      // The driver took the outer tag off the frame; it goes back where it was.
      const std::array<uint8_t, 4> tag{uint8_t(p.vlan->proto >> 8), uint8_t(p.vlan->proto),
                                       uint8_t(p.vlan->tci >> 8), uint8_t(p.vlan->tci)};
      frame.insert(frame.begin() + kMacPair, tag.begin(), tag.end());
   }
   frame.insert(frame.end(), p.payload.begin(), p.payload.end());
   return frame;
}

}  // namespace Tavrin::Linux
