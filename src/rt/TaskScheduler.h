// One scheduler of timer tasks per agent. A task runs once per scheduling,
// at or after its run time, on the agent's thread. Tasks due at the same
// instant run in priority order, then in the order they were scheduled.
//
// A million armed lease timers must be cheap to arm, re-arm and expire, so
// exact order is kept only for the few tasks about to run. Time is cut into
// ticks of 1/16 s and the scheduler holds three kinds of place:
//  - due_: a min-heap of every task whose tick the cursor has reached (and
//    of tasks armed in the past). Its top is the next task to run.
//  - four wheel levels of 256 slots. A task sits at the level of the highest
//    8-bit group in which its tick differs from the cursor's, in the slot
//    that group names. When the cursor enters a slot, its tasks move to a
//    lower level or to due_: a task moves at most four times in its life.
//  - far_: a heap for tasks beyond the top level (years away, or never),
//    rare enough that O(log n) does not matter.
// A task knows where it sits, so arming and cancelling are O(1) and search
// nothing; slots are unordered vectors, so that moving a slot walks
// contiguous pointers rather than a list scattered over memory, and nothing
// is allocated per arm beyond the vectors' growth.
#pragma once

#include <array>
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
   explicit TaskScheduler(const Clock& clock);
   ~TaskScheduler() override;

   const Clock& clock() const { return clock_; }
   size_t armed() const { return armed_; }
   // Monotonic time of the next run, or +infinity when nothing is armed.
   Seconds nextRunTime() const;
   // Runs the first task if it is due at monotonic time `limit`; false if none.
   bool runNext(Seconds limit);
   // Runs every task due now, including tasks armed by those runs if due.
   size_t runDue();

 private:
   friend class TimerTask;
   using Tick = uint64_t;
   static constexpr int kLevels = 4;
   static constexpr int kBits = 8;
   static constexpr size_t kSlots = size_t(1) << kBits;

   // An intrusive min-heap in run order; a task keeps its index in it.
   class Heap {
    public:
      explicit Heap(uint8_t where) : where_(where) {}
      bool empty() const { return v_.empty(); }
      TimerTask* top() const { return v_.front(); }
      void push(TimerTask* t);
      void erase(TimerTask* t);
      void forget();

    private:
      void place(size_t i, TimerTask* t);
      void siftUp(size_t i);
      void siftDown(size_t i);
      std::vector<TimerTask*> v_;
      uint8_t where_;
   };

   // A cancelled task leaves a null behind in its slot rather than moving
   // the last one into its place: that would touch a second task, a cache
   // miss that doubles the price of a re-arm. A slot is compacted when it is
   // more than half holes, so memory stays bounded by twice the tasks.
   struct Level {
      std::array<std::vector<TimerTask*>, kSlots> slots;
      std::array<uint32_t, kSlots> live{};
      std::array<uint64_t, kSlots / 64> occupied{};
   };
   static size_t slotOf(int level, Tick tick) { return (tick >> (level * kBits)) & (kSlots - 1); }

   static bool before(const TimerTask* a, const TimerTask* b);
   static Tick tickOf(Seconds t);
   static int nextOccupied(const Level& level, size_t from);
   void insert(TimerTask* t);
   void place(TimerTask* t);
   void remove(TimerTask* t);
   bool nextEvent(Tick& tick, int& level, size_t& slot) const;
   void fill(Tick limit);
   void enter(int level, size_t s);
   void pullFar();
   void compact(std::vector<TimerTask*>& slot);
   const TimerTask* findNext() const;

   const Clock& clock_;
   // Every task with a tick up to the cursor is in due_.
   Tick cursor_;
   Heap due_;
   Heap far_;
   std::array<Level, kLevels> levels_;
   size_t armed_ = 0;
   uint64_t nextSeq_ = 0;
   TimerTask* running_ = nullptr;
   // The first task outside due_, found by a scan of one slot; null when
   // unknown. Kept until that task leaves or an earlier one is armed.
   mutable const TimerTask* next_ = nullptr;
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
   bool isScheduled() const { return where_ != kNotScheduled; }
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
   // Where a scheduled task sits: a wheel level, or one of the heaps.
   static constexpr uint8_t kDue = 0xfd;
   static constexpr uint8_t kFar = 0xfe;
   static constexpr uint8_t kNotScheduled = 0xff;

   Ptr<TaskScheduler> scheduler_;
   Notifiee* notifiee_ = nullptr;
   const char* name_;
   Seconds runTime_ = 0;
   uint64_t seq_ = 0;
   uint32_t index_ = 0;  // in its slot or heap
   uint16_t slot_ = 0;
   uint8_t where_ = kNotScheduled;
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
