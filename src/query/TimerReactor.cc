#include "query/TimerReactor.h"

#include "query/LeaseQuerySm.h"

namespace Tavrin {

Rt::TraceFacility& leaseQueryTrace() {
   static Rt::TraceFacility& f = Rt::traceFacility("TavrinLeaseQuery");
   return f;
}

TimerReactor::TimerReactor(const IpMacPair& ipMacPair, LeaseQuerySm* leaseQuerySm,
                           Ptr<Rt::TaskScheduler> scheduler, double sendTime)
    : ipMacPair_(ipMacPair),
      leaseQuerySm_(leaseQuerySm),
      scheduler_(std::move(scheduler)),
      sendTime_(sendTime),
      queryTask_(std::make_unique<Rt::TimerTask>(scheduler_, kTaskPriority, "delayedSendTask")) {
   queryTaskReactor_.notifierIs(queryTask_.get());
   queryTask_->scheduleTaskLowestDelay(sendTime_);
}

void TimerReactor::queryTaskDel() {
   queryTaskReactor_.notifierIs(nullptr);
   queryTask_.reset();
}

void TimerReactor::handleTimer() {
   // The owner may drop this reactor (give-up) while we are still on the stack.
   Ptr<TimerReactor> self(this);
   TAVRIN_TRACE(leaseQueryTrace(), 4, "ip: " << ipMacPair_.ip << ", mac: " << ipMacPair_.mac);
   if (leaseQuerySm_) leaseQuerySm_->handleTimer(ipMacPair_);
}

}  // namespace Tavrin
