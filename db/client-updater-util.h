// Opening a database of the monitor's own with its busy time-out, and the
// two operations that keep a session's filter file in step with the
// encryption state of its shared folder.
//
// OpenSqliteDatabase and the filter operations may be called from any
// thread; they share no state.
#ifndef VESTA_DB_CLIENT_UPDATER_UTIL_H_
#define VESTA_DB_CLIENT_UPDATER_UTIL_H_

#include <cstdint>
#include <string>

#include "db/sqlite-guards.h"

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
