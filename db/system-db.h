// The system database: the SQLite file that lists the client's connections,
// sessions, the shared folders each server offers and the general options.
// The user-interface back end creates the rows, the sync daemon and this
// monitor read them, and the monitor writes status, errors, link state,
// read-only, encryption and mount state, user information and server views.
//
// SystemDB has static members only: one handle per process.  MonitorDaemon
// calls initialize before its worker threads start and deinitialize after
// they are joined; these two take no lock and must not overlap anything.
// Every other operation may be called from any thread and holds m_dbMutex
// for the whole of its SQLite work, so one statement of this process runs at
// a time on the shared handle; other processes are waited for up to the
// busy time-out (five minutes), or until the run flag clears.  The handle is
// opened without SQLite's own per-call lock: whoever uses m_db directly
// holds m_dbMutex too, or does so while no operation can run.
//
// Results: 0 success, -1 failure, unless an operation says otherwise.  A
// write that matches no row succeeds.  Messages go to system_db_debug.
//
// Folders: session_table stores sync_folder with one trailing "/", and
// remote_path too unless it is "/"; records hold them without (the root as
// "/").
#ifndef VESTA_DB_SYSTEM_DB_H_
#define VESTA_DB_SYSTEM_DB_H_

#include <sqlite3.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>

#include "db/records.h"

class SystemDB {
 public:
  SystemDB() = delete;

  // Opens (creating) the database at `path` and brings its schema up to
  // date; already open is a no-op.  0 opened or already open, -1 failure
  // (the database then stays closed).
  static int initialize(const std::string& path);
  static void deinitialize();

  static int setSessionStatus(uint64_t session_id, int status);
  static int setConnectionStatus(uint64_t conn_id, int status);
  static int setSessionErr(uint64_t session_id, int error);
  static int setConnectionErr(uint64_t conn_id, int error);
  static int setLinkByConnection(uint64_t conn_id, int linked);
  static int updateUserInfo(uint64_t conn_id, uint32_t uid, uint32_t gid, bool is_admin);
  static int setSessionReadOnly(uint64_t session_id);
  static int clearSessionReadOnly(uint64_t session_id);
  static int setSessionEncryptionState(uint64_t session_id, bool is_encryption, bool is_mounted);

  // Rewrites the row whose (nx_id, conn_type) match `entry`'s with the
  // entry's fields and the given proxy and tunnel settings (the proxy
  // password is stored encrypted; an empty one that was read undecoded is
  // written back as it was stored); no row is inserted.  Sets entry->id to
  // the row's id.  -1 also when no row matches, and (with an ERROR) when a
  // password cannot be encrypted.
  static int updateConnectionEntry(ConnectionEntry* entry, const ProxyInfo& proxy,
                                   const TunnelInfo& tunnel);
  // Rewrites the row whose (view_id, conn_id, remote_path) match `session`'s
  // and sets session->id to its id.  -1 also when no row matches.
  static int updateSessionInfo(SessionInfo* session);

  // Status and error of a session and of its connection.  -1 when the
  // session (or its connection) has no row.
  static int getSessionStatusAndErr(uint64_t session_id, int* session_status,
                                    int* session_error, int* conn_status, int* conn_error);
  static int getSessionErr(uint64_t session_id, int* error);     // -1 when no row
  static int getConnectionErr(uint64_t conn_id, int* error);     // -1 when no row
  // Fills the options that have a row; the others keep the caller's values.
  static int getGeneralOptions(GeneralOptions* options);
  // 0 found; -1 not found or failure.
  static int getConnectionEntryByConnID(uint64_t conn_id, ConnectionEntry* entry);
  // 0 found, or not found with `session` untouched; -1 failure.
  static int getSessionInfoBySessionID(uint64_t session_id, SessionInfo* session);
  // Looks the session up by its local folder (given without a trailing
  // "/").  1 found, 0 not found, -1 failure.
  static int getSessionInfoBySyncFolder(const std::string& sync_folder, SessionInfo* session);
  static int getSessionListByConnectionID(std::list<SessionInfo>* sessions, uint64_t conn_id);
  // Every connection row, linked or not.
  static int getLinkedConnectionEntryList(std::list<ConnectionEntry>* entries);
  // Replaces, in one transaction, the server views of connection `conn_id`
  // with `views` (an empty list deletes them all).
  static int replaceServerViews(uint64_t conn_id, const std::list<ServerViewEntry>& views);

  // The stored form of a proxy password: Blowfish CFB-64 under the program's
  // key with a zero vector, then standard base64.  "" stays "".  The key
  // must equal the one of the user-interface back end, which writes the
  // column too.  Thread-safe.
  static int EncodeProxyPassword(const std::string& plain, std::string* stored);
  // The inverse; the result is cut at its first NUL byte.  -1 (and "") when
  // `stored` is not base64 or the cipher is missing.  A row whose password
  // does not decode is read with the stored text in undecoded_password,
  // which updateConnectionEntry writes back unchanged.
  static int DecodeProxyPassword(const std::string& stored, std::string* plain);
  // Whether the cipher (OpenSSL's legacy provider) could be loaded.  When
  // not, initialize logs a CRIT line; stored passwords read as "" and are
  // kept as stored, and a new password is refused.
  static bool ProxyPasswordCipherLoaded();

  static sqlite3* m_db;               // the open database; null while closed
  static std::mutex m_dbMutex;        // held by every operation but open/close
  static std::string m_system_db_path;  // path of the open database; "" while closed
  // The process's run flag, or null: once it reads 0, a wait for another
  // process's lock ends and the operation fails (SetSqliteBusyWait).  Set
  // before initialize; it applies to every database the daemon opens.
  static const std::atomic<int32_t>* m_run_flag;
};

#endif  // VESTA_DB_SYSTEM_DB_H_
