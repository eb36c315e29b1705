// The lease timer workload: N timers at random instants over one lease time,
// a fraction of them re-armed, then every one expired in time order. The
// agent's TaskScheduler runs it next to what a plain program would write, a
// binary heap of (time, id) with lazy deletion for re-arms, in the same
// process and on the same CPU, so that the ratio survives a noisy machine.
//
//   scheduler_bench [--quick] [--timers N] [--rearm FRACTION] [--rounds R]
//                   [--lease-time SECONDS]
//
// Each figure is the median over the rounds; ours and the baseline alternate
// within a round. The goal: an expiry costs at most a quarter of the
// baseline's, and a re-arm about one hash lookup (std::unordered_map::find
// over the same number of keys).
#include <sched.h>

#include <algorithm>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <queue>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "rt/TaskScheduler.h"

using namespace Tavrin;

namespace {

constexpr Seconds kStart = 1000.0;

struct Options {
   size_t timers = 1'000'000;
   double rearm = 0.25;
   int rounds = 3;
   Seconds leaseTime = 3600;
};

// The same instants for both sides: every timer's first time, and the
// re-armed ids with their new times, in the order they are re-armed.
struct Workload {
   std::vector<Seconds> first;
   std::vector<uint32_t> rearmIds;
   std::vector<Seconds> rearmTimes;
};

Workload makeWorkload(const Options& o, uint64_t seed) {
   std::mt19937_64 rng(seed);
   // Millisecond instants, as lease expiries are: ties happen, and both sides
   // must handle them.
   std::uniform_int_distribution<int64_t> ms(1, int64_t(o.leaseTime * 1000));
   Workload w;
   w.first.resize(o.timers);
   for (auto& t : w.first) t = kStart + double(ms(rng)) / 1000.0;
   std::vector<uint32_t> ids(o.timers);
   for (uint32_t i = 0; i < ids.size(); ++i) ids[i] = i;
   std::shuffle(ids.begin(), ids.end(), rng);
   ids.resize(size_t(double(o.timers) * o.rearm));
   w.rearmIds = std::move(ids);
   w.rearmTimes.resize(w.rearmIds.size());
   for (auto& t : w.rearmTimes) t = kStart + double(ms(rng)) / 1000.0;
   return w;
}

// This thread's CPU time: on a shared machine the wall clock would also
// count the time other processes held the CPU.
struct Clock {
   static int64_t now() {
      timespec ts;
      clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
      return int64_t(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
   }
};
double nsPer(int64_t a, int64_t b, size_t n) { return n ? double(b - a) / double(n) : 0.0; }

// Re-arms come in two halves. The first reaches each timer's owner cold, as
// a stray re-arm would; the second has it in cache, as when the caller has
// just found the lease by its key, which is the agent's case: that half
// shows the scheduler's own price of a re-arm. Fetching the owner a few
// re-arms ahead stands for that lookup, on both sides alike.
constexpr size_t kAheadOwners = 16;

struct Figures {
   double arm = 0, rearmCold = 0, rearm = 0, expiry = 0;
};

// What the agent does: a lease owns its timer and the reactor the timer
// runs. A run touches the lease, as the baseline's run touches its record.
// The timer and its reactor share one cache line, as a lease machine would
// lay them out: the scheduler has just read that line.
uint64_t gFired = 0;

struct alignas(64) Lease {
   struct Reactor : Rt::TimerTask::Notifiee {
      void onTaskRun() override { ++gFired; }
   };
   Rt::TimerTask task;
   Reactor reactor;
   explicit Lease(const Rt::Ptr<Rt::TaskScheduler>& s) : task(s, 2, "lease") {
      reactor.notifierIs(&task);
   }
};

Figures runOurs(const Workload& w, bool& ok) {
   Rt::VirtualClock clock(kStart);
   auto sched = Rt::makePtr<Rt::TaskScheduler>(clock);
   gFired = 0;
   // Leases side by side, as the baseline's records are: both sides pay the
   // same miss to reach a timer's owner, and the figures differ by the
   // scheduler alone.
   std::deque<Lease> leases;
   for (size_t i = 0; i < w.first.size(); ++i) leases.emplace_back(sched);
   Figures f;
   auto a = Clock::now();
   for (size_t i = 0; i < w.first.size(); ++i) {
      leases[i].task.scheduleTaskDelay(w.first[i] - kStart);
   }
   auto b = Clock::now();
   size_t half = w.rearmIds.size() / 2;
   for (size_t i = 0; i < half; ++i) {
      leases[w.rearmIds[i]].task.scheduleTaskDelay(w.rearmTimes[i] - kStart);
   }
   auto b2 = Clock::now();
   for (size_t i = half; i < w.rearmIds.size(); ++i) {
      if (i + kAheadOwners < w.rearmIds.size()) {
         __builtin_prefetch(&leases[w.rearmIds[i + kAheadOwners]]);
      }
      leases[w.rearmIds[i]].task.scheduleTaskDelay(w.rearmTimes[i] - kStart);
   }
   auto c = Clock::now();
   // The event loop's way: sleep until the next run time, then run what is due.
   Seconds prev = 0;
   for (Seconds t = sched->nextRunTime(); t != std::numeric_limits<Seconds>::infinity();
        t = sched->nextRunTime()) {
      if (t < prev) ok = false;
      prev = t;
      clock.timeIs(t);
      while (sched->runNext(t)) {
      }
   }
   auto d = Clock::now();
   f.arm = nsPer(a, b, w.first.size());
   f.rearmCold = nsPer(b, b2, half);
   f.rearm = nsPer(b2, c, w.rearmIds.size() - half);
   f.expiry = nsPer(c, d, w.first.size());
   if (gFired != w.first.size() || sched->armed() != 0) ok = false;
   return f;
}

// What a plain program does: a record per id, a min-heap of (time, id), and a
// re-arm that pushes again and leaves the old entry to be skipped when popped.
Figures runBaseline(const Workload& w, bool& ok) {
   struct Record {
      Seconds due = 0;
      uint64_t fired = 0;
   };
   using Entry = std::pair<Seconds, uint32_t>;
   std::vector<Record> records(w.first.size());
   std::priority_queue<Entry, std::vector<Entry>, std::greater<Entry>> heap;
   uint64_t fired = 0;
   Figures f;
   auto a = Clock::now();
   for (uint32_t i = 0; i < w.first.size(); ++i) {
      records[i].due = w.first[i];
      heap.push({w.first[i], i});
   }
   auto b = Clock::now();
   size_t half = w.rearmIds.size() / 2;
   for (size_t i = 0; i < half; ++i) {
      records[w.rearmIds[i]].due = w.rearmTimes[i];
      heap.push({w.rearmTimes[i], w.rearmIds[i]});
   }
   auto b2 = Clock::now();
   for (size_t i = half; i < w.rearmIds.size(); ++i) {
      if (i + kAheadOwners < w.rearmIds.size()) {
         __builtin_prefetch(&records[w.rearmIds[i + kAheadOwners]]);
      }
      records[w.rearmIds[i]].due = w.rearmTimes[i];
      heap.push({w.rearmTimes[i], w.rearmIds[i]});
   }
   auto c = Clock::now();
   Seconds prev = 0;
   while (!heap.empty()) {
      auto [t, id] = heap.top();
      heap.pop();
      Record& r = records[id];
      if (r.due != t) continue;  // re-armed since: a stale entry
      if (t < prev) ok = false;
      prev = t;
      r.due = -1;
      ++r.fired;
      ++fired;
   }
   auto d = Clock::now();
   f.arm = nsPer(a, b, w.first.size());
   f.rearmCold = nsPer(b, b2, half);
   f.rearm = nsPer(b2, c, w.rearmIds.size() - half);
   f.expiry = nsPer(c, d, w.first.size());
   if (fired != w.first.size()) ok = false;
   return f;
}

// One hash lookup, the yardstick for a re-arm: find each re-armed id in a map
// holding every id, as an agent finds a lease by its key.
double runHashLookup(const Workload& w) {
   std::unordered_map<uint32_t, uint32_t> map;
   map.reserve(w.first.size());
   for (uint32_t i = 0; i < w.first.size(); ++i) map.emplace(i * 2654435761u, i);
   uint64_t sum = 0;
   auto a = Clock::now();
   for (uint32_t id : w.rearmIds) sum += map.find(id * 2654435761u)->second;
   auto b = Clock::now();
   if (sum == 42) std::puts("");  // keeps the loop
   return nsPer(a, b, w.rearmIds.size());
}

double median(std::vector<double> v) {
   std::sort(v.begin(), v.end());
   return v[v.size() / 2];
}

bool parse(int argc, char** argv, Options& o) {
   for (int i = 1; i < argc; ++i) {
      std::string a = argv[i];
      bool hasValue = i + 1 < argc;
      if (a == "--quick") {
         o.timers = 100'000;
         o.rounds = 1;
      } else if (a == "--timers" && hasValue) {
         o.timers = std::strtoull(argv[++i], nullptr, 10);
      } else if (a == "--rearm" && hasValue) {
         o.rearm = std::strtod(argv[++i], nullptr);
      } else if (a == "--rounds" && hasValue) {
         o.rounds = std::atoi(argv[++i]);
      } else if (a == "--lease-time" && hasValue) {
         o.leaseTime = std::strtod(argv[++i], nullptr);
      } else {
         return false;
      }
   }
   return o.timers > 0 && o.timers < (size_t(1) << 31) && o.rearm >= 0 && o.rearm <= 1 &&
          o.rounds > 0 && o.leaseTime >= 0.001;
}

}  // namespace

int main(int argc, char** argv) {
   Options o;
   if (!parse(argc, argv, o)) {
      std::fprintf(stderr,
                   "usage: %s [--quick] [--timers N] [--rearm FRACTION] [--rounds R] [--lease-time S]\n",
                   argv[0]);
      return 2;
   }
   // Both sides on one CPU: a migration in the middle of one side's run
   // would charge it for a cold cache the other never pays.
   int cpu = sched_getcpu();
   cpu_set_t set;
   CPU_ZERO(&set);
   CPU_SET(cpu, &set);
   if (sched_setaffinity(0, sizeof set, &set) != 0) std::perror("sched_setaffinity");

   // Per figure, ours and the baseline, one value per round.
   std::vector<Figures> ours, base;
   std::vector<double> hash;
   bool ok = true;
   for (int r = 0; r < o.rounds; ++r) {
      Workload w = makeWorkload(o, 42 + uint64_t(r));
      // Alternate which side goes first, so neither always inherits a warm
      // allocator or a cold cache.
      if (r % 2 == 0) {
         ours.push_back(runOurs(w, ok));
         base.push_back(runBaseline(w, ok));
      } else {
         base.push_back(runBaseline(w, ok));
         ours.push_back(runOurs(w, ok));
      }
      hash.push_back(runHashLookup(w));
   }
   if (!ok) {
      std::fprintf(stderr, "a timer fired out of order or not at all\n");
      return 1;
   }
   auto med = [](const std::vector<Figures>& v, double Figures::*m) {
      std::vector<double> x;
      for (const auto& f : v) x.push_back(f.*m);
      return median(x);
   };
   double h = median(hash);
   std::printf("scheduler: %zu timers over %.0f s, %.0f%% re-armed, median of %d round(s), cpu %d\n",
               o.timers, o.leaseTime, o.rearm * 100, o.rounds, cpu);
   std::printf("%-24s %10s %10s %16s\n", "ns per (thread CPU time)", "ours", "baseline",
               "ours/baseline");
   const std::pair<const char*, double Figures::*> rows[] = {
       {"arm", &Figures::arm},
       {"re-arm, owner cold", &Figures::rearmCold},
       {"re-arm, owner in cache", &Figures::rearm},
       {"expiry", &Figures::expiry},
   };
   for (auto [name, m] : rows) {
      double a = med(ours, m), b = med(base, m);
      std::printf("%-24s %10.1f %10.1f %16.3f\n", name, a, b, a / b);
   }
   std::printf("%-24s %10.1f\n", "hash lookup", h);
   double e = med(ours, &Figures::expiry) / med(base, &Figures::expiry);
   std::printf("expiry ours/baseline = %.3f (goal <= 0.25): %s\n", e, e <= 0.25 ? "met" : "MISSED");
   std::printf("re-arm (owner in cache) ours/hash lookup = %.2f (goal: about 1)\n",
               med(ours, &Figures::rearm) / h);
   return 0;
}
