#include "rt/TaskScheduler.h"

#include <algorithm>

#include "rt/Assert.h"

namespace Tavrin::Rt {

namespace {
constexpr size_t kArity = 4;
}

TaskScheduler::~TaskScheduler() {
   for (auto* t : heap_) t->heapIndex_ = TimerTask::kNotScheduled;
}

bool TaskScheduler::before(const TimerTask* a, const TimerTask* b) const {
   if (a->runTime_ != b->runTime_) return a->runTime_ < b->runTime_;
   if (a->priority_ != b->priority_) return a->priority_ < b->priority_;
   return a->seq_ < b->seq_;
}

void TaskScheduler::place(size_t i, TimerTask* t) {
   heap_[i] = t;
   t->heapIndex_ = uint32_t(i);
}

void TaskScheduler::siftUp(size_t i) {
   TimerTask* t = heap_[i];
   while (i > 0) {
      size_t parent = (i - 1) / kArity;
      if (!before(t, heap_[parent])) break;
      place(i, heap_[parent]);
      i = parent;
   }
   place(i, t);
}

void TaskScheduler::siftDown(size_t i) {
   TimerTask* t = heap_[i];
   size_t n = heap_.size();
   while (true) {
      size_t first = i * kArity + 1;
      if (first >= n) break;
      size_t best = first;
      size_t last = std::min(first + kArity, n);
      for (size_t c = first + 1; c < last; ++c) {
         if (before(heap_[c], heap_[best])) best = c;
      }
      if (!before(heap_[best], t)) break;
      place(i, heap_[best]);
      i = best;
   }
   place(i, t);
}

void TaskScheduler::insert(TimerTask* t) {
   t->seq_ = nextSeq_++;
   heap_.push_back(t);
   siftUp(heap_.size() - 1);
}

void TaskScheduler::remove(TimerTask* t) {
   size_t i = t->heapIndex_;
   t->heapIndex_ = TimerTask::kNotScheduled;
   TimerTask* last = heap_.back();
   heap_.pop_back();
   if (last == t) return;
   place(i, last);
   siftUp(i);
   siftDown(last->heapIndex_);
}

void TaskScheduler::update(TimerTask* t) {
   t->seq_ = nextSeq_++;
   siftUp(t->heapIndex_);
   siftDown(t->heapIndex_);
}

Seconds TaskScheduler::nextRunTime() const {
   return heap_.empty() ? std::numeric_limits<Seconds>::infinity() : heap_.front()->runTime_;
}

bool TaskScheduler::runNext(Seconds limit) {
   if (heap_.empty() || heap_.front()->runTime_ > limit) return false;
   TimerTask* t = heap_.front();
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
   runTime_ = scheduler_->clock_.monotonic() + std::max(delay, 0.0);
   if (isScheduled()) {
      scheduler_->update(this);
   } else {
      scheduler_->insert(this);
   }
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
