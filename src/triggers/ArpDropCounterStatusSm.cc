#include "triggers/ArpDropCounterStatusSm.h"

#include <vector>

#include "model/TavrinCommon.h"
#include "triggers/FdbStatusSm.h"

namespace Tavrin {

namespace {

Rt::TraceFacility& arpDropTrace() {
   static Rt::TraceFacility& f = Rt::traceFacility("TavrinArpDropSm");
   return f;
}

}  // namespace

ArpDropCounterStatusSm::ArpDropCounterStatusSm(
    Ptr<const Hardware::ArpDropCounterStatus> arpDropCounterStatus, Ptr<const CliConfig> cliConfig,
    Ptr<const IntfMacSetMap> intfMacSetMap, Ptr<LeaseQueryRequest> leaseQueryRequest,
    Ptr<const LeaseQueryResponse> leaseQueryResponse)
    : arpDropCounterStatus_(std::move(arpDropCounterStatus)),
      cliConfig_(std::move(cliConfig)),
      intfMacSetMap_(std::move(intfMacSetMap)),
      leaseQueryRequest_(std::move(leaseQueryRequest)),
      leaseQueryResponse_(std::move(leaseQueryResponse)) {
   if (leaseQueryResponse_) {
      leaseQueryResponseReactor_ =
          std::make_unique<LeaseQueryResponseReactor>(*this, leaseQueryResponse_);
   }
   if (!arpDropCounterStatus_ || !leaseQueryRequest_) return;
   arpDropCounterStatusReactor_ =
       std::make_unique<ArpDropCounterStatusReactor>(*this, arpDropCounterStatus_);
   // A counter that moved while the agent was away looks no different from
   // one that moved just now: each present counter opens its batch.
   std::vector<IntfId> intfs;
   for (const auto& [intf, count] : arpDropCounterStatus_->arpDropCounterAll())
      intfs.push_back(intf);
   for (auto intf : intfs) handleArpDropCount(intf);
}

ArpDropCounterStatusSm::~ArpDropCounterStatusSm() {
   arpDropCounterStatusReactor_.reset();
   leaseQueryResponseReactor_.reset();
}

Ptr<IntfMacSet> ArpDropCounterStatusSm::pendingIntfMacSetIs(IntfId intf) {
   auto& slot = pendingIntfMacSet_[intf];
   if (!slot) slot = Rt::makePtr<IntfMacSet>(intf);
   return slot;
}

void ArpDropCounterStatusSm::handleArpDropCount(IntfId intf) {
   if (!checkIntfValid(cliConfig_, intf)) {
      TAVRIN_TRACE(arpDropTrace(), 4, "intf not confiugred or no dhcp servers: " << intf);
      return;
   }
   if (auto pending = Rt::mapFind(pendingIntfMacSet_, intf)) {
      TAVRIN_TRACE(arpDropTrace(), 4,
                   "intf " << intf << " has " << pending->macSize() << " pending MACs");
      return;
   }
   auto known = intfMacSetMap_ ? intfMacSetMap_->intfMacSet(intf) : nullptr;
   if (!known || known->macSize() == 0) {
      TAVRIN_TRACE(arpDropTrace(), 4, "No MACs on intf " << intf);
      return;
   }
   pendingIntfMacSetIs(intf);
   // Copied: each query runs other machines before it returns.
   const std::vector<EthAddr> macs(known->macAll().begin(), known->macAll().end());
   for (auto mac : macs) {
      sendLeaseQuery(leaseQueryRequest_, mac, IpGenAddr(), intf, false, false, IpGenAddr());
      auto it = macToIntf_.find(mac);
      if (it != macToIntf_.end() && it->second != intf) delMacFromPending(*this, mac);
      macToIntf_[mac] = intf;
      pendingIntfMacSetIs(intf)->macIs(mac);
   }
}

void ArpDropCounterStatusSm::handleLeaseQueryResponse() {
   const EthAddr mac = leaseQueryResponse_->mac();
   const bool pending = macToIntf_.count(mac) != 0;
   TAVRIN_TRACE(arpDropTrace(), 4, "mac " << mac << " is " << (pending ? "" : "not ") << "pending");
   if (pending) delMacFromPending(*this, mac);
}

void delMacFromPending(ArpDropCounterStatusSm& sm, EthAddr mac) {
   auto it = sm.macToIntf_.find(mac);
   if (it == sm.macToIntf_.end()) return;
   const IntfId intf = it->second;
   sm.macToIntf_.erase(it);
   auto pending = Rt::mapFind(sm.pendingIntfMacSet_, intf);
   if (!pending) return;
   pending->macDel(mac);
   TAVRIN_TRACE(arpDropTrace(), 4, "Removed MAC from pending for intf " << intf);
   TAVRIN_TRACE(arpDropTrace(), 4,
                "intf " << intf << " now has " << pending->macSize() << " pending MACs");
   if (pending->macSize() == 0) sm.pendingIntfMacSetDel(intf);
}

Ptr<ArpDropCounterStatusSm> arpDropCounterStatusSmFactory(
    Ptr<const Hardware::ArpDropCounterStatus> arpDropCounterStatus, Ptr<const CliConfig> cliConfig,
    Ptr<const IntfMacSetMap> intfMacSetMap, Ptr<LeaseQueryRequest> leaseQueryRequest,
    Ptr<const LeaseQueryResponse> leaseQueryResponse) {
   return Rt::makePtr<ArpDropCounterStatusSm>(
       std::move(arpDropCounterStatus), std::move(cliConfig), std::move(intfMacSetMap),
       std::move(leaseQueryRequest), std::move(leaseQueryResponse));
}

}  // namespace Tavrin
