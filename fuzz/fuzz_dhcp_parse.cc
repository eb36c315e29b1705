// Any byte string handed to the DHCP parser: it must say yes or no without
// reading out of bounds, tripping a sanitizer or allocating beyond the input.
// What it accepts must survive being rebuilt as an answer and read again.
#include <cstddef>
#include <cstdint>

#include "dhcp/DhcpCodec.h"

using namespace Tavrin;

namespace {

void check(bool ok) {
   if (!ok) __builtin_trap();
}

void checkRebuild(const PacketParser& in) {
   DhcpAnswerFields f;
   f.messageType = in.messageType().value_or(0);
   f.xid = in.xid();
   f.ciaddr = in.ciaddr();
   f.chaddr = in.chaddr();
   f.giaddr = in.giaddr();
   f.leaseTime = in.leaseTime();
   f.lastTransaction = in.clientLastTransactionTime();
   if (in.hasAssociatedIp()) f.assoc = in.associatedIp();
   f.serverId = in.serverId();

   PacketParser out;
   check(out.doParse(buildDhcpAnswer(f)));
   check(out.xid() == f.xid && out.ciaddr() == f.ciaddr && out.chaddr() == f.chaddr &&
         out.giaddr() == f.giaddr);
   check(out.messageType() == f.messageType);
   check(out.leaseTime() == f.leaseTime);
   check(out.clientLastTransactionTime() == f.lastTransaction);
   check(out.associatedIp() == in.associatedIp());
   check(out.serverId() == f.serverId);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   PacketParser parser;
   if (!parser.doParse(std::span(data, size))) {
      check(!parser.error().empty());
      return 0;
   }
   check(parser.associatedIp().size() * 4 + parser.parameterRequestList().size() <= size);
   checkRebuild(parser);
   return 0;
}
