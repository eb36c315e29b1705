// The persisted state-store entities ("tavrin/leaseStatus" and
// "tavrin/interfaceStatus") mirrored in an SQLite database, so that a
// restarted tavrind finds its leases and rules as an agent restarted on a
// switch finds them in the state store that outlived it.
//
// Use: open, load() into the entities before the agent is built, follow()
// them, and commit() once per event-loop iteration. A commit writes every
// change noted since the last successful one in a single transaction; when
// it fails (disk full, file made read-only, another process holding the
// write lock) it keeps what it had to write and the next commit tries again.
// The schema is described in docs/state.md.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "linux/SqliteStoreDb.h"
#include "model/TavrinTypes.h"

namespace Tavrin::Linux {

class StoreQueue;
class StoreFollower;

// What load() found.
struct StoreLoadReport {
   size_t leases = 0;
   size_t rules = 0;
   // One line per row that could not be read back (edited by hand or
   // damaged); those rows are dropped at the first commit after follow().
   std::vector<std::string> skipped;
};

struct StoreCounters {
   uint64_t commits = 0;         // commits that wrote what was pending
   uint64_t commitFailures = 0;  // commits that failed and kept it
   uint64_t transactions = 0;    // write transactions SQLite completed
   uint64_t rowChanges = 0;      // rows inserted, updated or deleted by commits
};

class SqliteStore {
 public:
   static constexpr int64_t kSchemaVersion = 1;
   // "Tavr": tells tavrind's files from other SQLite databases.
   static constexpr int64_t kApplicationId = 0x54617672;
   // How long opening may wait for another process's lock on the file.
   static constexpr int kStartBusyTimeoutMs = 5000;

   // Opens or creates the database. Throws StoreError, naming the file and
   // the reason, when it cannot be opened, is not an SQLite database, belongs
   // to another program, or was written by a newer tavrind.
   explicit SqliteStore(const std::string& path);
   ~SqliteStore();
   SqliteStore(const SqliteStore&) = delete;
   SqliteStore& operator=(const SqliteStore&) = delete;

   const std::string& path() const;

   // Fills the entities from the database. Throws StoreError when the
   // database cannot be read.
   StoreLoadReport load(LeaseStatus& leaseStatus, ConfiguredInterfaceStatus& interfaceStatus);
   // load() from a database that cannot be opened for writing (a read-only
   // file system): nothing is created or changed. A missing file loads
   // nothing. Throws StoreError when the file cannot be read.
   static StoreLoadReport loadReadOnly(const std::string& path, LeaseStatus& leaseStatus,
                                       ConfiguredInterfaceStatus& interfaceStatus);

   // Brings the database in line with the entities as they stand now (rows
   // they lack are deleted, differing rows rewritten, at the next commit),
   // then notes every later change of any interface set, lease, lease time or
   // rule. Following other entities replaces the previous subscription; empty
   // pointers stop following. Throws StoreError when the database cannot be
   // read.
   void follow(Ptr<LeaseStatus> leaseStatus, Ptr<ConfiguredInterfaceStatus> interfaceStatus);

   // Writes what is pending in one transaction. True when nothing was
   // pending or all of it was written; false when the write failed, in which
   // case everything stays pending and lastError() says why.
   bool commit();
   // Rows (or whole interfaces) waiting for a commit.
   size_t pending() const;
   // Why the last commit failed; empty once a commit succeeds.
   const std::string& lastError() const { return lastError_; }
   const StoreCounters& counters() const { return counters_; }

 private:
   class Statements;

   // A reader only: no statements, no schema changes.
   explicit SqliteStore(std::unique_ptr<Sqlite::Connection> db);
   // Checks the file is tavrind's state in this schema; true if it is empty.
   bool checkSchema();
   void openSchema();
   void createSchema();
   void reconcileLeases(const LeaseStatus& leaseStatus);
   void reconcileRules(const ConfiguredInterfaceStatus& interfaceStatus);
   void writePending();
   static int onCommit(void* self);

   std::unique_ptr<Sqlite::Connection> db_;
   std::unique_ptr<Statements> statements_;
   std::unique_ptr<StoreQueue> queue_;
   std::unique_ptr<StoreFollower> follower_;
   std::string lastError_;
   StoreCounters counters_;
};

}  // namespace Tavrin::Linux
