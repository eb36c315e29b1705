#include "linux/NetlinkDigest.h"

#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <sstream>

#include "linux/NetlinkAttrs.h"
#include "linux/NetlinkWalk.h"

namespace Tavrin::Linux {

namespace {

using Netlink::AttrRule;
using Netlink::AttrTable;
using Netlink::parseAttrs;
using Netlink::parseNested;

constexpr std::array kLinkPolicy{
    AttrRule{IFLA_IFNAME, MNL_TYPE_NUL_STRING, 0},
    AttrRule{IFLA_MASTER, MNL_TYPE_U32, 0},
    AttrRule{IFLA_LINKINFO, MNL_TYPE_NESTED, 0},
};
constexpr std::array kLinkInfoPolicy{
    AttrRule{IFLA_INFO_KIND, MNL_TYPE_NUL_STRING, 0},
};
constexpr std::array kAddrPolicy{
    AttrRule{IFA_ADDRESS, MNL_TYPE_BINARY, 4},
    AttrRule{IFA_LOCAL, MNL_TYPE_BINARY, 4},
    AttrRule{IFA_FLAGS, MNL_TYPE_U32, 0},
};
constexpr std::array kFdbPolicy{
    AttrRule{NDA_LLADDR, MNL_TYPE_BINARY, 6},
    AttrRule{NDA_MASTER, MNL_TYPE_U32, 0},
    AttrRule{NDA_VLAN, MNL_TYPE_U16, 0},
};

Digested malformed(std::string reason) {
   return {Digested::Status::malformed, {}, std::move(reason)};
}
Digested ignored(std::string reason) {
   return {Digested::Status::ignored, {}, std::move(reason)};
}
Digested ok(RtnlMsg m) {
   return {Digested::Status::ok, std::move(m), {}};
}

// The fixed header after the netlink header, or null when the message is
// too short to hold it.
template <class T>
const T* familyHeader(const nlmsghdr* nlh) {
   if (mnl_nlmsg_get_payload_len(nlh) < sizeof(T)) return nullptr;
   return static_cast<const T*>(mnl_nlmsg_get_payload(nlh));
}

Digested digestLink(const nlmsghdr* nlh) {
   const auto* ifi = familyHeader<ifinfomsg>(nlh);
   if (!ifi) return malformed("link message shorter than its header");
   // The bridge also reports its ports' details as AF_BRIDGE link messages;
   // an AF_BRIDGE RTM_DELLINK means "left the bridge", not "link gone".
   if (ifi->ifi_family != AF_UNSPEC)
      return ignored("link message of family " + std::to_string(ifi->ifi_family));
   if (ifi->ifi_index <= 0) return malformed("link message without an ifindex");
   AttrTable<IFLA_MAX> t;
   if (!parseAttrs(nlh, sizeof(ifinfomsg), kLinkPolicy, t)) return malformed("link: " + t.error);
   LinkMsg m;
   m.removed = nlh->nlmsg_type == RTM_DELLINK;
   m.ifindex = ifi->ifi_index;
   if (t[IFLA_IFNAME]) m.name = mnl_attr_get_str(t[IFLA_IFNAME]);
   if (!m.removed && !IntfId::parse(m.name)) {
      return malformed("link " + std::to_string(m.ifindex) + " without a valid name");
   }
   if (t[IFLA_MASTER]) m.master = int(mnl_attr_get_u32(t[IFLA_MASTER]));
   if (t[IFLA_LINKINFO]) {
      AttrTable<IFLA_INFO_MAX> info;
      if (!parseNested(t[IFLA_LINKINFO], kLinkInfoPolicy, info)) {
         return malformed("link info: " + info.error);
      }
      if (info[IFLA_INFO_KIND]) m.kind = mnl_attr_get_str(info[IFLA_INFO_KIND]);
   }
   return ok(std::move(m));
}

IpAddr ipv4(const nlattr* a) {
   std::array<uint8_t, 4> b;
   std::memcpy(b.data(), mnl_attr_get_payload(a), 4);
   return IpAddr::fromBytes(b[0], b[1], b[2], b[3]);
}

Digested digestAddr(const nlmsghdr* nlh) {
   const auto* ifa = familyHeader<ifaddrmsg>(nlh);
   if (!ifa) return malformed("address message shorter than its header");
   if (ifa->ifa_family != AF_INET)
      return ignored("address of family " + std::to_string(ifa->ifa_family));
   if (ifa->ifa_prefixlen > 32)
      return malformed("IPv4 prefix length " + std::to_string(ifa->ifa_prefixlen));
   AttrTable<IFA_MAX> t;
   if (!parseAttrs(nlh, sizeof(ifaddrmsg), kAddrPolicy, t)) return malformed("address: " + t.error);
   // On a point-to-point link IFA_ADDRESS is the peer; IFA_LOCAL is ours.
   const nlattr* local = t[IFA_LOCAL] ? t[IFA_LOCAL] : t[IFA_ADDRESS];
   if (!local) return malformed("IPv4 address message without an address");
   AddrMsg m;
   m.removed = nlh->nlmsg_type == RTM_DELADDR;
   m.ifindex = int(ifa->ifa_index);
   m.local = ipv4(local);
   m.prefixLen = ifa->ifa_prefixlen;
   uint32_t flags = t[IFA_FLAGS] ? mnl_attr_get_u32(t[IFA_FLAGS]) : ifa->ifa_flags;
   m.secondary = (flags & IFA_F_SECONDARY) != 0;
   m.scope = ifa->ifa_scope;
   if (m.ifindex <= 0) return malformed("address message without an ifindex");
   return ok(m);
}

Digested digestFdb(const nlmsghdr* nlh) {
   const auto* ndm = familyHeader<ndmsg>(nlh);
   if (!ndm) return malformed("neighbour message shorter than its header");
   if (ndm->ndm_family != AF_BRIDGE)
      return ignored("neighbour of family " + std::to_string(ndm->ndm_family));
   AttrTable<NDA_MAX> t;
   if (!parseAttrs(nlh, sizeof(ndmsg), kFdbPolicy, t)) return malformed("fdb: " + t.error);
   if (!t[NDA_LLADDR]) return malformed("fdb entry without a MAC address");
   if (ndm->ndm_ifindex <= 0) return malformed("fdb entry without an ifindex");
   FdbMsg m;
   m.removed = nlh->nlmsg_type == RTM_DELNEIGH;
   m.ifindex = ndm->ndm_ifindex;
   std::array<uint8_t, 6> mac;
   std::memcpy(mac.data(), mnl_attr_get_payload(t[NDA_LLADDR]), 6);
   m.mac = EthAddr(mac);
   if (t[NDA_MASTER]) m.master = int(mnl_attr_get_u32(t[NDA_MASTER]));
   if (t[NDA_VLAN]) m.vlan = mnl_attr_get_u16(t[NDA_VLAN]);
   if (m.vlan > 4095) return malformed("fdb entry with VLAN " + std::to_string(m.vlan));
   m.state = ndm->ndm_state;
   m.flags = ndm->ndm_flags;
   return ok(m);
}

Digested digestFitting(const nlmsghdr* nlh) {
   switch (nlh->nlmsg_type) {
      case RTM_NEWLINK:
      case RTM_DELLINK:
         return digestLink(nlh);
      case RTM_NEWADDR:
      case RTM_DELADDR:
         return digestAddr(nlh);
      case RTM_NEWNEIGH:
      case RTM_DELNEIGH:
         return digestFdb(nlh);
      default:
         return ignored("message type " + std::to_string(nlh->nlmsg_type));
   }
}

}  // namespace

Digested digestRtnl(const nlmsghdr* nlh, size_t available) {
   if (!Netlink::fits(nlh, available)) return malformed("truncated netlink message");
   // libmnl walks attributes up to the length rounded up to 4 bytes. The
   // last message of a buffer need not carry that padding: it gets it here,
   // zeroed, rather than have the walk read past the buffer.
   if (NLMSG_ALIGN(nlh->nlmsg_len) > available) {
      std::vector<uint32_t> padded(NLMSG_ALIGN(nlh->nlmsg_len) / 4);
      std::memcpy(padded.data(), nlh, nlh->nlmsg_len);
      return digestFitting(reinterpret_cast<const nlmsghdr*>(padded.data()));
   }
   return digestFitting(nlh);
}

namespace {

// Netlink headers want 4-byte alignment; a caller's buffer may not have it.
struct Aligned {
   explicit Aligned(std::span<const uint8_t> bytes) {
      if (reinterpret_cast<uintptr_t>(bytes.data()) % alignof(nlmsghdr) == 0) {
         data = bytes.data();
      } else {
         copy.resize((bytes.size() + 3) / 4);
         std::memcpy(copy.data(), bytes.data(), bytes.size());
         data = reinterpret_cast<const uint8_t*>(copy.data());
      }
      size = bytes.size();
   }
   const uint8_t* data = nullptr;
   size_t size = 0;
   std::vector<uint32_t> copy;
};

}  // namespace

Digested digestRtnl(std::span<const uint8_t> bytes) {
   Aligned a(bytes);
   return digestRtnl(reinterpret_cast<const nlmsghdr*>(a.data), a.size);
}

std::vector<Digested> digestRtnlBatch(std::span<const uint8_t> bytes) {
   Aligned a(bytes);
   std::vector<Digested> out;
   size_t left =
       Netlink::forEachMessage(a.data, a.size, [&](const nlmsghdr* nlh, size_t available) {
          out.push_back(digestRtnl(nlh, available));
          return true;
       });
   if (left > 0) out.push_back(malformed("truncated netlink message"));
   return out;
}

std::string str(const RtnlMsg& msg) {
   std::ostringstream os;
   if (auto* l = std::get_if<LinkMsg>(&msg)) {
      os << (l->removed ? "dellink" : "link") << " " << l->ifindex << " " << l->name
         << " master=" << l->master << " kind=" << (l->kind.empty() ? "-" : l->kind);
   } else if (auto* a = std::get_if<AddrMsg>(&msg)) {
      os << (a->removed ? "deladdr" : "addr") << " " << a->ifindex << " " << a->local << "/"
         << int(a->prefixLen) << " scope " << int(a->scope) << (a->secondary ? " secondary" : "");
   } else if (auto* f = std::get_if<FdbMsg>(&msg)) {
      os << (f->removed ? "delfdb" : "fdb") << " " << f->mac << " vlan=" << f->vlan
         << " port=" << f->ifindex << " master=" << (f->master ? std::to_string(*f->master) : "-")
         << " state=0x" << std::hex << f->state << " flags=0x" << int(f->flags);
   }
   return os.str();
}

}  // namespace Tavrin::Linux
