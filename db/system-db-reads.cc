// SystemDB's queries: the rows of connections and sessions read into their
// records, status and error values, and the general options.
#include "db/system-db.h"

#include <list>
#include <string>

#include "db/system-db-sql.h"
#include "log/log.h"

using namespace system_db_detail;

namespace {

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
  e->proxy.undecoded_password.clear();
  if (SystemDB::DecodeProxyPassword(stored_password, &e->proxy.proxy_password) != 0) {
    LOG_DEBUG(kComponent, "the proxy password of connection %llu cannot be decoded; kept as stored",
              static_cast<ull>(e->id));
    e->proxy.undecoded_password = stored_password;
  }
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

}  // namespace

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

