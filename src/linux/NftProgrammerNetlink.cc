#include "linux/NftProgrammerNetlink.h"

#include <arpa/inet.h>
#include <endian.h>
#include <libmnl/libmnl.h>
#include <libnftnl/batch.h>
#include <libnftnl/common.h>
#include <libnftnl/object.h>
#include <libnftnl/set.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <set>
#include <sstream>

#include "linux/NetlinkAttrs.h"
#include "linux/NetlinkWalk.h"

namespace Tavrin::Linux::Nft {

namespace {

// ---------------------------------------------------------------- policies

using Netlink::AttrRule;

constexpr size_t kMaxAttr = 20;

constexpr std::array kGenPolicy{
    AttrRule{NFTA_GEN_ID, MNL_TYPE_U32, 0},
    AttrRule{NFTA_GEN_PROC_PID, MNL_TYPE_U32, 0},
};
constexpr std::array kTablePolicy{
    AttrRule{NFTA_TABLE_NAME, MNL_TYPE_NUL_STRING, 0},
    AttrRule{NFTA_TABLE_HANDLE, MNL_TYPE_U64, 0},
};
constexpr std::array kChainPolicy{
    AttrRule{NFTA_CHAIN_TABLE, MNL_TYPE_NUL_STRING, 0},
    AttrRule{NFTA_CHAIN_HANDLE, MNL_TYPE_U64, 0},
    AttrRule{NFTA_CHAIN_NAME, MNL_TYPE_NUL_STRING, 0},
};
constexpr std::array kRulePolicy{
    AttrRule{NFTA_RULE_TABLE, MNL_TYPE_NUL_STRING, 0},
    AttrRule{NFTA_RULE_CHAIN, MNL_TYPE_NUL_STRING, 0},
    AttrRule{NFTA_RULE_HANDLE, MNL_TYPE_U64, 0},
};
constexpr std::array kSetPolicy{
    AttrRule{NFTA_SET_TABLE, MNL_TYPE_NUL_STRING, 0},
    AttrRule{NFTA_SET_NAME, MNL_TYPE_NUL_STRING, 0},
    AttrRule{NFTA_SET_HANDLE, MNL_TYPE_U64, 0},
};
constexpr std::array kFlowtablePolicy{
    AttrRule{NFTA_FLOWTABLE_TABLE, MNL_TYPE_NUL_STRING, 0},
    AttrRule{NFTA_FLOWTABLE_NAME, MNL_TYPE_NUL_STRING, 0},
    AttrRule{NFTA_FLOWTABLE_HANDLE, MNL_TYPE_U64, 0},
};
constexpr std::array kObjPolicy{
    AttrRule{NFTA_OBJ_TABLE, MNL_TYPE_NUL_STRING, 0},
    AttrRule{NFTA_OBJ_NAME, MNL_TYPE_NUL_STRING, 0},
    AttrRule{NFTA_OBJ_TYPE, MNL_TYPE_U32, 0},
};
constexpr std::array kElemListPolicy{
    AttrRule{NFTA_SET_ELEM_LIST_TABLE, MNL_TYPE_NUL_STRING, 0},
    AttrRule{NFTA_SET_ELEM_LIST_SET, MNL_TYPE_NUL_STRING, 0},
    AttrRule{NFTA_SET_ELEM_LIST_ELEMENTS, MNL_TYPE_NESTED, 0},
};
constexpr std::array kElemPolicy{
    AttrRule{NFTA_SET_ELEM_KEY, MNL_TYPE_NESTED, 0},
    AttrRule{NFTA_SET_ELEM_OBJREF, MNL_TYPE_NUL_STRING, 0},
};
constexpr std::array kDataPolicy{
    AttrRule{NFTA_DATA_VALUE, MNL_TYPE_BINARY, 0},
};

using AttrTable = Netlink::AttrTable<kMaxAttr>;

// Every attribute of a list nest is one member, whatever its type: the
// kernel reads them so, and libnftnl numbers them 1, 2, 3, ... where the
// kernel's own messages say NFTA_LIST_ELEM each time.
int listCallback(const nlattr* a, void* data) {
   auto& t = *static_cast<AttrTable*>(data);
   t.walked = reinterpret_cast<const char*>(a) + MNL_ALIGN(a->nla_len);
   if (mnl_attr_validate(a, MNL_TYPE_NESTED) < 0) {
      t.error = "list member of " + std::to_string(mnl_attr_get_payload_len(a)) +
                " bytes: " + std::strerror(errno);
      return MNL_CB_ERROR;
   }
   t.repeated->push_back(a);
   return MNL_CB_OK;
}

template <size_t N>
bool parseAttrs(const nlmsghdr* nlh, const std::array<AttrRule, N>& policy, AttrTable& t) {
   return Netlink::parseAttrs(nlh, sizeof(nfgenmsg), policy, t);
}

bool parseList(const nlattr* nest, AttrTable& t) {
   if (mnl_attr_parse_nested(nest, listCallback, &t) < 0 && t.error.empty()) {
      t.error = "list members do not parse";
   }
   const char* first = static_cast<const char*>(mnl_attr_get_payload(nest));
   Netlink::checkWalked(t, first, first + mnl_attr_get_payload_len(nest));
   return t.error.empty();
}

using Netlink::parseNested;

NftDigested malformed(std::string reason) {
   return {NftDigested::Status::malformed, {}, std::move(reason)};
}
NftDigested ignored(std::string reason) {
   return {NftDigested::Status::ignored, {}, std::move(reason)};
}
NftDigested ok(NftMsg m) {
   return {NftDigested::Status::ok, std::move(m), {}};
}

std::string strAttr(const AttrTable& t, uint16_t type) {
   const nlattr* a = t[type];
   return a ? std::string(mnl_attr_get_str(a)) : std::string();
}
uint64_t u64Attr(const AttrTable& t, uint16_t type) {
   const nlattr* a = t[type];
   return a ? be64toh(mnl_attr_get_u64(a)) : 0;
}
uint32_t u32Attr(const AttrTable& t, uint16_t type) {
   const nlattr* a = t[type];
   return a ? ntohl(mnl_attr_get_u32(a)) : 0;
}

bool ourTable(const nfgenmsg& g, const std::string& table) {
   return g.nfgen_family == NFPROTO_BRIDGE && table == kTable;
}

NftDigested notOurs(const nfgenmsg& g, const std::string& table) {
   return ignored("table " + std::to_string(g.nfgen_family) + " " + table);
}

struct StructureKind {
   uint8_t newMsg;
   uint8_t delMsg;
   StructureMsg::Object object;
   uint16_t tableAttr;
   uint16_t nameAttr;
   uint16_t handleAttr;
};

constexpr StructureKind kStructureKinds[] = {
    {NFT_MSG_NEWTABLE, NFT_MSG_DELTABLE, StructureMsg::Object::table, NFTA_TABLE_NAME,
     NFTA_TABLE_NAME, NFTA_TABLE_HANDLE},
    {NFT_MSG_NEWCHAIN, NFT_MSG_DELCHAIN, StructureMsg::Object::chain, NFTA_CHAIN_TABLE,
     NFTA_CHAIN_NAME, NFTA_CHAIN_HANDLE},
    {NFT_MSG_NEWRULE, NFT_MSG_DELRULE, StructureMsg::Object::rule, NFTA_RULE_TABLE, NFTA_RULE_CHAIN,
     NFTA_RULE_HANDLE},
    {NFT_MSG_NEWSET, NFT_MSG_DELSET, StructureMsg::Object::set, NFTA_SET_TABLE, NFTA_SET_NAME,
     NFTA_SET_HANDLE},
    {NFT_MSG_NEWFLOWTABLE, NFT_MSG_DELFLOWTABLE, StructureMsg::Object::flowtable,
     NFTA_FLOWTABLE_TABLE, NFTA_FLOWTABLE_NAME, NFTA_FLOWTABLE_HANDLE},
};

template <size_t N>
NftDigested digestStructure(const nlmsghdr* nlh, const nfgenmsg& g, const StructureKind& k,
                            bool removed, const std::array<AttrRule, N>& policy) {
   AttrTable t;
   if (!parseAttrs(nlh, policy, t)) return malformed(t.error);
   if (!t[k.tableAttr]) return malformed("no table name");
   std::string table = strAttr(t, k.tableAttr);
   if (!ourTable(g, table)) return notOurs(g, table);
   StructureMsg m;
   m.object = k.object;
   m.removed = removed;
   m.name = strAttr(t, k.nameAttr);
   m.handle = u64Attr(t, k.handleAttr);
   return ok(m);
}

NftDigested digestElements(const nlmsghdr* nlh, const nfgenmsg& g, bool removed) {
   AttrTable t;
   if (!parseAttrs(nlh, kElemListPolicy, t)) return malformed(t.error);
   if (!t[NFTA_SET_ELEM_LIST_TABLE] || !t[NFTA_SET_ELEM_LIST_SET]) {
      return malformed("element list without its table or set");
   }
   std::string table = strAttr(t, NFTA_SET_ELEM_LIST_TABLE);
   if (!ourTable(g, table)) return notOurs(g, table);
   ElementsMsg m;
   m.removed = removed;
   m.set = strAttr(t, NFTA_SET_ELEM_LIST_SET);
   const nlattr* list = t[NFTA_SET_ELEM_LIST_ELEMENTS];
   if (!list) return ok(m);
   std::vector<const nlattr*> items;
   AttrTable l;
   l.repeated = &items;
   if (!parseList(list, l)) return malformed("element list: " + l.error);
   for (const nlattr* item : items) {
      AttrTable e;
      if (!parseNested(item, kElemPolicy, e)) return malformed("element: " + e.error);
      if (!e[NFTA_SET_ELEM_KEY]) return malformed("element without a key");
      AttrTable d;
      if (!parseNested(e[NFTA_SET_ELEM_KEY], kDataPolicy, d)) return malformed("key: " + d.error);
      const nlattr* value = d[NFTA_DATA_VALUE];
      if (!value) return malformed("key without a value");
      const auto* bytes = static_cast<const uint8_t*>(mnl_attr_get_payload(value));
      ElementsMsg::Elem elem;
      elem.key.assign(bytes, bytes + mnl_attr_get_payload_len(value));
      elem.objref = strAttr(e, NFTA_SET_ELEM_OBJREF);
      m.elems.push_back(std::move(elem));
   }
   return ok(m);
}

NftDigested digestObject(const nlmsghdr* nlh, const nfgenmsg& g, bool removed) {
   AttrTable t;
   if (!parseAttrs(nlh, kObjPolicy, t)) return malformed(t.error);
   if (!t[NFTA_OBJ_TABLE] || !t[NFTA_OBJ_NAME] || !t[NFTA_OBJ_TYPE]) {
      return malformed("object without its table, name or type");
   }
   std::string table = strAttr(t, NFTA_OBJ_TABLE);
   if (!ourTable(g, table)) return notOurs(g, table);
   uint32_t type = u32Attr(t, NFTA_OBJ_TYPE);
   if (type != NFT_OBJECT_COUNTER) return ignored("object of type " + std::to_string(type));
   return ok(CounterMsg{removed, strAttr(t, NFTA_OBJ_NAME)});
}

NftDigested digestGeneration(const nlmsghdr* nlh) {
   AttrTable t;
   if (!parseAttrs(nlh, kGenPolicy, t)) return malformed(t.error);
   if (!t[NFTA_GEN_ID]) return malformed("generation without its id");
   return ok(GenerationMsg{u32Attr(t, NFTA_GEN_ID), u32Attr(t, NFTA_GEN_PROC_PID)});
}

}  // namespace

NftDigested digestNft(const nlmsghdr* nlh, size_t available) {
   if (available < sizeof(nlmsghdr) || nlh->nlmsg_len < sizeof(nlmsghdr) ||
       nlh->nlmsg_len > available) {
      return malformed("message length does not fit the bytes received");
   }
   if (NFNL_SUBSYS_ID(nlh->nlmsg_type) != NFNL_SUBSYS_NFTABLES) {
      return ignored("message of netfilter subsystem " +
                     std::to_string(NFNL_SUBSYS_ID(nlh->nlmsg_type)));
   }
   if (mnl_nlmsg_get_payload_len(nlh) < sizeof(nfgenmsg)) {
      return malformed("message shorter than its header");
   }
   const auto& g = *static_cast<const nfgenmsg*>(mnl_nlmsg_get_payload(nlh));
   const uint8_t type = NFNL_MSG_TYPE(nlh->nlmsg_type);
   switch (type) {
      case NFT_MSG_NEWGEN:
         return digestGeneration(nlh);
      case NFT_MSG_NEWSETELEM:
         return digestElements(nlh, g, false);
      case NFT_MSG_DELSETELEM:
         return digestElements(nlh, g, true);
      case NFT_MSG_NEWOBJ:
         return digestObject(nlh, g, false);
      case NFT_MSG_DELOBJ:
         return digestObject(nlh, g, true);
      default:
         break;
   }
   for (const auto& k : kStructureKinds) {
      if (type != k.newMsg && type != k.delMsg) continue;
      const bool removed = type == k.delMsg;
      switch (k.object) {
         case StructureMsg::Object::table:
            return digestStructure(nlh, g, k, removed, kTablePolicy);
         case StructureMsg::Object::chain:
            return digestStructure(nlh, g, k, removed, kChainPolicy);
         case StructureMsg::Object::rule:
            return digestStructure(nlh, g, k, removed, kRulePolicy);
         case StructureMsg::Object::set:
            return digestStructure(nlh, g, k, removed, kSetPolicy);
         case StructureMsg::Object::flowtable:
            return digestStructure(nlh, g, k, removed, kFlowtablePolicy);
      }
   }
   return ignored("nf_tables message " + std::to_string(type));
}

std::vector<NftDigested> digestNftBatch(std::span<const uint8_t> bytes) {
   std::vector<NftDigested> out;
   size_t left = Netlink::forEachMessage(bytes.data(), bytes.size(),
                                         [&](const nlmsghdr* nlh, size_t available) {
                                            out.push_back(digestNft(nlh, available));
                                            return true;
                                         });
   if (left > 0) out.push_back(malformed(std::to_string(left) + " bytes after the last message"));
   return out;
}

namespace {

const char* objectName(StructureMsg::Object o) {
   switch (o) {
      case StructureMsg::Object::table:
         return "table";
      case StructureMsg::Object::chain:
         return "chain";
      case StructureMsg::Object::rule:
         return "rule in chain";
      case StructureMsg::Object::set:
         return "set";
      case StructureMsg::Object::flowtable:
         return "flowtable";
   }
   return "object";
}

}  // namespace

std::string str(const NftMsg& msg) {
   std::ostringstream os;
   if (const auto* s = std::get_if<StructureMsg>(&msg)) {
      os << (s->removed ? "deleted " : "added ") << objectName(s->object) << " " << s->name
         << " handle " << s->handle;
   } else if (const auto* e = std::get_if<ElementsMsg>(&msg)) {
      os << (e->removed ? "deleted " : "added ") << e->elems.size() << " elements of set "
         << e->set;
   } else if (const auto* c = std::get_if<CounterMsg>(&msg)) {
      os << (c->removed ? "deleted " : "added ") << "counter " << c->name;
   } else {
      const auto& g = std::get<GenerationMsg>(msg);
      os << "generation " << g.id << " by pid " << g.pid;
   }
   return os.str();
}

bool applyToView(const NftMsg& msg, KernelView& view, Planner& planner, size_t& malformedCount) {
   bool changed = false;
   if (const auto* c = std::get_if<CounterMsg>(&msg)) {
      // Counters under other names are not ours to keep or remove.
      auto port = arpDropCounterPort(c->name);
      if (!port || !ifnameFits(*port)) return false;
      IntfId p(*port);
      changed = c->removed ? view.counterDel(p) : view.counterIs(p);
      if (changed) planner.portDirty(p);
      return changed;
   }
   const auto* m = std::get_if<ElementsMsg>(&msg);
   if (!m) return false;
   for (const auto& elem : m->elems) {
      if (m->set == kAllowedSet) {
         auto e = allowedFromKey(elem.key);
         if (!e) {
            ++malformedCount;
            continue;
         }
         bool c = m->removed ? view.allowedDel(*e) : view.allowedIs(*e);
         if (c) planner.pairDirty(PairKey{e->mac, e->ip});
         changed |= c;
         continue;
      }
      if (m->set != kLockedSet && m->set != kArpDropMap) continue;
      auto name = ifnameFromKey(elem.key);
      if (!name) {
         ++malformedCount;
         continue;
      }
      IntfId port(*name);
      bool c = false;
      if (m->set == kLockedSet) {
         c = m->removed ? view.lockedDel(port) : view.lockedIs(port);
      } else {
         c = m->removed ? view.arpMapDel(port) : view.arpMapIs(port, elem.objref);
      }
      if (c) planner.portDirty(port);
      changed |= c;
   }
   return changed;
}

// ---------------------------------------------------------------- sockets

void NlSocket::Closer::operator()(mnl_socket* s) const {
   mnl_socket_close(s);
}

namespace {

// Sized for bursts: a lost notification costs a re-read of the table, and a
// batch's answers must all fit while the batch is being handled.
void bufferIs(int fd, int forceOpt, int opt, int bytes) {
   if (setsockopt(fd, SOL_SOCKET, forceOpt, &bytes, sizeof bytes) == 0) return;
   // Without CAP_NET_ADMIN the system's maximum applies; nothing breaks.
   (void)setsockopt(fd, SOL_SOCKET, opt, &bytes, sizeof bytes);
}

}  // namespace

NlSocket::NlSocket(Role role, int rcvBufBytes) {
   sock_.reset(mnl_socket_open2(NETLINK_NETFILTER, SOCK_NONBLOCK | SOCK_CLOEXEC));
   if (!sock_) throw NftError(std::string("netfilter netlink socket: ") + std::strerror(errno));
   if (mnl_socket_bind(sock_.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
      throw NftError(std::string("netfilter netlink bind: ") + std::strerror(errno));
   }
   const int fd = mnl_socket_get_fd(sock_.get());
   bufferIs(fd, SO_RCVBUFFORCE, SO_RCVBUF, rcvBufBytes);
   if (role == Role::notifications) {
      int group = NFNLGRP_NFTABLES;
      if (mnl_socket_setsockopt(sock_.get(), NETLINK_ADD_MEMBERSHIP, &group, sizeof group) < 0) {
         throw NftError(std::string("nf_tables notification group: ") + std::strerror(errno));
      }
      return;
   }
   bufferIs(fd, SO_SNDBUFFORCE, SO_SNDBUF, rcvBufBytes);
   // Refusals need not echo the whole refused message back.
   int on = 1;
   (void)mnl_socket_setsockopt(sock_.get(), NETLINK_CAP_ACK, &on, sizeof on);
   int sndbuf = 0;
   socklen_t len = sizeof sndbuf;
   if (getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, &len) < 0 || sndbuf < 65536) {
      sndbuf = 65536;
   }
   // netlink refuses a send larger than the send buffer, less its own margin.
   sendLimit_ = size_t(sndbuf) - 4096;
}

NlSocket::~NlSocket() = default;

int NlSocket::fd() const {
   return mnl_socket_get_fd(sock_.get());
}

// ---------------------------------------------------------------- transactions

void Batch::Freer::operator()(nftnl_batch* b) const {
   nftnl_batch_free(b);
}

namespace {

// The page size libnftnl cuts a batch into, and the room a page leaves for
// the message that crosses its end.
constexpr uint32_t kBatchPage = 128 * 1024;
constexpr uint32_t kBatchOverrun = 64 * 1024 + 4096;

struct SetFreer {
   void operator()(nftnl_set* s) const { nftnl_set_free(s); }
};
struct ObjFreer {
   void operator()(nftnl_obj* o) const { nftnl_obj_free(o); }
};

}  // namespace

Batch::Batch(uint32_t firstSeq, uint32_t generation) : first_(firstSeq), seq_(firstSeq) {
   batch_.reset(nftnl_batch_alloc(kBatchPage, kBatchOverrun));
   if (!batch_) throw NftError("out of memory for an nf_tables batch");
   nlmsghdr* begin = nftnl_batch_begin(static_cast<char*>(nftnl_batch_buffer(batch_.get())), seq_++);
   if (generation != 0) mnl_attr_put_u32(begin, NFNL_BATCH_GENID, htonl(generation));
   nftnl_batch_update(batch_.get());
}

Batch::~Batch() = default;

nlmsghdr* Batch::header(uint16_t type, uint16_t flags, std::string what) {
   what_.emplace(seq_, std::move(what));
   return nftnl_nlmsg_build_hdr(static_cast<char*>(nftnl_batch_buffer(batch_.get())), type,
                                NFPROTO_BRIDGE, uint16_t(flags | NLM_F_ACK), seq_++);
}

void Batch::setElems(uint16_t type, std::string_view set,
                     const std::vector<std::vector<uint8_t>>& keys,
                     const std::vector<std::string>& objrefs, const char* verb) {
   const std::string setName(set);
   const std::string table(kTable);
   for (size_t at = 0; at < keys.size(); at += kElemsPerMessage) {
      const size_t end = std::min(keys.size(), at + kElemsPerMessage);
      std::unique_ptr<nftnl_set, SetFreer> s(nftnl_set_alloc());
      if (!s) throw NftError("out of memory for an nf_tables set");
      nftnl_set_set_str(s.get(), NFTNL_SET_TABLE, table.c_str());
      nftnl_set_set_str(s.get(), NFTNL_SET_NAME, setName.c_str());
      for (size_t i = at; i < end; ++i) {
         nftnl_set_elem* e = nftnl_set_elem_alloc();
         if (!e) throw NftError("out of memory for an nf_tables element");
         nftnl_set_elem_set(e, NFTNL_SET_ELEM_KEY, keys[i].data(), uint32_t(keys[i].size()));
         if (i < objrefs.size())
            nftnl_set_elem_set_str(e, NFTNL_SET_ELEM_OBJREF, objrefs[i].c_str());
         nftnl_set_elem_add(s.get(), e);  // the set owns it now
      }
      const uint16_t flags = type == NFT_MSG_NEWSETELEM ? NLM_F_CREATE : 0;
      nlmsghdr* nlh = header(
          type, flags,
          std::string(verb) + " " + std::to_string(end - at) + " element(s) of set " + setName);
      nftnl_set_elems_nlmsg_build_payload(nlh, s.get());
      nftnl_batch_update(batch_.get());
   }
}

void Batch::counters(uint16_t type, const std::vector<IntfId>& ports, const char* verb) {
   const std::string table(kTable);
   for (auto port : ports) {
      std::unique_ptr<nftnl_obj, ObjFreer> o(nftnl_obj_alloc());
      if (!o) throw NftError("out of memory for an nf_tables object");
      const std::string name = arpDropCounterName(port.name());
      nftnl_obj_set_str(o.get(), NFTNL_OBJ_TABLE, table.c_str());
      nftnl_obj_set_str(o.get(), NFTNL_OBJ_NAME, name.c_str());
      nftnl_obj_set_u32(o.get(), NFTNL_OBJ_TYPE, NFT_OBJECT_COUNTER);
      // The kernel wants the counter's data with a new counter.
      if (type == NFT_MSG_NEWOBJ) {
         nftnl_obj_set_u64(o.get(), NFTNL_OBJ_CTR_PKTS, 0);
         nftnl_obj_set_u64(o.get(), NFTNL_OBJ_CTR_BYTES, 0);
      }
      const uint16_t flags = type == NFT_MSG_NEWOBJ ? NLM_F_CREATE : 0;
      nlmsghdr* nlh = header(type, flags, std::string(verb) + " counter " + name);
      nftnl_obj_nlmsg_build_payload(nlh, o.get());
      nftnl_batch_update(batch_.get());
   }
}

namespace {

std::vector<std::vector<uint8_t>> portKeys(const std::vector<IntfId>& ports) {
   std::vector<std::vector<uint8_t>> out;
   for (auto p : ports) {
      if (auto k = ifnameKey(p.name())) out.emplace_back(k->begin(), k->end());
   }
   return out;
}

std::vector<std::vector<uint8_t>> allowedKeys(const std::vector<AllowedElem>& elems) {
   std::vector<std::vector<uint8_t>> out;
   out.reserve(elems.size());
   for (const auto& e : elems) {
      if (auto k = allowedKey(e)) out.emplace_back(k->begin(), k->end());
   }
   return out;
}

}  // namespace

void Batch::add(const Plan& plan) {
   const std::vector<std::string> none;
   counters(NFT_MSG_NEWOBJ, plan.counterAdd, "add");
   setElems(NFT_MSG_DELSETELEM, kArpDropMap, portKeys(plan.arpMapDel), none, "delete");
   std::vector<std::string> refs;
   for (auto p : plan.arpMapAdd) {
      if (ifnameFits(p.name())) refs.push_back(arpDropCounterName(p.name()));
   }
   setElems(NFT_MSG_NEWSETELEM, kArpDropMap, portKeys(plan.arpMapAdd), refs, "add");
   setElems(NFT_MSG_DELSETELEM, kAllowedSet, allowedKeys(plan.allowedDel), none, "delete");
   setElems(NFT_MSG_NEWSETELEM, kAllowedSet, allowedKeys(plan.allowedAdd), none, "add");
   setElems(NFT_MSG_NEWSETELEM, kLockedSet, portKeys(plan.lockedAdd), none, "add");
   setElems(NFT_MSG_DELSETELEM, kLockedSet, portKeys(plan.lockedDel), none, "delete");
   counters(NFT_MSG_DELOBJ, plan.counterDel, "delete");
}

void Batch::finish() {
   if (finished_) return;
   finished_ = true;
   nftnl_batch_end(static_cast<char*>(nftnl_batch_buffer(batch_.get())), seq_++);
   nftnl_batch_update(batch_.get());
}

std::vector<iovec> Batch::iov() const {
   std::vector<iovec> v(size_t(nftnl_batch_iovec_len(batch_.get())));
   nftnl_batch_iovec(batch_.get(), v.data(), uint32_t(v.size()));
   return v;
}

size_t Batch::bytes() const {
   size_t n = 0;
   for (const auto& v : iov()) n += v.iov_len;
   return n;
}

namespace {

constexpr size_t kRecvBuffer = 65536;

std::string errnoText(int err) {
   return std::strerror(err);
}

}  // namespace

CommitResult commit(NlSocket& sock, const Batch& batch) {
   CommitResult r;
   auto iov = batch.iov();
   sockaddr_nl kernel{};
   kernel.nl_family = AF_NETLINK;
   msghdr msg{};
   msg.msg_name = &kernel;
   msg.msg_namelen = sizeof kernel;
   msg.msg_iov = iov.data();
   msg.msg_iovlen = iov.size();
   ssize_t sent;
   do {
      sent = sendmsg(sock.fd(), &msg, 0);
   } while (sent < 0 && errno == EINTR);
   if (sent < 0) {
      r.error = "sending the batch: " + errnoText(errno);
      return r;
   }
   std::set<uint32_t> answered;
   std::vector<uint8_t> buf(kRecvBuffer);
   for (;;) {
      ssize_t n = recv(sock.fd(), buf.data(), buf.size(), 0);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
      if (n < 0) {
         // ENOBUFS: answers were lost, so the outcome is unknown.
         if (r.error.empty()) r.error = "reading the kernel's answers: " + errnoText(errno);
         return r;
      }
      Netlink::forEachMessage(buf.data(), size_t(n), [&](const nlmsghdr* nlh, size_t) {
         if (nlh->nlmsg_seq < batch.beginSeq() || nlh->nlmsg_seq >= batch.nextSeq()) return true;
         if (nlh->nlmsg_type != NLMSG_ERROR) return true;
         if (mnl_nlmsg_get_payload_len(nlh) < sizeof(nlmsgerr)) {
            if (r.error.empty()) r.error = "a truncated answer from the kernel";
            return true;
         }
         const auto* err = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(nlh));
         answered.insert(nlh->nlmsg_seq);
         if (err->error == 0 || !r.error.empty()) return true;
         auto what = batch.acked().find(nlh->nlmsg_seq);
         r.error =
             (what == batch.acked().end() ? std::string("committing the batch") : what->second) +
             ": " + errnoText(-err->error);
         r.refusal = -err->error;
         return true;
      });
   }
   if (!r.error.empty()) return r;
   size_t missing = 0;
   for (const auto& [seq, what] : batch.acked()) missing += answered.count(seq) == 0;
   if (missing) {
      r.error = "the kernel answered " + std::to_string(batch.acked().size() - missing) + " of " +
                std::to_string(batch.acked().size()) + " messages";
      return r;
   }
   r.ok = true;
   return r;
}

