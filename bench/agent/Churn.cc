// Row 4: persisting lease churn. Ours: renewals written into the lease
// status (both times of a lease change, as an answer's renewal does), then
// SqliteStore::commit() once per iteration of B changes, as tavrind commits
// once per event-loop iteration. Baseline: a bare prepared upsert loop on
// the same file, schema and key order, one BEGIN IMMEDIATE ... COMMIT per B
// rows, WAL with synchronous=FULL as the store sets it.
//
// fsync and fdatasync are counted by interposing them in this executable,
// so the changes per fsync are what reached the disk, checkpoints included.
#include <dlfcn.h>
#include <sqlite3.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <random>

#include "bench/agent/Rig.h"
#include "linux/SqliteStore.h"

namespace {

std::atomic<uint64_t> syncCalls{0};

template <class F>
F nextSymbol(const char* name) {
   return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int fsync(int fd) {
   static auto real = nextSymbol<int (*)(int)>("fsync");
   ++syncCalls;
   return real(fd);
}

extern "C" int fdatasync(int fd) {
   static auto real = nextSymbol<int (*)(int)>("fdatasync");
   ++syncCalls;
   return real(fd);
}

namespace Tavrin::Bench {

namespace {

void removeDatabase(const std::string& path) {
   for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(path + suffix);
}

struct Side {
   uint64_t changes = 0;
   uint64_t syncs = 0;
   double seconds = 0;
   double rate() const { return double(changes) / seconds; }
   double perSync() const { return syncs ? double(changes) / double(syncs) : 0; }
};

// The stored text of each lease's key, made once: the baseline pays no
// formatting, as a bare loop would not.
struct StoredKeys {
   std::vector<std::string> intf, mac, ip, server;
   explicit StoredKeys(const LeasePlan& plan) {
      for (size_t i = 0; i < plan.size(); ++i) {
         intf.push_back(plan.intf(i).name());
         mac.push_back(plan.mac(i).str());
         ip.push_back(plan.ip(i).str());
         server.push_back(plan.server.str());
      }
   }
};

class BareWriter {
 public:
   explicit BareWriter(const std::string& path) {
      sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr);
      sqlite3_exec(db_, "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL", nullptr, nullptr,
                   nullptr);
      sqlite3_prepare_v3(db_,
                         "INSERT INTO lease VALUES (?1, ?2, ?3, ?4, ?5, ?6) "
                         "ON CONFLICT (interface, mac, ip, server) DO UPDATE SET "
                         "last_transaction_time = excluded.last_transaction_time, "
                         "expiration_time = excluded.expiration_time",
                         -1, SQLITE_PREPARE_PERSISTENT, &upsert_, nullptr);
   }
   ~BareWriter() {
      sqlite3_finalize(upsert_);
      sqlite3_close_v2(db_);
   }
   bool batch(const StoredKeys& k, const size_t* idx, size_t count, double t) {
      bool ok = sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK;
      for (size_t j = 0; j < count; ++j) {
         size_t i = idx[j];
         sqlite3_bind_text(upsert_, 1, k.intf[i].data(), int(k.intf[i].size()), SQLITE_STATIC);
         sqlite3_bind_text(upsert_, 2, k.mac[i].data(), int(k.mac[i].size()), SQLITE_STATIC);
         sqlite3_bind_text(upsert_, 3, k.ip[i].data(), int(k.ip[i].size()), SQLITE_STATIC);
         sqlite3_bind_text(upsert_, 4, k.server[i].data(), int(k.server[i].size()), SQLITE_STATIC);
         sqlite3_bind_double(upsert_, 5, t);
         sqlite3_bind_double(upsert_, 6, t + LeasePlan::kLeaseTime);
         ok = ok && sqlite3_step(upsert_) == SQLITE_DONE;
         sqlite3_reset(upsert_);
      }
      return sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK && ok;
   }

 private:
   sqlite3* db_ = nullptr;
   sqlite3_stmt* upsert_ = nullptr;
};

}  // namespace

bool runChurn(const Options& o) {
   const size_t n = o.leases ? o.leases : o.small ? 10000 : 1000000;
   const bool full = !o.small;
   const std::vector<size_t> batches =
       !o.batches.empty() ? o.batches : std::vector<size_t>{1, 10, 100, 1000};
   const double seconds = o.seconds > 0 ? o.seconds : o.small ? 0.3 : 3.0;
   LeasePlan plan(n);
   const std::string path = o.dir + "/tavrin-bench-churn.db";
   const Seconds start = 1000.0;

   removeDatabase(path);
   auto status = Rt::makePtr<LeaseStatus>();
   auto rules = Rt::makePtr<ConfiguredInterfaceStatus>();
   fillStatus(*status, plan, start);
   Linux::SqliteStore store(path);
   store.follow(status, rules);
   if (!store.commit()) {
      std::fprintf(stderr, "churn: writing the leases failed: %s\n", store.lastError().c_str());
      return false;
   }
   std::vector<Ptr<IpMacLease>> leases;
   leases.reserve(n);
   for (size_t i = 0; i < n; ++i) {
      leases.push_back(status->interfaceLeaseSet(plan.intf(i))
                           ->ipMacLease({plan.mac(i), plan.ip(i), IpGenAddr(plan.server)}));
   }
   StoredKeys keys(plan);
   BareWriter bare(path);

   // Both sides renew the same leases in the same order: a random stream,
   // distinct within an iteration, restarted for each side.
   std::vector<size_t> stream(n);
   for (size_t i = 0; i < n; ++i) stream[i] = i;
   std::shuffle(stream.begin(), stream.end(), std::mt19937_64(7));
   Seconds clock = start;

   for (size_t b : batches) {
      if (b > n) continue;
      Side ours, base;
      // Interleaved halves, so that drift hits both sides.
      for (int half = 0; half < 2; ++half) {
         size_t at = 0;
         uint64_t sync0 = syncCalls;
         double s = wallNow();
         while (wallNow() - s < seconds / 2) {
            if (at + b > n) at = 0;
            clock += 1;
            for (size_t j = at; j < at + b; ++j) {
               const auto& lease = leases[stream[j]];
               lease->lastTransactionTimeIs(clock);
               lease->expirationTimeIs(clock + LeasePlan::kLeaseTime);
            }
            if (!store.commit()) {
               std::fprintf(stderr, "churn: commit failed: %s\n", store.lastError().c_str());
               return false;
            }
            at += b;
            ours.changes += b;
         }
         ours.seconds += wallNow() - s;
         ours.syncs += syncCalls - sync0;

         at = 0;
         sync0 = syncCalls;
         s = wallNow();
         while (wallNow() - s < seconds / 2) {
            if (at + b > n) at = 0;
            clock += 1;
            if (!bare.batch(keys, &stream[at], b, clock)) {
               std::fprintf(stderr, "churn: the bare loop's transaction failed\n");
               return false;
            }
            at += b;
            base.changes += b;
         }
         base.seconds += wallNow() - s;
         base.syncs += syncCalls - sync0;
      }

      Row row;
      row.name = "churn, " + std::to_string(b) + " changes per iteration, " + std::to_string(n) +
                 " leases stored";
      row.unit = "changes/s";
      row.ours = ours.rate();
      row.baseline = base.rate();
      row.figure = row.ours / row.baseline;
      row.goal = ">= 0.5";
      row.met = row.figure >= 0.5;
      char note[200];
      std::snprintf(note, sizeof note,
                    "changes per fsync: ours %.1f, baseline %.1f (goal >= 100 under load)%s",
                    ours.perSync(), base.perSync(),
                    !full || b < 100    ? ""
                    : ours.perSync() >= 100 ? " [MET]"
                                            : " [MISSED]");
      row.notes.push_back(note);
      printRow(row, full);
   }
   removeDatabase(path);
   return true;
}

}  // namespace Tavrin::Bench
