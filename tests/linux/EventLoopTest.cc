// The event loop's contract: what an iteration runs and in which order, fd
// watches that change under a dispatch, signals through the loop, and the
// wait derived from the next timer. Pipes stand in for sockets; timers run
// on a virtual clock, and every wait is a poll, so nothing sleeps.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <climits>
#include <cmath>
#include <limits>

#include "linux/EventLoop.h"

using namespace Tavrin;
using Linux::EventLoop;
using Linux::UniqueFd;
using Rt::Ptr;

namespace {

struct Pipe {
   Pipe() {
      int fds[2];
      EXPECT_EQ(::pipe(fds), 0);
      r = UniqueFd(fds[0]);
      w = UniqueFd(fds[1]);
   }
   void poke() { ASSERT_EQ(::write(w.get(), "x", 1), 1); }
   UniqueFd r, w;
};

struct Fixture : ::testing::Test {
   Rt::VirtualClock clock{1000.0};
   Ptr<Rt::TaskScheduler> sched = Rt::makePtr<Rt::TaskScheduler>(clock);
   EventLoop loop{sched};
};

struct Recorder : Rt::TimerTask::Notifiee {
   Recorder(Rt::TimerTask& t, std::vector<std::string>& log, std::string name)
       : log(log), name(std::move(name)) {
      notifierIs(&t);
   }
   void onTaskRun() override { log.push_back(name); }
   std::vector<std::string>& log;
   std::string name;
};

bool signalBlocked(int signo) {
   sigset_t now;
   ::pthread_sigmask(SIG_SETMASK, nullptr, &now);
   return sigismember(&now, signo) == 1;
}

}  // namespace

TEST(EpollTimeout, followsTheNextTimerRoundedUpAndCapped) {
   constexpr Seconds kNever = std::numeric_limits<Seconds>::infinity();
   struct Case {
      const char* what;
      Seconds now, next;
      int maxWaitMs, expected;
   } cases[] = {
       {"no timer, no cap: wait for an fd", 10, kNever, -1, -1},
       {"no timer: the cap", 10, kNever, 250, 250},
       {"timer due: poll", 10, 10, -1, 0},
       {"timer overdue: poll", 10, 9, 100, 0},
       {"a fraction of a ms rounds up, never a busy wait", 10, 10.0004, -1, 1},
       {"whole ms", 10, 12.5, -1, 2500},
       {"the cap wins over a later timer", 10, 12.5, 100, 100},
       {"a sooner timer wins over the cap", 10, 10.05, 1000, 50},
       {"far future clamps", 0, 1e12, -1, INT_MAX},
   };
   for (const auto& c : cases) {
      EXPECT_EQ(Linux::epollTimeoutMs(c.now, c.next, c.maxWaitMs), c.expected) << c.what;
   }
}

using Loop = Fixture;

TEST_F(Loop, anIterationHandlesFdsThenDueTimersThenHooksInOrder) {
   std::vector<std::string> log;
   Pipe p;
   loop.fdIs(p.r.get(), EPOLLIN, [&](uint32_t ev) {
      char c;
      EXPECT_EQ(::read(p.r.get(), &c, 1), 1);
      log.push_back(ev & EPOLLIN ? "fd" : "fd?");
   });
   Rt::TimerTask due(sched, 2, "due");
   Rt::TimerTask later(sched, 2, "later");
   Recorder r1(due, log, "timer");
   Recorder r2(later, log, "later");
   due.scheduleTaskDelay(0);
   later.scheduleTaskDelay(5);
   loop.iterationEndIs([&] { log.push_back("commit"); });
   loop.iterationEndIs([&] { log.push_back("publish"); });
   p.poke();

   EXPECT_EQ(loop.runOnce(0), 2u);  // one fd event, one timer
   EXPECT_EQ(log, (std::vector<std::string>{"fd", "timer", "commit", "publish"}));

   log.clear();
   EXPECT_EQ(loop.runOnce(0), 0u);  // nothing ready, the later timer not due
   EXPECT_EQ(log, (std::vector<std::string>{"commit", "publish"}));

   log.clear();
   clock.advance(5);
   EXPECT_EQ(loop.runOnce(0), 1u);
   EXPECT_EQ(log, (std::vector<std::string>{"later", "commit", "publish"}));
}

