// Guards of the SQLite resources of the monitor's database code.  Each owns
// one resource and frees it on every path: a connection handle
// (SqliteHandle), a prepared statement (SqliteStatement), and a text that
// SQLite allocated (SqliteText: a formatted statement or an error message).
// They are single-owner and cannot be copied; a guard is used by one thread
// at a time, like the resource it owns.
#ifndef VESTA_DB_SQLITE_GUARDS_H_
#define VESTA_DB_SQLITE_GUARDS_H_

#include <sqlite3.h>

#include <atomic>
#include <cstdint>

// Busy time-out, in milliseconds, of every database this program opens: a
// statement waits this long for another process's lock before failing.
constexpr int kSqliteBusyTimeoutMs = 300000;
// One step of that wait: how soon a cleared run flag ends it.
constexpr int kSqliteBusyStepMs = 10;

// Makes `db` wait for another process's lock as a busy time-out of
// kSqliteBusyTimeoutMs does, except that the wait ends at once, the
// statement failing with SQLITE_BUSY, when `run_flag` (if not null) reads 0:
// a stop is never held up by another process's transaction.  `run_flag`
// must outlive the handle.  SQLite's result code.
int SetSqliteBusyWait(sqlite3* db, const std::atomic<int32_t>* run_flag);

class SqliteHandle {
 public:
  SqliteHandle() = default;
  explicit SqliteHandle(sqlite3* db) : db_(db) {}
  ~SqliteHandle() { reset(); }
  SqliteHandle(const SqliteHandle&) = delete;
  SqliteHandle& operator=(const SqliteHandle&) = delete;

  sqlite3* get() const { return db_; }
  sqlite3** out() { reset(); return &db_; }
  sqlite3* release() { sqlite3* db = db_; db_ = nullptr; return db; }
  void reset(sqlite3* db = nullptr) {
    if (db_ != nullptr) sqlite3_close(db_);
    db_ = db;
  }

 private:
  sqlite3* db_ = nullptr;  // owned; closed on destruction
};

class SqliteStatement {
 public:
  SqliteStatement() = default;
  ~SqliteStatement() { sqlite3_finalize(stmt_); }
  SqliteStatement(const SqliteStatement&) = delete;
  SqliteStatement& operator=(const SqliteStatement&) = delete;

  sqlite3_stmt* get() const { return stmt_; }
  sqlite3_stmt** out() {
    sqlite3_finalize(stmt_);
    stmt_ = nullptr;
    return &stmt_;
  }

 private:
  sqlite3_stmt* stmt_ = nullptr;  // owned; finalized on destruction
};

class SqliteText {
 public:
  SqliteText() = default;
  explicit SqliteText(char* text) : text_(text) {}
  ~SqliteText() { sqlite3_free(text_); }
  SqliteText(const SqliteText&) = delete;
  SqliteText& operator=(const SqliteText&) = delete;

  explicit operator bool() const { return text_ != nullptr; }
  const char* get() const { return text_; }
  // The text, or "" when there is none (for messages).
  const char* c_str() const { return text_ != nullptr ? text_ : ""; }
  char** out() {
    sqlite3_free(text_);
    text_ = nullptr;
    return &text_;
  }

 private:
  char* text_ = nullptr;  // allocated by SQLite; freed with sqlite3_free
};

#endif  // VESTA_DB_SQLITE_GUARDS_H_
