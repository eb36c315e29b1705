// Any bytes read from the rtnetlink socket: the digest must answer ok,
// ignored or malformed for every message without reading past the buffer,
// and what it calls ok must keep the promises the followers rely on.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <variant>
#include <vector>

#include "linux/NetlinkDigest.h"

using namespace Tavrin;
using namespace Tavrin::Linux;

namespace {

void check(bool ok) {
   if (!ok) __builtin_trap();
}

void checkOk(const RtnlMsg& msg) {
   if (const auto* l = std::get_if<LinkMsg>(&msg)) {
      check(l->ifindex > 0);
      check(l->removed || IntfId::parse(l->name).has_value());
   } else if (const auto* a = std::get_if<AddrMsg>(&msg)) {
      check(a->ifindex > 0 && a->prefixLen <= 32);
   } else if (const auto* f = std::get_if<FdbMsg>(&msg)) {
      check(f->ifindex > 0 && f->vlan <= 4095);
   }
   check(!str(msg).empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   // A socket read lands in an aligned buffer; the copy is exactly as long
   // as the input, so ASan sees any read past its end.
   std::vector<uint8_t> exact(data, data + size);
   const std::vector<Digested> all = digestRtnlBatch(exact);
   for (const Digested& d : all) {
      if (d.status == Digested::Status::ok) {
         checkOk(d.msg);
      } else {
         check(!d.reason.empty());
      }
   }
   // The one-message entry point must agree with the batch on the first
   // message, from an address of any alignment.
   if (size > 0) {
      std::vector<uint8_t> shifted(size + 1);
      std::memcpy(shifted.data() + 1, data, size);
      const Digested one = digestRtnl(std::span(shifted.data() + 1, size));
      check(!all.empty() && one.status == all.front().status);
   }
   return 0;
}
