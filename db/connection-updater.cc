#include "db/connection-updater.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "log/log.h"
#include "sdk/fslib/fslib.h"

namespace {

const char kComponent[] = "connection_updater";

}  // namespace

std::string SignatureRelativePath(uint64_t node) {
  if (node == 0) return std::string();
  int top = 7;
  while (((node >> (top * 8)) & 0xFF) == 0) --top;
  std::string path;
  for (int i = top; i >= 0; --i) {
    char byte[3];
    snprintf(byte, sizeof(byte), "%02x", static_cast<unsigned>((node >> (i * 8)) & 0xFF));
    if (i == 0) path += ".";
    path += byte;
    if (i > 0) path += "/";
  }
  return path;
}

void SqliteRemoveSignatureFunction(sqlite3_context* context, int argc, sqlite3_value** argv) {
  if (argc == 1) {
    const uint64_t node = static_cast<uint64_t>(sqlite3_value_int64(argv[0]));
    const char* sign_dir = static_cast<const char*>(sqlite3_user_data(context));
    if (node != 0 && sign_dir != nullptr) {
      // A signature that is not there is as good as removed.
      RemovePath(std::string(sign_dir) + "/" + SignatureRelativePath(node));
    }
  }
  sqlite3_result_int(context, 0);
}

int ConnectionUpdater::Open(const std::string& path) {
  if (db_.get() != nullptr) {
    LOG_INFO(kComponent, "database is already opened");
    return 0;
  }
  if (!PathExists(path)) {
    LOG_ERROR(kComponent, "sess db path '%s' does not exist", path.c_str());
    return -1;
  }
  SqliteHandle db;
  if (OpenSqliteDatabase(path, &db) != 0) {
    LOG_ERROR(kComponent, "ConnectionUpdater: Failed to open database at '%s'. [%d] %s",
              path.c_str(), sqlite3_errcode(db.get()), sqlite3_errmsg(db.get()));
    return -1;
  }
  db_path_ = path;
  size_t slash = path.rfind('/');
  signature_dir_ = (slash == std::string::npos ? std::string() : path.substr(0, slash)) + "/sign";
  // The function reads signature_dir_ for as long as the handle lives; the
  // handle is closed before this object's strings are destroyed.
  int rc = sqlite3_create_function(db.get(), "remove_signature", 1, SQLITE_UTF8,
                                   const_cast<char*>(signature_dir_.c_str()),
                                   SqliteRemoveSignatureFunction, nullptr, nullptr);
  if (rc != SQLITE_OK) {
    LOG_ERROR(kComponent, "ConnectionUpdater: Failed to create function. %s (%d)",
              sqlite3_errmsg(db.get()), rc);
    return -1;
  }
  db_.reset(db.release());
  return 0;
}

int ConnectionUpdater::ClearEvents() {
  if (db_.get() == nullptr) {
    LOG_ERROR(kComponent, "database is not opened");
    return -1;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  SqliteText error;
  int rc = sqlite3_exec(db_.get(),
                        "BEGIN TRANSACTION;DELETE FROM event_table;DELETE FROM local_filter_table;"
                        "DELETE FROM server_filter_table;DELETE FROM scan_path_table;"
                        "END TRANSACTION;",
                        nullptr, nullptr, error.out());
  if (rc != SQLITE_OK) {
    if (!sqlite3_get_autocommit(db_.get())) {
      sqlite3_exec(db_.get(), "ROLLBACK;", nullptr, nullptr, nullptr);
    }
    LOG_ERROR(kComponent, "sqlite3_exec: [%d] %s", rc, error.c_str());
    return -1;
  }
  return 0;
}

int ConnectionUpdater::SetSyncId(uint64_t sync_id) {
  if (db_.get() == nullptr) {
    LOG_ERROR(kComponent, "database is not opened");
    return -1;
  }
  char sql[1024];
  sqlite3_snprintf(sizeof(sql), sql,
                   "UPDATE config_table SET value = '%llu' WHERE key = 'sync_id';",
                   static_cast<unsigned long long>(sync_id));
  std::lock_guard<std::mutex> lock(mutex_);
  SqliteText error;
  int rc = sqlite3_exec(db_.get(), sql, nullptr, nullptr, error.out());
  if (rc != SQLITE_OK) {
    LOG_ERROR(kComponent, "sqlite3_exec: [%d] %s", rc, error.c_str());
    return -1;
  }
  return 0;
}
