// Turns packets trapped on locked interfaces from unknown (MAC, IP) pairs into queries.
//
// Packet access is asked for exactly on the interfaces that carry a locking
// rule; the platform opens one Pam per such interface, and one reader per Pam
// drains it in slices of at most 5 ms, so that a flood on one interface
// cannot hold the agent's only thread.
#pragma once

#include <map>
#include <memory>
#include <span>

#include "dhcp/DhcpCodec.h"
#include "model/LeaseTable.h"
#include "model/WorkRecords.h"
#include "platform/PacketAccess.h"
#include "platform/Platform.h"

namespace Tavrin {

class TrappedIpSm;

// Reads one interface's Pam when its readable count moves.
class IntfPamSm : public Rt::RefCounted {
 public:
   // The longest stretch of packet handling per notification, give or
   // take one batch: the clock is read once per batch.
   static constexpr Seconds kReadSlice = 0.005;
   static constexpr size_t kReadBatch = 16;

   IntfPamSm(TrappedIpSm& trappedIpSm, IntfId intfId, Ptr<Platform::Pam> pam);

   IntfId intfId() const { return intfId_; }
   const Ptr<Platform::Pam>& pam() const { return pam_; }
   void pamIs(const Ptr<Platform::Pam>& pam);

   void handleReadableCount();

 private:
   class PamReactor : public Platform::Pam::Notifiee {
    public:
      PamReactor(IntfPamSm& sm, const Ptr<const Platform::Pam>& p)
          : Platform::Pam::Notifiee(p), sm_(sm) {}
      void onReadableCount() override { sm_.handleReadableCount(); }

    private:
      IntfPamSm& sm_;
   };

   TrappedIpSm& trappedIpSm_;  // the owner: it outlives its readers
   IntfId intfId_;
   Ptr<Platform::Pam> pam_;
   PamReactor pamReactor_;
};

class TrappedIpSm : public Rt::RefCounted {
 public:
   // The Ethernet protocol of the Pams the platform opens for trapped packets.
   static constexpr uint16_t kTrappedIpProtocol = 0x1043;

   TrappedIpSm(Ptr<const LeaseTable> leaseTable,
               Ptr<const ConfiguredInterfaceStatus> configuredInterfaceStatus,
               Ptr<LeaseQueryRequest> leaseQueryRequest,
               Ptr<const Platform::AllIntfStatusDir> allIntfStatusDir,
               Ptr<const Platform::AllIntfStatusLocalDir> allIntfStatusLocalDir,
               Ptr<const Platform::KernelNetStatus> kernelNetStatus);
   ~TrappedIpSm() override;

   void handleInitialized();
   void handleInterfaceRule(IntfId intf);
   void handleIntfPam(IntfId intf);
   void processTrappedIp(const Ptr<Rt::Pkt>& pkt, IntfId intf);
   // The same for each packet in turn, with the lease lookups of the whole
   // batch started first so that their cache misses overlap.
   void processTrappedIps(std::span<const Ptr<Rt::Pkt>> pkts, IntfId intf);

   void intfPamSmIs(IntfId intf, const Ptr<Platform::Pam>& pam);
   void intfPamSmDel(IntfId intf);
   void intfPamSmDelAll();
   Ptr<const IntfPamSm> intfPamSm(IntfId intf) const { return Rt::mapFind(intfPamSm_, intf); }
   const std::map<IntfId, Ptr<IntfPamSm>>& intfPamSmAll() const { return intfPamSm_; }

   const Ptr<Platform::PamDesiredIntfDir>& pamDesiredIntfDir() const { return pamDesiredIntfDir_; }
   const Ptr<Platform::EthDevPamCollection>& ethDevPamCollection() const {
      return ethDevPamCollection_;
   }

 private:
   class ConfiguredInterfaceStatusReactor : public ConfiguredInterfaceStatus::Notifiee {
    public:
      ConfiguredInterfaceStatusReactor(TrappedIpSm& sm,
                                       const Ptr<const ConfiguredInterfaceStatus>& s)
          : ConfiguredInterfaceStatus::Notifiee(s), sm_(sm) {}
      void onInterfaceRule(IntfId i) override { sm_.handleInterfaceRule(i); }

    private:
      TrappedIpSm& sm_;
   };
   class EthDevPamCollectionReactor : public Platform::EthDevPamCollection::Notifiee {
    public:
      EthDevPamCollectionReactor(TrappedIpSm& sm, const Ptr<const Platform::EthDevPamCollection>& c)
          : Platform::EthDevPamCollection::Notifiee(c), sm_(sm) {}
      void onIntfPam(IntfId i) override { sm_.handleIntfPam(i); }

    private:
      TrappedIpSm& sm_;
   };

   Ptr<const LeaseTable> leaseTable_;
   Ptr<const ConfiguredInterfaceStatus> configuredInterfaceStatus_;
   Ptr<LeaseQueryRequest> leaseQueryRequest_;
   Ptr<const Platform::AllIntfStatusDir> allIntfStatusDir_;
   Ptr<const Platform::AllIntfStatusLocalDir> allIntfStatusLocalDir_;
   Ptr<const Platform::KernelNetStatus> kernelNetStatus_;

   Ptr<Platform::DeviceIntfStatusDir> deviceIntfStatusDir_;
   Ptr<Platform::PamDesiredIntfDir> pamDesiredIntfDir_;
   Ptr<Platform::EthDevPamCollection> ethDevPamCollection_;
   Ptr<Platform::EthDevPamManager> ethDevPamManager_;
   Ptr<Platform::IntfStatusManager> intfStatusManager_;
   std::map<IntfId, Ptr<IntfPamSm>> intfPamSm_;

   // One parser for every packet: no allocation per packet.
   PacketParser parser_;
   std::unique_ptr<ConfiguredInterfaceStatusReactor> configuredInterfaceStatusReactor_;
   std::unique_ptr<EthDevPamCollectionReactor> ethDevPamCollectionReactor_;
};

Ptr<TrappedIpSm> trappedIpSmFactory(
    Ptr<const LeaseTable> leaseTable,
    Ptr<const ConfiguredInterfaceStatus> configuredInterfaceStatus,
    Ptr<LeaseQueryRequest> leaseQueryRequest,
    Ptr<const Platform::AllIntfStatusDir> allIntfStatusDir,
    Ptr<const Platform::AllIntfStatusLocalDir> allIntfStatusLocalDir,
    Ptr<const Platform::KernelNetStatus> kernelNetStatus);

}  // namespace Tavrin
