// Row 3: a start with N persisted leases, from opening the database to an
// agent whose lease table holds every lease and whose scheduler holds every
// lease's expiry timer: SqliteStore::load into the state store's lease
// status, then the agent's start on the in-memory platform.
//
// Baseline: a bare SELECT of every row of the same file (sqlite3 C API,
// every column read), which any start has to pay.
#include <sqlite3.h>

#include <cstdio>
#include <filesystem>

#include "bench/agent/Rig.h"
#include "linux/SqliteStore.h"

namespace Tavrin::Bench {

namespace {

void removeDatabase(const std::string& path) {
   for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(path + suffix);
}

// The file a stopped tavrind leaves: written by the store itself.
void writeDatabase(const std::string& path, const LeasePlan& plan, Seconds now) {
   removeDatabase(path);
   Linux::SqliteStore store(path);
   auto status = Rt::makePtr<LeaseStatus>();
   auto rules = Rt::makePtr<ConfiguredInterfaceStatus>();
   fillStatus(*status, plan, now);
   for (auto port : plan.ports) rules->interfaceRuleIs(port, 1);
   store.follow(status, rules);
   if (!store.commit()) throw Linux::StoreError(store.lastError());
}

size_t bareSelect(const std::string& path) {
   sqlite3* db = nullptr;
   if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
      sqlite3_close_v2(db);
      return 0;
   }
   sqlite3_stmt* st = nullptr;
   sqlite3_prepare_v2(db,
                      "SELECT interface, mac, ip, server, last_transaction_time, "
                      "expiration_time FROM lease",
                      -1, &st, nullptr);
   size_t rows = 0;
   size_t bytes = 0;
   double times = 0;
   while (sqlite3_step(st) == SQLITE_ROW) {
      for (int c = 0; c < 4; ++c) {
         sqlite3_column_text(st, c);
         bytes += size_t(sqlite3_column_bytes(st, c));
      }
      times += sqlite3_column_double(st, 4) + sqlite3_column_double(st, 5);
      ++rows;
   }
   sqlite3_finalize(st);
   sqlite3_close_v2(db);
   return bytes && times > 0 ? rows : 0;
}

}  // namespace

bool runStart(const Options& o) {
   const size_t n = o.leases ? o.leases : o.small ? 10000 : 1000000;
   const bool full = !o.small && n >= 1000000;
   LeasePlan plan(n);
   const std::string path = o.dir + "/tavrin-bench-start.db";
   // The in-memory platform's clock starts at this instant; the persisted
   // times are on it, so that every lease is live at the start.
   const Seconds now = Platform::InMemoryPlatform().virtualClock().now();
   double t0 = wallNow();
   writeDatabase(path, plan, now);
   const double writeSeconds = wallNow() - t0;

   std::vector<double> ours, bare, loads, follow;
   const int rounds = 3;
   for (int r = 0; r < rounds; ++r) {
      double s = wallNow();
      size_t rows = bareSelect(path);
      bare.push_back(wallNow() - s);
      if (rows != n) {
         std::fprintf(stderr, "start: the bare select read %zu rows of %zu\n", rows, n);
         return false;
      }

      AgentRig rig(plan);
      s = wallNow();
      {
         Linux::SqliteStore store(path);
         auto rules = rig.platform().state<ConfiguredInterfaceStatus>("tavrin/interfaceStatus");
         auto report = store.load(*rig.leaseStatus(), *rules);
         loads.push_back(wallNow() - s);
         rig.start();
         ours.push_back(wallNow() - s);
         if (report.leases != n) {
            std::fprintf(stderr, "start: loaded %zu leases of %zu\n", report.leases, n);
            return false;
         }
         // What tavrind does next: find what the start changed. Reported,
         // not part of the figure.
         double f = wallNow();
         store.follow(rig.leaseStatus(), rules);
         follow.push_back(wallNow() - f);
         if (store.pending() != 0) {
            std::fprintf(stderr, "start: the start left %zu rows to rewrite\n", store.pending());
         }
      }
      if (rig.leases() != n || rig.armedLeaseTimers() != n) {
         std::fprintf(stderr, "start: %zu leases, %zu timers armed; wanted %zu\n", rig.leases(),
                      rig.armedLeaseTimers(), n);
         return false;
      }
   }
   removeDatabase(path);

   Row row;
   row.name = "start, " + std::to_string(n) + " persisted leases";
   row.unit = "s";
   row.ours = median(ours);
   row.baseline = median(bare);
   row.figureName = "x baseline";
   row.figure = row.ours / row.baseline;
   row.goal = "<= 2.5";
   row.met = row.figure <= 2.5;
   char note[300];
   std::snprintf(note, sizeof note,
                 "medians of %d rounds: open+load %.3f s, agent start %.3f s; the store's "
                 "follow() after the start %.3f s more; database written in %.1f s",
                 rounds, median(loads), median(ours) - median(loads), median(follow),
                 writeSeconds);
   row.notes.push_back(note);
   printRow(row, full);
   return true;
}

}  // namespace Tavrin::Bench
