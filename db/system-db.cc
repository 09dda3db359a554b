// SystemDB: the handle with its schema, and every write.
#include "db/system-db.h"

#include <chrono>
#include <cstdarg>
#include <sstream>

#include "db/system-db-sql.h"
#include "log/log.h"

using namespace system_db_detail;

sqlite3* SystemDB::m_db = nullptr;
std::mutex SystemDB::m_dbMutex;
std::string SystemDB::m_system_db_path;
const std::atomic<int32_t>* SystemDB::m_run_flag = nullptr;

namespace system_db_detail {

void ExecLocked(const char* sql, ExecResult* result) {
  result->code = sqlite3_exec(SystemDB::m_db, sql, nullptr, nullptr, result->message.out());
}

int StepOnce(sqlite3_stmt* stmt) {
  int rc = sqlite3_step(stmt);
  if (rc == SQLITE_ROW) return 1;
  if (rc == SQLITE_DONE) return 0;
  LOG_ERROR(kComponent, "sqlite3_step: [%d] %s", rc, sqlite3_errmsg(SystemDB::m_db));
  return -1;
}

int PrepareLocked(const char* op, const char* sql, SqliteStatement* stmt) {
  int rc = sqlite3_prepare_v2(SystemDB::m_db, sql, -1, stmt->out(), nullptr);
  if (rc != SQLITE_OK) {
    LOG_ERROR(kComponent, "%s: sqlite3_prepare_v2: %s (%d)", op, sqlite3_errmsg(SystemDB::m_db),
              rc);
    return -1;
  }
  return 0;
}

}  // namespace system_db_detail

namespace {

// The busy handler of SetSqliteBusyWait; `run_flag` is the flag or null.
// A handle is used by one thread at a time, so the start of the wait for
// one lock is kept per thread.
int WaitWhileBusy(void* run_flag, int count) {
  thread_local std::chrono::steady_clock::time_point since;
  const auto now = std::chrono::steady_clock::now();
  if (count == 0) since = now;
  const auto* run = static_cast<const std::atomic<int32_t>*>(run_flag);
  if (run != nullptr && run->load() == 0) return 0;
  if (now - since >= std::chrono::milliseconds(kSqliteBusyTimeoutMs)) return 0;
  sqlite3_sleep(kSqliteBusyStepMs);
  return 1;
}

}  // namespace

int SetSqliteBusyWait(sqlite3* db, const std::atomic<int32_t>* run_flag) {
  return sqlite3_busy_handler(db, WaitWhileBusy,
                              const_cast<std::atomic<int32_t>*>(run_flag));
}

