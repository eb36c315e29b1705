#include "linux/SqliteStore.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>

#include "linux/SqliteStoreFollower.h"

namespace Tavrin::Linux {

namespace {

// Addresses and MACs are stored as text so that the file reads plainly in
// the sqlite3 shell. The empty address (no address at all) is stored as ''
// so that it comes back as itself rather than as 0.0.0.0.
std::string addrText(const IpGenAddr& a) {
   return a.isEmpty() ? std::string() : a.str();
}

std::optional<IpGenAddr> parseAddrText(std::string_view text) {
   if (text.empty()) return IpGenAddr();
   return IpGenAddr::parse(text);
}

StoredLeaseKey storedKey(IntfId intf, const LeaseKey& key) {
   return {intf.name(), key.mac.str(), addrText(key.ip), addrText(key.dhcpAddr)};
}

std::string describeRow(const StoredLeaseKey& row) {
   return "lease row (interface '" + row.interface + "', mac '" + row.mac + "', ip '" + row.ip +
          "', server '" + row.server + "')";
}

struct ParsedLease {
   IntfId intf;
   LeaseKey key;
};

// Reads a stored lease key back; on failure says which field is bad.
std::optional<ParsedLease> parseLeaseRow(const StoredLeaseKey& row, std::string& why) {
   auto intf = IntfId::parse(row.interface);
   auto mac = EthAddr::parse(row.mac);
   auto ip = parseAddrText(row.ip);
   auto server = parseAddrText(row.server);
   why = !intf     ? "bad interface name"
         : !mac    ? "bad MAC address"
         : !ip     ? "bad IP address"
         : !server ? "bad server address"
                   : "";
   if (!why.empty()) return std::nullopt;
   return ParsedLease{*intf, {*mac, *ip, *server}};
}

constexpr const char* kSelectLeases =
    "SELECT interface, mac, ip, server, last_transaction_time, expiration_time FROM lease";
constexpr const char* kSelectRules = "SELECT interface, rule FROM interface_rule";

StoredLeaseKey rowKey(const Sqlite::Statement& s) {
   return {std::string(s.text(0)), std::string(s.text(1)), std::string(s.text(2)),
           std::string(s.text(3))};
}

// STRICT makes SQLite refuse a value of the wrong type (a time written as
// text by a hand edit); WITHOUT ROWID keeps each table a single B-tree on
// its natural key.
constexpr const char* kSchema = R"sql(
CREATE TABLE lease (
   interface TEXT NOT NULL,
   mac TEXT NOT NULL,
   ip TEXT NOT NULL,
   server TEXT NOT NULL,
   last_transaction_time REAL NOT NULL,
   expiration_time REAL NOT NULL,
   PRIMARY KEY (interface, mac, ip, server)
) STRICT, WITHOUT ROWID;
CREATE TABLE interface_rule (
   interface TEXT NOT NULL PRIMARY KEY,
   rule INTEGER NOT NULL
) STRICT, WITHOUT ROWID;
)sql";

std::string hex(int64_t v) {
   char buf[24];
   std::snprintf(buf, sizeof buf, "0x%08llx", static_cast<unsigned long long>(uint32_t(v)));
   return buf;
}

}  // namespace

// The statements every commit uses, prepared once.
class SqliteStore::Statements {
 public:
   explicit Statements(Sqlite::Connection& db)
       : upsertLease(db,
                     "INSERT INTO lease VALUES (?1, ?2, ?3, ?4, ?5, ?6) "
                     "ON CONFLICT (interface, mac, ip, server) DO UPDATE SET "
                     "last_transaction_time = excluded.last_transaction_time, "
                     "expiration_time = excluded.expiration_time",
                     true),
         deleteLease(db,
                     "DELETE FROM lease WHERE interface = ?1 AND mac = ?2 AND ip = ?3 "
                     "AND server = ?4",
                     true),
         deleteInterfaceLeases(db, "DELETE FROM lease WHERE interface = ?1", true),
         upsertRule(db,
                    "INSERT INTO interface_rule VALUES (?1, ?2) "
                    "ON CONFLICT (interface) DO UPDATE SET rule = excluded.rule",
                    true),
         deleteRule(db, "DELETE FROM interface_rule WHERE interface = ?1", true) {}

