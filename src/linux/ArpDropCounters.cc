#include "linux/ArpDropCounters.h"

#include <endian.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace Tavrin::Linux {

namespace {

// One row per attribute we read: its netlink type and the libmnl data type
// it is validated as. Attributes not in a policy are skipped unread.
// (libnftnl's own object parser is not used on kernel replies: it ends the
// process on an attribute it finds malformed.)
struct AttrRule {
   uint16_t type;
   mnl_attr_data_type dataType;
};

constexpr std::array kObjPolicy{
    AttrRule{NFTA_OBJ_TABLE, MNL_TYPE_NUL_STRING},
    AttrRule{NFTA_OBJ_NAME, MNL_TYPE_NUL_STRING},
    AttrRule{NFTA_OBJ_TYPE, MNL_TYPE_U32},
    AttrRule{NFTA_OBJ_DATA, MNL_TYPE_NESTED},
};
constexpr std::array kCounterPolicy{
    AttrRule{NFTA_COUNTER_PACKETS, MNL_TYPE_U64},
    AttrRule{NFTA_COUNTER_BYTES, MNL_TYPE_U64},
};

constexpr uint16_t kMaxAttr = std::max(NFTA_OBJ_MAX, NFTA_COUNTER_MAX);

// The validated attributes of one message or nest, by type.
struct AttrTable {
   std::array<const nlattr*, kMaxAttr + 1> attr{};
   std::span<const AttrRule> rules;
   // Where the walk got to: libmnl stops quietly at an attribute that claims
   // more bytes than are left, so this tells a cut message from a whole one.
   const char* walked = nullptr;
   std::string error;

   const nlattr* operator[](uint16_t type) const { return type <= kMaxAttr ? attr[type] : nullptr; }
};

int attrCallback(const nlattr* a, void* data) {
   auto& t = *static_cast<AttrTable*>(data);
   t.walked = reinterpret_cast<const char*>(a) + MNL_ALIGN(a->nla_len);
   const uint16_t type = mnl_attr_get_type(a);
   auto rule = std::find_if(t.rules.begin(), t.rules.end(),
                            [type](const AttrRule& r) { return r.type == type; });
   if (type > kMaxAttr || rule == t.rules.end()) return MNL_CB_OK;
   if (mnl_attr_validate(a, rule->dataType) < 0) {
      t.error = "attribute " + std::to_string(type) + " of " +
                std::to_string(mnl_attr_get_payload_len(a)) + " bytes: " + std::strerror(errno);
      return MNL_CB_ERROR;
   }
   t.attr[type] = a;
   return MNL_CB_OK;
}

bool walkedToEnd(AttrTable& t, const char* first, const char* tail) {
   if (t.error.empty() && tail - (t.walked ? t.walked : first) >= ptrdiff_t(sizeof(nlattr))) {
      t.error = "an attribute runs past the end";
   }
   return t.error.empty();
}

template <size_t N>
bool parseAttrs(const nlmsghdr* nlh, const std::array<AttrRule, N>& policy, AttrTable& t) {
   t.rules = policy;
   if (mnl_attr_parse(nlh, sizeof(nfgenmsg), attrCallback, &t) < 0 && t.error.empty()) {
      t.error = "attributes do not parse";
   }
   return walkedToEnd(t,
                      static_cast<const char*>(mnl_nlmsg_get_payload_offset(nlh, sizeof(nfgenmsg))),
                      static_cast<const char*>(mnl_nlmsg_get_payload_tail(nlh)));
}

template <size_t N>
bool parseNested(const nlattr* nest, const std::array<AttrRule, N>& policy, AttrTable& t) {
   t.rules = policy;
   if (mnl_attr_parse_nested(nest, attrCallback, &t) < 0 && t.error.empty()) {
      t.error = "nested attributes do not parse";
   }
   const char* first = static_cast<const char*>(mnl_attr_get_payload(nest));
   return walkedToEnd(t, first, first + mnl_attr_get_payload_len(nest));
}

CounterDigested malformed(std::string reason) {
   return {CounterDigested::Status::malformed, {}, std::move(reason)};
}
CounterDigested ignored(std::string reason) {
   return {CounterDigested::Status::ignored, {}, std::move(reason)};
}

// Numbers in nf_tables attributes are in network order.
uint32_t be32(const nlattr* a) {
   return be32toh(mnl_attr_get_u32(a));
}
uint64_t be64(const nlattr* a) {
   return be64toh(mnl_attr_get_u64(a));
}

}  // namespace

