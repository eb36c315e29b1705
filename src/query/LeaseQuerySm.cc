#include "query/LeaseQuerySm.h"

namespace Tavrin {

LeaseQuerySm::LeaseQuerySm(Ptr<const CliConfig>,
   Ptr<const LeaseQueryRequest>,
   Ptr<LeaseQueryResponse>,
   Ptr<const Platform::IpStatus>,
   Ptr<Rt::TaskScheduler>) {}

Ptr<LeaseQuerySm> leaseQuerySmFactory(Ptr<const CliConfig> cliConfig,
   Ptr<const LeaseQueryRequest> leaseQueryRequest,
   Ptr<LeaseQueryResponse> leaseQueryResponse,
   Ptr<const Platform::IpStatus> ipStatus,
   Ptr<Rt::TaskScheduler> scheduler) {
   return Rt::makePtr<LeaseQuerySm>(std::move(cliConfig), std::move(leaseQueryRequest), std::move(leaseQueryResponse), std::move(ipStatus), std::move(scheduler));
}

}  // namespace Tavrin
