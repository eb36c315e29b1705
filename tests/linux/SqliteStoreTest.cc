#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "linux/SqliteStore.h"

using namespace Tavrin;
using namespace Tavrin::Linux;
using Rt::Ptr;

namespace {

namespace fs = std::filesystem;

// A directory of its own per test, removed afterwards.
class TempDir {
 public:
   TempDir() {
      std::string pattern = (fs::temp_directory_path() / "tavrin-store-XXXXXX").string();
      if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
      path_ = pattern;
   }
   ~TempDir() {
      std::error_code ec;
      fs::remove_all(path_, ec);
   }
   std::string file(const std::string& name) const { return (path_ / name).string(); }

 private:
   fs::path path_;
};

// 17 significant digits: equal text, equal double.
std::string timeText(Seconds t) {
   char buf[40];
   std::snprintf(buf, sizeof buf, "%.17g", t);
   return buf;
}

// A second, independent connection: what the sqlite3 shell or another
// process sees of the file.
class Peer {
 public:
   explicit Peer(const std::string& path) {
      if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) throw std::runtime_error("peer open");
   }
   ~Peer() { sqlite3_close(db_); }
   void exec(const std::string& sql) {
      char* err = nullptr;
      if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &err) != SQLITE_OK) {
         std::string what = err ? err : "?";
         sqlite3_free(err);
         throw std::runtime_error(sql + ": " + what);
      }
   }
   // Every row of a query, columns joined by '|'.
   std::set<std::string> rows(const std::string& sql) {
      std::set<std::string> out;
      sqlite3_stmt* s = nullptr;
      if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &s, nullptr) != SQLITE_OK) {
         throw std::runtime_error(sql + ": " + sqlite3_errmsg(db_));
      }
      while (sqlite3_step(s) == SQLITE_ROW) {
         std::string row;
         for (int i = 0; i < sqlite3_column_count(s); ++i) {
            if (i) row += '|';
            if (sqlite3_column_type(s, i) == SQLITE_FLOAT) {
               row += timeText(sqlite3_column_double(s, i));
               continue;
            }
            auto* t = reinterpret_cast<const char*>(sqlite3_column_text(s, i));
            row += t ? t : "NULL";
         }
         out.insert(row);
      }
      sqlite3_finalize(s);
      return out;
   }

 private:
   sqlite3* db_ = nullptr;
};

// The stored form of the live entities, to hold against the file's rows.

std::string addrText(const IpGenAddr& a) {
   return a.isEmpty() ? "" : a.str();
}

std::set<std::string> entityLeaseRows(const LeaseStatus& status) {
   std::set<std::string> out;
   for (const auto& [intf, set] : status.interfaceLeaseSetAll()) {
      for (const auto& [key, lease] : set->ipMacLeaseAll()) {
         out.insert(intf.name() + "|" + key.mac.str() + "|" + addrText(key.ip) + "|" +
                    addrText(key.dhcpAddr) + "|" + timeText(lease->lastTransactionTime()) + "|" +
                    timeText(lease->expirationTime()));
      }
   }
   return out;
}

std::set<std::string> entityRuleRows(const ConfiguredInterfaceStatus& status) {
   std::set<std::string> out;
   for (const auto& [intf, rule] : status.interfaceRuleAll()) {
      out.insert(intf.name() + "|" + std::to_string(rule));
   }
   return out;
}

const char* kLeaseRowsSql =
    "SELECT interface, mac, ip, server, last_transaction_time, expiration_time FROM lease";
const char* kRuleRowsSql = "SELECT interface, rule FROM interface_rule";

LeaseKey key(const char* mac, const char* ip, const char* server) {
   return {*EthAddr::parse(mac), *IpGenAddr::parse(ip), *IpGenAddr::parse(server)};
}

void leaseIs(LeaseStatus& s, const char* intf, const LeaseKey& k, Seconds lastTx, Seconds exp) {
   auto lease = s.interfaceLeaseSetIs(IntfId(intf))->ipMacLeaseIs(k);
   lease->lastTransactionTimeIs(lastTx);
   lease->expirationTimeIs(exp);
}

class SqliteStoreTest : public ::testing::Test {
 protected:
   TempDir dir;
   std::string path = dir.file("tavrin.db");
   Ptr<LeaseStatus> leases = Rt::makePtr<LeaseStatus>();
   Ptr<ConfiguredInterfaceStatus> rules = Rt::makePtr<ConfiguredInterfaceStatus>();

