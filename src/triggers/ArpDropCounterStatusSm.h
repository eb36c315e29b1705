// Queries every MAC of an interface whose ARP drop counter moved, one batch at a time.
#pragma once

#include "model/WorkRecords.h"

namespace Tavrin {

class ArpDropCounterStatusSm : public Rt::RefCounted {
 public:
   ArpDropCounterStatusSm(Ptr<const Hardware::ArpDropCounterStatus> arpDropCounterStatus,
      Ptr<const CliConfig> cliConfig,
      Ptr<const IntfMacSetMap> intfMacSetMap,
      Ptr<LeaseQueryRequest> leaseQueryRequest,
      Ptr<const LeaseQueryResponse> leaseQueryResponse);

   // Open batches: per interface, the MACs queried and not answered yet.
   const std::map<IntfId, Ptr<IntfMacSet>>& pendingIntfMacSetAll() const {
      return pendingIntfMacSet_;
   }

 private:
   std::map<IntfId, Ptr<IntfMacSet>> pendingIntfMacSet_;
};

Ptr<ArpDropCounterStatusSm> arpDropCounterStatusSmFactory(Ptr<const Hardware::ArpDropCounterStatus> arpDropCounterStatus,
   Ptr<const CliConfig> cliConfig,
   Ptr<const IntfMacSetMap> intfMacSetMap,
   Ptr<LeaseQueryRequest> leaseQueryRequest,
   Ptr<const LeaseQueryResponse> leaseQueryResponse);

}  // namespace Tavrin
