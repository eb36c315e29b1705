#include "platform/UdpPam.h"

namespace Tavrin::Platform {

void FakeUdpPam::pktIs(const Ptr<Rt::Pkt>& pkt) {
   sent_.push_back({txDstIpAddr(), txPort(), txSrcIpAddr(), pkt});
   if (onSent_) onSent_(sent_.back());
}

Ptr<Rt::Pkt> FakeUdpPam::rxPkt() {
   if (rx_.empty()) return nullptr;
   auto [pkt, src] = std::move(rx_.front());
   rx_.pop_front();
   rxSrcIpAddrIs(src);
   return pkt;
}

void FakeUdpPam::deliver(const Ptr<Rt::Pkt>& pkt, IpAddr src) {
   rx_.emplace_back(pkt, src);
   readableCountInc();
}

}  // namespace Tavrin::Platform