   void expectFileMirrorsEntities() {
      Peer peer(path);
      EXPECT_EQ(peer.rows(kLeaseRowsSql), entityLeaseRows(*leases));
      EXPECT_EQ(peer.rows(kRuleRowsSql), entityRuleRows(*rules));
   }
};

const LeaseKey kA = key("02:00:00:00:00:0a", "10.0.0.10", "10.0.0.1");
const LeaseKey kB = key("02:00:00:00:00:0b", "10.0.0.11", "10.0.0.1");
const LeaseKey kC = key("02:00:00:00:00:0c", "10.0.0.12", "10.0.0.2");
const LeaseKey kD = key("02:00:00:00:00:0d", "10.0.1.13", "10.0.0.1");
const LeaseKey kE = key("02:00:00:00:00:0e", "10.0.2.14", "10.0.0.1");

}  // namespace

// Everything a restarted agent needs comes back bit for bit: times that are
// not round in binary, both address families, the empty address, two
// leases that differ only in their server, rule values other than 1.
TEST_F(SqliteStoreTest, whatIsCommittedLoadsBackExactly) {
   auto v6 = key("02:00:5e:10:00:01", "2001:db8::5", "2001:db8:0:1::1");
   auto otherServer = key("02:00:00:00:00:0a", "10.0.0.10", "10.0.0.2");
   LeaseKey emptyAddrs{*EthAddr::parse("fe:ff:ff:ff:ff:ff"), IpGenAddr(), IpGenAddr()};
   {
      SqliteStore store(path);
      store.follow(leases, rules);
      leaseIs(*leases, "swp1", kA, 1700000000.1234567, 1700003600.0000001);
      leaseIs(*leases, "swp1", otherServer, 0.1 + 0.2, 1e-300);
      leaseIs(*leases, "swp2", v6, 1699999999.999999, 4102444800.5);
      leaseIs(*leases, "ethernet-1/1.5", emptyAddrs, -1.5, 0);
      rules->interfaceRuleIs(IntfId("swp1"), 1);
      rules->interfaceRuleIs(IntfId("swp2"), 7);
      rules->interfaceRuleIs(IntfId("swp3"), UINT32_MAX);
      ASSERT_TRUE(store.commit()) << store.lastError();
   }
   auto loadedLeases = Rt::makePtr<LeaseStatus>();
   auto loadedRules = Rt::makePtr<ConfiguredInterfaceStatus>();
   SqliteStore store(path);
   auto report = store.load(*loadedLeases, *loadedRules);
   EXPECT_EQ(report.leases, 4u);
   EXPECT_EQ(report.rules, 3u);
   EXPECT_TRUE(report.skipped.empty());
   EXPECT_EQ(entityLeaseRows(*loadedLeases), entityLeaseRows(*leases));
   EXPECT_EQ(entityRuleRows(*loadedRules), entityRuleRows(*rules));

   auto back = loadedLeases->interfaceLeaseSet(IntfId("ethernet-1/1.5"))->ipMacLease(emptyAddrs);
   ASSERT_TRUE(back);
   EXPECT_TRUE(back->ip().isEmpty()) << "the empty address came back as " << back->ip();
   EXPECT_TRUE(back->dhcpAddr().isEmpty());
   auto back6 = loadedLeases->interfaceLeaseSet(IntfId("swp2"))->ipMacLease(v6);
   ASSERT_TRUE(back6);
   EXPECT_TRUE(back6->ip().isV6());
   EXPECT_EQ(back6->lastTransactionTime(), 1699999999.999999);
   EXPECT_EQ(back6->expirationTime(), 4102444800.5);

   Peer peer(path);
   EXPECT_EQ(peer.rows("SELECT DISTINCT typeof(last_transaction_time) || typeof(expiration_time) "
                       "FROM lease"),
             std::set<std::string>{"realreal"});
   EXPECT_EQ(peer.rows("PRAGMA journal_mode"), std::set<std::string>{"wal"});
   EXPECT_EQ(peer.rows("PRAGMA user_version"), std::set<std::string>{"1"});
}

