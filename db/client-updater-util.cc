#include "db/client-updater-util.h"

#include <unistd.h>

#include "config/setting.h"
#include "db/filter-db-util.h"
#include "db/system-db.h"
#include "log/log.h"
#include "platform/fixed_path.h"

namespace {

const char kUtilComponent[] = "client_updater_util";
const char kClientComponent[] = "client_debug";

// Longest name, in bytes, on an encrypted shared folder.
constexpr uint64_t kEncryptedMaxNameLength = 143;

using ull = unsigned long long;

}  // namespace

int OpenSqliteDatabase(const std::string& path, SqliteHandle* db) {
  int rc = sqlite3_open(path.c_str(), db->out());
  if (rc != SQLITE_OK) {
    // The handle stays with the caller's guard: it carries SQLite's error.
    LOG_ERROR(kUtilComponent, "failed to open database: %s (%d)", sqlite3_errmsg(db->get()), rc);
    return -1;
  }
  rc = SetSqliteBusyWait(db->get(), SystemDB::m_run_flag);
  if (rc != SQLITE_OK) {
    LOG_ERROR(kUtilComponent, "failed to set busy timeout to %d: %s (%d)", kSqliteBusyTimeoutMs,
              sqlite3_errmsg(db->get()), rc);
    db->reset();
    return -1;
  }
  return 0;
}

int SetSessionFilterMaxLength(uint64_t session_id, const std::string& filter_path) {
  SessionInfo session;
  if (SystemDB::getSessionInfoBySessionID(session_id, &session) != 0) {
    LOG_ERROR(kClientComponent, "Failed to get session info from id %llu",
              static_cast<ull>(session_id));
    return -1;
  }
  FilterFile filter;
  if (filter.Load(filter_path) != 0) {
    LOG_ERROR(kClientComponent, "Failed to Load Filter.");
    return -1;
  }
  bool changed = false;
  filter.Lock();
  uint64_t& max_length = filter.config().common.max_length;
  if (session.is_encryption && max_length == 0) {
    max_length = kEncryptedMaxNameLength;
    changed = true;
  } else if (!session.is_encryption && max_length != 0) {
    max_length = 0;
    changed = true;
  }
  filter.Unlock();
  if (changed && filter.Write(filter_path) != 0) {
    LOG_ERROR(kClientComponent, "Fail to write session black filter (%s).", filter_path.c_str());
    return -1;
  }
  return 0;
}

int ApplySessionFilterMaxLength(uint64_t session_id) {
  std::string conf_dir;
  ServiceSetting setting(FixedPath(kServiceConfigPath));
  if (setting.GetSessionConfDir(session_id, &conf_dir) != 0) {
    LOG_ERROR(kClientComponent, "get session conf folder path fail[id=%llu]",
              static_cast<ull>(session_id));
    return -1;
  }
  const std::string filter_path = conf_dir + "/blacklist.filter";
  if (access(filter_path.c_str(), F_OK) != 0) {
    LOG_ERROR(kClientComponent, "blacklist path '%s' is not exists", filter_path.c_str());
    return -1;
  }
  if (SetSessionFilterMaxLength(session_id, filter_path) != 0) {
    LOG_ERROR(kClientComponent, "Failed to set default max length to session %llu",
              static_cast<ull>(session_id));
    return -1;
  }
  return 0;
}
