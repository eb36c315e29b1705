// One scheduler of timer tasks per agent. A task runs once per scheduling,
// at or after its run time, on the agent's thread. Tasks due at the same
// instant run in priority order, then in the order they were scheduled.
//
// The scheduler is an intrusive 4-ary min-heap: a task knows its slot, so
// scheduling, re-scheduling and cancelling are O(log n) with no search and
// no allocation beyond the heap's vector. A million armed lease timers cost
// nothing until they fire.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "rt/Clock.h"
#include "rt/Ptr.h"

namespace Tavrin::Rt {

class TimerTask;

using TaskPriority = uint8_t;

class TaskScheduler : public RefCounted {
 public:
   explicit TaskScheduler(const Clock& clock) : clock_(clock) {}
   ~TaskScheduler() override;

   const Clock& clock() const { return clock_; }
   size_t armed() const { return heap_.size(); }
   // Monotonic time of the next run, or +infinity when nothing is armed.
   Seconds nextRunTime() const;
   // Runs the first task if it is due at monotonic time `limit`; false if none.
   bool runNext(Seconds limit);
   // Runs every task due now, including tasks armed by those runs if due.
   size_t runDue();

 private:
   friend class TimerTask;
   bool before(const TimerTask* a, const TimerTask* b) const;
   void place(size_t i, TimerTask* t);
   void siftUp(size_t i);
   void siftDown(size_t i);
   void insert(TimerTask* t);
   void remove(TimerTask* t);
   void update(TimerTask* t);

   const Clock& clock_;
   std::vector<TimerTask*> heap_;
   uint64_t nextSeq_ = 0;
   TimerTask* running_ = nullptr;
};

// A timer task. Its owner subscribes one notifiee, whose onTaskRun() is
// called at each run. Destroying the task cancels a pending run; a task may
// be destroyed from inside its own run.
class TimerTask {
 public:
   class Notifiee {
    public:
      virtual ~Notifiee();
      virtual void onTaskRun() = 0;
      void notifierIs(TimerTask* task);
      TimerTask* notifier() const { return task_; }

    private:
      friend class TimerTask;
      TimerTask* task_ = nullptr;
   };

   TimerTask(Ptr<TaskScheduler> scheduler, TaskPriority priority, const char* name);
   ~TimerTask();
   TimerTask(const TimerTask&) = delete;
   TimerTask& operator=(const TimerTask&) = delete;

   const char* name() const { return name_; }
   TaskPriority priority() const { return priority_; }
   bool isScheduled() const { return heapIndex_ != kNotScheduled; }
   // Monotonic run time; meaningful only while scheduled.
   Seconds runTime() const { return runTime_; }
   bool taskCurrentlyRunning() const { return scheduler_->running_ == this; }

   // Run `delay` seconds from now, replacing any earlier schedule.
   void scheduleTaskDelay(Seconds delay);
   // Run `delay` seconds from now unless already due to run sooner.
   void scheduleTaskLowestDelay(Seconds delay);
   void cancel();

 private:
   friend class TaskScheduler;
   static constexpr uint32_t kNotScheduled = std::numeric_limits<uint32_t>::max();

   Ptr<TaskScheduler> scheduler_;
   Notifiee* notifiee_ = nullptr;
   const char* name_;
   Seconds runTime_ = 0;
   uint64_t seq_ = 0;
   uint32_t heapIndex_ = kNotScheduled;
   TaskPriority priority_;
};

}  // namespace Tavrin::Rt

namespace Tavrin::Rt {

// A named activity on the scheduler: what the root hands its machines.
// Switching notifications off at teardown keeps late timer runs from
// reaching machines that are being destroyed.
class SchedulerActivity : public RefCounted {
 public:
   SchedulerActivity(std::string name, Ptr<TaskScheduler> scheduler)
       : name_(std::move(name)), scheduler_(std::move(scheduler)) {}
   const std::string& name() const { return name_; }
   const Ptr<TaskScheduler>& scheduler() const { return scheduler_; }
   bool hasNotificationActive() const { return active_; }
   void hasNotificationActiveIs(bool on) { active_ = on; }

 private:
   std::string name_;
   Ptr<TaskScheduler> scheduler_;
   bool active_ = false;
};

}  // namespace Tavrin::Rt