TEST_F(SqliteStoreTest, oneCommitIsOneTransactionAndAnIdleCommitIsNone) {
   SqliteStore store(path);
   store.follow(leases, rules);
   for (int i = 0; i < 100; ++i) {
      auto k = key("02:00:00:00:00:01", "10.0.0.1", "10.0.0.254");
      k.ip = IpAddr(0x0a000100 + i);
      leaseIs(*leases, i % 2 ? "swp1" : "swp2", k, 1000 + i, 2000 + i);
   }
   rules->interfaceRuleIs(IntfId("swp1"), 1);
   rules->interfaceRuleIs(IntfId("swp2"), 1);
   EXPECT_EQ(store.pending(), 102u);

   auto before = store.counters();
   ASSERT_TRUE(store.commit()) << store.lastError();
   EXPECT_EQ(store.counters().transactions - before.transactions, 1u);
   EXPECT_EQ(store.counters().rowChanges - before.rowChanges, 102u);
   EXPECT_EQ(store.pending(), 0u);

   // Most loop iterations change nothing: they must not cost a transaction
   // (and its fsync).
   before = store.counters();
   EXPECT_TRUE(store.commit());
   EXPECT_EQ(store.counters().transactions, before.transactions);
   expectFileMirrorsEntities();
}

// Whatever happens between two commits, the file ends as the entities are.
TEST_F(SqliteStoreTest, manyChangesBetweenCommitsEndInTheRightRows) {
   SqliteStore store(path);
   store.follow(leases, rules);
   leaseIs(*leases, "swp1", kA, 10, 100);
   leaseIs(*leases, "swp1", kB, 11, 110);
   leaseIs(*leases, "swp1", kC, 12, 120);
   leaseIs(*leases, "swp2", kD, 13, 130);
   leaseIs(*leases, "swp3", kE, 14, 140);
   rules->interfaceRuleIs(IntfId("swp1"), 1);
   rules->interfaceRuleIs(IntfId("swp2"), 1);
   ASSERT_TRUE(store.commit()) << store.lastError();

   auto swp1 = leases->interfaceLeaseSet(IntfId("swp1"));
   swp1->ipMacLease(kA)->lastTransactionTimeIs(20);  // refreshed twice
   swp1->ipMacLease(kA)->expirationTimeIs(200);
   swp1->ipMacLease(kA)->expirationTimeIs(300);
   swp1->ipMacLeaseDel(kB);
   leaseIs(*leases, "swp1", kD, 15, 150);  // the same client now on swp1
   auto gone = key("02:00:00:00:00:99", "10.0.0.99", "10.0.0.1");
   leaseIs(*leases, "swp1", gone, 1, 2);  // born and gone before the commit
   swp1->ipMacLeaseDel(gone);
   leases->interfaceLeaseSetDel(IntfId("swp2"));  // the whole set
   leases->interfaceLeaseSetDel(IntfId("swp3"));  // gone and back with another lease
   leaseIs(*leases, "swp3", kC, 16, 160);
   rules->interfaceRuleDel(IntfId("swp2"));
   rules->interfaceRuleIs(IntfId("swp1"), 2);
   rules->interfaceRuleIs(IntfId("swp4"), 1);

   auto before = store.counters();
   ASSERT_TRUE(store.commit()) << store.lastError();
   EXPECT_EQ(store.counters().transactions - before.transactions, 1u);
   expectFileMirrorsEntities();
   Peer peer(path);
   EXPECT_EQ(peer.rows("SELECT interface, mac FROM lease"),
             (std::set<std::string>{"swp1|02:00:00:00:00:0a", "swp1|02:00:00:00:00:0c",
                                    "swp1|02:00:00:00:00:0d", "swp3|02:00:00:00:00:0c"}));
}

// What a second process holding the write lock looks like: the commit fails
// at once (the loop must not block), keeps everything, and the next commit
// after the lock is gone writes all of it, including what changed meanwhile.
TEST_F(SqliteStoreTest, aLockedDatabaseFailsTheCommitAndKeepsItsChangesForTheNext) {
   SqliteStore store(path);
   store.follow(leases, rules);
   leaseIs(*leases, "swp1", kA, 10, 100);
   ASSERT_TRUE(store.commit()) << store.lastError();

   Peer other(path);
   other.exec("BEGIN IMMEDIATE");
   leaseIs(*leases, "swp1", kB, 11, 110);
   rules->interfaceRuleIs(IntfId("swp1"), 1);
   EXPECT_FALSE(store.commit());
   EXPECT_NE(store.lastError().find(path), std::string::npos) << store.lastError();
   EXPECT_NE(store.lastError().find("locked"), std::string::npos) << store.lastError();
   EXPECT_EQ(store.pending(), 2u);
   EXPECT_EQ(store.counters().commitFailures, 1u);

   leases->interfaceLeaseSet(IntfId("swp1"))->ipMacLeaseDel(kA);
   EXPECT_FALSE(store.commit());
   other.exec("ROLLBACK");

   ASSERT_TRUE(store.commit()) << store.lastError();
   EXPECT_TRUE(store.lastError().empty());
   EXPECT_EQ(store.pending(), 0u);
   expectFileMirrorsEntities();
}

