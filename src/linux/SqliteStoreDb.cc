#include "linux/SqliteStoreDb.h"

#include <cstdio>
#include <cstring>

namespace Tavrin::Linux::Sqlite {

namespace {

// A file name as an SQLite URI: the characters a URI gives a meaning to
// are escaped, so that any path names itself.
std::string fileUri(const std::string& path, const char* query) {
   std::string uri = "file:";
   for (unsigned char c : path) {
      if (c == '%' || c == '?' || c == '#') {
         char esc[4];
         std::snprintf(esc, sizeof esc, "%%%02X", c);
         uri += esc;
      } else {
         uri += char(c);
      }
   }
   return uri + query;
}

sqlite3* openDb(const std::string& path, Connection::Access access, int& rc) {
   sqlite3* db = nullptr;
   // One thread uses the connection: SQLite's own mutexes would only cost.
   switch (access) {
      case Connection::Access::readWrite:
         rc = sqlite3_open_v2(path.c_str(), &db,
                              SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                              nullptr);
         break;
      case Connection::Access::readOnly:
      case Connection::Access::immutable:
         rc = sqlite3_open_v2(
             fileUri(path, access == Connection::Access::readOnly ? "?mode=ro" : "?immutable=1")
                 .c_str(),
             &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX, nullptr);
         break;
   }
   return db;
}

}  // namespace

Connection::Connection(const std::string& path, Access access) : path_(path) {
   int rc = SQLITE_OK;
   // Owned before rc is looked at: SQLite hands out a handle even when the
   // open fails, and it has to be closed either way.
   db_.reset(openDb(path, access, rc));
   if (!db_) throw StoreError(path + ": cannot open: out of memory");
   sqlite3_extended_result_codes(db_.get(), 1);
   if (rc != SQLITE_OK) fail(rc, "cannot open");
}

std::string Connection::describe(int rc, std::string_view doing) const {
   std::string text = path_ + ": " + std::string(doing) + ": ";
   const char* msg = db_ ? sqlite3_errmsg(db_.get()) : nullptr;
   text += msg && *msg ? msg : sqlite3_errstr(rc);
   int sysErr = db_ ? sqlite3_system_errno(db_.get()) : 0;
   int primary = rc & 0xff;
   if (sysErr != 0 && (primary == SQLITE_CANTOPEN || primary == SQLITE_IOERR ||
                       primary == SQLITE_FULL || primary == SQLITE_READONLY)) {
      text += std::string(" (") + std::strerror(sysErr) + ")";
   }
   return text;
}

void Connection::fail(int rc, std::string_view doing) const {
   throw StoreError(describe(rc, doing), rc & 0xff);
}

void Connection::exec(const char* sql, std::string_view doing) {
   int rc = sqlite3_exec(db_.get(), sql, nullptr, nullptr, nullptr);
   if (rc != SQLITE_OK) fail(rc, doing);
}

int64_t Connection::queryInt(const char* sql, std::string_view doing) {
   Statement s(*this, sql);
   if (!s.step()) throw StoreError(path_ + ": " + std::string(doing) + ": no answer");
   return s.integer(0);
}

std::string Connection::queryText(const char* sql, std::string_view doing) {
   Statement s(*this, sql);
   if (!s.step()) throw StoreError(path_ + ": " + std::string(doing) + ": no answer");
   return std::string(s.text(0));
}

Statement::Statement(Connection& db, std::string_view sql, bool persistent) : db_(db), sql_(sql) {
   sqlite3_stmt* raw = nullptr;
   int rc = sqlite3_prepare_v3(db.get(), sql_.c_str(), int(sql_.size()),
                               persistent ? SQLITE_PREPARE_PERSISTENT : 0, &raw, nullptr);
   stmt_.reset(raw);
   if (rc != SQLITE_OK) db.fail(rc, "preparing \"" + sql_ + "\"");
}

Statement& Statement::bind(int index, std::string_view text) {
   int rc = sqlite3_bind_text(stmt_.get(), index, text.data(), int(text.size()), SQLITE_TRANSIENT);
   if (rc != SQLITE_OK) db_.fail(rc, "binding \"" + sql_ + "\"");
   return *this;
}

Statement& Statement::bind(int index, double value) {
   int rc = sqlite3_bind_double(stmt_.get(), index, value);
   if (rc != SQLITE_OK) db_.fail(rc, "binding \"" + sql_ + "\"");
   return *this;
}

Statement& Statement::bind(int index, int64_t value) {
   int rc = sqlite3_bind_int64(stmt_.get(), index, value);
   if (rc != SQLITE_OK) db_.fail(rc, "binding \"" + sql_ + "\"");
   return *this;
}

bool Statement::step() {
   int rc = sqlite3_step(stmt_.get());
   if (rc == SQLITE_ROW) return true;
   if (rc == SQLITE_DONE) return false;
   // The message belongs to the connection until the next call: take it
   // before the reset.
   std::string why = db_.describe(rc, "running \"" + sql_ + "\"");
   sqlite3_reset(stmt_.get());
   throw StoreError(why, rc & 0xff);
}

void Statement::run() {
   while (step()) {
   }
   reset();
}

void Statement::reset() {
   sqlite3_reset(stmt_.get());
   sqlite3_clear_bindings(stmt_.get());
}

std::string_view Statement::text(int column) const {
   auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt_.get(), column));
   if (!p) return {};
   return {p, size_t(sqlite3_column_bytes(stmt_.get(), column))};
}

double Statement::real(int column) const {
   return sqlite3_column_double(stmt_.get(), column);
}

int64_t Statement::integer(int column) const {
   return sqlite3_column_int64(stmt_.get(), column);
}

WriteTransaction::WriteTransaction(Connection& db) : db_(db) {
   db_.exec("BEGIN IMMEDIATE", "starting a write transaction");
}

WriteTransaction::~WriteTransaction() {
   // SQLite rolls back by itself after some failures (a full disk, an I/O
   // error); a second ROLLBACK would only fail.
   if (!done_ && db_.inTransaction()) {
      sqlite3_exec(db_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
   }
}

void WriteTransaction::commit() {
   db_.exec("COMMIT", "committing");
   done_ = true;
}

}  // namespace Tavrin::Linux::Sqlite
