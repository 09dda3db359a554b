// Resets a session's event database so that the sync daemon rebuilds it:
// the error handler uses it when a session must start its synchronisation
// over (pending events and filters emptied, the sync position set back).
// Opening also installs the SQL function remove_signature(node), with which
// statements run on that database delete stored file signatures.
//
// Calling order: construct, Open, any number of ClearEvents / SetSyncId,
// destroy.  One thread uses an instance at a time; the mutex serialises the
// writes, and SQLite's file locks with the busy time-out make them wait for
// the sync daemon, which uses the same file.  Messages go to
// connection_updater.
#ifndef VESTA_DB_CONNECTION_UPDATER_H_
#define VESTA_DB_CONNECTION_UPDATER_H_

#include <sqlite3.h>

#include <cstdint>
#include <mutex>
#include <string>

#include "db/client-updater-util.h"

class ConnectionUpdater {
 public:
  ConnectionUpdater() = default;
  ~ConnectionUpdater() = default;  // closes the database if open
  ConnectionUpdater(const ConnectionUpdater&) = delete;
  ConnectionUpdater& operator=(const ConnectionUpdater&) = delete;

  // Opens the existing event database at `path` (never creates one).  The
  // signatures live in the "sign" directory beside it.  0 open or already
  // open, -1 failure (the instance stays closed).
  int Open(const std::string& path);
  // Empties event_table, local_filter_table, server_filter_table and
  // scan_path_table in one transaction.
  int ClearEvents();
  // Stores `sync_id` as config_table's sync_id.
  int SetSyncId(uint64_t sync_id);

  // The open handle (null while closed), for statements that call
  // remove_signature.  Owned here; valid until destruction.
  sqlite3* db() const { return db_.get(); }
  const std::string& signature_dir() const { return signature_dir_; }

 private:
  std::string db_path_;        // the event database; set by Open
  std::string signature_dir_;  // directory of db_path_ + "/sign"; remove_signature's user data
  std::mutex mutex_;           // serialises the writes
  SqliteHandle db_;            // null while closed
};

// The SQL function remove_signature(node): removes the signature stored for
// `node` below the signature directory given as user data, recursively when
// it is a directory.  Always yields the integer 0.
void SqliteRemoveSignatureFunction(sqlite3_context* context, int argc, sqlite3_value** argv);

// The signature path of `node` relative to the signature directory: its
// bytes from the most significant non-zero one, two lowercase hex digits
// each, "/" between them and "." before the last ("12/ab/.56").  "" for 0.
std::string SignatureRelativePath(uint64_t node);

#endif  // VESTA_DB_CONNECTION_UPDATER_H_
