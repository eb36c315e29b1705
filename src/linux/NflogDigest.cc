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

// A policy's rules by attribute type, so that each attribute of a trapped
// packet finds its rule with one load rather than a search.
template <size_t Max>
struct RuleIndex {
   std::array<const AttrRule*, Max + 1> byType{};
   template <size_t N>
   explicit RuleIndex(const std::array<AttrRule, N>& policy) {
      for (const auto& r : policy) {
         if (r.type <= Max) byType[r.type] = &r;
      }
   }
};

// The validated attributes of one message (or one nest), by type.
template <size_t Max>
struct AttrTable {
   std::array<const nlattr*, Max + 1> attr{};
   const RuleIndex<Max>* rules = nullptr;
   // Where the walk got to: libmnl stops quietly at an attribute that claims
   // more bytes than are left, so this tells a cut message from a whole one.
   const char* walked = nullptr;
   std::string error;

   const nlattr* operator[](uint16_t type) const { return type <= Max ? attr[type] : nullptr; }
};

// What libmnl's accessors do, inline: a trapped packet has a dozen
// attributes, and in a flood the calls into the shared library for walking
// them and reading their headers took a sixth of the reader's time. The
// validators stay libmnl's.
uint16_t typeOf(const nlattr* a) {
   return a->nla_type & NLA_TYPE_MASK;
}
const uint8_t* payloadOf(const nlattr* a) {
   return reinterpret_cast<const uint8_t*>(a) + MNL_ATTR_HDRLEN;
}
size_t payloadLenOf(const nlattr* a) {
   return a->nla_len - MNL_ATTR_HDRLEN;
}

template <size_t Max>
bool attrSeen(const nlattr* a, AttrTable<Max>& t) {
   t.walked = reinterpret_cast<const char*>(a) + MNL_ALIGN(a->nla_len);
   const uint16_t type = typeOf(a);
   const AttrRule* rule = type <= Max ? t.rules->byType[type] : nullptr;
   if (!rule) return true;
   const int rc = rule->len ? mnl_attr_validate2(a, rule->dataType, rule->len)
                            : mnl_attr_validate(a, rule->dataType);
   if (rc < 0) {
      t.error = "attribute " + std::to_string(type) + " of " + std::to_string(payloadLenOf(a)) +
                " bytes: " + std::strerror(errno);
      return false;
   }
   t.attr[type] = a;
   return true;
}

// libmnl's walk (mnl_attr_for_each, mnl_attr_ok): it stops quietly at an
// attribute shorter than its header or longer than what is left.
template <size_t Max>
void walkAttrs(const char* at, const char* tail, AttrTable<Max>& t) {
   while (tail - at >= ptrdiff_t(sizeof(nlattr))) {
      const auto* a = reinterpret_cast<const nlattr*>(at);
      if (a->nla_len < sizeof(nlattr) || ptrdiff_t(a->nla_len) > tail - at) return;
      if (!attrSeen(a, t)) return;
      at += MNL_ALIGN(a->nla_len);
   }
}

template <size_t Max>
void checkWalked(AttrTable<Max>& t, const char* first, const char* tail) {
   if (!t.error.empty()) return;
   const char* end = t.walked ? t.walked : first;
   if (tail - end >= ptrdiff_t(sizeof(nlattr))) t.error = "an attribute runs past the end";
}

template <size_t Max>
bool parseAttrs(const nlmsghdr* nlh, const RuleIndex<Max>& policy, AttrTable<Max>& t) {
   t.rules = &policy;
   const char* first =
       reinterpret_cast<const char*>(nlh) + MNL_NLMSG_HDRLEN + MNL_ALIGN(sizeof(nfgenmsg));
   const char* tail = reinterpret_cast<const char*>(nlh) + MNL_ALIGN(nlh->nlmsg_len);
   walkAttrs(first, tail, t);
   checkWalked(t, first, tail);
   return t.error.empty();
}

