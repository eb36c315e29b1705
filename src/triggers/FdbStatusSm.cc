#include "triggers/FdbStatusSm.h"

namespace Tavrin {

FdbStatusSm::FdbStatusSm(Ptr<const LeaseTable>,
   Ptr<LeaseQueryRequest>,
   Ptr<MovedMac>,
   Ptr<MacIntfMap>,
   Ptr<IntfMacSetMap>,
   Ptr<const Platform::BridgingStatus>,
   Ptr<const CliConfig>) {}

Ptr<FdbStatusSm> fdbStatusSmFactory(Ptr<const LeaseTable> leaseTable,
   Ptr<LeaseQueryRequest> leaseQueryRequest,
   Ptr<MovedMac> movedMac,
   Ptr<MacIntfMap> macIntfMap,
   Ptr<IntfMacSetMap> intfMacSetMap,
   Ptr<const Platform::BridgingStatus> bridgingStatus,
   Ptr<const CliConfig> cliConfig) {
   return Rt::makePtr<FdbStatusSm>(std::move(leaseTable), std::move(leaseQueryRequest), std::move(movedMac), std::move(macIntfMap), std::move(intfMacSetMap), std::move(bridgingStatus), std::move(cliConfig));
}

}  // namespace Tavrin