namespace {

// Run on every start; every statement is idempotent, so a database made by
// an older version keeps its rows and its seed values.
const char kSchemaScript[] =
    "BEGIN IMMEDIATE;"
    "CREATE TABLE IF NOT EXISTS connection_table ("
    "id INTEGER PRIMARY KEY AUTOINCREMENT, "
    "conn_mode INTEGER DEFAULT 0, "
    "server_name TEXT DEFAULT '', "
    "server_ip TEXT DEFAULT '', "
    "server_port INTEGER DEFAULT 0, "
    "hopgate_mode TEXT DEFAULT '', "
    "username TEXT COLLATE NOCASE DEFAULT '', "
    "nx_id TEXT DEFAULT '', "
    "session TEXT NOT NULL DEFAULT '', "
    "protocol_version INTEGER DEFAULT 0, "
    "computer_name TEXT DEFAULT '', "
    "use_ssl INTEGER DEFAULT 0, "
    "use_proxy INTEGER DEFAULT 0, "
    "use_system_proxy INTEGER DEFAULT 0, "
    "proxy_ip TEXT DEFAULT '', "
    "proxy_port INTEGER DEFAULT 0, "
    "proxy_username TEXT DEFAULT '', "
    "proxy_password TEXT DEFAULT '', "
    "proxy_domain TEXT DEFAULT '', "
    "proxy_host TEXT DEFAULT '', "
    "use_tunnel INTEGER DEFAULT 0, "
    "tunnel_ip TEXT DEFAULT '', "
    "tunnel_port INTEGER DEFAULT 0, "
    "linked INTEGER DEFAULT 0, "
    "status INTEGER DEFAULT 0, "
    "error INTEGER DEFAULT 0, "
    "package_version INTEGER DEFAULT 0, "
    "major INTEGER DEFAULT 0, "
    "minor INTEGER DEFAULT 0, "
    "ssl_allow_untrust INTEGER DEFAULT 0, "
    "user_uid INTEGER DEFAULT 0, "
    "user_gid INTEGER DEFAULT 0, "
    "user_is_admin INTEGER DEFAULT 1, "
    "ssl_signature TEXT DEFAULT '', "
    "private_key_pem TEXT DEFAULT '', "
    "public_key_fingerprint TEXT DEFAULT '', "
    "restore_id TEXT DEFAULT '', "
    "enable_shared_with_me INTEGER DEFAULT 0, "
    "conn_type INTEGER DEFAULT 0, "
    "host_name TEXT DEFAULT '', "
    "cloud_extension_clsid TEXT DEFAULT '', "
    "domain_name TEXT DEFAULT '');"
    "CREATE TABLE IF NOT EXISTS session_table ("
    "id INTEGER PRIMARY KEY AUTOINCREMENT, "
    "conn_id INTEGER DEFAULT 0, "
    "share_name TEXT COLLATE NOCASE DEFAULT '', "
    "remote_path TEXT DEFAULT '', "
    "ctime DATATIME DEFAULT (strftime('%s','now')), "
    "view_id INTEGER DEFAULT 0, "
    "node_id INTEGER DEFAULT 0, "
    "status INTEGER DEFAULT 0, "
    "error INTEGER DEFAULT 0, "
    "share_version INTEGER DEFAULT 0, "
    "sync_folder TEXT DEFAULT '', "
    "perm_mode INTEGER DEFAULT 0, "
    "is_read_only INTEGER DEFAULT 0, "
    "is_daemon_enable INTEGER DEFAULT 0, "
    "sync_direction INTEGER DEFAULT 0, "
    "ignore_local_remove INTEGER DEFAULT 0, "
    "conflict_policy TEXT DEFAULT 'compare_mtime', "
    "rename_conflict INTEGER DEFAULT 1, "
    "is_encryption INTEGER DEFAULT 0, "
    "is_mounted INTEGER DEFAULT 1, "
    "attribute_check_strength INTEGER DEFAULT 0, "
    "sync_temp_file INTEGER DEFAULT 0, "
    "use_windows_cloud_file_api INTEGER DEFAULT 0, "
    "is_shared_with_me INTEGER DEFAULT 0, "
    "session_type INTEGER DEFAULT 0, "
    "with_q9share INTEGER DEFAULT 0, "
    "q9_share_id TEXT DEFAULT '', "
    "q9_hash_key TEXT DEFAULT '');"
    "CREATE TABLE IF NOT EXISTS server_view_table ("
    "view_id INTEGER DEFAULT 0, "
    "node_id INTEGER DEFAULT 0, "
    "conn_id INTEGER DEFAULT 0, "
    "privilege INTEGER DEFAULT 0, "
    "name TEXT COLLATE NOCASE DEFAULT '', "
    "share_version INTEGER DEFAULT 0, "
    "share_priv_disabled INTEGER DEFAULT 0, "
    "is_encryption INTEGER DEFAULT 0, "
    "is_mount INTEGER DEFAULT 1, "
    "is_q9share INTEGER DEFAULT 0, "
    "PRIMARY KEY (view_id, conn_id) ON CONFLICT REPLACE);"
    "CREATE TABLE IF NOT EXISTS system_table ("
    "key VARCHAR PRIMARY KEY ON CONFLICT IGNORE, "
    "value VARCHAR NOT NULL);"
    "CREATE TABLE IF NOT EXISTS backup_plan_table ("
    "task_id INTEGER DEFAULT 0, "
    "last_complete_time INTEGER DEFAULT 0, "
    "next_update_time INTEGER DEFAULT 0, "
    "backup_start_time TEXT DEFAULT '00:00', "
    "backup_end_time INTEGER DEFAULT 0, "
    "backup_status INTEGER DEFAULT 0, "
    "backup_mode INTEGER DEFAULT 0, "
    "backup_days TEXT DEFAULT '1111111', "
    "backup_times INTEGER DEFAULT 0, "
    "backup_period INTEGER DEFAULT 0, "
    "do_missing_backup INTEGER DEFAULT 0);"
    "CREATE INDEX IF NOT EXISTS session_table_name_idx ON session_table(share_name);"
    "CREATE INDEX IF NOT EXISTS session_table_view_idx ON session_table(view_id);"
    "INSERT OR IGNORE INTO system_table (key, value) VALUES ('release_version', '31');"
    "INSERT OR IGNORE INTO system_table (key, value) VALUES ('sync_temp_file', '0');"
    "INSERT OR IGNORE INTO system_table (key, value) VALUES ('show_on_demand_sync_promotion', '1');"
    "INSERT OR IGNORE INTO system_table (key, value) VALUES ('enable_advanced_log', '0');"
    "COMMIT;";

// A remote path as session_table stores it: with one trailing "/" unless
// it is the root.
std::string StoredRemotePath(const std::string& path) { return path == "/" ? path : path + "/"; }

// The one-row writes fall into four families, each with its own failure
// messages.
enum class RowWrite { kStatusOrError, kLink, kSessionFlags, kUserInfo };

void LogFormatFailure(RowWrite family) {
  switch (family) {
    case RowWrite::kStatusOrError:
      LOG_ERROR(kComponent, " sqlite3_mprintf failed.");
      return;
    case RowWrite::kLink:
      LOG_ERROR(kComponent, "insert sqlite3_mprintf failed.");
      return;
    case RowWrite::kSessionFlags:
      LOG_ERROR(kComponent, "sqlite3_mprintf failed");
      return;
    case RowWrite::kUserInfo:
      return;  // silent
  }
}

void LogExecFailure(RowWrite family, const char* op, uint64_t id, const ExecResult& r) {
  switch (family) {
    case RowWrite::kStatusOrError:
    case RowWrite::kLink:
      LOG_ERROR(kComponent, "%s fail ret = %d %s", op, r.code, r.message.c_str());
      return;
    case RowWrite::kSessionFlags:
      LOG_ERROR(kComponent, "sqlite3_exec failed: ret = %d [%s]", r.code, r.message.c_str());
      return;
    case RowWrite::kUserInfo:
      LOG_ERROR(kComponent, "update user info of #%llu failed (%d)", static_cast<ull>(id),
                r.code);
      return;
  }
}

// Formats one single-row statement with SQLite's printf and runs it under
// m_dbMutex.  `op` and `id` (the row's id) name the write in its failure
// message.
__attribute__((format(printf, 4, 5))) int WriteRow(RowWrite family, const char* op,
                                                     uint64_t id, const char* format, ...) {
  va_list args;
  va_start(args, format);
  SqliteText sql(sqlite3_vmprintf(format, args));
  va_end(args);
  if (!sql) {
    LogFormatFailure(family);
    return -1;
  }
  ExecResult r;
  {
    std::lock_guard<std::mutex> lock(SystemDB::m_dbMutex);
    ExecLocked(sql.get(), &r);
  }
  if (r.code != SQLITE_OK) {
    LogExecFailure(family, op, id, r);
    return -1;
  }
  return 0;
}

// Reads the one id column of `sql` into `id`.  1 found, 0 none, -1 failure.
// Caller holds the lock.
int SelectIdLocked(const char* op, const char* sql, uint64_t* id) {
  SqliteStatement stmt;
  if (PrepareLocked(op, sql, &stmt) != 0) return -1;
  int found = StepOnce(stmt.get());
  if (found == 1) *id = static_cast<uint64_t>(sqlite3_column_int64(stmt.get(), 0));
  return found;
}

// Runs the update of `op`, then the select that finds the updated row's id,
// both under one hold of m_dbMutex.  0 with `id` set; -1 on failure or
// when no row matched (`what` names the row in the message).
int UpdateAndSelectId(const char* op, const char* what, const char* update,
                      const char* select, uint64_t* id) {
  std::lock_guard<std::mutex> lock(SystemDB::m_dbMutex);
  ExecResult r;
  ExecLocked(update, &r);
  if (r.code != SQLITE_OK) {
    LOG_ERROR(kComponent, "%s fail ret = %d %s", op, r.code, r.message.c_str());
    return -1;
  }
  int found = SelectIdLocked(op, select, id);
  if (found < 0) return -1;
  if (found == 0) {
    LOG_ERROR(kComponent, "cannnot get id for last update %s", what);
    return -1;
  }
  return 0;
}

}  // namespace