template <size_t Max>
bool parseNested(const nlattr* nest, const RuleIndex<Max>& policy, AttrTable<Max>& t) {
   t.rules = &policy;
   const char* first = reinterpret_cast<const char*>(payloadOf(nest));
   const char* tail = first + payloadLenOf(nest);
   walkAttrs(first, tail, t);
   checkWalked(t, first, tail);
   return t.error.empty();
}

NflogDigestedRef malformed(std::string reason) {
   return {NflogDigested::Status::malformed, {}, std::move(reason)};
}
NflogDigestedRef ignored(std::string reason) {
   return {NflogDigested::Status::ignored, {}, std::move(reason)};
}

std::span<const uint8_t> bytesOf(const nlattr* a) {
   return {payloadOf(a), payloadLenOf(a)};
}

// Numbers in NFLOG attributes are in network order; the validators checked
// that each is at least as long as its number.
uint32_t be32(const nlattr* a) {
   uint32_t v;
   std::memcpy(&v, payloadOf(a), sizeof v);
   return ntohl(v);
}
uint16_t be16(const nlattr* a) {
   uint16_t v;
   std::memcpy(&v, payloadOf(a), sizeof v);
   return ntohs(v);
}

std::string readVlan(const nlattr* nest, NflogPacketRef& p) {
   static const RuleIndex<NFULA_VLAN_MAX> policy(kVlanPolicy);
   AttrTable<NFULA_VLAN_MAX> t;
   if (!parseNested(nest, policy, t)) return "VLAN: " + t.error;
   if (!t[NFULA_VLAN_PROTO] || !t[NFULA_VLAN_TCI]) return "VLAN without its protocol or tag";
   p.vlan = NflogVlan{be16(t[NFULA_VLAN_PROTO]), be16(t[NFULA_VLAN_TCI])};
   return {};
}

void readHwAddr(const nlattr* a, NflogPacketRef& p) {
   nfulnl_msg_packet_hw hw;
   std::memcpy(&hw, mnl_attr_get_payload(a), sizeof hw);
   // Other link types report other address lengths; only a MAC is of use.
   if (ntohs(hw.hw_addrlen) != 6) return;
   std::array<uint8_t, 6> mac;
   std::memcpy(mac.data(), hw.hw_addr, mac.size());
   p.hwSource = EthAddr(mac);
}

}  // namespace

NflogPacket NflogPacketRef::owned() const {
   NflogPacket p;
   p.family = family;
   p.group = group;
   p.hwProtocol = hwProtocol;
   p.hook = hook;
   p.indev = indev;
   p.physindev = physindev;
   p.hwSource = hwSource;
   p.hwType = hwType;
   p.hwHeader.assign(hwHeader.begin(), hwHeader.end());
   p.l2Header.assign(l2Header.begin(), l2Header.end());
   p.vlan = vlan;
   p.payload.assign(payload.begin(), payload.end());
   p.prefix = prefix;
   return p;
}

NflogDigestedRef digestNflogInPlace(const nlmsghdr* nlh, size_t available) {
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
   static const RuleIndex<NFULA_MAX> policy(kPacketPolicy);
   AttrTable<NFULA_MAX> t;
   if (!parseAttrs(nlh, policy, t)) return malformed("packet: " + t.error);

   NflogDigestedRef d;
   d.status = NflogDigested::Status::ok;
   NflogPacketRef& p = d.packet;
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
   // Validated as NUL-terminated, so the view stops at the first NUL.
   if (t[NFULA_PREFIX]) p.prefix = mnl_attr_get_str(t[NFULA_PREFIX]);
   if (t[NFULA_VLAN]) {
      if (auto why = readVlan(t[NFULA_VLAN], p); !why.empty()) return malformed(why);
   }
   return d;
}

