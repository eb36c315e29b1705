#include "rt/TaskScheduler.h"

#include <algorithm>
#include <bit>

#include "rt/Assert.h"

namespace Tavrin::Rt {

namespace {

constexpr size_t kArity = 4;
constexpr double kTicksPerSecond = 16;
// Ticks at or past this go to far_; it keeps +infinity and NaN out of the
// integer conversion.
constexpr uint64_t kLastTick = uint64_t(1) << 62;
// How many tasks ahead a walk over a slot fetches: enough to cover a miss to
// memory on a loaded machine without crowding out the tasks being placed.
constexpr size_t kPrefetch = 32;
// Up to this many tasks in a tick, they are sorted by insertion.
constexpr size_t kInsertionSort = 32;
// An emptied slot keeps its vector's memory up to this many entries.
constexpr size_t kKeptSlotCapacity = size_t(1) << 16;
// A move mark: level, slot and index where an entry went; or nowhere to
// follow, for a hole or a task that went to due_ (it knows that itself).
constexpr uint64_t kNoMove = ~uint64_t(0);
uint64_t moveMark(int level, size_t slot, size_t index) {
   return uint64_t(level) << 40 | uint64_t(slot) << 32 | uint64_t(index);
}
// How far, in ticks, nextRunTime() may move the cursor ahead of the clock.
constexpr uint64_t kAhead = 256;

void prefetch(const void* p) {
#if defined(__GNUC__)
   if (p) __builtin_prefetch(p);
#else
   (void)p;
#endif
}

}  // namespace

// ---------------------------------------------------------------- Heap

void TaskScheduler::Heap::place(size_t i, TimerTask* t) {
   v_[i] = t;
   t->index_ = uint32_t(i);
}

void TaskScheduler::Heap::siftUp(size_t i) {
   TimerTask* t = v_[i];
   while (i > 0) {
      size_t parent = (i - 1) / kArity;
      if (!before(t, v_[parent])) break;
      place(i, v_[parent]);
      i = parent;
   }
   place(i, t);
}

void TaskScheduler::Heap::siftDown(size_t i) {
   TimerTask* t = v_[i];
   size_t n = v_.size();
   while (true) {
      size_t first = i * kArity + 1;
      if (first >= n) break;
      size_t best = first;
      size_t last = std::min(first + kArity, n);
      for (size_t c = first + 1; c < last; ++c) {
         if (before(v_[c], v_[best])) best = c;
      }
      if (!before(v_[best], t)) break;
      place(i, v_[best]);
      i = best;
   }
   place(i, t);
}

void TaskScheduler::Heap::push(TimerTask* t) {
   t->where_ = where_;
   v_.push_back(t);
   siftUp(v_.size() - 1);
}

void TaskScheduler::Heap::erase(TimerTask* t) {
   size_t i = t->index_;
   TimerTask* last = v_.back();
   v_.pop_back();
   if (last == t) return;
   place(i, last);
   if (i > 0) siftUp(i);
   siftDown(last->index_);
}

void TaskScheduler::Heap::forget() {
   for (auto* t : v_) t->where_ = TimerTask::kNotScheduled;
   v_.clear();
}

// ---------------------------------------------------------------- TaskScheduler

bool TaskScheduler::before(const TimerTask* a, const TimerTask* b) {
   if (a->runTime_ != b->runTime_) return a->runTime_ < b->runTime_;
   if (a->priority_ != b->priority_) return a->priority_ < b->priority_;
   return a->seq_ < b->seq_;
}

TaskScheduler::TaskScheduler(const Clock& clock)
    : clock_(clock),
      cursor_(tickOf(clock.monotonic())),
      due_(TimerTask::kDue),
      far_(TimerTask::kFar) {}

TaskScheduler::~TaskScheduler() {
   due_.forget();
   far_.forget();
   for (auto* t : run_) {
      if (t) t->where_ = TimerTask::kNotScheduled;
   }
   for (auto& level : levels_) {
      for (auto& slot : level.slots) {
         for (auto* t : slot.tasks) {
            if (t) t->where_ = TimerTask::kNotScheduled;
         }
      }
   }
}

// Any map that never decreases with time would keep the order exact; this
// one is a multiplication by a power of two, so ties in time stay ties in tick.
TaskScheduler::Tick TaskScheduler::tickOf(Seconds t) {
   double x = t * kTicksPerSecond;
   if (x < double(kLastTick)) return x > 0 ? Tick(x) : 0;
   return kLastTick;
}

int TaskScheduler::nextOccupied(const Level& level, size_t from) {
   for (size_t w = from / 64; w < level.occupied.size(); ++w) {
      uint64_t bits = level.occupied[w];
      if (w == from / 64) bits &= ~uint64_t(0) << (from % 64);
      if (bits) return int(w * 64 + size_t(std::countr_zero(bits)));
   }
   return -1;
}

void TaskScheduler::insert(TimerTask* t) {
   t->seq_ = nextSeq_++;
   ++armed_;
   place(t);
   if (next_ && t->where_ != TimerTask::kDue && before(t, next_)) next_ = t;
}

void TaskScheduler::place(TimerTask* t) {
   Tick tick = tickOf(t->runTime_);
   if (tick <= cursor_) {
      due_.push(t);
      return;
   }
   int level = levelOf(tick);
   if (level >= kLevels) {
      far_.push(t);
      return;
   }
   Level& l = levels_[size_t(level)];
   size_t s = slotOf(level, tick);
   Slot& slot = l.slots[s];
   t->where_ = uint8_t(level);
   t->slot_ = uint16_t(s);
   t->index_ = uint32_t(slot.tasks.size());
   slot.tasks.push_back(t);
   slot.ticks.push_back(uint32_t(tick));
   ++slot.live;
   l.occupied[s / 64] |= uint64_t(1) << (s % 64);
}

// Moves a task down from a slot being entered, reading it only if it is due
// now. Returns the mark its old place keeps.
uint64_t TaskScheduler::move(TimerTask* t, uint32_t tickLow) {
   Tick tick = (cursor_ & ~Tick(0xffffffff)) | tickLow;
   if (tick <= cursor_) {
      due_.push(t);
      return kNoMove;
   }
   int level = levelOf(tick);
   Level& l = levels_[size_t(level)];
   size_t s = slotOf(level, tick);
   Slot& slot = l.slots[s];
   // Compacting the armed part relies on it: nothing is armed into a slot
   // below the one the cursor enters.
   TAVRIN_ASSERT(slot.movedIn == slot.tasks.size());
   uint64_t mark = moveMark(level, s, slot.tasks.size());
   slot.tasks.push_back(t);
   slot.ticks.push_back(tickLow);
   ++slot.live;
   ++slot.movedIn;
   ++slot.liveMovedIn;
   l.occupied[s / 64] |= uint64_t(1) << (s % 64);
   return mark;
}

void TaskScheduler::compact(Slot& slot) {
   size_t n = slot.movedIn;
   for (size_t i = n; i < slot.tasks.size(); ++i) {
      TimerTask* t = slot.tasks[i];
      if (!t) continue;
      t->index_ = uint32_t(n);
      slot.tasks[n] = t;
      slot.ticks[n] = slot.ticks[i];
      ++n;
   }
   slot.tasks.resize(n);
   slot.ticks.resize(n);
}

void TaskScheduler::empty(Slot& slot) {
   slot.tasks.clear();
   slot.ticks.clear();
   slot.live = slot.movedIn = slot.liveMovedIn = 0;
}

void TaskScheduler::removeFromSlot(int level, size_t s, uint32_t index) {
   Level& l = levels_[size_t(level)];
   Slot& slot = l.slots[s];
   // Only written, never read: a store miss does not stall the re-arm the
   // way checking the entry first would.
   TAVRIN_ASSERT(index < slot.tasks.size());
   slot.tasks[index] = nullptr;
   if (index < slot.movedIn) --slot.liveMovedIn;
   if (--slot.live == 0) {
      empty(slot);
      l.occupied[s / 64] &= ~(uint64_t(1) << (s % 64));
      return;
   }
   size_t armedPart = slot.tasks.size() - slot.movedIn;
   size_t armedLive = slot.live - slot.liveMovedIn;
   if (armedPart > 2 * armedLive + 64) compact(slot);
}

void TaskScheduler::remove(TimerTask* t) {
   if (t->where_ == TimerTask::kRun) {
      // A hole, unless it is the next to run: then the holes before the next
      // live one go too, so that run_'s back is always live.
      run_[t->index_] = nullptr;
      while (!run_.empty() && !run_.back()) run_.pop_back();
   } else if (t->where_ == TimerTask::kDue) {
      due_.erase(t);
   } else if (t->where_ == TimerTask::kFar) {
      far_.erase(t);
   } else {
      // Where the task must be now; from where it was put, the marks of the
      // slots entered since lead there, one level down or more at each.
      int now = levelOf(tickOf(t->runTime_));
      int level = t->where_;
      size_t s = t->slot_;
      uint32_t index = t->index_;
      while (level > now) {
         const auto& moves = levels_[size_t(level)].moves;
         TAVRIN_ASSERT(index < moves.size() && moves[index] != kNoMove);
         uint64_t mark = moves[index];
         level = int(mark >> 40);
         s = size_t(mark >> 32) & (kSlots - 1);
         index = uint32_t(mark);
      }
      TAVRIN_ASSERT(level == now);
      removeFromSlot(level, s, index);
   }
   t->where_ = TimerTask::kNotScheduled;
   --armed_;
   if (next_ == t) next_ = nullptr;
}

// The first tick at which the cursor has work: the start of the first
// occupied slot ahead of it, at the lowest level that has one (everything at
// a level lies after everything below it), or else the first far task's
// tick. False when nothing is armed outside run_ and due_.
bool TaskScheduler::nextEvent(Tick& tick, int& level, size_t& slot) const {
   for (level = 0; level < kLevels; ++level) {
      int found = nextOccupied(levels_[size_t(level)], slotOf(level, cursor_) + 1);
      if (found >= 0) {
         slot = size_t(found);
         int shift = level * kBits;
         tick = (cursor_ >> (shift + kBits) << (shift + kBits)) | (Tick(slot) << shift);
         return true;
      }
   }
   if (far_.empty()) return false;
   tick = tickOf(far_.top()->runTime_);
   return true;
}

// Moves the cursor from one occupied slot to the next until run_ or due_
// holds a task, or the next slot starts after `limit`. No task lies between two
// occupied slots, so each jump keeps every other task at its level and slot.
void TaskScheduler::fill(Tick limit) {
   Tick next;
   int level;
   size_t s;
   while (due_.empty() && run_.empty() && nextEvent(next, level, s) && next <= limit) {
      cursor_ = next;
      if (level < kLevels) enter(level, s);
      pullFar();
   }
}

// The cursor has just entered slot `s` of `level`: its tasks go below
// `level` (or to due_ if due now), or to run_ from level 0, never back into
// this slot.
void TaskScheduler::enter(int level, size_t s) {
   Level& l = levels_[size_t(level)];
   Slot& slot = l.slots[s];
   l.occupied[s / 64] &= ~(uint64_t(1) << (s % 64));
   const auto& tasks = slot.tasks;
   size_t n = tasks.size();
   if (level == 0) {
      // Everything runs now, in order: sorting it once costs fewer (and
      // less mispredicted) comparisons than passing it through a heap. The
      // tasks lie all over memory, and fetching ahead overlaps their misses.
      auto& keys = runKeys_;
      keys.clear();
      for (size_t i = 0; i < std::min(n, kPrefetch); ++i) prefetch(tasks[i]);
      for (size_t i = 0; i < n; ++i) {
         if (i + kPrefetch < n) prefetch(tasks[i + kPrefetch]);
         if (TimerTask* t = tasks[i]) keys.push_back({t->runTime_, t});
      }
      // Last to run first: the next one is run_'s back. Times mostly differ;
      // ties read the tasks, which are in cache by now.
      auto later = [](const RunKey& a, const RunKey& b) {
         if (a.runTime != b.runTime) return a.runTime > b.runTime;
         return before(b.task, a.task);
      };
      // A tick holds a few tasks as a rule, where a plain insertion sort
      // beats the general one.
      if (keys.size() <= kInsertionSort) {
         for (size_t i = 1; i < keys.size(); ++i) {
            RunKey k = keys[i];
            size_t j = i;
            for (; j > 0 && later(k, keys[j - 1]); --j) keys[j] = keys[j - 1];
            keys[j] = k;
         }
      } else {
         std::sort(keys.begin(), keys.end(), later);
      }
      if (run_.capacity() > kKeptSlotCapacity && run_.capacity() > 2 * keys.size()) {
         run_.shrink_to_fit();  // empty here: a burst's memory goes
      }
      run_.resize(keys.size());
      for (size_t i = 0; i < keys.size(); ++i) {
         TimerTask* t = keys[i].task;
         t->where_ = TimerTask::kRun;
         t->index_ = uint32_t(i);
         run_[i] = t;
      }
      if (keys.capacity() > kKeptSlotCapacity) {
         keys.clear();
         keys.shrink_to_fit();
      }
   } else {
      // The previous slot entered at this level lies behind the cursor, and
      // so does every task that was in it: its marks can go.
      auto& moves = l.moves;
      moves.clear();
      if (moves.capacity() > kKeptSlotCapacity && moves.capacity() > 2 * n) moves.shrink_to_fit();
      moves.resize(n, kNoMove);
      for (size_t i = 0; i < n; ++i) {
         if (tasks[i]) moves[i] = move(tasks[i], slot.ticks[i]);
      }
   }
   empty(slot);
   // A burst leaves a big slot behind; do not hold its memory forever.
   if (slot.tasks.capacity() > kKeptSlotCapacity) {
      slot.tasks.shrink_to_fit();
      slot.ticks.shrink_to_fit();
   }
   // While this tick's tasks run, fetch the next tick's.
   if (level == 0) {
      int following = nextOccupied(l, s + 1);
      if (following >= 0) {
         const auto& ahead = l.slots[size_t(following)].tasks;
         for (size_t i = 0; i < std::min(ahead.size(), kPrefetch); ++i) prefetch(ahead[i]);
      }
   }
}

// Far tasks whose tick now shares its top group with the cursor's belong on
// the wheel; they are the first ones in far_'s order.
void TaskScheduler::pullFar() {
   constexpr int kSpan = kLevels * kBits;
   while (!far_.empty()) {
      TimerTask* t = far_.top();
      Tick tick = tickOf(t->runTime_);
      if (tick > cursor_ && ((tick ^ cursor_) >> kSpan) != 0) break;
      far_.erase(t);
      place(t);
   }
}

const TimerTask* TaskScheduler::findNext() const {
   Tick next;
   int level;
   size_t s = 0;
   if (!nextEvent(next, level, s)) return nullptr;
   if (level == kLevels) return far_.top();
   const TimerTask* best = nullptr;
   for (const TimerTask* t : levels_[size_t(level)].slots[s].tasks) {
      if (t && (!best || before(t, best))) best = t;
   }
   return best;
}

TimerTask* TaskScheduler::first() const {
   if (run_.empty()) return due_.empty() ? nullptr : due_.top();
   if (due_.empty() || before(run_.back(), due_.top())) return run_.back();
   return due_.top();
}

Seconds TaskScheduler::nextRunTime() const {
   if (due_.empty() && run_.empty()) {
      // When the next occupied slot is near, entering it makes its tasks
      // due in one pass. The cursor may pass the clock, but by kAhead
      // ticks at most, so that the tasks armed meanwhile behind it, which go
      // to due_, stay few. Moving the cursor changes no order, hence const.
      const_cast<TaskScheduler*>(this)->fill(tickOf(clock_.monotonic()) + kAhead);
      if (due_.empty() && run_.empty()) {
         // Farther off, while the agent idles: one scan of that slot finds
         // the first task, kept until it leaves or an earlier one is armed.
         if (!next_) next_ = findNext();
         return next_ ? next_->runTime_ : std::numeric_limits<Seconds>::infinity();
      }
   }
   return first()->runTime_;
}

bool TaskScheduler::runNext(Seconds limit) {
   fill(tickOf(limit));
   TimerTask* t = first();
   if (!t || t->runTime_ > limit) return false;
   remove(t);
   TimerTask* outer = running_;
   running_ = t;
   if (t->notifiee_) t->notifiee_->onTaskRun();
   // The task may have been destroyed by its own run; ~TimerTask clears
   // running_ in that case, so only the pointer is compared here.
   if (running_ == t) running_ = outer;
   return true;
}

size_t TaskScheduler::runDue() {
   size_t n = 0;
   Seconds limit = clock_.monotonic();
   while (runNext(limit)) ++n;
   return n;
}

TimerTask::Notifiee::~Notifiee() { notifierIs(nullptr); }

void TimerTask::Notifiee::notifierIs(TimerTask* task) {
   if (task_ == task) return;
   if (task_ && task_->notifiee_ == this) task_->notifiee_ = nullptr;
   task_ = task;
   if (task_) {
      // A task has exactly one owner; a second subscriber is a wiring bug.
      TAVRIN_ASSERT(!task_->notifiee_);
      task_->notifiee_ = this;
   }
}

TimerTask::TimerTask(Ptr<TaskScheduler> scheduler, TaskPriority priority, const char* name)
    : scheduler_(std::move(scheduler)), name_(name), priority_(priority) {}

TimerTask::~TimerTask() {
   cancel();
   if (notifiee_) notifiee_->task_ = nullptr;
   if (scheduler_->running_ == this) scheduler_->running_ = nullptr;
}

void TimerTask::scheduleTaskDelay(Seconds delay) {
   if (isScheduled()) scheduler_->remove(this);
   runTime_ = scheduler_->clock_.monotonic() + std::max(delay, 0.0);
   scheduler_->insert(this);
}

void TimerTask::scheduleTaskLowestDelay(Seconds delay) {
   Seconds t = scheduler_->clock_.monotonic() + std::max(delay, 0.0);
   if (isScheduled() && runTime_ <= t) return;
   scheduleTaskDelay(delay);
}

void TimerTask::cancel() {
   if (isScheduled()) scheduler_->remove(this);
}

}  // namespace Tavrin::Rt