int SystemDB::initialize(const std::string& path) {
  if (m_db != nullptr) {
    LOG_INFO(kComponent, "SystemDB has been initialized (no-op)");
    return 0;
  }
  // m_dbMutex serialises every use of the handle, so SQLite's own lock
  // around each call (taken by every column read of every row) is dropped.
  SqliteHandle db;
  int rc = sqlite3_open_v2(path.c_str(), db.out(),
                           SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    LOG_ERROR(kComponent, "SystemDB: Failed to open database at '%s'. [%d] %s", path.c_str(), rc,
              sqlite3_errmsg(db.get()));
    return -1;
  }
  SetSqliteBusyWait(db.get(), m_run_flag);
  SqliteText error;
  rc = sqlite3_exec(db.get(), kSchemaScript, nullptr, nullptr, error.out());
  if (rc != SQLITE_OK) {
    LOG_ERROR(kComponent, "SystemDB: Failed to initialize database at '%s'. [%d] %s",
              path.c_str(), rc, error.c_str());
    LOG_ERROR(kComponent, "initialize fail %s", sqlite3_errmsg(db.get()));
    return -1;
  }
  m_db = db.release();
  m_system_db_path = path;
  LOG_INFO(kComponent, "SystemDB has been initialized with location '%s'", path.c_str());
  if (!ProxyPasswordCipherLoaded()) {
    LOG_CRIT(kComponent,
             "cannot load OpenSSL's legacy provider: stored proxy passwords cannot be read and "
             "are kept as stored; new ones are refused");
  }
  return 0;
}