// ---------------------------------------------------------------- reading back

namespace {

// A kernel dump is produced while it is read, so reading never waits on
// anyone; the poll only covers a kernel that is slow to hand the next part.
constexpr int kDumpPollMs = 1000;
constexpr int kDumpPolls = 5;

struct DumpCtx {
   TableDump* out;
   Planner planner;  // marks are not needed when reading back whole
};

int dumpCb(const nlmsghdr* nlh, void* data) {
   auto& ctx = *static_cast<DumpCtx*>(data);
   auto d = digestNft(nlh, nlh->nlmsg_len);
   if (d.status == NftDigested::Status::malformed) {
      ++ctx.out->malformed;
      return MNL_CB_OK;
   }
   if (d.status != NftDigested::Status::ok) return MNL_CB_OK;
   if (const auto* s = std::get_if<StructureMsg>(&d.msg)) {
      ctx.out->structure.push_back(*s);
      return MNL_CB_OK;
   }
   applyToView(d.msg, ctx.out->view, ctx.planner, ctx.out->malformed);
   return MNL_CB_OK;
}

// Sends one request and reads its answer to the end. 0, or the errno the
// kernel answered with (or that reading failed with).
int request(NlSocket& sock, nlmsghdr* nlh, mnl_cb_t cb, void* data) {
   if (mnl_socket_sendto(sock.get(), nlh, nlh->nlmsg_len) < 0) return errno;
   const uint32_t seq = nlh->nlmsg_seq;
   const uint32_t portid = mnl_socket_get_portid(sock.get());
   std::vector<uint8_t> buf(kRecvBuffer);
   int polls = 0;
   for (;;) {
      ssize_t n = mnl_socket_recvfrom(sock.get(), buf.data(), buf.size());
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
         if (++polls > kDumpPolls) return ETIMEDOUT;
         pollfd p{sock.fd(), POLLIN, 0};
         (void)poll(&p, 1, kDumpPollMs);
         continue;
      }
      if (n < 0) return errno;
      int rc = mnl_cb_run(buf.data(), size_t(n), seq, portid, cb, data);
      if (rc == MNL_CB_STOP) return 0;
      if (rc < 0) return errno ? errno : EPROTO;
   }
}

