// What the files of SystemDB share: its log component and running or
// preparing one statement on the shared handle.  Every function here
// expects its caller to hold SystemDB::m_dbMutex.
#ifndef VESTA_DB_SYSTEM_DB_SQL_H_
#define VESTA_DB_SYSTEM_DB_SQL_H_

#include "db/sqlite-guards.h"

namespace system_db_detail {

constexpr char kComponent[] = "system_db_debug";

using ull = unsigned long long;

struct ExecResult {
  int code = SQLITE_OK;
  SqliteText message;  // SQLite's error text, when it gave one
};

// Runs `sql` on the open database.
void ExecLocked(const char* sql, ExecResult* result);

// Steps `stmt` once.  1 row, 0 done, -1 error (logged).
int StepOnce(sqlite3_stmt* stmt);

// Prepares `sql` into `stmt`; logs "<op>: sqlite3_prepare_v2: ..." on failure.
int PrepareLocked(const char* op, const char* sql, SqliteStatement* stmt);

}  // namespace system_db_detail

#endif  // VESTA_DB_SYSTEM_DB_SQL_H_