void SystemDB::deinitialize() {
  if (m_db == nullptr) {
    LOG_INFO(kComponent, "SystemDB has been deinitialzed (no-op)");
    return;
  }
  sqlite3_close(m_db);
  m_db = nullptr;
  m_system_db_path.clear();
  LOG_INFO(kComponent, "SystemDB has been deinitialzed");
}

int SystemDB::setSessionStatus(uint64_t session_id, int status) {
  return WriteRow(RowWrite::kStatusOrError, "setSessionStatus", session_id,
                  "update session_table SET status = %d WHERE id = %llu;", status,
                  static_cast<ull>(session_id));
}

int SystemDB::setConnectionStatus(uint64_t conn_id, int status) {
  return WriteRow(RowWrite::kStatusOrError, "setConnectionStatus", conn_id,
                  "update connection_table SET status = %d WHERE id = %llu;", status,
                  static_cast<ull>(conn_id));
}

int SystemDB::setSessionErr(uint64_t session_id, int error) {
  return WriteRow(RowWrite::kStatusOrError, "setSessionErr", session_id,
                  "update session_table SET error = %d WHERE id = %llu;", error,
                  static_cast<ull>(session_id));
}

int SystemDB::setConnectionErr(uint64_t conn_id, int error) {
  return WriteRow(RowWrite::kStatusOrError, "setConnectionErr", conn_id,
                  "update connection_table SET error = %d WHERE id = %llu;", error,
                  static_cast<ull>(conn_id));
}

int SystemDB::setLinkByConnection(uint64_t conn_id, int linked) {
  return WriteRow(RowWrite::kLink, "setLinkByConnection", conn_id,
                  "UPDATE connection_table SET linked = %d WHERE id = %llu; ", linked,
                  static_cast<ull>(conn_id));
}

int SystemDB::updateUserInfo(uint64_t conn_id, uint32_t uid, uint32_t gid, bool is_admin) {
  return WriteRow(RowWrite::kUserInfo, "updateUserInfo", conn_id,
                  "UPDATE connection_table SET user_uid = %u, user_gid = %u, user_is_admin = %u "
                  "WHERE id = %llu\n",
                  uid, gid, is_admin ? 1u : 0u, static_cast<ull>(conn_id));
}

int SystemDB::setSessionReadOnly(uint64_t session_id) {
  return WriteRow(RowWrite::kSessionFlags, "setSessionReadOnly", session_id,
                  "UPDATE session_table SET is_read_only = 1 WHERE id = %llu;",
                  static_cast<ull>(session_id));
}

int SystemDB::clearSessionReadOnly(uint64_t session_id) {
  return WriteRow(RowWrite::kSessionFlags, "clearSessionReadOnly", session_id,
                  "UPDATE session_table SET is_read_only = 0 WHERE id = %llu;",
                  static_cast<ull>(session_id));
}

