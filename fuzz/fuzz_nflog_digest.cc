// Any bytes read from the NFLOG socket, followed as far as the agent takes
// them: digested, rebuilt into an Ethernet frame, read by the packet
// parser. No step may read out of bounds, and a rebuilt frame must hold
// exactly the header, the tag put back and the payload.
#include <cstddef>
#include <cstdint>
#include <variant>
#include <vector>

#include "dhcp/DhcpCodec.h"
#include "linux/NflogDigest.h"

using namespace Tavrin;
using namespace Tavrin::Linux;

namespace {

void check(bool ok) {
   if (!ok) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   const NflogDigested d = digestNflog(std::span(data, size));
   if (d.status != NflogDigested::Status::ok) {
      check(!d.reason.empty());
      return 0;
   }
   const NflogPacket& p = d.packet;
   auto made = trappedFrame(p);
   if (const auto* why = std::get_if<std::string>(&made)) {
      check(!why->empty());
      return 0;
   }
   const auto& frame = std::get<std::vector<uint8_t>>(made);
   const size_t tag = p.vlan ? 4 : 0;
   check(frame.size() >= 14 + tag + p.payload.size());
   check(frame.size() <= kMaxL2Header + tag + p.payload.size());
   PacketParser parser;
   (void)parser.doParseIpPkt(std::span<const uint8_t>(frame), false);
   return 0;
}