// A write that fails half-way (a full disk, an I/O error; here a trigger
// refusing inserts) must leave the file as it was before the commit, not
// with the deletions done and the insertions missing.
TEST_F(SqliteStoreTest, aCommitThatFailsHalfWayLeavesTheFileAsItWas) {
   SqliteStore store(path);
   store.follow(leases, rules);
   leaseIs(*leases, "swp1", kA, 10, 100);
   leaseIs(*leases, "swp2", kB, 11, 110);
   ASSERT_TRUE(store.commit()) << store.lastError();
   Peer peer(path);
   auto committed = peer.rows(kLeaseRowsSql);

   peer.exec(
       "CREATE TABLE fault (x INTEGER); INSERT INTO fault VALUES (1);"
       "CREATE TRIGGER refuse BEFORE INSERT ON lease WHEN EXISTS (SELECT 1 FROM fault) "
       "BEGIN SELECT RAISE(ABORT, 'injected write failure'); END;");
   leases->interfaceLeaseSetDel(IntfId("swp2"));
   leaseIs(*leases, "swp1", kC, 12, 120);
   EXPECT_FALSE(store.commit());
   EXPECT_NE(store.lastError().find("injected write failure"), std::string::npos)
       << store.lastError();
   EXPECT_EQ(peer.rows(kLeaseRowsSql), committed);
   EXPECT_EQ(store.pending(), 2u);

   peer.exec("DELETE FROM fault");
   ASSERT_TRUE(store.commit()) << store.lastError();
   expectFileMirrorsEntities();
}

// At start the entities are loaded, then the agent may change them before
// the store follows: following must catch up on those changes and drop rows
// nothing can load, and, when nothing changed, write nothing at all.
TEST_F(SqliteStoreTest, followingCatchesUpWithChangesMadeSinceTheLoad) {
   {
      SqliteStore store(path);
      store.follow(leases, rules);
      leaseIs(*leases, "swp1", kA, 10, 100);
      leaseIs(*leases, "swp1", kB, 11, 110);
      leaseIs(*leases, "swp2", kC, 12, 120);
      rules->interfaceRuleIs(IntfId("swp1"), 1);
      rules->interfaceRuleIs(IntfId("swp2"), 1);
      ASSERT_TRUE(store.commit());
   }
   {
      // Rows as a hand edit leaves them.
      Peer peer(path);
      peer.exec(
          "INSERT INTO lease VALUES ('swp1', 'zz:00:00:00:00:01', '10.0.0.1', "
          "'10.0.0.1', 1, 2)");
      peer.exec(
          "INSERT INTO lease VALUES ('swp1', '02:00:00:00:00:0D', '10.0.1.13', "
          "'10.0.0.1', 1, 2)");
      peer.exec("INSERT INTO interface_rule VALUES ('bad name', 1)");
   }

   SqliteStore store(path);
   auto fresh = Rt::makePtr<LeaseStatus>();
   auto freshRules = Rt::makePtr<ConfiguredInterfaceStatus>();
   auto report = store.load(*fresh, *freshRules);
   EXPECT_EQ(report.leases, 4u);  // the upper-case MAC reads fine
   ASSERT_EQ(report.skipped.size(), 2u);
   EXPECT_EQ(report.skipped[0],
             "lease row (interface 'swp1', mac 'zz:00:00:00:00:01', ip '10.0.0.1', server "
             "'10.0.0.1'): bad MAC address");
   EXPECT_EQ(report.skipped[1],
             "interface_rule row (interface 'bad name', rule 1): bad "
             "interface name");

   leases = fresh;
   rules = freshRules;
   // What the agent's start-up might do before the store follows.
   leases->interfaceLeaseSet(IntfId("swp1"))->ipMacLeaseDel(kB);
   leases->interfaceLeaseSet(IntfId("swp2"))->ipMacLease(kC)->expirationTimeIs(999);
   leaseIs(*leases, "swp3", kE, 14, 140);
   rules->interfaceRuleDel(IntfId("swp2"));
   rules->interfaceRuleIs(IntfId("swp3"), 1);

   store.follow(leases, rules);
   ASSERT_TRUE(store.commit()) << store.lastError();
   expectFileMirrorsEntities();

   SqliteStore again(path);
   auto third = Rt::makePtr<LeaseStatus>();
   auto thirdRules = Rt::makePtr<ConfiguredInterfaceStatus>();
   again.load(*third, *thirdRules);
   again.follow(third, thirdRules);
   EXPECT_EQ(again.pending(), 0u) << "a restart with nothing changed rewrites rows";
}