NflogDigested digestNflog(const nlmsghdr* nlh, size_t available) {
   NflogDigestedRef r = digestNflogInPlace(nlh, available);
   NflogDigested d;
   d.status = r.status;
   d.reason = std::move(r.reason);
   if (r.status == NflogDigested::Status::ok) d.packet = r.packet.owned();
   return d;
}

NflogDigested digestNflog(std::span<const uint8_t> bytes) {
   if (bytes.size() < sizeof(nlmsghdr)) {
      return {
          NflogDigested::Status::malformed, {}, "only " + std::to_string(bytes.size()) + " bytes"};
   }
   // Netlink attributes are read in place, so the bytes go to an aligned copy.
   std::vector<uint32_t> aligned((bytes.size() + 3) / 4);
   std::memcpy(aligned.data(), bytes.data(), bytes.size());
   return digestNflog(reinterpret_cast<const nlmsghdr*>(aligned.data()), bytes.size());
}

std::string trappedFrameInto(const NflogPacketRef& p, std::vector<uint8_t>& frame) {
   frame.clear();
   if (p.payload.empty()) return "no packet bytes (copy mode is not packet)";
   // The L2 header ends where the network header starts, so its last two
   // bytes are the EtherType the payload goes with, tags or not. The device
   // header of an Ethernet port is the same thing without in-frame tags.
   std::span<const uint8_t> header;
   if (!p.l2Header.empty()) {
      header = p.l2Header;
   } else if (p.hwType == ARPHRD_ETHER && !p.hwHeader.empty()) {
      header = p.hwHeader;
   }
   if (!header.empty()) {
      if (header.size() < kEthHeader || header.size() > kMaxL2Header ||
          (header.size() - kEthHeader) % 4 != 0) {
         return "link-layer header of " + std::to_string(header.size()) + " bytes is not Ethernet";
      }
   } else if (!p.hwSource || p.hwProtocol == 0) {
      return "no link-layer header and no source MAC";
   }
   // Sized once and written in place: the frame is the one allocation a
   // trapped packet costs on its way to the agent.
   const size_t tag = p.vlan ? 4 : 0;
   const size_t headerSize = header.empty() ? kEthHeader : header.size();
   frame.resize(headerSize + tag + p.payload.size());
   uint8_t* out = frame.data();
   if (!header.empty()) {
      // The tag, when there is one, goes between the addresses and the rest.
      std::memcpy(out, header.data(), kMacPair);
      std::memcpy(out + kMacPair + tag, header.data() + kMacPair, header.size() - kMacPair);
   } else {
      // No header came, only the sender: the destination is of no interest
      // to a reader of the source pair, so it stays zero.
      std::memset(out, 0, 6);
      std::memcpy(out + 6, p.hwSource->bytes().data(), 6);
      out[kMacPair + tag] = uint8_t(p.hwProtocol >> 8);
      out[kMacPair + tag + 1] = uint8_t(p.hwProtocol);
   }
   if (p.vlan) {
      // The driver took the outer tag off the frame; it goes back where it was.
      out[kMacPair] = uint8_t(p.vlan->proto >> 8);
      out[kMacPair + 1] = uint8_t(p.vlan->proto);
      out[kMacPair + 2] = uint8_t(p.vlan->tci >> 8);
      out[kMacPair + 3] = uint8_t(p.vlan->tci);
   }
   std::memcpy(out + headerSize + tag, p.payload.data(), p.payload.size());
   return {};
}

std::variant<std::vector<uint8_t>, std::string> trappedFrame(const NflogPacket& p) {
   NflogPacketRef r;
   r.hwProtocol = p.hwProtocol;
   r.hwSource = p.hwSource;
   r.hwType = p.hwType;
   r.hwHeader = p.hwHeader;
   r.l2Header = p.l2Header;
   r.vlan = p.vlan;
   r.payload = p.payload;
   std::vector<uint8_t> frame;
   if (auto why = trappedFrameInto(r, frame); !why.empty()) return why;
   return frame;
}

}  // namespace Tavrin::Linux
