// One scheduler of timer tasks per agent. A task runs once per scheduling,
// at or after its run time, on the agent's thread. Tasks due at the same
// instant run in priority order, then in the order they were scheduled.
//
// A million armed lease timers must be cheap to arm, re-arm and expire, so
// exact order is kept only for the few tasks about to run. Time is cut into
// ticks of 1/16 s and the scheduler holds three kinds of place:
//  - run_ and due_: every task whose tick the cursor has reached. run_ is
//    the last tick drained from the wheel, sorted; due_ is a min-heap of
//    the rest (tasks armed in the past, or met on a higher level at their
//    tick). The first of their two heads is the next task to run.
//  - four wheel levels of 256 slots. A task sits at the level of the highest
//    8-bit group in which its tick differs from the cursor's, in the slot
//    that group names. When the cursor enters a slot, its tasks move to a
//    lower level, or become due: a task moves at most four times in its life.
//  - far_: a heap for tasks beyond the top level (years away, or never),
//    rare enough that O(log n) does not matter.
// Slots are unordered vectors of (run time, task), so that moving a slot
// walks contiguous memory and reads no task at all: a task's own memory is
// reached once, when its tick comes and it is about to run. Nothing is
// allocated per arm beyond the vectors' growth.
//
// Since a move does not tell the task, a task knows only where it was put
// when armed. Entering a slot leaves behind, for each entry, where it went;
// a cancel follows those marks from where the task was put down to where it
// is now (the level it must be at follows from its tick and the cursor), so
// arming and cancelling stay O(1) and search nothing.
#pragma once

#include <array>
#include <bit>
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

   // A cancelled task leaves a hole (null) behind in its slot rather than
   // moving the last one into its place: that would touch a second task, a
   // cache miss that doubles the price of a re-arm.
   //
   // Next to each task a slot keeps the low 32 bits of its tick, all a move
   // needs: a task on the wheel shares every higher bit with the cursor. They
   // lie apart from the pointers so that a cancel, which writes a pointer
   // only, finds as many of them in a cache line as it did before.
   //
   // A slot starts with the entries moved in from above, all at once when the
   // cursor entered the block above (the slot was empty then, as every slot
   // below the one entered is), then those armed into it. Only the armed
   // part is compacted, when more than half holes: its tasks know their
   // index, while the moved-in ones are known by the marks their old slot
   // left. The moved-in part never grows, so memory stays bounded by a few
   // times the tasks.
   struct Slot {
      std::vector<TimerTask*> tasks;
      std::vector<uint32_t> ticks;
      uint32_t live = 0;
      uint32_t movedIn = 0;
      uint32_t liveMovedIn = 0;
   };
   struct Level {
      std::array<Slot, kSlots> slots;
      std::array<uint64_t, kSlots / 64> occupied{};
      // For the slot the cursor entered last at this level, where each of its
      // entries went, by its index there. The tasks still on the wheel that
      // were in that slot all lie in it, so the marks are needed until the
      // cursor enters the next slot of this level, and no longer.
      std::vector<uint64_t> moves;
   };
   static size_t slotOf(int level, Tick tick) { return (tick >> (level * kBits)) & (kSlots - 1); }
   int levelOf(Tick tick) const { return (std::bit_width(tick ^ cursor_) - 1) / kBits; }

   static bool before(const TimerTask* a, const TimerTask* b);
   static Tick tickOf(Seconds t);
   static int nextOccupied(const Level& level, size_t from);
   void insert(TimerTask* t);
   void place(TimerTask* t);
   uint64_t move(TimerTask* t, uint32_t tickLow);
   void remove(TimerTask* t);
   void removeFromSlot(int level, size_t s, uint32_t index);
   bool nextEvent(Tick& tick, int& level, size_t& slot) const;
   void fill(Tick limit);
   void enter(int level, size_t s);
   void pullFar();
   static void compact(Slot& slot);
   static void empty(Slot& slot);
   const TimerTask* findNext() const;
   TimerTask* first() const;

   const Clock& clock_;
   // Every task with a tick up to the cursor is in run_ or due_.
   Tick cursor_;
   // Sorted last to first; holes (null) for cancelled tasks, but never at
   // the back.
   std::vector<TimerTask*> run_;
   struct RunKey {
      Seconds runTime;
      TimerTask* task;
   };
   std::vector<RunKey> runKeys_;
   Heap due_;
   Heap far_;
   std::array<Level, kLevels> levels_;
   size_t armed_ = 0;
   uint64_t nextSeq_ = 0;
   TimerTask* running_ = nullptr;
   // The first task outside run_ and due_, found by a scan of one slot; null
   // when unknown. Kept until that task leaves or an earlier one is armed.
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
   // Where a scheduled task sits: a wheel level, run_, or one of the heaps.
   static constexpr uint8_t kRun = 0xfc;
   static constexpr uint8_t kDue = 0xfd;
   static constexpr uint8_t kFar = 0xfe;
   static constexpr uint8_t kNotScheduled = 0xff;

   Ptr<TaskScheduler> scheduler_;
   Notifiee* notifiee_ = nullptr;
   const char* name_;
   Seconds runTime_ = 0;
   uint64_t seq_ = 0;
   // In run_ or a heap: its index there. On the wheel: the level, slot and
   // index it was put in, which it may have left since.
   uint32_t index_ = 0;
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