nlmsghdr* requestHeader(std::vector<char>& buf, uint16_t type, uint16_t flags, uint32_t seq) {
   return nftnl_nlmsg_build_hdr(buf.data(), type, NFPROTO_BRIDGE, flags, seq);
}

int generationCb(const nlmsghdr* nlh, void* data) {
   auto d = digestNft(nlh, nlh->nlmsg_len);
   if (const auto* g = std::get_if<GenerationMsg>(&d.msg); g && d.status == NftDigested::Status::ok) {
      *static_cast<std::optional<uint32_t>*>(data) = g->id;
   }
   return MNL_CB_OK;
}

}  // namespace

TableDump dumpTable(NlSocket& sock, uint32_t& seq) {
   TableDump out;
   DumpCtx ctx{&out, {}};
   std::vector<char> buf(MNL_SOCKET_BUFFER_SIZE);
   const std::string table(kTable);

   // The table itself first: its absence is the one answer that calls for
   // building it rather than reading on.
   nlmsghdr* nlh = requestHeader(buf, NFT_MSG_GETTABLE, NLM_F_ACK, seq++);
   mnl_attr_put_strz(nlh, NFTA_TABLE_NAME, table.c_str());
   if (int err = request(sock, nlh, dumpCb, &ctx)) {
      out.outcome = err == ENOENT ? TableDump::Outcome::missing : TableDump::Outcome::failed;
      out.error = "reading table bridge " + table + ": " + errnoText(err);
      return out;
   }

   struct Step {
      uint16_t type;
      uint16_t tableAttr;  // 0: the kernel filters by family only
      const char* what;
   };
   const Step steps[] = {
       {NFT_MSG_GETCHAIN, 0, "chains"},
       {NFT_MSG_GETRULE, NFTA_RULE_TABLE, "rules"},
       {NFT_MSG_GETSET, NFTA_SET_TABLE, "sets"},
       {NFT_MSG_GETFLOWTABLE, NFTA_FLOWTABLE_TABLE, "flowtables"},
   };
   for (const auto& step : steps) {
      nlh = requestHeader(buf, step.type, NLM_F_DUMP, seq++);
      if (step.tableAttr) mnl_attr_put_strz(nlh, step.tableAttr, table.c_str());
      if (int err = request(sock, nlh, dumpCb, &ctx)) {
         out.error = std::string("reading the ") + step.what + ": " + errnoText(err);
         return out;
      }
   }

   nlh = requestHeader(buf, NFT_MSG_GETOBJ, NLM_F_DUMP, seq++);
   mnl_attr_put_strz(nlh, NFTA_OBJ_TABLE, table.c_str());
   mnl_attr_put_u32(nlh, NFTA_OBJ_TYPE, htonl(NFT_OBJECT_COUNTER));
   if (int err = request(sock, nlh, dumpCb, &ctx)) {
      out.error = "reading the counters: " + errnoText(err);
      return out;
   }

   for (auto set : {kLockedSet, kAllowedSet, kArpDropMap}) {
      const std::string name(set);
      nlh = requestHeader(buf, NFT_MSG_GETSETELEM, NLM_F_DUMP, seq++);
      mnl_attr_put_strz(nlh, NFTA_SET_ELEM_LIST_TABLE, table.c_str());
      mnl_attr_put_strz(nlh, NFTA_SET_ELEM_LIST_SET, name.c_str());
      if (int err = request(sock, nlh, dumpCb, &ctx)) {
         // A set of ours that is gone is a table that is not ours any more.
         out.outcome = err == ENOENT ? TableDump::Outcome::missing : TableDump::Outcome::failed;
         out.error = "reading set " + name + ": " + errnoText(err);
         return out;
      }
   }
   std::sort(out.structure.begin(), out.structure.end());
   out.outcome = TableDump::Outcome::ok;
   return out;
}

std::optional<uint32_t> readGeneration(NlSocket& sock, uint32_t& seq) {
   std::vector<char> buf(MNL_SOCKET_BUFFER_SIZE);
   // The generation belongs to the whole rule set, not to a family; the
   // acknowledgement marks the end of the answer.
   nlmsghdr* nlh = nftnl_nlmsg_build_hdr(buf.data(), NFT_MSG_GETGEN, AF_UNSPEC, NLM_F_ACK, seq++);
   std::optional<uint32_t> out;
   if (request(sock, nlh, generationCb, &out) != 0) return std::nullopt;
   return out;
}

uint32_t nextGeneration(uint32_t generation) {
   return generation + 1 == 0 ? 1 : generation + 1;
}

}  // namespace Tavrin::Linux::Nft
