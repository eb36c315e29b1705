// The scheduler's wheel against a plain ordered set: tasks spread over every
// level and beyond, cursors crossing block boundaries, re-arms, cancels and
// destructions from inside runs. Whatever route a task takes to its instant,
// it must run exactly then, in (time, priority, scheduling order), and
// nextRunTime() must name that instant exactly at every step.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "rt/TaskScheduler.h"

using namespace Tavrin;
using Rt::Ptr;

namespace {

constexpr Seconds kNever = std::numeric_limits<Seconds>::infinity();

// Drives the scheduler and a reference model side by side. A task's key is
// (run time, priority, sequence); the model's first key is the next run.
struct Model {
   using Key = std::tuple<Seconds, Rt::TaskPriority, uint64_t, size_t>;

   struct Probe : Rt::TimerTask::Notifiee {
      Model* model = nullptr;
      size_t id = 0;
      void onTaskRun() override { model->ran(id); }
   };

   Rt::VirtualClock clock{1000.0};
   Ptr<Rt::TaskScheduler> sched = Rt::makePtr<Rt::TaskScheduler>(clock);
   std::vector<std::unique_ptr<Rt::TimerTask>> tasks;
   std::vector<std::unique_ptr<Probe>> probes;
   std::vector<std::optional<Key>> keys;
   std::set<Key> order;
   uint64_t seq = 0;
   std::vector<std::string> errors;
   // Called from a run, with the model already updated: may act on tasks.
   std::function<void(size_t)> onRun;

   explicit Model(size_t n) : tasks(n), probes(n), keys(n) {
      for (size_t i = 0; i < n; ++i) {
         probes[i] = std::make_unique<Probe>();
         probes[i]->model = this;
         probes[i]->id = i;
         create(i);
      }
   }

   Rt::TaskPriority priorityOf(size_t id) const { return Rt::TaskPriority(id % 3); }

   void create(size_t id) {
      tasks[id] = std::make_unique<Rt::TimerTask>(sched, priorityOf(id), "t");
      probes[id]->notifierIs(tasks[id].get());
   }

   void forget(size_t id) {
      if (keys[id]) order.erase(*keys[id]);
      keys[id].reset();
   }

   void record(size_t id, Seconds delay) {
      forget(id);
      Key k{clock.monotonic() + std::max(delay, 0.0), priorityOf(id), seq++, id};
      keys[id] = k;
      order.insert(k);
   }

   void arm(size_t id, Seconds delay) {
      tasks[id]->scheduleTaskDelay(delay);
      record(id, delay);
   }

   void armLowest(size_t id, Seconds delay) {
      bool keeps = keys[id] && std::get<0>(*keys[id]) <= clock.monotonic() + std::max(delay, 0.0);
      tasks[id]->scheduleTaskLowestDelay(delay);
      if (!keeps) record(id, delay);
   }

   void cancel(size_t id) {
      tasks[id]->cancel();
      forget(id);
   }

   void destroy(size_t id) {
      tasks[id].reset();
      forget(id);
      create(id);
   }

   void ran(size_t id) {
      if (order.empty() || std::get<3>(*order.begin()) != id) {
         errors.push_back("task " + std::to_string(id) + " ran out of turn at " +
                          std::to_string(clock.now()));
         return;
      }
      if (std::get<0>(*order.begin()) != clock.now()) {
         errors.push_back("task " + std::to_string(id) + " ran at the wrong instant");
      }
      forget(id);
      if (onRun) onRun(id);
   }

   Seconds expectedNext() const {
      return order.empty() ? kNever : std::get<0>(*order.begin());
   }

