// One timer per persisted lease, re-querying it at its expiration instant.
#pragma once

#include "model/WorkRecords.h"
#include "rt/TaskScheduler.h"

namespace Tavrin {

class LeaseTimerSm : public Rt::RefCounted {
 public:
   LeaseTimerSm(Ptr<const LeaseStatus> leaseStatus,
      Ptr<LeaseQueryRequest> leaseQueryRequest,
      Ptr<Rt::TaskScheduler> scheduler);
};

Ptr<LeaseTimerSm> leaseTimerSmFactory(Ptr<const LeaseStatus> leaseStatus,
   Ptr<LeaseQueryRequest> leaseQueryRequest,
   Ptr<Rt::TaskScheduler> scheduler);

}  // namespace Tavrin
