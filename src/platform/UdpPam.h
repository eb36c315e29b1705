// The UDP socket of the lease query client.
#pragma once

#include <deque>
#include <functional>
#include <string>

#include "rt/Entity.h"
#include "rt/Pkt.h"
#include "rt/Types.h"

namespace Tavrin::Platform {

using Rt::Ptr;

class UdpPam : public Rt::EntityBase {
 public:
   class Notifiee : public Rt::Notifiee<UdpPam> {
    public:
      using Rt::Notifiee<UdpPam>::Notifiee;
      // More packets may be read (rxPkt) than this count says; it only moves.
      virtual void onReadableCount() {}
   };
   enum class Mode : uint8_t { off = 0, tx = 1, rx = 2, txRx = 3 };

   explicit UdpPam(std::string name) : name_(std::move(name)) {}
   const std::string& name() const { return name_; }

   Mode mode() const { return mode_; }
   virtual void modeIs(Mode m) { mode_ = m; }
   IpAddr txDstIpAddr() const { return txDst_; }
   void txDstIpAddrIs(IpAddr a) { txDst_ = a; }
   uint16_t txPort() const { return txPort_; }
   void txPortIs(uint16_t p) { txPort_ = p; }
   IpAddr txSrcIpAddr() const { return txSrc_; }
   void txSrcIpAddrIs(IpAddr a) { txSrc_ = a; }
   IpAddr rxIpAddr() const { return rxAddr_; }
   void rxIpAddrIs(IpAddr a) { rxAddr_ = a; }
   uint16_t rxPort() const { return rxPort_; }
   void rxPortIs(uint16_t p) { rxPort_ = p; }

   // Sends one datagram to txDstIpAddr:txPort from txSrcIpAddr. Errors are
   // the socket's business (counted there), not the caller's.
   virtual void pktIs(const Ptr<Rt::Pkt>& pkt) = 0;
   // The next received datagram, or empty. rxSrcIpAddr() then names its sender.
   virtual Ptr<Rt::Pkt> rxPkt() = 0;
   IpAddr rxSrcIpAddr() const { return rxSrc_; }

   uint32_t readableCount() const { return readable_; }

 protected:
   void readableCountInc() {
      ++readable_;
      notify<Notifiee>([](Notifiee& n) { n.onReadableCount(); });
   }
   void rxSrcIpAddrIs(IpAddr a) { rxSrc_ = a; }

 private:
   std::string name_;
   Mode mode_ = Mode::off;
   IpAddr txDst_, txSrc_, rxAddr_, rxSrc_;
   uint16_t txPort_ = 0, rxPort_ = 0;
   uint32_t readable_ = 0;
};

// In memory: records what is sent, delivers what a test hands it.
class FakeUdpPam : public UdpPam {
 public:
   struct Sent {
      IpAddr dst;
      uint16_t port;
      IpAddr src;
      Ptr<Rt::Pkt> pkt;
   };
   using UdpPam::UdpPam;

   void pktIs(const Ptr<Rt::Pkt>& pkt) override;
   Ptr<Rt::Pkt> rxPkt() override;

   // A datagram from `src` arrives; subscribers hear of it at once.
   void deliver(const Ptr<Rt::Pkt>& pkt, IpAddr src);
   const std::vector<Sent>& sent() const { return sent_; }
   void sentDelAll() { sent_.clear(); }
   // Called for each transmitted datagram (the simulator prints it).
   void onSentIs(std::function<void(const Sent&)> f) { onSent_ = std::move(f); }

 private:
   std::vector<Sent> sent_;
   std::deque<std::pair<Ptr<Rt::Pkt>, IpAddr>> rx_;
   std::function<void(const Sent&)> onSent_;
};

}  // namespace Tavrin::Platform
