// Validated netlink attributes, by type, for the digests of kernel messages.
//
// One row of a policy per attribute read: its type, the libmnl data type it
// is validated as, and for binary data the exact payload length. Attributes
// not in the policy are skipped unread, so newer kernels may add any.
#pragma once

#include <libmnl/libmnl.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace Tavrin::Linux::Netlink {

struct AttrRule {
   uint16_t type;
   mnl_attr_data_type dataType;
   size_t len;  // MNL_TYPE_BINARY only: exact payload length; 0: any
};

// The validated attributes of one message (or one nest), by type.
template <size_t Max>
struct AttrTable {
   std::array<const nlattr*, Max + 1> attr{};
   const AttrRule* rules = nullptr;
   size_t ruleCount = 0;
   // Where the walk got to: libmnl's walk stops quietly at an attribute
   // that claims more bytes than are left, so the caller compares this
   // with the end of the message to tell a cut message from a whole one.
   const char* walked = nullptr;
   // The members of a list nest, in order, for a caller that walks one.
   std::vector<const nlattr*>* repeated = nullptr;
   std::string error;

   const nlattr* operator[](uint16_t type) const { return type <= Max ? attr[type] : nullptr; }
};

template <size_t Max>
int attrCallback(const nlattr* a, void* data) {
   auto& t = *static_cast<AttrTable<Max>*>(data);
   t.walked = reinterpret_cast<const char*>(a) + MNL_ALIGN(a->nla_len);
   uint16_t type = mnl_attr_get_type(a);
   if (type > Max) return MNL_CB_OK;
   for (size_t i = 0; i < t.ruleCount; ++i) {
      const AttrRule& r = t.rules[i];
      if (r.type != type) continue;
      int rc = r.len ? mnl_attr_validate2(a, r.dataType, r.len) : mnl_attr_validate(a, r.dataType);
      if (rc < 0) {
         t.error = "attribute " + std::to_string(type) + " of " +
                   std::to_string(mnl_attr_get_payload_len(a)) + " bytes: " + std::strerror(errno);
         return MNL_CB_ERROR;
      }
      t.attr[type] = a;
      return MNL_CB_OK;
   }
   return MNL_CB_OK;
}

template <size_t Max>
void checkWalked(AttrTable<Max>& t, const char* first, const char* tail) {
   if (!t.error.empty()) return;
   const char* end = t.walked ? t.walked : first;
   if (tail - end >= ptrdiff_t(sizeof(nlattr))) t.error = "an attribute runs past the end";
}

// The attributes after a message's fixed header of headerLen bytes.
template <size_t Max, size_t N>
bool parseAttrs(const nlmsghdr* nlh, size_t headerLen, const std::array<AttrRule, N>& policy,
                AttrTable<Max>& t) {
   t.rules = policy.data();
   t.ruleCount = policy.size();
   if (mnl_attr_parse(nlh, unsigned(headerLen), attrCallback<Max>, &t) < 0 && t.error.empty()) {
      t.error = "attributes do not parse";
   }
   checkWalked(t, static_cast<const char*>(mnl_nlmsg_get_payload_offset(nlh, headerLen)),
               static_cast<const char*>(mnl_nlmsg_get_payload_tail(nlh)));
   return t.error.empty();
}

template <size_t Max, size_t N>
bool parseNested(const nlattr* nest, const std::array<AttrRule, N>& policy, AttrTable<Max>& t) {
   t.rules = policy.data();
   t.ruleCount = policy.size();
   if (mnl_attr_parse_nested(nest, attrCallback<Max>, &t) < 0 && t.error.empty()) {
      t.error = "nested attributes do not parse";
   }
   const char* first = static_cast<const char*>(mnl_attr_get_payload(nest));
   checkWalked(t, first, first + mnl_attr_get_payload_len(nest));
   return t.error.empty();
}

}  // namespace Tavrin::Linux::Netlink
