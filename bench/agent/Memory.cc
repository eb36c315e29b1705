// Row 2: resident memory per lease of a running agent, filled the way a
// running agent fills: each client's query goes out and the server's answer
// comes back, leaving the persisted lease, the lease table's indexes, the
// published entry and the lease's expiry timer.
//
// Baseline: the same process's RSS with the agent running and no lease.
#include <cstdio>

#include "bench/agent/Rig.h"

namespace Tavrin::Bench {

bool runMemory(const Options& o) {
   const size_t n = o.leases ? o.leases : o.small ? 10000 : 1000000;
   const bool full = !o.small && n >= 1000000;
   LeasePlan plan(n);
   AgentRig rig(plan);
   rig.start();
   // One lease first, so that every per-agent structure the first lease
   // creates (its port's sets, the server's set) is in the empty figure.
   rig.fillByAnswers(0, 1);
   const size_t empty = residentBytes();
   double t0 = wallNow();
   rig.fillByAnswers(1, n);
   const double fillSeconds = wallNow() - t0;
   const size_t filled = residentBytes();

   const size_t published = rig.published()->ipMacLeaseSize();
   const size_t armed = rig.armedLeaseTimers();
   if (rig.leases() != n || published != n || armed != n) {
      std::fprintf(stderr, "memory: %zu leases, %zu published, %zu timers armed; wanted %zu\n",
                   rig.leases(), published, armed, n);
      return false;
   }
   Row row;
   row.name = "memory, " + std::to_string(n) + " leases";
   row.unit = "MB RSS";
   row.ours = double(filled) / 1e6;
   row.baseline = double(empty) / 1e6;
   row.figureName = "bytes per lease";
   row.figure = double(filled - empty) / double(n - 1);
   row.goal = "<= 600";
   row.met = row.figure <= 600;
   char note[160];
   std::snprintf(note, sizeof note, "filled by %zu query/answer exchanges in %.1f s", n, fillSeconds);
   row.notes.push_back(note);
   printRow(row, full);
   return true;
}

}  // namespace Tavrin::Bench
