// Queries every MAC of an interface whose ARP drop counter moved, one batch at a time.
//
// A dropped ARP packet on a locked interface means some host there sends
// without an installed lease, but not which one: so every MAC known on the
// interface is queried. While that batch has MACs without an answer, further
// counter changes on the interface are ignored, which bounds the query load
// a flood of drops can cause to one batch per interface.
#pragma once

#include <map>
#include <memory>
#include <unordered_map>

#include "model/WorkRecords.h"

namespace Tavrin {

class ArpDropCounterStatusSm;

// Takes a MAC out of the batch it is pending in; an emptied batch closes.
void delMacFromPending(ArpDropCounterStatusSm& sm, EthAddr mac);

class ArpDropCounterStatusSm : public Rt::RefCounted {
 public:
   ArpDropCounterStatusSm(Ptr<const Hardware::ArpDropCounterStatus> arpDropCounterStatus,
                          Ptr<const CliConfig> cliConfig, Ptr<const IntfMacSetMap> intfMacSetMap,
                          Ptr<LeaseQueryRequest> leaseQueryRequest,
                          Ptr<const LeaseQueryResponse> leaseQueryResponse);
   ~ArpDropCounterStatusSm() override;

   void handleArpDropCount(IntfId intf);
   void handleLeaseQueryResponse();

   // Open batches: per interface, the MACs queried and not answered yet.
   const std::map<IntfId, Ptr<IntfMacSet>>& pendingIntfMacSetAll() const {
      return pendingIntfMacSet_;
   }
   Ptr<const IntfMacSet> pendingIntfMacSet(IntfId intf) const {
      return Rt::mapFind(pendingIntfMacSet_, intf);
   }
   // For each pending MAC, the interface whose batch it belongs to.
   IntfId macToIntf(EthAddr mac) const { return Rt::mapFind(macToIntf_, mac); }
   const std::unordered_map<EthAddr, IntfId>& macToIntfAll() const { return macToIntf_; }

 private:
   friend void delMacFromPending(ArpDropCounterStatusSm& sm, EthAddr mac);

   class ArpDropCounterStatusReactor : public Hardware::ArpDropCounterStatus::Notifiee {
    public:
      ArpDropCounterStatusReactor(ArpDropCounterStatusSm& sm,
                                  const Ptr<const Hardware::ArpDropCounterStatus>& s)
          : Hardware::ArpDropCounterStatus::Notifiee(s), sm_(sm) {}
      void onArpDropCounter(IntfId i) override { sm_.handleArpDropCount(i); }

    private:
      ArpDropCounterStatusSm& sm_;
   };
   class LeaseQueryResponseReactor : public LeaseQueryResponse::Notifiee {
    public:
      LeaseQueryResponseReactor(ArpDropCounterStatusSm& sm, const Ptr<const LeaseQueryResponse>& r)
          : LeaseQueryResponse::Notifiee(r), sm_(sm) {}
      void onVersionNumber() override { sm_.handleLeaseQueryResponse(); }

    private:
      ArpDropCounterStatusSm& sm_;
   };

   // Find-or-create: a MAC answered while its batch was still being sent
   // may have closed the batch under the loop that fills it.
   Ptr<IntfMacSet> pendingIntfMacSetIs(IntfId intf);
   void pendingIntfMacSetDel(IntfId intf) { pendingIntfMacSet_.erase(intf); }

   Ptr<const Hardware::ArpDropCounterStatus> arpDropCounterStatus_;
   Ptr<const CliConfig> cliConfig_;
   Ptr<const IntfMacSetMap> intfMacSetMap_;
   Ptr<LeaseQueryRequest> leaseQueryRequest_;
   Ptr<const LeaseQueryResponse> leaseQueryResponse_;

   std::map<IntfId, Ptr<IntfMacSet>> pendingIntfMacSet_;
   std::unordered_map<EthAddr, IntfId> macToIntf_;
   std::unique_ptr<ArpDropCounterStatusReactor> arpDropCounterStatusReactor_;
   std::unique_ptr<LeaseQueryResponseReactor> leaseQueryResponseReactor_;
};

Ptr<ArpDropCounterStatusSm> arpDropCounterStatusSmFactory(
    Ptr<const Hardware::ArpDropCounterStatus> arpDropCounterStatus, Ptr<const CliConfig> cliConfig,
    Ptr<const IntfMacSetMap> intfMacSetMap, Ptr<LeaseQueryRequest> leaseQueryRequest,
    Ptr<const LeaseQueryResponse> leaseQueryResponse);

}  // namespace Tavrin
