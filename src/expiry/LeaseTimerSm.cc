#include "expiry/LeaseTimerSm.h"

namespace Tavrin {

LeaseTimerSm::LeaseTimerSm(Ptr<const LeaseStatus>,
   Ptr<LeaseQueryRequest>,
   Ptr<Rt::TaskScheduler>) {}

Ptr<LeaseTimerSm> leaseTimerSmFactory(Ptr<const LeaseStatus> leaseStatus,
   Ptr<LeaseQueryRequest> leaseQueryRequest,
   Ptr<Rt::TaskScheduler> scheduler) {
   return Rt::makePtr<LeaseTimerSm>(std::move(leaseStatus), std::move(leaseQueryRequest), std::move(scheduler));
}

}  // namespace Tavrin