int SystemDB::setSessionEncryptionState(uint64_t session_id, bool is_encryption,
                                        bool is_mounted) {
  return WriteRow(RowWrite::kSessionFlags, "setSessionEncryptionState", session_id,
                  "UPDATE session_table SET is_encryption = %d, is_mounted = %d WHERE id = %llu;",
                  is_encryption ? 1 : 0, is_mounted ? 1 : 0, static_cast<ull>(session_id));
}

int SystemDB::updateConnectionEntry(ConnectionEntry* entry, const ProxyInfo& proxy,
                                    const TunnelInfo& tunnel) {
  std::string password;
  if (proxy.proxy_password.empty() && !proxy.undecoded_password.empty()) {
    password = proxy.undecoded_password;  // unreadable here, not gone
  } else if (EncodeProxyPassword(proxy.proxy_password, &password) != 0) {
    LOG_ERROR(kComponent, "failed to encrypt the proxy password of connection %llu",
              static_cast<ull>(entry->id));
    return -1;
  }
  const ConnectionEntry& e = *entry;
  SqliteText update(sqlite3_mprintf(
      "UPDATE connection_table SET  conn_mode = %d,  server_name = '%q',  server_ip = '%q',  "
      "server_port = %d,  hopgate_mode = '%q',  session = '%q',  protocol_version = %d,  "
      "computer_name = '%q',  use_ssl = %d,  package_version = %ld,  major = %d,  minor = %d,  "
      "ssl_allow_untrust = %d,  ssl_signature = '%q',  use_proxy = %d,  use_system_proxy = %d,  "
      "proxy_ip = '%q',  proxy_port = %d,  proxy_username = '%q',  proxy_password = '%q',  "
      "proxy_domain = '%q',  proxy_host = '%q',  use_tunnel = %d,  tunnel_ip = '%q',  "
      "tunnel_port = %d,  private_key_pem = '%q',  public_key_fingerprint = '%q' , "
      "restore_id = '%q',  enable_shared_with_me = %d,  conn_type = %d,  host_name = '%q',  "
      "cloud_extension_clsid = '%q',  domain_name = '%q'  WHERE nx_id = '%q' AND conn_type = %d ; ",
      e.conn_mode, e.server_name.c_str(), e.server_ip.c_str(), e.server_port, "",
      e.session.c_str(), e.protocol_version, e.computer_name.c_str(), e.use_ssl ? 1 : 0,
      static_cast<long>(e.package_version), e.major, e.minor, e.ssl_allow_untrust ? 1 : 0,
      e.ssl_signature.c_str(), proxy.use_proxy ? 1 : 0, proxy.use_system_proxy ? 1 : 0,
      proxy.proxy_ip.c_str(), static_cast<int>(proxy.proxy_port), proxy.proxy_username.c_str(),
      password.c_str(), proxy.proxy_domain.c_str(), proxy.proxy_host.c_str(),
      tunnel.use_tunnel ? 1 : 0, tunnel.tunnel_ip.c_str(), static_cast<int>(tunnel.tunnel_port),
      e.private_key_pem.c_str(), e.public_key_fingerprint.c_str(), e.restore_id.c_str(),
      e.enable_shared_with_me ? 1 : 0, e.conn_type, e.host_name.c_str(),
      e.cloud_extension_clsid.c_str(), e.domain_name.c_str(), e.nx_id.c_str(), e.conn_type));
  SqliteText select(
      sqlite3_mprintf("select id from connection_table WHERE nx_id = '%q' AND conn_type = %d  ;",
                      e.nx_id.c_str(), e.conn_type));
  if (!update || !select) {
    LOG_ERROR(kComponent, "insert/replace sqlite3_mprintf failed.");
    return -1;
  }
  uint64_t id = 0;
  if (UpdateAndSelectId("updateConnectionEntry", "connection", update.get(), select.get(), &id) != 0) return -1;
  entry->id = id;
  LOG_DEBUG(kComponent, "update conn id %llu", static_cast<ull>(id));
  return 0;
}

