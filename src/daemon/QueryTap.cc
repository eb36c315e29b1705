#include "daemon/QueryTap.h"

#include "dhcp/DhcpCodec.h"

namespace Tavrin::Daemon {

// ---------------------------------------------------------------- tap

QueryTap::QueryTap(const Rt::Clock& clock, Notice notice)
    : clock_(clock), notice_(std::move(notice)) {
   for (auto t : {DhcpMessageType::leaseUnassigned, DhcpMessageType::leaseUnknown,
                  DhcpMessageType::leaseActive}) {
      answers_[uint8_t(t)] = 0;
   }
   for (const char* r : {kUnknownSender, kUnparsable, kNotAnAnswer}) drops_[r] = 0;
}

void QueryTap::sent(IpAddr dst, IpAddr src) {
   const Seconds now = clock_.monotonic();
   auto& s = servers_[dst];
   s.source = src;
   if (s.askedSince < 0) {
      s.askedSince = now;
      return;
   }
   if (s.silent || now - s.askedSince < kSilentAfter) return;
   s.silent = true;
   if (notice_) {
      notice_(LogLevel::warning, "dhcp server " + dst.str() +
                                     " has not answered a lease query for " +
                                     std::to_string(int(now - s.askedSince)) +
                                     " seconds; is it running, can it route to " + src.str() +
                                     ", and does it allow lease queries from there?");
   }
}

void QueryTap::received(IpAddr src, const Rt::Pkt& pkt) {
   if (auto it = servers_.find(src); it != servers_.end()) {
      // Any datagram at all: the server is there, whatever it says.
      if (it->second.silent && notice_) {
         notice_(LogLevel::info, "dhcp server " + src.str() + " answers lease queries again");
      }
      it->second.askedSince = -1;
      it->second.silent = false;
   }
   // The same order of checks as the query client's, so that a datagram
   // dropped here is one it drops too.
   if (!cliConfig_ || !cliConfig_->dhcpV4ServerHas(src)) {
      ++drops_[kUnknownSender];
      return;
   }
   PacketParser parser;
   if (!parser.doParse(pkt.span())) {
      ++drops_[kUnparsable];
      return;
   }
   auto type = parser.messageType();
   if (!type || (*type != uint8_t(DhcpMessageType::leaseActive) &&
                 *type != uint8_t(DhcpMessageType::leaseUnassigned) &&
                 *type != uint8_t(DhcpMessageType::leaseUnknown))) {
      ++drops_[kNotAnAnswer];
      return;
   }
   ++answers_[*type];
}

bool QueryTap::silent(IpAddr server) const {
   auto it = servers_.find(server);
   return it != servers_.end() && it->second.silent;
}

uint64_t QueryTap::answers(uint8_t messageType) const {
   auto it = answers_.find(messageType);
   return it == answers_.end() ? 0 : it->second;
}

uint64_t QueryTap::drops(const std::string& reason) const {
   auto it = drops_.find(reason);
   return it == drops_.end() ? 0 : it->second;
}

void QueryTap::collect(std::vector<Sample>& out) const {
   for (const auto& [type, n] : answers_) {
      out.push_back({"tavrin_answers_total", {{"type", dhcpMessageTypeName(type)}}, double(n)});
   }
   for (const auto& [reason, n] : drops_) {
      out.push_back({"tavrin_drops_total", {{"reason", reason}}, double(n)});
   }
   if (!cliConfig_) return;
   for (auto server : cliConfig_->dhcpV4ServerAll()) {
      out.push_back(
          {"tavrin_server_silent", {{"server", server.str()}}, silent(server) ? 1.0 : 0.0});
   }
}

// ---------------------------------------------------------------- socket

class TappedUdpPam::Reactor : public Platform::UdpPam::Notifiee {
 public:
   Reactor(TappedUdpPam& outer, const Ptr<const Platform::UdpPam>& inner)
       : Platform::UdpPam::Notifiee(inner), outer_(outer) {}
   void onReadableCount() override { outer_.readableCountInc(); }

 private:
   TappedUdpPam& outer_;
};

TappedUdpPam::TappedUdpPam(Ptr<Platform::UdpPam> inner, QueryTap& tap)
    : Platform::UdpPam(inner->name()), inner_(std::move(inner)), tap_(tap) {
   reactor_ = std::make_unique<Reactor>(*this, inner_);
}

TappedUdpPam::~TappedUdpPam() = default;

void TappedUdpPam::modeIs(Mode m) {
   // The receive side is set before the mode, which opens the socket.
   inner_->rxIpAddrIs(rxIpAddr());
   inner_->rxPortIs(rxPort());
   Platform::UdpPam::modeIs(m);
   inner_->modeIs(m);
}

void TappedUdpPam::pktIs(const Ptr<Rt::Pkt>& pkt) {
   inner_->txDstIpAddrIs(txDstIpAddr());
   inner_->txPortIs(txPort());
   inner_->txSrcIpAddrIs(txSrcIpAddr());
   inner_->pktIs(pkt);
   tap_.sent(txDstIpAddr(), txSrcIpAddr());
}

Ptr<Rt::Pkt> TappedUdpPam::rxPkt() {
   auto pkt = inner_->rxPkt();
   if (!pkt) return pkt;
   rxSrcIpAddrIs(inner_->rxSrcIpAddr());
   tap_.received(rxSrcIpAddr(), *pkt);
   return pkt;
}

}  // namespace Tavrin::Daemon
