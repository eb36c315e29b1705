// The scheduler's contract on the virtual clock: the two scheduling calls,
// order of runs, tasks destroyed by their own run, and a million timers.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "rt/TaskScheduler.h"

using namespace Tavrin;
using Rt::Ptr;

namespace {

struct Fixture : ::testing::Test {
   Rt::VirtualClock clock{1000.0};
   Ptr<Rt::TaskScheduler> sched = Rt::makePtr<Rt::TaskScheduler>(clock);

   // Runs everything due up to clock + dt, each at its own instant.
   void advance(Seconds dt) {
      Seconds target = clock.now() + dt;
      while (sched->nextRunTime() <= target) {
         clock.timeIs(sched->nextRunTime());
         sched->runNext(clock.now());
      }
      clock.timeIs(target);
   }
};

// Records the clock at each run.
struct Probe : Rt::TimerTask::Notifiee {
   Probe(Rt::TimerTask& t, const Rt::Clock& c, std::vector<Seconds>& runs)
       : clock(c), runs(runs) {
      notifierIs(&t);
   }
   void onTaskRun() override {
      EXPECT_TRUE(notifier()->taskCurrentlyRunning());
      runs.push_back(clock.now());
      if (hook) hook();
   }
   const Rt::Clock& clock;
   std::vector<Seconds>& runs;
   std::function<void()> hook;
};

}  // namespace

using Scheduler = Fixture;

TEST_F(Scheduler, lowestDelayKeepsAnEarlierRunAndDelayAlwaysReplaces) {
   std::vector<Seconds> runs;
   Rt::TimerTask t(sched, 2, "t");
   Probe p(t, clock, runs);
   t.scheduleTaskLowestDelay(5);
   t.scheduleTaskLowestDelay(9);  // later: ignored
   EXPECT_EQ(t.runTime(), 1005);
   t.scheduleTaskLowestDelay(2);  // sooner: taken
   EXPECT_EQ(t.runTime(), 1002);
   t.scheduleTaskDelay(7);  // always replaces, even with a later time
   EXPECT_EQ(t.runTime(), 1007);
   advance(20);
   EXPECT_EQ(runs, std::vector<Seconds>{1007});
   EXPECT_FALSE(t.taskCurrentlyRunning());
   EXPECT_FALSE(t.isScheduled());
}

TEST_F(Scheduler, equalRunTimesRunInTheOrderTheyWereScheduled) {
   std::vector<std::string> order;
   std::vector<std::unique_ptr<Rt::TimerTask>> tasks;
   struct Named : Rt::TimerTask::Notifiee {
      Named(Rt::TimerTask& t, std::vector<std::string>& o) : order(o) { notifierIs(&t); }
      void onTaskRun() override { order.push_back(notifier()->name()); }
      std::vector<std::string>& order;
   };
   std::vector<std::unique_ptr<Named>> named;
   for (const char* name : {"c", "a", "b"}) {
      tasks.push_back(std::make_unique<Rt::TimerTask>(sched, 2, name));
      named.push_back(std::make_unique<Named>(*tasks.back(), order));
      tasks.back()->scheduleTaskDelay(1);
   }
   advance(1);
   EXPECT_EQ(order, (std::vector<std::string>{"c", "a", "b"}));
}

TEST_F(Scheduler, aTaskDestroyedByItsOwnRunOrCancelledNeverRuns) {
   std::vector<Seconds> runs;
   auto t = std::make_unique<Rt::TimerTask>(sched, 2, "self");
   Probe p(*t, clock, runs);
   p.hook = [&] { t.reset(); };
   t->scheduleTaskDelay(1);
   Rt::TimerTask other(sched, 2, "other");
   std::vector<Seconds> otherRuns;
   Probe q(other, clock, otherRuns);
   other.scheduleTaskDelay(2);
   other.cancel();
   advance(5);
   EXPECT_EQ(runs, std::vector<Seconds>{1001});
   EXPECT_TRUE(otherRuns.empty());
   EXPECT_EQ(sched->armed(), 0u);
}

TEST_F(Scheduler, aTaskRearmedFromItsRunRunsAgainAtTheNewTime) {
   std::vector<Seconds> runs;
   Rt::TimerTask t(sched, 2, "retry");
   Probe p(t, clock, runs);
   int gap = 1;
   p.hook = [&] {
      if (runs.size() < 4) t.scheduleTaskDelay(gap *= 2);
   };
   t.scheduleTaskDelay(1);
   advance(100);
   EXPECT_EQ(runs, (std::vector<Seconds>{1001, 1003, 1007, 1015}));
}

TEST_F(Scheduler, aMillionTimersFireInTimeOrderEachAtItsInstant) {
   constexpr size_t kTimers = 1'000'000;
   std::mt19937_64 rng(42);
   std::uniform_int_distribution<int> ms(1, 3'600'000);
   struct Lease : Rt::TimerTask::Notifiee {
      Rt::TimerTask task;
      Seconds due = 0;
      const Rt::Clock* clock = nullptr;
      size_t* fired = nullptr;
      Seconds* last = nullptr;
      bool* ok = nullptr;
      Lease(const Ptr<Rt::TaskScheduler>& s) : task(s, 2, "leaseTimerTask") { notifierIs(&task); }
      void onTaskRun() override {
         // Each timer runs at its own instant, never before, never out of order.
         if (clock->now() != due || due < *last) *ok = false;
         *last = due;
         ++*fired;
      }
   };
   size_t fired = 0;
   Seconds last = 0;
   bool ok = true;
   std::vector<std::unique_ptr<Lease>> leases;
   leases.reserve(kTimers);
   for (size_t i = 0; i < kTimers; ++i) {
      auto l = std::make_unique<Lease>(sched);
      l->clock = &clock;
      l->fired = &fired;
      l->last = &last;
      l->ok = &ok;
      l->due = clock.now() + ms(rng) / 1000.0;
      l->task.scheduleTaskDelay(l->due - clock.now());
      l->due = l->task.runTime();
      leases.push_back(std::move(l));
   }
   // Re-arm a tenth of them: the order must survive re-arms.
   for (size_t i = 0; i < kTimers; i += 10) {
      auto& l = *leases[i];
      l.task.scheduleTaskDelay(ms(rng) / 1000.0);
      l.due = l.task.runTime();
   }
   EXPECT_EQ(sched->armed(), kTimers);
   advance(3601);
   EXPECT_EQ(fired, kTimers);
   EXPECT_TRUE(ok);
   EXPECT_EQ(sched->armed(), 0u);
}
