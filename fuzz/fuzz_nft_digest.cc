// Any bytes read from the nf_tables socket (notifications and dump
// replies): every message is digested without reading past the buffer, and
// what is digested as ok is applied to an empty view of the kernel's table
// the way the programmer applies it.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "linux/NftProgrammerNetlink.h"

using namespace Tavrin;
using namespace Tavrin::Linux::Nft;

namespace {

void check(bool ok) {
   if (!ok) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   // As a socket read gives it: aligned, and no longer than what came.
   std::vector<uint8_t> exact(data, data + size);
   KernelView view;
   Planner planner;
   size_t badKeys = 0;
   for (const NftDigested& d : digestNftBatch(exact)) {
      if (d.status != NftDigested::Status::ok) {
         check(!d.reason.empty());
         continue;
      }
      (void)str(d.msg);
      (void)applyToView(d.msg, view, planner, badKeys);
   }
   return 0;
}
