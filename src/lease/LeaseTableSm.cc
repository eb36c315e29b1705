#include "lease/LeaseTableSm.h"

namespace Tavrin {

LeaseTableSm::LeaseTableSm(Ptr<LeaseTable>,
   Ptr<MacIntfMap>,
   Ptr<LeaseQueryRequest>,
   Ptr<const LeaseQueryResponse>,
   Ptr<const MovedMac>,
   Ptr<const CliConfig>) {}

Ptr<LeaseTableSm> leaseTableSmFactory(Ptr<LeaseTable> leaseTable,
   Ptr<MacIntfMap> macIntfMap,
   Ptr<LeaseQueryRequest> leaseQueryRequest,
   Ptr<const LeaseQueryResponse> leaseQueryResponse,
   Ptr<const MovedMac> movedMac,
   Ptr<const CliConfig> cliConfig) {
   return Rt::makePtr<LeaseTableSm>(std::move(leaseTable), std::move(macIntfMap), std::move(leaseQueryRequest), std::move(leaseQueryResponse), std::move(movedMac), std::move(cliConfig));
}

}  // namespace Tavrin
