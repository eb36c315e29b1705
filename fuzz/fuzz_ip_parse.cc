// Any byte string handed to the trapped-frame parser, in both modes. A frame
// the strict mode accepts must be accepted by the lenient one, with the same
// addresses.
#include <cstddef>
#include <cstdint>

#include "dhcp/DhcpCodec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   Tavrin::PacketParser strict, lenient;
   const bool strictOk = strict.doParseIpPkt(std::span(data, size), true);
   const bool lenientOk = lenient.doParseIpPkt(std::span(data, size), false);
   if (!strictOk) return 0;
   if (!lenientOk || strict.srcIp() != lenient.srcIp() || strict.dstIp() != lenient.dstIp() ||
       strict.srcMac() != lenient.srcMac() || strict.vlan() != lenient.vlan()) {
      __builtin_trap();
   }
   return 0;
}
