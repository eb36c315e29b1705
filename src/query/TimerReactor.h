// The retry clock of one lease query in flight: a single timer task whose
// every run asks the owning LeaseQuerySm what to do next (resend, or give up).
#pragma once

#include <memory>

#include "query/QueryContext.h"
#include "rt/TaskScheduler.h"
#include "rt/Trace.h"

namespace Tavrin {

using Rt::Ptr;

class LeaseQuerySm;

// The facility of the lease query client.
Rt::TraceFacility& leaseQueryTrace();

class TimerReactor : public Rt::RefCounted {
 public:
   static constexpr Rt::TaskPriority kTaskPriority = 2;

   // The first run is `sendTime` seconds from now; later runs are armed by
   // the owner through queryTask().
   TimerReactor(const IpMacPair& ipMacPair, LeaseQuerySm* leaseQuerySm,
                Ptr<Rt::TaskScheduler> scheduler, double sendTime);

   const IpMacPair& ipMacPair() const { return ipMacPair_; }
   LeaseQuerySm* leaseQuerySm() const { return leaseQuerySm_; }
   const Ptr<Rt::TaskScheduler>& scheduler() const { return scheduler_; }
   double sendTime() const { return sendTime_; }
   // Empty once deleted.
   Rt::TimerTask* queryTask() const { return queryTask_.get(); }
   // Cancels a pending run for good.
   void queryTaskDel();

   void handleTimer();

 private:
   class QueryTaskReactor : public Rt::TimerTask::Notifiee {
    public:
      explicit QueryTaskReactor(TimerReactor& owner) : owner_(owner) {}
      void onTaskRun() override { owner_.handleTimer(); }

    private:
      TimerReactor& owner_;
   };

   IpMacPair ipMacPair_;
   LeaseQuerySm* leaseQuerySm_;  // the owner; it outlives its reactors
   Ptr<Rt::TaskScheduler> scheduler_;
   double sendTime_;
   std::unique_ptr<Rt::TimerTask> queryTask_;
   QueryTaskReactor queryTaskReactor_{*this};
};

}  // namespace Tavrin