TEST_F(Loop, aWatchRemovedOrReplacedDuringDispatchGetsNoStaleEvent) {
   // Both pipes are readable, so one wait collects both events. Whichever
   // handler runs first removes the other watch, closes its fd and puts a
   // new, idle watch on the same fd number: the second collected event was
   // for the old fd and must reach neither the old nor the new handler.
   Pipe a, b;
   int runs = 0, newHandlerRuns = 0;
   std::vector<std::unique_ptr<Pipe>> replacements;
   auto replace = [&](Pipe& victim) {
      int number = victim.r.get();
      loop.fdDel(number);
      victim.r.reset();
      auto fresh = std::make_unique<Pipe>();
      if (fresh->r.get() == number) {
         fresh->r.release();  // the kernel reused the number: victim.r owns it below
      } else {
         ASSERT_EQ(::dup2(fresh->r.get(), number), number);
      }
      loop.fdIs(number, EPOLLIN, [&](uint32_t) { ++newHandlerRuns; });
      victim.r = UniqueFd(number);
      replacements.push_back(std::move(fresh));
   };
   loop.fdIs(a.r.get(), EPOLLIN, [&](uint32_t) {
      ++runs;
      replace(b);
   });
   loop.fdIs(b.r.get(), EPOLLIN, [&](uint32_t) {
      ++runs;
      replace(a);
   });
   a.poke();
   b.poke();
   EXPECT_EQ(loop.runOnce(0), 1u);
   EXPECT_EQ(runs, 1);
   EXPECT_EQ(newHandlerRuns, 0);
   EXPECT_EQ(loop.fds(), 2u);
}

TEST_F(Loop, aHandlerMayRemoveItsOwnWatch) {
   Pipe p;
   int runs = 0;
   loop.fdIs(p.r.get(), EPOLLIN, [&](uint32_t) {
      ++runs;
      loop.fdDel(p.r.get());  // destroys this handler's watch while it runs
   });
   p.poke();
   loop.runOnce(0);
   loop.runOnce(0);  // still readable, but no longer watched
   EXPECT_EQ(runs, 1);
   EXPECT_EQ(loop.fds(), 0u);
}

TEST_F(Loop, aRefusedFdIsReportedNotWatched) {
   EXPECT_THROW(loop.fdIs(-1, EPOLLIN, [](uint32_t) {}), std::system_error);
   EXPECT_EQ(loop.fds(), 0u);
}

TEST_F(Loop, signalsArriveThroughTheLoopAndStopRun) {
   ASSERT_FALSE(signalBlocked(SIGUSR1));
   int usr1 = 0;
   loop.signalIs(SIGUSR1, [&] { ++usr1; });
   loop.signalIs(SIGUSR2, [&] { loop.stop(); });
   EXPECT_TRUE(signalBlocked(SIGUSR1));  // delivered by the loop, not asynchronously
   ::raise(SIGUSR1);
   EXPECT_EQ(usr1, 0);  // nothing happens outside the loop
   loop.runOnce(0);
   EXPECT_EQ(usr1, 1);

   // run() returns once a handler stops the loop, after that iteration.
   ::raise(SIGUSR1);
   ::raise(SIGUSR2);
   loop.run();
   EXPECT_EQ(usr1, 2);
   EXPECT_TRUE(loop.stopped());
}

TEST(LoopSignals, aSignalLeftUnreadDoesNotOutliveTheLoop) {
   Rt::VirtualClock clock;
   auto sched = Rt::makePtr<Rt::TaskScheduler>(clock);
   {
      EventLoop loop(sched);
      loop.signalIs(SIGUSR1, [] {});
      ::raise(SIGUSR1);  // pending; its default action would end this test
   }
   EXPECT_FALSE(signalBlocked(SIGUSR1));  // the mask from before the loop
   sigset_t pending;
   ::sigpending(&pending);
   EXPECT_EQ(sigismember(&pending, SIGUSR1), 0);
}
