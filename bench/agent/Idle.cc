// Row 5: an idle agent's periodic work must not grow with its lease count.
// Each lease's expiry timer sits in the scheduler until it is due, so 60
// seconds of idle time with leases that expire in a day should run the
// same few timers whether the agent holds a thousand leases or a hundred
// thousand. Shown on the virtual clock, counting timer runs: CPU time of an
// idle minute is too small to measure against the machine's noise.
//
// Baseline: the same agent, the same minute, with a hundredth of the leases.
#include <cmath>
#include <cstdio>
#include <optional>

#include "bench/agent/Rig.h"

namespace Tavrin::Bench {

namespace {

struct IdleMinute {
   size_t leases = 0;
   size_t armed = 0;  // tasks in the scheduler at the start of the minute
   size_t runs = 0;
   double cpuSeconds = 0;
};

std::optional<IdleMinute> idleMinute(size_t n) {
   LeasePlan plan(n);
   AgentRig rig(plan);
   rig.start();
   rig.fillByAnswers(0, n);
   // Whatever the fill left to do (a published entry's follow-up, a
   // query's last timer) is not idleness.
   rig.platform().advance(5);
   if (rig.leases() != n || rig.armedLeaseTimers() != n) {
      std::fprintf(stderr, "idle: %zu leases, %zu timers armed; wanted %zu\n", rig.leases(),
                   rig.armedLeaseTimers(), n);
      return std::nullopt;
   }
   IdleMinute m;
   m.leases = n;
   m.armed = rig.platform().scheduler()->armed();
   double c0 = cpuNow();
   rig.platform().advance(60, [&m] { ++m.runs; });
   m.cpuSeconds = cpuNow() - c0;
   return m;
}

}  // namespace

bool runIdle(const Options& o) {
   const size_t big = o.leases ? o.leases : o.small ? 10000 : 100000;
   const size_t small = big / 100;
   auto few = idleMinute(small);
   auto many = idleMinute(big);
   if (!few || !many) return false;

   Row row;
   row.name = "idle minute, " + std::to_string(big) + " vs " + std::to_string(small) + " leases";
   row.unit = "timer runs";
   row.ours = double(many->runs);
   row.baseline = double(few->runs);
   row.figure = few->runs ? double(many->runs) / double(few->runs) : many->runs ? INFINITY : 1.0;
   // Counting runs alone would miss one periodic task that walks every
   // lease; its CPU would not: a walk over 100,000 leases takes milliseconds.
   row.goal = "<= 1, CPU < 1 ms";
   row.met = many->runs <= few->runs && many->cpuSeconds < 1e-3;
   char note[200];
   std::snprintf(note, sizeof note,
                 "armed tasks %zu vs %zu; CPU in the minute %.0f us vs %.0f us", many->armed,
                 few->armed, many->cpuSeconds * 1e6, few->cpuSeconds * 1e6);
   row.notes.push_back(note);
   printRow(row, !o.small);
   return true;
}

}  // namespace Tavrin::Bench