// Files tavrind must refuse to use, each with a reason an operator can act
// on; and refusing must not alter someone else's file.
// What a daemon on a read-only file system starts from: the committed rows,
// whether the writer stopped cleanly or was killed with its log still
// there (the log's rows must be read too), and for a missing file nothing,
// with nothing created.
TEST_F(SqliteStoreTest, aReadOnlyLoadReadsWhatWasCommittedAndWritesNothing) {
   for (bool writerAlive : {false, true}) {
      SCOPED_TRACE(writerAlive ? "log still there" : "after a clean stop");
      TempDir d;
      const std::string file = d.file("tavrin.db");
      auto written = Rt::makePtr<LeaseStatus>();
      auto writtenRules = Rt::makePtr<ConfiguredInterfaceStatus>();
      auto writer = std::make_unique<SqliteStore>(file);
      writer->follow(written, writtenRules);
      leaseIs(*written, "swp1", kA, 1700000000.5, 1700003600.25);
      leaseIs(*written, "swp2", kC, 1700000001.5, 1700003601.25);
      writtenRules->interfaceRuleIs(IntfId("swp1"), 1);
      ASSERT_TRUE(writer->commit()) << writer->lastError();
      if (!writerAlive)
         writer.reset();
      else
         ASSERT_TRUE(fs::exists(file + "-wal"));

      auto loaded = Rt::makePtr<LeaseStatus>();
      auto loadedRules = Rt::makePtr<ConfiguredInterfaceStatus>();
      auto report = SqliteStore::loadReadOnly(file, *loaded, *loadedRules);
      EXPECT_EQ(report.leases, 2u);
      EXPECT_EQ(entityLeaseRows(*loaded), entityLeaseRows(*written));
      EXPECT_EQ(entityRuleRows(*loadedRules), entityRuleRows(*writtenRules));
   }
   auto loaded = Rt::makePtr<LeaseStatus>();
   auto report = SqliteStore::loadReadOnly(path, *loaded, *rules);
   EXPECT_EQ(report.leases, 0u);
   EXPECT_FALSE(fs::exists(path));
   std::ofstream(path) << "not a database, and long enough to have a header of its own....";
   EXPECT_THROW(SqliteStore::loadReadOnly(path, *loaded, *rules), StoreError);
}

TEST(SqliteStoreOpen, refusesFilesThatAreNotItsDatabaseAndSaysWhy) {
   struct Case {
      const char* name;
      std::function<void(const std::string& path)> make;
      const char* reason;
   };
   const std::vector<Case> cases = {
       {"text file", [](const std::string& p) { std::ofstream(p) << std::string(4096, 'x'); },
        ": not an SQLite database; is this the right file?"},
       {"another program's database",
        [](const std::string& p) { Peer(p).exec("CREATE TABLE notes (body TEXT)"); },
        ": an SQLite database of another program (application id 0x00000000), not tavrind's "
        "state"},
       {"another program with an id",
        [](const std::string& p) { Peer(p).exec("PRAGMA application_id = 1234"); },
        ": an SQLite database of another program (application id 0x000004d2), not tavrind's "
        "state"},
       {"a newer schema",
        [](const std::string& p) {
           { SqliteStore created(p); }
           Peer(p).exec("PRAGMA user_version = 2");
        },
        ": schema version 2 is not the one this tavrind reads (1); it was written by another "
        "release"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      TempDir dir;
      std::string path = dir.file("state.db");
      c.make(path);
      std::ifstream before(path, std::ios::binary);
      std::string bytesBefore((std::istreambuf_iterator<char>(before)), {});
      try {
         SqliteStore store(path);
         ADD_FAILURE() << "opened";
      } catch (const StoreError& e) {
         EXPECT_EQ(std::string(e.what()), path + c.reason);
      }
      std::ifstream after(path, std::ios::binary);
      std::string bytesAfter((std::istreambuf_iterator<char>(after)), {});
      EXPECT_TRUE(bytesAfter == bytesBefore) << "the refused file was modified";
   }
}

TEST(SqliteStoreOpen, aMissingDirectoryIsReportedWithTheSystemsReason) {
   TempDir dir;
   std::string path = dir.file("no-such-dir/tavrin.db");
   try {
      SqliteStore store(path);
      ADD_FAILURE() << "opened";
   } catch (const StoreError& e) {
      std::string what = e.what();
      EXPECT_EQ(what.rfind(path + ": cannot open: ", 0), 0u) << what;
      EXPECT_NE(what.find("No such file or directory"), std::string::npos) << what;
   }
}
