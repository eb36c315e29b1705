// tavrin-bench-agent ROW... [--small] [--leases N] [--cpu C] [--dir D]
//                   [--batches 1,10,100] [--seconds S]
// Rows: lookup memory start churn idle, or all. Each row runs its baseline
// in the same process, pinned to the same CPU, and prints one line per
// figure: ours, the baseline, the figure computed from both, and its goal.
// --small runs every row at a size a CI job can afford; its figures carry
// no verdict. Memory must run first in its process (run.sh gives every row
// a process of its own): memory freed by an earlier row would be reused.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/agent/Rig.h"

using namespace Tavrin::Bench;

namespace {

int usage() {
   std::fprintf(stderr,
                "usage: tavrin-bench-agent {lookup|memory|start|churn|idle|all}... [--small]\n"
                "       [--leases N] [--cpu C] [--dir D] [--batches B,B,..] [--seconds S]\n");
   return 2;
}

}  // namespace

int main(int argc, char** argv) {
   Options o;
   std::vector<std::string> rows;
   for (int i = 1; i < argc; ++i) {
      std::string a = argv[i];
      auto value = [&]() -> std::string { return i + 1 < argc ? argv[++i] : ""; };
      if (a == "--small") {
         o.small = true;
      } else if (a == "--leases") {
         o.leases = std::strtoull(value().c_str(), nullptr, 10);
      } else if (a == "--cpu") {
         o.cpu = std::atoi(value().c_str());
      } else if (a == "--dir") {
         o.dir = value();
      } else if (a == "--seconds") {
         o.seconds = std::atof(value().c_str());
      } else if (a == "--batches") {
         std::string list = value();
         for (size_t at = 0; at < list.size();) {
            size_t comma = list.find(',', at);
            if (comma == std::string::npos) comma = list.size();
            o.batches.push_back(std::strtoull(list.substr(at, comma - at).c_str(), nullptr, 10));
            at = comma + 1;
         }
      } else if (a == "all") {
         // Memory first, while the heap is fresh.
         rows.insert(rows.end(), {"memory", "lookup", "start", "churn", "idle"});
      } else if (a == "lookup" || a == "memory" || a == "start" || a == "churn" || a == "idle") {
         rows.push_back(a);
      } else {
         return usage();
      }
   }
   if (rows.empty()) return usage();
   // Both sides of every row on one CPU: the other may be busy with
   // someone else's build.
   if (!pinToCpu(o.cpu)) std::fprintf(stderr, "warning: could not pin to CPU %d\n", o.cpu);
   bool ok = true;
   for (const auto& r : rows) {
      bool done = r == "lookup"   ? runLookup(o)
                  : r == "memory" ? runMemory(o)
                  : r == "start"  ? runStart(o)
                  : r == "churn"  ? runChurn(o)
                                  : runIdle(o);
      ok = ok && done;
   }
   return ok ? 0 : 1;
}