   void leaseIs(const StoredLeaseKey& k, Seconds lastTransaction, Seconds expiration) {
      upsertLease.bind(1, k.interface).bind(2, k.mac).bind(3, k.ip).bind(4, k.server);
      upsertLease.bind(5, lastTransaction).bind(6, expiration).run();
   }
   void leaseDel(const StoredLeaseKey& k) {
      deleteLease.bind(1, k.interface).bind(2, k.mac).bind(3, k.ip).bind(4, k.server).run();
   }

   Sqlite::Statement upsertLease;
   Sqlite::Statement deleteLease;
   Sqlite::Statement deleteInterfaceLeases;
   Sqlite::Statement upsertRule;
   Sqlite::Statement deleteRule;
};

SqliteStore::SqliteStore(const std::string& path)
    : db_(std::make_unique<Sqlite::Connection>(path)), queue_(std::make_unique<StoreQueue>()) {
   // At start a reader (an operator's sqlite3, or one recovering the WAL
   // after a crash) may hold the file for a moment; waiting a little beats
   // refusing to start. follow() turns waiting off for the loop's commits.
   sqlite3_busy_timeout(db_->get(), kStartBusyTimeoutMs);
   openSchema();
   statements_ = std::make_unique<Statements>(*db_);
   sqlite3_commit_hook(db_->get(), &SqliteStore::onCommit, this);
}

SqliteStore::~SqliteStore() {
   follower_.reset();
   if (db_) sqlite3_commit_hook(db_->get(), nullptr, nullptr);
}

const std::string& SqliteStore::path() const {
   return db_->path();
}

int SqliteStore::onCommit(void* self) {
   ++static_cast<SqliteStore*>(self)->counters_.transactions;
   return 0;  // let the commit go ahead
}

bool SqliteStore::checkSchema() {
   const std::string& path = db_->path();
   int64_t appId = 0;
   try {
      appId = db_->queryInt("PRAGMA application_id", "reading the header");
   } catch (const StoreError& e) {
      if ((e.code() & 0xff) == SQLITE_CANTOPEN) {
         // A database in WAL mode needs its -wal and -shm files next to it;
         // SQLite only says it cannot open, which hides the real cause.
         auto dir = std::filesystem::path(path).parent_path();
         if (dir.empty()) dir = ".";
         if (::access(dir.c_str(), W_OK) != 0) {
            throw StoreError(path + ": cannot open: its directory " + dir.string() +
                                 " is not writable (" + std::strerror(errno) +
                                 "); tavrind keeps its write-ahead log there",
                             e.code());
         }
      }
      if (e.code() != SQLITE_NOTADB) throw;
      throw StoreError(path + ": not an SQLite database; is this the right file?", e.code());
   }
   int64_t version = db_->queryInt("PRAGMA user_version", "reading the schema version");
   int64_t objects = db_->queryInt("SELECT count(*) FROM sqlite_schema", "reading the schema");
   bool fresh = appId == 0 && version == 0 && objects == 0;
   if (!fresh && appId != kApplicationId) {
      throw StoreError(path + ": an SQLite database of another program (application id " +
                       hex(appId) + "), not tavrind's state");
   }
   if (!fresh && version != kSchemaVersion) {
      throw StoreError(path + ": schema version " + std::to_string(version) +
                       " is not the one this tavrind reads (" + std::to_string(kSchemaVersion) +
                       "); it was written by another release");
   }
   return fresh;
}

void SqliteStore::openSchema() {
   const bool fresh = checkSchema();
   const std::string& path = db_->path();
   if (sqlite3_db_readonly(db_->get(), "main") == 1) {
      throw StoreError(path + ": opened read-only; tavrind must be able to write it",
                       SQLITE_READONLY);
   }
   // Changing the journal mode is not possible inside a transaction, and on
   // a file system without shared memory SQLite quietly keeps the old mode:
   // check what it answered.
   std::string mode = db_->queryText("PRAGMA journal_mode = WAL", "switching to WAL");
   if (mode != "wal") {
      throw StoreError(path + ": cannot use write-ahead logging (journal mode stays '" + mode +
                       "')");
   }
   // FULL: with WAL, NORMAL may lose the last commits on power loss, and
   // those may already be published to the data plane; the price is one
   // fsync per iteration that changed something.
   db_->exec("PRAGMA synchronous = FULL", "setting synchronous");
   if (fresh) createSchema();
}

