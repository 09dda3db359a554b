// SQLite helpers shared by the database code of the monitor, and the two
// operations that keep a session's filter file in step with the encryption
// state of its shared folder.
//
// The guards own one SQLite resource each and free it on every path: a
// connection handle (SqliteHandle), a prepared statement (SqliteStatement),
// and a text that SQLite allocated (SqliteText: a formatted statement or an
// error message).  They are single-owner and cannot be copied.
//
// OpenSqliteDatabase and the filter operations may be called from any
// thread; they share no state.
#ifndef VESTA_DB_CLIENT_UPDATER_UTIL_H_
#define VESTA_DB_CLIENT_UPDATER_UTIL_H_

#include <sqlite3.h>

#include <cstdint>
#include <string>

// Busy time-out, in milliseconds, of every database this program opens: a
// statement waits this long for another process's lock before failing.
constexpr int kSqliteBusyTimeoutMs = 300000;

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

// Opens (creating) the database at `path` into `db` with the busy time-out
// set.  0 on success; -1 on failure, when `db` may still hold the failed
// handle (closed by its guard), whose error SQLite can report.  Logs under
// client_updater_util.
int OpenSqliteDatabase(const std::string& path, SqliteHandle* db);

// Makes the Common max_length of the filter file at `filter_path` match the
// encryption state of session `session_id`: 143 when its shared folder is
// encrypted and no limit is set, 0 (no limit) when it is not encrypted.  The
// file is rewritten only when the value changes.  Reads the session from the
// system database, which must be open.  0 on success, -1 on failure.
int SetSessionFilterMaxLength(uint64_t session_id, const std::string& filter_path);

// SetSessionFilterMaxLength on the session's own filter file, found through
// the service configuration.  0 on success, -1 on failure.
int ApplySessionFilterMaxLength(uint64_t session_id);

#endif  // VESTA_DB_CLIENT_UPDATER_UTIL_H_