int SystemDB::updateSessionInfo(SessionInfo* session) {
  const SessionInfo& s = *session;
  const std::string sync_folder = s.sync_folder + "/";
  const std::string remote_path = StoredRemotePath(s.remote_path);
  SqliteText update(sqlite3_mprintf(
      "UPDATE session_table SET share_name = '%q', sync_folder = '%q', perm_mode = %d , "
      "share_version = %d , is_read_only = %d , is_daemon_enable = %d, sync_direction = %d, "
      "ignore_local_remove = %d, conflict_policy = '%q', rename_conflict = %d, "
      "with_q9share = %d, is_encryption = %d, is_mounted = %d, attribute_check_strength = %d, "
      "sync_temp_file = %d, use_windows_cloud_file_api = %d, is_shared_with_me = %d, "
      "session_type = %d, q9_share_id = '%q', q9_hash_key = '%q' "
      "WHERE view_id = %llu AND conn_id = %llu AND remote_path = '%q';",
      s.share_name.c_str(), sync_folder.c_str(), s.perm_mode, s.share_version,
      s.is_read_only ? 1 : 0, s.is_daemon_enable ? 1 : 0, s.sync_direction,
      s.ignore_local_remove ? 1 : 0, s.conflict_policy.c_str(), s.rename_conflict ? 1 : 0,
      s.with_q9share ? 1 : 0, s.is_encryption ? 1 : 0, s.is_mounted ? 1 : 0,
      s.attribute_check_strength, s.sync_temp_file ? 1 : 0, s.use_windows_cloud_file_api ? 1 : 0,
      s.is_shared_with_me ? 1 : 0, s.session_type, s.q9_share_id.c_str(), s.q9_hash_key.c_str(),
      static_cast<ull>(s.view_id), static_cast<ull>(s.conn_id), remote_path.c_str()));
  SqliteText select(sqlite3_mprintf(
      "select id from session_table WHERE view_id = %llu AND conn_id = %llu AND "
      "remote_path = '%q';",
      static_cast<ull>(s.view_id), static_cast<ull>(s.conn_id), remote_path.c_str()));
  if (!update || !select) {
    LOG_ERROR(kComponent, "insert/replace sqlite3_mprintf failed.");
    return -1;
  }
  uint64_t id = 0;
  if (UpdateAndSelectId("updateSessionInfo", "session", update.get(), select.get(), &id) != 0) return -1;
  session->id = id;
  LOG_DEBUG(kComponent, "update row id %llu", static_cast<ull>(id));
  return 0;
}

int SystemDB::replaceServerViews(uint64_t conn_id, const std::list<ServerViewEntry>& views) {
  std::ostringstream script;
  script << "BEGIN TRANSACTION;"
         << "DELETE FROM server_view_table WHERE conn_id = " << conn_id << ";";
  if (!views.empty()) {
    script << "INSERT OR REPLACE INTO server_view_table (view_id, node_id, conn_id, privilege, "
              "name, share_version, share_priv_disabled, is_encryption, is_mount, is_q9share) "
           << " VALUES ";
    const char* separator = "";
    for (const ServerViewEntry& v : views) {
      SqliteText name(sqlite3_mprintf("%Q", v.name.c_str()));
      if (!name) {
        LOG_ERROR(kComponent, "sqlite3_mprintf failed");
        return -1;
      }
      script << separator << "(" << v.view_id << ", " << v.node_id << ", " << conn_id << ", "
             << v.privilege << ", " << name.get() << ", " << v.share_version << ", "
             << int{v.share_priv_disabled} << ", " << int{v.is_encryption} << ", "
             << int{v.is_mount} << ", " << int{v.is_q9share} << ")";
      separator = ", ";
    }
    script << ";";
  }
  script << "END TRANSACTION;";
  const std::string sql = script.str();
  ExecResult r;
  {
    std::lock_guard<std::mutex> lock(m_dbMutex);
    ExecLocked(sql.c_str(), &r);
    // A failed statement leaves the transaction open on the shared handle.
    if (r.code != SQLITE_OK && !sqlite3_get_autocommit(m_db)) {
      sqlite3_exec(m_db, "ROLLBACK;", nullptr, nullptr, nullptr);
    }
  }
  if (r.code != SQLITE_OK) {
    LOG_ERROR(kComponent, "sqlite3_exec: Failed (%d) %s, sql = %s", r.code, r.message.c_str(),
              sql.c_str());
    return -1;
  }
  return 0;
}