StoreLoadReport SqliteStore::loadReadOnly(const std::string& path, LeaseStatus& leaseStatus,
                                          ConfiguredInterfaceStatus& interfaceStatus) {
   std::error_code ec;
   if (!std::filesystem::exists(path, ec)) return {};
   std::unique_ptr<Sqlite::Connection> db;
   try {
      // A crashed daemon leaves its log and the log's index behind, and
      // with them the file reads whole; after a clean stop there is
      // neither, and on a read-only file system the index cannot be made:
      // the main file then holds everything, read as immutable.
      db = std::make_unique<Sqlite::Connection>(path, Sqlite::Connection::Access::readOnly);
      db->queryInt("PRAGMA application_id", "reading the header");
   } catch (const StoreError&) {
      db = std::make_unique<Sqlite::Connection>(path, Sqlite::Connection::Access::immutable);
   }
   SqliteStore reader(std::move(db));
   if (reader.checkSchema()) return {};
   return reader.load(leaseStatus, interfaceStatus);
}

SqliteStore::SqliteStore(std::unique_ptr<Sqlite::Connection> db)
    : db_(std::move(db)), queue_(std::make_unique<StoreQueue>()) {}

void SqliteStore::createSchema() {
   Sqlite::WriteTransaction tx(*db_);
   db_->exec(kSchema, "creating the schema");
   db_->exec(("PRAGMA application_id = " + std::to_string(kApplicationId)).c_str(),
             "setting the application id");
   db_->exec(("PRAGMA user_version = " + std::to_string(kSchemaVersion)).c_str(),
             "setting the schema version");
   tx.commit();
}

StoreLoadReport SqliteStore::load(LeaseStatus& leaseStatus,
                                  ConfiguredInterfaceStatus& interfaceStatus) {
   StoreLoadReport report;
   Sqlite::Statement leases(*db_, kSelectLeases);
   while (leases.step()) {
      StoredLeaseKey row = rowKey(leases);
      std::string why;
      auto parsed = parseLeaseRow(row, why);
      if (!parsed) {
         report.skipped.push_back(describeRow(row) + ": " + why);
         continue;
      }
      auto lease = leaseStatus.interfaceLeaseSetIs(parsed->intf)->ipMacLeaseIs(parsed->key);
      lease->lastTransactionTimeIs(leases.real(4));
      lease->expirationTimeIs(leases.real(5));
      ++report.leases;
   }
   Sqlite::Statement rules(*db_, kSelectRules);
   while (rules.step()) {
      std::string name(rules.text(0));
      auto intf = IntfId::parse(name);
      int64_t rule = rules.integer(1);
      if (!intf || rule < 0 || rule > int64_t(UINT32_MAX)) {
         report.skipped.push_back("interface_rule row (interface '" + name + "', rule " +
                                  std::to_string(rule) +
                                  "): " + (!intf ? "bad interface name" : "rule out of range"));
         continue;
      }
      interfaceStatus.interfaceRuleIs(*intf, InterfaceRule(rule));
      ++report.rules;
   }
   return report;
}

void SqliteStore::follow(Ptr<LeaseStatus> leaseStatus,
                         Ptr<ConfiguredInterfaceStatus> interfaceStatus) {
   follower_.reset();
   queue_->clear();
   try {
      if (leaseStatus) reconcileLeases(*leaseStatus);
      if (interfaceStatus) reconcileRules(*interfaceStatus);
   } catch (...) {
      queue_->clear();
      throw;
   }
   // From here on commits run in the agent's loop, which must never block
   // on another process's lock: a busy database fails the commit, and the
   // changes wait for the next try.
   sqlite3_busy_timeout(db_->get(), 0);
   if (!leaseStatus && !interfaceStatus) return;
   follower_ =
       std::make_unique<StoreFollower>(std::move(leaseStatus), std::move(interfaceStatus), *queue_);
}

