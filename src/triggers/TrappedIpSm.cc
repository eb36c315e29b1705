#include "triggers/TrappedIpSm.h"

#include <array>

#include "model/TavrinCommon.h"
#include "platform/Services.h"
#include "rt/Clock.h"

namespace Tavrin {

namespace {

Rt::TraceFacility& trappedIpTrace() {
   static Rt::TraceFacility& f = Rt::traceFacility("TavrinTrappedIpSm");
   return f;
}

// The interface rule value of a locked interface.
constexpr InterfaceRule kLockedRule = 1;

}  // namespace

// ---------------------------------------------------------------- IntfPamSm

IntfPamSm::IntfPamSm(TrappedIpSm& trappedIpSm, IntfId intfId, Ptr<Platform::Pam> pam)
    : trappedIpSm_(trappedIpSm), intfId_(intfId), pam_(std::move(pam)), pamReactor_(*this, pam_) {}

void IntfPamSm::pamIs(const Ptr<Platform::Pam>& pam) {
   pam_ = pam;
   pamReactor_.notifierIs(pam_);
}

void IntfPamSm::handleReadableCount() {
   // Handling a packet runs other machines; one of them may drop this
   // reader (or re-point it) before the slice ends.
   Ptr<IntfPamSm> self(this);
   const Ptr<Platform::Pam> pam = pam_;
   if (!pam) return;
   // A duration, so the monotonic clock; read once per batch, since a
   // clock read costs as much as checking a frame.
   const Rt::Clock& clock = Rt::clock();
   const Seconds start = clock.monotonic();
   std::array<Ptr<Rt::Pkt>, kReadBatch> batch;
   do {
      size_t n = 0;
      while (n < kReadBatch && (batch[n] = pam->rxPkt())) ++n;
      if (n == 0) break;
      trappedIpSm_.processTrappedIps(std::span(batch.data(), n), intfId_);
      if (n < kReadBatch || pam_ != pam) break;
   } while (clock.monotonic() - start < kReadSlice);
}

// ---------------------------------------------------------------- TrappedIpSm

TrappedIpSm::TrappedIpSm(Ptr<const LeaseTable> leaseTable,
                         Ptr<const ConfiguredInterfaceStatus> configuredInterfaceStatus,
                         Ptr<LeaseQueryRequest> leaseQueryRequest,
                         Ptr<const Platform::AllIntfStatusDir> allIntfStatusDir,
                         Ptr<const Platform::AllIntfStatusLocalDir> allIntfStatusLocalDir,
                         Ptr<const Platform::KernelNetStatus> kernelNetStatus)
    : leaseTable_(std::move(leaseTable)),
      configuredInterfaceStatus_(std::move(configuredInterfaceStatus)),
      leaseQueryRequest_(std::move(leaseQueryRequest)),
      allIntfStatusDir_(std::move(allIntfStatusDir)),
      allIntfStatusLocalDir_(std::move(allIntfStatusLocalDir)),
      kernelNetStatus_(std::move(kernelNetStatus)) {
   if (configuredInterfaceStatus_) {
      configuredInterfaceStatusReactor_ =
          std::make_unique<ConfiguredInterfaceStatusReactor>(*this, configuredInterfaceStatus_);
   }
   // The root builds this machine once everything it reads exists.
   handleInitialized();
}

TrappedIpSm::~TrappedIpSm() {
   configuredInterfaceStatusReactor_.reset();
   ethDevPamCollectionReactor_.reset();
   intfPamSmDelAll();
}

void TrappedIpSm::handleInitialized() {
   auto& services = Platform::services();
   deviceIntfStatusDir_ = services.deviceIntfStatusDirIs("disd");
   pamDesiredIntfDir_ = services.pamDesiredIntfDirIs("pdid");
   if (configuredInterfaceStatus_) {
      for (const auto& [intf, rule] : configuredInterfaceStatus_->interfaceRuleAll()) {
         if (rule == kLockedRule) pamDesiredIntfDir_->intfDesiredIs(intf, true);
      }
   }
   ethDevPamCollection_ = services.ethDevPamCollectionIs("edpc");
   // Followed before the manager starts, so that no Pam it opens is missed.
   ethDevPamCollectionReactor_ =
       std::make_unique<EthDevPamCollectionReactor>(*this, ethDevPamCollection_);
   ethDevPamManager_ =
       services.ethDevPamManagerIs(pamDesiredIntfDir_, ethDevPamCollection_, deviceIntfStatusDir_);
   ethDevPamManager_->ethProtocolIs(kTrappedIpProtocol);
   ethDevPamManager_->enabledIs(true);
   intfStatusManager_ = services.intfStatusManagerIs(allIntfStatusDir_, allIntfStatusLocalDir_,
                                                     deviceIntfStatusDir_, kernelNetStatus_);
}

void TrappedIpSm::handleInterfaceRule(IntfId intf) {
   if (!pamDesiredIntfDir_) return;
   auto rule = configuredInterfaceStatus_->interfaceRule(intf);
   if (rule && *rule == kLockedRule) {
      TAVRIN_TRACE(trappedIpTrace(), 4, "Add desired intf " << intf);
      pamDesiredIntfDir_->intfDesiredIs(intf, true);
   } else {
      // The reader goes when the manager takes the interface's Pam away.
      TAVRIN_TRACE(trappedIpTrace(), 4, "Remove desired intf " << intf);
      pamDesiredIntfDir_->intfDesiredDel(intf);
   }
}

void TrappedIpSm::handleIntfPam(IntfId intf) {
   if (auto pam = ethDevPamCollection_->intfPam(intf)) {
      intfPamSmIs(intf, pam);
   } else {
      intfPamSmDel(intf);
   }
}

void TrappedIpSm::intfPamSmIs(IntfId intf, const Ptr<Platform::Pam>& pam) {
   auto& slot = intfPamSm_[intf];
   if (slot) {
      slot->pamIs(pam);
   } else {
      slot = Rt::makePtr<IntfPamSm>(*this, intf, pam);
   }
}

void TrappedIpSm::intfPamSmDel(IntfId intf) {
   auto it = intfPamSm_.find(intf);
   if (it == intfPamSm_.end()) return;
   // A reader in the middle of its slice holds itself; tell it to stop.
   it->second->pamIs(nullptr);
   intfPamSm_.erase(it);
}

void TrappedIpSm::intfPamSmDelAll() {
   for (auto& [intf, reader] : intfPamSm_) reader->pamIs(nullptr);
   intfPamSm_.clear();
}

void TrappedIpSm::processTrappedIps(std::span<const Ptr<Rt::Pkt>> pkts, IntfId intf) {
   // Frames come in bursts and each check is one probe of a large table:
   // alone, every probe is a cache miss that stalls the next frame. Parsing
   // the batch first and starting each probe's load lets the misses overlap;
   // the second parse below finds the frame in cache.
   if (leaseTable_ && pkts.size() > 1) {
      for (const auto& pkt : pkts) {
         if (parser_.doParseIpPkt(pkt, intf, true)) {
            leaseTable_->ipMacLeaseHasPrefetch(parser_.srcIp());
         }
      }
   }
   for (const auto& pkt : pkts) processTrappedIp(pkt, intf);
}

void TrappedIpSm::processTrappedIp(const Ptr<Rt::Pkt>& pkt, IntfId intf) {
   TAVRIN_TRACE(trappedIpTrace(), 4, "intfId: " << intf);
   if (!parser_.doParseIpPkt(pkt, intf, true)) return;
   const EthAddr srcMac = parser_.srcMac();
   const IpGenAddr srcIp = parser_.srcIp();
   TAVRIN_TRACE(trappedIpTrace(), 4, "srcMac: " << srcMac << ", srcIp: " << srcIp);
   if (srcMac.isZero()) return;
   // A client before it has an address (0.0.0.0) has no lease to look for.
   if (srcIp.isUnset()) return;
   if (leaseTable_ && leaseTable_->ipMacLeaseHas(srcMac, srcIp)) {
      TAVRIN_TRACE(trappedIpTrace(), 4,
                   "Packet with srcMac " << srcMac << " matches current lease.");
      return;
   }
   // By MAC, not by the packet's IP: the answer brings every lease of the
   // client at once.
   if (leaseQueryRequest_) {
      sendLeaseQuery(leaseQueryRequest_, srcMac, IpGenAddr(), intf, false, false, IpGenAddr());
   }
}

Ptr<TrappedIpSm> trappedIpSmFactory(
    Ptr<const LeaseTable> leaseTable,
    Ptr<const ConfiguredInterfaceStatus> configuredInterfaceStatus,
    Ptr<LeaseQueryRequest> leaseQueryRequest,
    Ptr<const Platform::AllIntfStatusDir> allIntfStatusDir,
    Ptr<const Platform::AllIntfStatusLocalDir> allIntfStatusLocalDir,
    Ptr<const Platform::KernelNetStatus> kernelNetStatus) {
   return Rt::makePtr<TrappedIpSm>(std::move(leaseTable), std::move(configuredInterfaceStatus),
                                   std::move(leaseQueryRequest), std::move(allIntfStatusDir),
                                   std::move(allIntfStatusLocalDir), std::move(kernelNetStatus));
}

}  // namespace Tavrin