   // Runs everything due up to clock + dt, each task at its own instant,
   // checking nextRunTime() before every run.
   void advance(Seconds dt) {
      Seconds target = clock.now() + dt;
      while (errors.empty()) {
         Seconds next = sched->nextRunTime();
         if (next != expectedNext()) {
            errors.push_back("nextRunTime " + std::to_string(next) + ", expected " +
                             std::to_string(expectedNext()));
            return;
         }
         if (next > target) break;
         clock.timeIs(std::max(clock.now(), next));
         if (!sched->runNext(clock.now())) errors.push_back("a due task did not run");
      }
      clock.timeIs(target);
   }
};

// Delays that land a task on each level, on block edges and beyond the wheel.
Seconds randomDelay(std::mt19937_64& rng, Seconds now) {
   std::uniform_int_distribution<int> kind(0, 9);
   std::uniform_real_distribution<double> unit(0, 1);
   switch (kind(rng)) {
      case 0: return 0;
      case 1: return double(rng() % 4);  // whole seconds: same-instant ties
      case 2: return unit(rng) * 0.2;
      case 3: return unit(rng) * 16;
      case 4: return unit(rng) * 4096;
      case 5: return unit(rng) * 1.2e6;
      case 6: return unit(rng) * 3e8;
      case 7: return 3e8 + unit(rng) * 3e9;  // past the top level
      case 8: {
         // The edge of a block at some level, or a tick either side of it.
         static const double blocks[] = {16, 4096, 1048576, 268435456};
         double b = blocks[rng() % 4];
         double edge = (std::floor(now / b) + 1 + double(rng() % 2)) * b;
         return edge - now + (double(rng() % 3) - 1) / 16;
      }
      default: return -1;  // in the past: due now
   }
}

Seconds randomStep(std::mt19937_64& rng) {
   std::uniform_int_distribution<int> kind(0, 9);
   std::uniform_real_distribution<double> unit(0, 1);
   switch (kind(rng)) {
      case 0: return 0;
      case 1: case 2: return unit(rng) * 0.5;
      case 3: case 4: return unit(rng) * 20;
      case 5: return unit(rng) * 5000;
      case 6: return unit(rng) * 2e6;
      case 7: return unit(rng) * 5e8;
      default: return unit(rng) * 4;
   }
}

}  // namespace

TEST(SchedulerWheel, runsMatchAnOrderedSetThroughEveryLevelAndFromInsideRuns) {
   for (uint64_t seed : {1u, 2u, 3u, 4u}) {
      SCOPED_TRACE("seed " + std::to_string(seed));
      std::mt19937_64 rng(seed);
      Model m(48);
      auto any = [&] { return size_t(rng() % m.tasks.size()); };
      m.onRun = [&](size_t id) {
         switch (rng() % 8) {
            case 0: m.arm(id, randomDelay(rng, m.clock.now())); break;  // re-arm itself
            case 1: m.cancel(any()); break;
            case 2: m.destroy(any()); break;  // perhaps itself, perhaps one due now
            case 3: m.arm(any(), randomDelay(rng, m.clock.now())); break;
            default: break;
         }
      };
      for (int step = 0; step < 4000 && m.errors.empty(); ++step) {
         switch (rng() % 8) {
            case 0: case 1: case 2: m.arm(any(), randomDelay(rng, m.clock.now())); break;
            case 3: m.armLowest(any(), randomDelay(rng, m.clock.now())); break;
            case 4: m.cancel(any()); break;
            case 5: m.destroy(any()); break;
            default: m.advance(randomStep(rng)); break;
         }
         if (m.sched->armed() != m.order.size()) m.errors.push_back("armed() is off");
      }
      m.advance(1e10);
      EXPECT_EQ(m.errors, std::vector<std::string>{});
      // Only tasks armed to run never are left.
      for (const auto& k : m.order) EXPECT_EQ(std::get<0>(k), kNever);
   }
}

TEST(SchedulerWheel, sameInstantRunsByPriorityThenOrderWhateverRouteEachTook) {
   // Some tasks are armed long before the instant and reach it through the
   // wheel's levels; others are armed a second before it, straight into the
   // due heap. Order at the instant must not depend on the route.
   Rt::VirtualClock clock{1000.0};
   auto sched = Rt::makePtr<Rt::TaskScheduler>(clock);
   std::vector<std::string> ran;
   struct Named : Rt::TimerTask::Notifiee {
      std::vector<std::string>* ran;
      void onTaskRun() override { ran->push_back(notifier()->name()); }
   };
   struct Row {
      const char* name;
      Rt::TaskPriority priority;
      bool early;  // armed 5000 s ahead rather than 1 s
   };
   const Row rows[] = {
       {"early-p2", 2, true}, {"early-p3", 3, true}, {"early-p1", 1, true},
       {"late-p1", 1, false}, {"late-p2", 2, false}, {"late-p0", 0, false},
   };
   std::vector<std::unique_ptr<Rt::TimerTask>> tasks;
   std::vector<std::unique_ptr<Named>> named;
   const Seconds instant = 6000;
   for (bool early : {true, false}) {
      if (!early) {
         // A second before: the cursor moves up to the instant, taking the
         // early ones down the levels into the due heap, where the late
         // ones go straight.
         clock.timeIs(instant - 1);
         EXPECT_EQ(sched->nextRunTime(), instant);
      }
      for (const Row& r : rows) {
         if (r.early != early) continue;
         tasks.push_back(std::make_unique<Rt::TimerTask>(sched, r.priority, r.name));
         named.push_back(std::make_unique<Named>());
         named.back()->ran = &ran;
         named.back()->notifierIs(tasks.back().get());
         tasks.back()->scheduleTaskDelay(instant - clock.now());
      }
   }
   EXPECT_EQ(sched->nextRunTime(), instant);
   clock.timeIs(instant);
   EXPECT_EQ(sched->runDue(), 6u);
   EXPECT_EQ(ran, (std::vector<std::string>{"late-p0", "early-p1", "late-p1", "early-p2",
                                            "late-p2", "early-p3"}));
}