// One pass over the stored rows, without holding a copy of them: a row that
// matches no lease exactly is noted for deletion; a lease whose times differ
// is noted for rewriting; and an interface with more leases than matching
// rows has all its leases noted, which is cheaper than remembering which
// rows were seen.
void SqliteStore::reconcileLeases(const LeaseStatus& leaseStatus) {
   std::map<IntfId, size_t> matched;
   Sqlite::Statement rows(*db_, kSelectLeases);
   while (rows.step()) {
      StoredLeaseKey row = rowKey(rows);
      std::string why;
      auto parsed = parseLeaseRow(row, why);
      Ptr<const IpMacLease> lease;
      if (parsed) {
         if (auto set = leaseStatus.interfaceLeaseSet(parsed->intf)) {
            lease = set->ipMacLease(parsed->key);
         }
      }
      if (!lease || storedKey(parsed->intf, lease->key()) != row) {
         queue_->strayLeaseIs(std::move(row));
         continue;
      }
      ++matched[parsed->intf];
      if (lease->lastTransactionTime() != rows.real(4) || lease->expirationTime() != rows.real(5)) {
         queue_->leaseIs(parsed->intf, lease->key());
      }
   }
   for (const auto& [intf, set] : leaseStatus.interfaceLeaseSetAll()) {
      if (matched[intf] == set->ipMacLeaseSize()) continue;
      for (const auto& [key, lease] : set->ipMacLeaseAll()) queue_->leaseIs(intf, key);
   }
}

void SqliteStore::reconcileRules(const ConfiguredInterfaceStatus& interfaceStatus) {
   std::set<IntfId> stored;
   Sqlite::Statement rows(*db_, kSelectRules);
   while (rows.step()) {
      std::string name(rows.text(0));
      auto intf = IntfId::parse(name);
      auto rule = intf ? interfaceStatus.interfaceRule(*intf) : std::nullopt;
      if (!rule) {
         queue_->strayRuleIs(std::move(name));
         continue;
      }
      stored.insert(*intf);
      if (int64_t(*rule) != rows.integer(1)) queue_->ruleIs(*intf);
   }
   for (const auto& [intf, rule] : interfaceStatus.interfaceRuleAll()) {
      if (!stored.count(intf)) queue_->ruleIs(intf);
   }
}

size_t SqliteStore::pending() const {
   return queue_->size();
}

bool SqliteStore::commit() {
   if (queue_->size() == 0) return true;
   int64_t changesBefore = sqlite3_total_changes64(db_->get());
   try {
      Sqlite::WriteTransaction tx(*db_);
      writePending();
      tx.commit();
   } catch (const StoreError& e) {
      lastError_ = e.what();
      ++counters_.commitFailures;
      return false;
   }
   counters_.rowChanges += uint64_t(sqlite3_total_changes64(db_->get()) - changesBefore);
   ++counters_.commits;
   queue_->clear();
   lastError_.clear();
   return true;
}

// Whole-interface and stray deletions go first, so that a lease set deleted
// and created again within one iteration ends with its new leases only.
void SqliteStore::writePending() {
   auto& st = *statements_;
   for (const auto& row : queue_->strayLeases()) st.leaseDel(row);
   for (const auto& name : queue_->strayRules()) st.deleteRule.bind(1, name).run();
   for (auto intf : queue_->droppedSets()) st.deleteInterfaceLeases.bind(1, intf.name()).run();

   Ptr<const LeaseStatus> leaseStatus = follower_ ? follower_->leaseStatus() : nullptr;
   for (const auto& ref : queue_->leases()) {
      Ptr<const IpMacLease> lease;
      if (auto set = leaseStatus ? leaseStatus->interfaceLeaseSet(ref.intf) : nullptr) {
         lease = set->ipMacLease(ref.key);
      }
      if (lease) {
         st.leaseIs(storedKey(ref.intf, lease->key()), lease->lastTransactionTime(),
                    lease->expirationTime());
      } else {
         st.leaseDel(storedKey(ref.intf, ref.key));
      }
   }

   Ptr<const ConfiguredInterfaceStatus> rules = follower_ ? follower_->interfaceStatus() : nullptr;
   for (auto intf : queue_->rules()) {
      auto rule = rules ? rules->interfaceRule(intf) : std::nullopt;
      if (rule) {
         st.upsertRule.bind(1, intf.name()).bind(2, int64_t(*rule)).run();
      } else {
         st.deleteRule.bind(1, intf.name()).run();
      }
   }
}

}  // namespace Tavrin::Linux
