#include "db/system-db.h"

#include <openssl/evp.h>
#include <openssl/provider.h>

#include <cstdarg>
#include <cstring>
#include <memory>
#include <sstream>

#include "db/base64.h"
#include "db/sqlite-guards.h"
#include "log/log.h"

sqlite3* SystemDB::m_db = nullptr;
std::mutex SystemDB::m_dbMutex;
std::string SystemDB::m_system_db_path;

namespace {

const char kComponent[] = "system_db_debug";

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

// All columns of connection_table in table order; ConnCol indexes them.
const char kConnectionColumns[] =
    "id, conn_mode, server_name, server_ip, server_port, hopgate_mode, username, nx_id, "
    "session, protocol_version, computer_name, use_ssl, use_proxy, use_system_proxy, "
    "proxy_ip, proxy_port, proxy_username, proxy_password, proxy_domain, proxy_host, "
    "use_tunnel, tunnel_ip, tunnel_port, linked, status, error, package_version, major, "
    "minor, ssl_allow_untrust, user_uid, user_gid, user_is_admin, ssl_signature, "
    "private_key_pem, public_key_fingerprint, restore_id, enable_shared_with_me, "
    "conn_type, host_name, cloud_extension_clsid, domain_name";

enum ConnCol {
  kConnId, kConnMode, kServerName, kServerIp, kServerPort, kHopgateMode, kUsername, kNxId,
  kSession, kProtocolVersion, kComputerName, kUseSsl, kUseProxy, kUseSystemProxy,
  kProxyIp, kProxyPort, kProxyUsername, kProxyPassword, kProxyDomain, kProxyHost,
  kUseTunnel, kTunnelIp, kTunnelPort, kLinked, kConnStatus, kConnError, kPackageVersion,
  kMajor, kMinor, kSslAllowUntrust, kUserUid, kUserGid, kUserIsAdmin, kSslSignature,
  kPrivateKeyPem, kPublicKeyFingerprint, kRestoreId, kEnableSharedWithMe, kConnType,
  kHostName, kCloudExtensionClsid, kDomainName, kConnColumnCount
};
static_assert(kConnColumnCount == 42, "connection_table has 42 columns");

// The columns the session reads select, in this order; SessCol indexes them.
const char kSessionColumns[] =
    "id, conn_id, share_name, ctime, view_id, status, error, share_version, sync_folder, "
    "perm_mode, is_read_only, is_daemon_enable, node_id, sync_direction, "
    "ignore_local_remove, conflict_policy, rename_conflict, remote_path, is_encryption, "
    "is_mounted, attribute_check_strength, sync_temp_file, use_windows_cloud_file_api, "
    "is_shared_with_me, session_type, with_q9share, q9_share_id, q9_hash_key";

enum SessCol {
  kSessId, kSessConnId, kShareName, kCtime, kViewId, kSessStatus, kSessError,
  kShareVersion, kSyncFolder, kPermMode, kIsReadOnly, kIsDaemonEnable, kNodeId,
  kSyncDirection, kIgnoreLocalRemove, kConflictPolicy, kRenameConflict, kRemotePath,
  kIsEncryption, kIsMounted, kAttributeCheckStrength, kSyncTempFile,
  kUseWindowsCloudFileApi, kIsSharedWithMe, kSessionType, kWithQ9share, kQ9ShareId,
  kQ9HashKey, kSessColumnCount
};
static_assert(kSessColumnCount == 28, "the session reads select 28 columns");

using ull = unsigned long long;

// Sets `out` to the column's text; NULL reads as "".
void ReadText(sqlite3_stmt* stmt, int col, std::string* out) {
  const unsigned char* text = sqlite3_column_text(stmt, col);
  if (text != nullptr) {
    out->assign(reinterpret_cast<const char*>(text));
  } else {
    out->clear();
  }
}

uint64_t ColumnId(sqlite3_stmt* stmt, int col) {
  return static_cast<uint64_t>(sqlite3_column_int64(stmt, col));
}

bool ColumnNonZero(sqlite3_stmt* stmt, int col) { return sqlite3_column_int64(stmt, col) != 0; }
bool ColumnIsOne(sqlite3_stmt* stmt, int col) { return sqlite3_column_int64(stmt, col) == 1; }

void ReadConnectionRow(sqlite3_stmt* stmt, ConnectionEntry* e) {
  e->id = ColumnId(stmt, kConnId);
  e->conn_mode = sqlite3_column_int(stmt, kConnMode);
  ReadText(stmt, kServerName, &e->server_name);
  ReadText(stmt, kServerIp, &e->server_ip);
  e->server_port = sqlite3_column_int(stmt, kServerPort);
  ReadText(stmt, kUsername, &e->username);
  ReadText(stmt, kNxId, &e->nx_id);
  ReadText(stmt, kSession, &e->session);
  e->protocol_version = sqlite3_column_int(stmt, kProtocolVersion);
  ReadText(stmt, kComputerName, &e->computer_name);
  e->use_ssl = ColumnNonZero(stmt, kUseSsl);
  e->proxy.use_proxy = ColumnNonZero(stmt, kUseProxy);
  e->proxy.use_system_proxy = ColumnNonZero(stmt, kUseSystemProxy);
  ReadText(stmt, kProxyIp, &e->proxy.proxy_ip);
  e->proxy.proxy_port = static_cast<uint16_t>(sqlite3_column_int(stmt, kProxyPort));
  ReadText(stmt, kProxyUsername, &e->proxy.proxy_username);
  std::string stored_password;
  ReadText(stmt, kProxyPassword, &stored_password);
  SystemDB::DecodeProxyPassword(stored_password, &e->proxy.proxy_password);
  ReadText(stmt, kProxyDomain, &e->proxy.proxy_domain);
  ReadText(stmt, kProxyHost, &e->proxy.proxy_host);
  e->tunnel.use_tunnel = ColumnNonZero(stmt, kUseTunnel);
  ReadText(stmt, kTunnelIp, &e->tunnel.tunnel_ip);
  e->tunnel.tunnel_port = static_cast<uint16_t>(sqlite3_column_int(stmt, kTunnelPort));
  e->linked = sqlite3_column_int(stmt, kLinked);
  e->status = sqlite3_column_int(stmt, kConnStatus);
  e->error = sqlite3_column_int(stmt, kConnError);
  e->package_version = sqlite3_column_int(stmt, kPackageVersion);
  e->major = sqlite3_column_int(stmt, kMajor);
  e->minor = sqlite3_column_int(stmt, kMinor);
  e->ssl_allow_untrust = ColumnNonZero(stmt, kSslAllowUntrust);
  e->user_uid = static_cast<uint32_t>(sqlite3_column_int64(stmt, kUserUid));
  e->user_gid = static_cast<uint32_t>(sqlite3_column_int64(stmt, kUserGid));
  e->user_is_admin = ColumnNonZero(stmt, kUserIsAdmin);
  ReadText(stmt, kSslSignature, &e->ssl_signature);
  ReadText(stmt, kPrivateKeyPem, &e->private_key_pem);
  ReadText(stmt, kPublicKeyFingerprint, &e->public_key_fingerprint);
  ReadText(stmt, kRestoreId, &e->restore_id);
  e->enable_shared_with_me = ColumnNonZero(stmt, kEnableSharedWithMe);
  e->conn_type = sqlite3_column_int(stmt, kConnType);
  ReadText(stmt, kHostName, &e->host_name);
  ReadText(stmt, kCloudExtensionClsid, &e->cloud_extension_clsid);
  ReadText(stmt, kDomainName, &e->domain_name);
  e->resolved_address.clear();
}

// Drops trailing "/" and "\" unless the folder is made of nothing else.
void StripSyncFolder(std::string* folder) {
  size_t n = folder->size();
  while (n > 0 && ((*folder)[n - 1] == '/' || (*folder)[n - 1] == '\\')) --n;
  if (n > 0) folder->resize(n);
}

// Drops trailing "/" unless the path is exactly the root.
void StripRemotePath(std::string* path) {
  if (*path == "/") return;
  size_t end = path->find_last_not_of('/');
  path->resize(end == std::string::npos ? 0 : end + 1);
}

std::string StoredRemotePath(const std::string& path) { return path == "/" ? path : path + "/"; }

void ReadSessionRow(sqlite3_stmt* stmt, SessionInfo* s) {
  s->id = ColumnId(stmt, kSessId);
  s->conn_id = ColumnId(stmt, kSessConnId);
  ReadText(stmt, kShareName, &s->share_name);
  s->view_id = ColumnId(stmt, kViewId);
  s->share_version = sqlite3_column_int(stmt, kShareVersion);
  ReadText(stmt, kSyncFolder, &s->sync_folder);
  StripSyncFolder(&s->sync_folder);
  s->perm_mode = sqlite3_column_int(stmt, kPermMode);
  s->is_read_only = ColumnNonZero(stmt, kIsReadOnly);
  s->is_daemon_enable = ColumnNonZero(stmt, kIsDaemonEnable);
  s->node_id = ColumnId(stmt, kNodeId);
  s->sync_direction = sqlite3_column_int(stmt, kSyncDirection);
  s->ignore_local_remove = ColumnNonZero(stmt, kIgnoreLocalRemove);
  ReadText(stmt, kConflictPolicy, &s->conflict_policy);
  s->rename_conflict = ColumnNonZero(stmt, kRenameConflict);
  ReadText(stmt, kRemotePath, &s->remote_path);
  StripRemotePath(&s->remote_path);
  s->is_encryption = ColumnIsOne(stmt, kIsEncryption);
  s->is_mounted = ColumnIsOne(stmt, kIsMounted);
  s->attribute_check_strength = sqlite3_column_int(stmt, kAttributeCheckStrength);
  s->sync_temp_file = ColumnIsOne(stmt, kSyncTempFile);
  s->use_windows_cloud_file_api = ColumnIsOne(stmt, kUseWindowsCloudFileApi);
  s->is_shared_with_me = ColumnIsOne(stmt, kIsSharedWithMe);
  s->session_type = sqlite3_column_int(stmt, kSessionType);
  s->with_q9share = ColumnNonZero(stmt, kWithQ9share);
  ReadText(stmt, kQ9ShareId, &s->q9_share_id);
  ReadText(stmt, kQ9HashKey, &s->q9_hash_key);
}

struct ExecResult {
  int code = SQLITE_OK;
  SqliteText message;  // SQLite's error text, when it gave one
};

// Runs `sql` on the open database.  The caller holds m_dbMutex.
void ExecLocked(const char* sql, ExecResult* result) {
  result->code = sqlite3_exec(SystemDB::m_db, sql, nullptr, nullptr, result->message.out());
}

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

// Steps `stmt` once.  1 row, 0 done, -1 error (logged).  Caller holds the lock.
int StepOnce(sqlite3_stmt* stmt) {
  int rc = sqlite3_step(stmt);
  if (rc == SQLITE_ROW) return 1;
  if (rc == SQLITE_DONE) return 0;
  LOG_ERROR(kComponent, "sqlite3_step: [%d] %s", rc, sqlite3_errmsg(SystemDB::m_db));
  return -1;
}

// Prepares `sql` into `stmt`; logs "<op>: sqlite3_prepare_v2: ..." on failure.
int PrepareLocked(const char* op, const char* sql, SqliteStatement* stmt) {
  int rc = sqlite3_prepare_v2(SystemDB::m_db, sql, -1, stmt->out(), nullptr);
  if (rc != SQLITE_OK) {
    LOG_ERROR(kComponent, "%s: sqlite3_prepare_v2: %s (%d)", op, sqlite3_errmsg(SystemDB::m_db),
              rc);
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
  if (found == 1) *id = ColumnId(stmt.get(), 0);
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

// Reads the integer columns of the first row of `formatted` (a statement
// from sqlite3_mprintf, taken over) into `out[0..count)`.  1 found, 0 no
// row, -1 failure (logged under `op`).
int SelectInts(const char* op, char* formatted, int* const* out, int count) {
  SqliteText sql(formatted);
  if (!sql) {
    LOG_ERROR(kComponent, "sqlite3_mprintf failed");
    return -1;
  }
  std::lock_guard<std::mutex> lock(SystemDB::m_dbMutex);
  SqliteStatement stmt;
  if (PrepareLocked(op, sql.get(), &stmt) != 0) return -1;
  int found = StepOnce(stmt.get());
  if (found == 1) {
    for (int i = 0; i < count; ++i) *out[i] = sqlite3_column_int(stmt.get(), i);
  }
  return found;
}

// Reads every row of `sql` into `rows` with `read`.  0, or -1 on failure.
template <typename Record>
int SelectRows(const char* op, const char* sql, void (*read)(sqlite3_stmt*, Record*),
               std::list<Record>* rows) {
  std::lock_guard<std::mutex> lock(SystemDB::m_dbMutex);
  SqliteStatement stmt;
  if (PrepareLocked(op, sql, &stmt) != 0) return -1;
  int row;
  while ((row = StepOnce(stmt.get())) == 1) {
    rows->emplace_back();
    read(stmt.get(), &rows->back());
  }
  return row < 0 ? -1 : 0;
}

// Reads one session matched by `where` (an SQL condition).  1 found, 0 not
// found, -1 failure.
int SelectOneSession(const char* where, SessionInfo* session) {
  SqliteText sql(sqlite3_mprintf("SELECT %s FROM session_table WHERE %s;", kSessionColumns, where));
  if (!sql) {
    LOG_ERROR(kComponent, "insert/replace sqlite3_mprintf failed.");
    return -1;
  }
  std::lock_guard<std::mutex> lock(SystemDB::m_dbMutex);
  SqliteStatement stmt;
  if (PrepareLocked("getSessionInfoBySessionID", sql.get(), &stmt) != 0) return -1;
  int found = StepOnce(stmt.get());
  if (found == 1) ReadSessionRow(stmt.get(), session);
  return found;
}

// The Blowfish key of the stored proxy password.  The user-interface back
// end encrypts with the same four bytes.
const unsigned char kProxyPasswordKey[4] = {0x5c, 0x3a, 0x9e, 0x71};

// Blowfish lives in OpenSSL's legacy provider; a library context of our own
// holds it (with the default provider) so the rest of the process keeps the
// default set-up.  Created once, kept for the process's life.
OSSL_LIB_CTX* CipherContext() {
  static OSSL_LIB_CTX* ctx = [] {
    OSSL_LIB_CTX* c = OSSL_LIB_CTX_new();
    if (c != nullptr) {
      OSSL_PROVIDER_load(c, "legacy");
      OSSL_PROVIDER_load(c, "default");
    }
    return c;
  }();
  return ctx;
}

struct CipherFree {
  void operator()(EVP_CIPHER* c) const { EVP_CIPHER_free(c); }
};
struct CipherCtxFree {
  void operator()(EVP_CIPHER_CTX* c) const { EVP_CIPHER_CTX_free(c); }
};

// Blowfish CFB-64 over `in` with the password key and a zero vector;
// `encrypt` picks the direction.  The output has the input's length.
int ProxyPasswordCipher(const std::string& in, bool encrypt, std::string* out) {
  out->clear();
  OSSL_LIB_CTX* lib = CipherContext();
  if (lib == nullptr) return -1;
  std::unique_ptr<EVP_CIPHER, CipherFree> cipher(EVP_CIPHER_fetch(lib, "BF-CFB", nullptr));
  std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree> ctx(EVP_CIPHER_CTX_new());
  if (!cipher || !ctx) return -1;
  const int enc = encrypt ? 1 : 0;
  const unsigned char iv[8] = {0};
  if (EVP_CipherInit_ex2(ctx.get(), cipher.get(), nullptr, nullptr, enc, nullptr) != 1 ||
      EVP_CIPHER_CTX_set_key_length(ctx.get(), sizeof(kProxyPasswordKey)) != 1 ||
      EVP_CipherInit_ex2(ctx.get(), nullptr, kProxyPasswordKey, iv, enc, nullptr) != 1) {
    return -1;
  }
  std::string buffer(in.size() + EVP_MAX_BLOCK_LENGTH, '\0');
  unsigned char* dst = reinterpret_cast<unsigned char*>(&buffer[0]);
  int len = 0, tail = 0;
  if (EVP_CipherUpdate(ctx.get(), dst, &len, reinterpret_cast<const unsigned char*>(in.data()),
                       static_cast<int>(in.size())) != 1 ||
      EVP_CipherFinal_ex(ctx.get(), dst + len, &tail) != 1) {
    return -1;
  }
  buffer.resize(static_cast<size_t>(len + tail));
  out->swap(buffer);
  return 0;
}

}  // namespace

int SystemDB::EncodeProxyPassword(const std::string& plain, std::string* stored) {
  stored->clear();
  if (plain.empty()) return 0;
  std::string cipher_text;
  if (ProxyPasswordCipher(plain, true, &cipher_text) != 0) return -1;
  return Base64Encode(cipher_text, kBase64Standard, stored);
}

int SystemDB::DecodeProxyPassword(const std::string& stored, std::string* plain) {
  plain->clear();
  std::string cipher_text;
  if (Base64Decode(stored, kBase64Standard, &cipher_text) != 0) return -1;
  if (ProxyPasswordCipher(cipher_text, false, plain) != 0) return -1;
  size_t nul = plain->find('\0');
  if (nul != std::string::npos) plain->resize(nul);
  return 0;
}

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
  sqlite3_busy_timeout(db.get(), kSqliteBusyTimeoutMs);
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
  sqlite3_busy_timeout(m_db, kSqliteBusyTimeoutMs);
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
  if (EncodeProxyPassword(proxy.proxy_password, &password) != 0) {
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

int SystemDB::getSessionStatusAndErr(uint64_t session_id, int* session_status,
                                     int* session_error, int* conn_status, int* conn_error) {
  int* const out[] = {session_status, session_error, conn_status, conn_error};
  int found = SelectInts("getSessionStatusAndErr",
                         sqlite3_mprintf("SELECT st.status, st.error, ct.status, ct.error FROM "
                                         "session_table AS st, connection_table AS ct WHERE "
                                         "st.id = %llu AND ct.id = st.conn_id;",
                                         static_cast<ull>(session_id)),
                         out, 4);
  if (found == 0) {
    LOG_DEBUG(kComponent, "cannnot get getSessionStatusAndErr %llu", static_cast<ull>(session_id));
  }
  return found == 1 ? 0 : -1;
}

int SystemDB::getSessionErr(uint64_t session_id, int* error) {
  int* const out[] = {error};
  int found = SelectInts(
      "getSessionErr",
      sqlite3_mprintf("SELECT error from session_table WHERE id = %llu;",
                      static_cast<ull>(session_id)),
      out, 1);
  if (found == 0) {
    LOG_WARNING(kComponent, "cannnot get error code for session %llu",
                static_cast<ull>(session_id));
  }
  return found == 1 ? 0 : -1;
}

int SystemDB::getConnectionErr(uint64_t conn_id, int* error) {
  SqliteText sql(sqlite3_mprintf("SELECT error from connection_table WHERE id = %llu;",
                                 static_cast<ull>(conn_id)));
  if (!sql) {
    LOG_ERROR(kComponent, "sqlite3_mprintf failed");
    return -1;
  }
  std::lock_guard<std::mutex> lock(m_dbMutex);
  SqliteStatement stmt;
  int rc = sqlite3_prepare_v2(m_db, sql.get(), -1, stmt.out(), nullptr);
  if (rc != SQLITE_OK) {
    LOG_ERROR(kComponent, "sqlite3_prepare_v2: %s (%d)", sqlite3_errmsg(m_db), rc);
    return -1;
  }
  rc = sqlite3_step(stmt.get());
  if (rc == SQLITE_DONE) {
    LOG_WARNING(kComponent, "cannnot get error code for connection %llu",
                static_cast<ull>(conn_id));
    return -1;
  }
  if (rc != SQLITE_ROW) {
    LOG_ERROR(kComponent, "sqlite3_step: %s (%d)", sqlite3_errmsg(m_db), rc);
    return -1;
  }
  *error = sqlite3_column_int(stmt.get(), 0);
  return 0;
}

namespace {

// Sets one option from a system_table row; keys of no option are ignored.
void ApplyOption(const std::string& key, sqlite3_stmt* stmt, int value_col, GeneralOptions* o) {
  struct FlagKey {
    const char* key;
    bool GeneralOptions::*flag;
  };
  static const FlagKey kFlags[] = {
      {"enable_desktop_notification", &GeneralOptions::enable_desktop_notification},
      {"enable_iconoverlay", &GeneralOptions::enable_iconoverlay},
      {"enable_filtered_iconoverlay", &GeneralOptions::enable_filtered_iconoverlay},
      {"enable_context_menu", &GeneralOptions::enable_context_menu},
      {"enable_startup", &GeneralOptions::enable_startup},
      {"use_black_white_icon", &GeneralOptions::use_black_white_icon},
      {"show_tutorial", &GeneralOptions::show_tutorial},
  };
  for (const FlagKey& f : kFlags) {
    if (key == f.key) {
      o->*f.flag = sqlite3_column_int64(stmt, value_col) == 1;
      return;
    }
  }
  if (key == "sync_mode") {
    o->sync_mode = sqlite3_column_int(stmt, value_col);
  } else if (key == "open_folder") {
    ReadText(stmt, value_col, &o->open_folder);
  } else if (key == "machine_uuid") {
    ReadText(stmt, value_col, &o->machine_uuid);
  } else if (key == "device_uuid") {
    ReadText(stmt, value_col, &o->device_uuid);
  }
}

}  // namespace

int SystemDB::getGeneralOptions(GeneralOptions* options) {
  std::lock_guard<std::mutex> lock(m_dbMutex);
  SqliteStatement stmt;
  if (PrepareLocked("getGeneralOptions", "SELECT * FROM system_table", &stmt) != 0) return -1;
  std::string key;
  int row;
  while ((row = StepOnce(stmt.get())) == 1) {
    ReadText(stmt.get(), 0, &key);
    ApplyOption(key, stmt.get(), 1, options);
  }
  return row < 0 ? -1 : 0;
}

int SystemDB::getConnectionEntryByConnID(uint64_t conn_id, ConnectionEntry* entry) {
  SqliteText sql(sqlite3_mprintf("SELECT %s FROM connection_table WHERE id = %llu;",
                                 kConnectionColumns, static_cast<ull>(conn_id)));
  if (!sql) {
    LOG_ERROR(kComponent, "insert/replace sqlite3_mprintf failed.");
    return -1;
  }
  std::lock_guard<std::mutex> lock(m_dbMutex);
  SqliteStatement stmt;
  if (PrepareLocked("getConnectionEntryByConnID", sql.get(), &stmt) != 0) return -1;
  int found = StepOnce(stmt.get());
  if (found < 0) return -1;
  if (found == 0) {
    LOG_INFO(kComponent, "connection %llu does not exit", static_cast<ull>(conn_id));
    return -1;
  }
  ReadConnectionRow(stmt.get(), entry);
  return 0;
}

int SystemDB::getSessionInfoBySessionID(uint64_t session_id, SessionInfo* session) {
  SqliteText where(sqlite3_mprintf("id = %llu", static_cast<ull>(session_id)));
  if (!where) {
    LOG_ERROR(kComponent, "insert/replace sqlite3_mprintf failed.");
    return -1;
  }
  return SelectOneSession(where.get(), session) < 0 ? -1 : 0;
}

int SystemDB::getSessionInfoBySyncFolder(const std::string& sync_folder, SessionInfo* session) {
  const std::string stored = sync_folder + "/";
  SqliteText where(sqlite3_mprintf("sync_folder = %Q", stored.c_str()));
  if (!where) {
    LOG_ERROR(kComponent, "insert/replace sqlite3_mprintf failed.");
    return -1;
  }
  return SelectOneSession(where.get(), session);
}

int SystemDB::getSessionListByConnectionID(std::list<SessionInfo>* sessions, uint64_t conn_id) {
  sessions->clear();
  SqliteText sql(sqlite3_mprintf("SELECT %s FROM session_table WHERE conn_id = %llu;",
                                 kSessionColumns, static_cast<ull>(conn_id)));
  if (!sql) {
    LOG_ERROR(kComponent, "insert/replace sqlite3_mprintf failed.");
    return -1;
  }
  return SelectRows("getSessionListByConnectionID", sql.get(), ReadSessionRow, sessions);
}

int SystemDB::getLinkedConnectionEntryList(std::list<ConnectionEntry>* entries) {
  entries->clear();
  SqliteText sql(sqlite3_mprintf("SELECT %s FROM connection_table;", kConnectionColumns));
  if (!sql) {
    LOG_ERROR(kComponent, "insert/replace sqlite3_mprintf failed.");
    return -1;
  }
  return SelectRows("getLinkedConnectionEntryList", sql.get(), ReadConnectionRow, entries);
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