TEST(SchedulerWheel, nextRunTimeIsExactForFarTimersAndFollowsCancels) {
   // Far apart, one per level and beyond the wheel: the event loop sleeps
   // until nextRunTime(), so it must be the exact instant, not a slot's start.
   Rt::VirtualClock clock{1000.0};
   auto sched = Rt::makePtr<Rt::TaskScheduler>(clock);
   const Seconds delays[] = {2e9, 5e8, 3e6, 7000.125, 30.5, 0.03125, kNever};
   std::vector<std::unique_ptr<Rt::TimerTask>> tasks;
   Seconds soonest = kNever;
   for (Seconds d : delays) {
      tasks.push_back(std::make_unique<Rt::TimerTask>(sched, 2, "t"));
      tasks.back()->scheduleTaskDelay(d);
      soonest = std::min(soonest, 1000 + d);
      EXPECT_EQ(sched->nextRunTime(), soonest) << d;
   }
   EXPECT_EQ(sched->armed(), 7u);
   // Cancel from the nearest outward: each time the next one is named.
   for (size_t i = tasks.size(); i-- > 0;) {
      if (delays[i] == kNever) continue;
      EXPECT_EQ(sched->nextRunTime(), 1000 + delays[i]);
      tasks[i]->cancel();
   }
   EXPECT_EQ(sched->nextRunTime(), kNever);
   EXPECT_EQ(sched->armed(), 1u);
   // An earlier one armed while idle is seen at once.
   tasks[0]->scheduleTaskDelay(123456.5);
   EXPECT_EQ(sched->nextRunTime(), 1000 + 123456.5);
   clock.timeIs(1000 + 123456.5);
   EXPECT_EQ(sched->runDue(), 1u);
   EXPECT_EQ(sched->nextRunTime(), kNever);
}

TEST(SchedulerWheel, cancelsFindTasksWhereverTheyMovedAndCrowdedTicksStayInOrder) {
   // Hundreds of tasks on a few instants of one tick, armed from every level
   // and beyond. At points along their way down, tasks are first armed
   // straight into the slots they were moved to, most of them cancelled at
   // once, and then the moved ones are cancelled, re-armed and destroyed.
   // A few tasks due in between stop the cursor short of the tick, at a
   // different level each time. Whether a cancel meets a task where it was
   // put or where it has been moved since, the rest must run at their
   // instants, in order.
   constexpr size_t kMoved = 600;
   constexpr size_t kJoining = 300;
   const Seconds stops[] = {0.3, 1.5, 3.1, 6.2, 20};
   constexpr size_t kStops = std::size(stops);
   const Seconds distances[] = {10, 100, 5000, 2e6, 2e8, 1e9};
   for (Seconds distance : distances) {
      SCOPED_TRACE("armed " + std::to_string(distance) + " s ahead");
      std::mt19937_64 rng{uint64_t(distance)};
      Model m(kMoved + kJoining + kStops);
      // Inside a block of every level, not at its start; 60 instants a
      // millisecond apart: one tick, ten tasks on each.
      const Seconds tick = m.clock.now() + distance + 5.3;
      auto armAt = [&](size_t id) { m.arm(id, tick + double(id % 60) * 1e-3 - m.clock.now()); };
      for (size_t id = 0; id < kMoved; ++id) armAt(id);
      for (Seconds before : {distance / 2, 100.0, 30.0, 10.0, 4.0, 1.0, 0.02}) {
         Seconds point = tick - before;
         if (point <= m.clock.now()) continue;
         m.advance(point - m.clock.now());
         for (size_t k = 0; k < kStops; ++k) m.arm(kMoved + kJoining + k, stops[k]);
         for (size_t id = kMoved; id < kMoved + kJoining; ++id) armAt(id);
         for (size_t id = kMoved; id < kMoved + kJoining; ++id) {
            if (rng() % 6 != 0) m.cancel(id);
         }
         for (size_t id = 0; id < kMoved; ++id) {
            switch (rng() % 12) {
               case 0: case 1: m.cancel(id); break;
               case 2: case 3: armAt(id); break;
               case 4: m.destroy(id); break;
               default: break;
            }
         }
         if (m.sched->armed() != m.order.size()) m.errors.push_back("armed() is off");
      }
      m.advance(tick + 30 - m.clock.now());
      EXPECT_EQ(m.errors, std::vector<std::string>{});
      EXPECT_EQ(m.sched->armed(), 0u);
   }
}
