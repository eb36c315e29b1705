// Thin RAII owners of SQLite's handles for the state store: a connection, a
// prepared statement and a write transaction. Every SQLite failure becomes a
// StoreError that says what was being done and what SQLite answered.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Tavrin::Linux {

// A state database that cannot be opened, read or written. code() is
// SQLite's primary result code (SQLITE_BUSY, SQLITE_FULL, ...), or 0.
class StoreError : public std::runtime_error {
 public:
   explicit StoreError(const std::string& what, int code = 0)
       : std::runtime_error(what), code_(code) {}
   int code() const { return code_; }

 private:
   int code_;
};

namespace Sqlite {

class Connection {
 public:
   enum class Access { readWrite, readOnly, immutable };
   // Opens the database file at path: for reading and writing (creating it
   // if absent), only for reading (an existing file, its write-ahead log
   // included), or as immutable (a read-only file system where the log's
   // index cannot be created: only what the main file holds). Throws
   // StoreError when the file cannot be opened.
   explicit Connection(const std::string& path, Access access = Access::readWrite);

   sqlite3* get() const { return db_.get(); }
   const std::string& path() const { return path_; }

   // Runs SQL without results (one or more statements).
   void exec(const char* sql, std::string_view doing);
   // The integer value of a pragma query such as "PRAGMA user_version".
   int64_t queryInt(const char* sql, std::string_view doing);
   std::string queryText(const char* sql, std::string_view doing);
   bool inTransaction() const { return sqlite3_get_autocommit(db_.get()) == 0; }

   // "<path>: <doing>: <SQLite's message>", with the system's reason for an
   // I/O failure when SQLite has one.
   std::string describe(int rc, std::string_view doing) const;
   [[noreturn]] void fail(int rc, std::string_view doing) const;

 private:
   struct Close {
      void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
   };
   std::string path_;
   std::unique_ptr<sqlite3, Close> db_;
};

// A prepared statement. Cached statements are reset after every use, so none
// holds a read lock or a half-run write between commits.
class Statement {
 public:
   Statement(Connection& db, std::string_view sql, bool persistent = false);

   Statement& bind(int index, std::string_view text);
   Statement& bind(int index, double value);
   Statement& bind(int index, int64_t value);

   // Steps once: true when a row is ready, false when done.
   bool step();
   // Steps to the end, then resets; for statements without results.
   void run();
   void reset();

   std::string_view text(int column) const;
   double real(int column) const;
   int64_t integer(int column) const;

 private:
   struct Finalize {
      void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
   };
   Connection& db_;
   std::string sql_;
   std::unique_ptr<sqlite3_stmt, Finalize> stmt_;
};

// BEGIN IMMEDIATE on construction, so that a lock held by another process
// shows at the start rather than half-way; ROLLBACK on destruction unless
// committed.
class WriteTransaction {
 public:
   explicit WriteTransaction(Connection& db);
   ~WriteTransaction();
   WriteTransaction(const WriteTransaction&) = delete;
   WriteTransaction& operator=(const WriteTransaction&) = delete;

   void commit();

 private:
   Connection& db_;
   bool done_ = false;
};

}  // namespace Sqlite

}  // namespace Tavrin::Linux
