#include "triggers/ArpDropCounterStatusSm.h"

namespace Tavrin {

ArpDropCounterStatusSm::ArpDropCounterStatusSm(Ptr<const Hardware::ArpDropCounterStatus>,
   Ptr<const CliConfig>,
   Ptr<const IntfMacSetMap>,
   Ptr<LeaseQueryRequest>,
   Ptr<const LeaseQueryResponse>) {}

Ptr<ArpDropCounterStatusSm> arpDropCounterStatusSmFactory(Ptr<const Hardware::ArpDropCounterStatus> arpDropCounterStatus,
   Ptr<const CliConfig> cliConfig,
   Ptr<const IntfMacSetMap> intfMacSetMap,
   Ptr<LeaseQueryRequest> leaseQueryRequest,
   Ptr<const LeaseQueryResponse> leaseQueryResponse) {
   return Rt::makePtr<ArpDropCounterStatusSm>(std::move(arpDropCounterStatus), std::move(cliConfig), std::move(intfMacSetMap), std::move(leaseQueryRequest), std::move(leaseQueryResponse));
}

}  // namespace Tavrin