CounterDigested digestCounter(const nlmsghdr* nlh, size_t available) {
   if (available < sizeof(nlmsghdr) || nlh->nlmsg_len < sizeof(nlmsghdr) ||
       nlh->nlmsg_len > available) {
      return malformed("message length does not fit in " + std::to_string(available) + " bytes");
   }
   if (NFNL_SUBSYS_ID(nlh->nlmsg_type) != NFNL_SUBSYS_NFTABLES ||
       NFNL_MSG_TYPE(nlh->nlmsg_type) != NFT_MSG_NEWOBJ) {
      return ignored("message type " + std::to_string(nlh->nlmsg_type));
   }
   if (mnl_nlmsg_get_payload_len(nlh) < sizeof(nfgenmsg)) {
      return malformed("object message shorter than its header");
   }
   AttrTable t;
   if (!parseAttrs(nlh, kObjPolicy, t)) return malformed("object: " + t.error);
   if (!t[NFTA_OBJ_TYPE]) return malformed("object without a type");
   const uint32_t type = be32(t[NFTA_OBJ_TYPE]);
   if (type != NFT_OBJECT_COUNTER) return ignored("object of type " + std::to_string(type));
   if (!t[NFTA_OBJ_TABLE] || !t[NFTA_OBJ_NAME])
      return malformed("counter without its name or table");
   if (!t[NFTA_OBJ_DATA]) return malformed("counter without its values");
   AttrTable values;
   if (!parseNested(t[NFTA_OBJ_DATA], kCounterPolicy, values)) {
      return malformed("counter values: " + values.error);
   }
   if (!values[NFTA_COUNTER_PACKETS]) return malformed("counter without a packet count");
   CounterDigested d;
   d.status = CounterDigested::Status::ok;
   d.reading.table = mnl_attr_get_str(t[NFTA_OBJ_TABLE]);
   d.reading.name = mnl_attr_get_str(t[NFTA_OBJ_NAME]);
   d.reading.packets = be64(values[NFTA_COUNTER_PACKETS]);
   if (values[NFTA_COUNTER_BYTES]) d.reading.bytes = be64(values[NFTA_COUNTER_BYTES]);
   return d;
}

CounterDigested digestCounter(std::span<const uint8_t> bytes) {
   if (bytes.size() < sizeof(nlmsghdr)) {
      return malformed("only " + std::to_string(bytes.size()) + " bytes");
   }
   // Netlink attributes are read in place, so the bytes go to an aligned copy.
   std::vector<uint32_t> aligned((bytes.size() + 3) / 4);
   std::memcpy(aligned.data(), bytes.data(), bytes.size());
   return digestCounter(reinterpret_cast<const nlmsghdr*>(aligned.data()), bytes.size());
}

std::map<IntfId, uint64_t> arpDropsByPort(const std::vector<CounterReading>& readings,
                                          const CounterPortFn& counterPort) {
   std::map<IntfId, uint64_t> out;
   for (const auto& r : readings) {
      auto port = counterPort(r.name);
      if (!port) continue;
      auto intf = IntfId::parse(*port);
      if (!intf) continue;
      out[*intf] = r.packets;
   }
   return out;
}

size_t publishArpDrops(const std::map<IntfId, uint64_t>& drops,
                       Hardware::ArpDropCounterStatus& status) {
   size_t written = 0;
   // Removals first, from a copy: each one notifies the agent.
   std::vector<IntfId> gone;
   for (const auto& [intf, n] : status.arpDropCounterAll()) {
      auto it = drops.find(intf);
      if (it == drops.end() || it->second == 0) gone.push_back(intf);
   }
   for (auto intf : gone) {
      status.arpDropCounterDel(intf);
      ++written;
   }
   for (const auto& [intf, n] : drops) {
      if (n == 0) continue;
      const auto& all = status.arpDropCounterAll();
      auto it = all.find(intf);
      if (it != all.end() && it->second == n) continue;
      status.arpDropCounterIs(intf, n);
      ++written;
   }
   return written;
}

}  // namespace Tavrin::Linux
