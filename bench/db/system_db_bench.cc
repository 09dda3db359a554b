// SystemDB operations beside a raw SQLite prepared-statement loop doing the
// same work on a copy of the same database, in the same run.  Both sides
// run with synchronous = OFF so that the figures compare the code, not the
// disk's flush time.
#include <stdlib.h>
#include <unistd.h>

#include <list>
#include <string>

#include "benchmark/benchmark.h"
#include "db/system-db.h"

namespace {

constexpr int kSessions = 1000;
constexpr uint64_t kConnId = 1;

std::string BenchDir() {
  static std::string dir = [] {
    char pattern[] = "/tmp/vesta-bench-XXXXXX";
    return std::string(mkdtemp(pattern));
  }();
  return dir;
}

void Exec(sqlite3* db, const char* sql) {
  char* error = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
    fprintf(stderr, "%s: %s\n", sql, error ? error : "");
    abort();
  }
  sqlite3_free(error);
}

// Fills the open SystemDB with one connection and kSessions sessions, then
// copies the file for the raw side.  Returns the copy's path.
std::string Prepare() {
  static std::string copy = [] {
    const std::string path = BenchDir() + "/system.sqlite";
    if (SystemDB::initialize(path) != 0) abort();
    Exec(SystemDB::m_db, "BEGIN;");
    Exec(SystemDB::m_db, "INSERT INTO connection_table (id, nx_id) VALUES (1, 'NX');");
    for (int i = 1; i <= kSessions; ++i) {
      std::string sql = "INSERT INTO session_table (id, conn_id, share_name, view_id, "
                        "sync_folder, remote_path) VALUES (" + std::to_string(i) +
                        ", 1, 'share" + std::to_string(i) + "', " + std::to_string(i) +
                        ", '/volume1/s" + std::to_string(i) + "/', '/r/');";
      Exec(SystemDB::m_db, sql.c_str());
    }
    Exec(SystemDB::m_db, "COMMIT;");
    Exec(SystemDB::m_db, "PRAGMA synchronous = OFF;");
    const std::string raw = BenchDir() + "/raw.sqlite";
    if (system(("cp '" + path + "' '" + raw + "'").c_str()) != 0) abort();
    return raw;
  }();
  return copy;
}

// A raw handle on the copy, with the same settings as SystemDB's.
struct RawDb {
  RawDb() {
    if (sqlite3_open(Prepare().c_str(), &db) != SQLITE_OK) abort();
    sqlite3_busy_timeout(db, 300000);
    Exec(db, "PRAGMA synchronous = OFF;");
  }
  ~RawDb() { sqlite3_close(db); }
  sqlite3* db = nullptr;
};

void BM_SetSessionStatus(benchmark::State& state) {
  Prepare();
  uint64_t id = 0;
  int status = 0;
  for (auto _ : state) {
    if (SystemDB::setSessionStatus(id % kSessions + 1, ++status & 3) != 0) abort();
    ++id;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SetSessionStatus);

void BM_RawUpdateStatus(benchmark::State& state) {
  RawDb raw;
  sqlite3_stmt* stmt = nullptr;
  sqlite3_prepare_v2(raw.db, "update session_table SET status = ? WHERE id = ?;", -1, &stmt,
                     nullptr);
  uint64_t id = 0;
  int status = 0;
  for (auto _ : state) {
    sqlite3_bind_int(stmt, 1, ++status & 3);
    sqlite3_bind_int64(stmt, 2, static_cast<sqlite3_int64>(id % kSessions + 1));
    if (sqlite3_step(stmt) != SQLITE_DONE) abort();
    sqlite3_reset(stmt);
    ++id;
  }
  sqlite3_finalize(stmt);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RawUpdateStatus);

void BM_GetSessionListByConnectionID(benchmark::State& state) {
  Prepare();
  std::list<SessionInfo> sessions;
  for (auto _ : state) {
    if (SystemDB::getSessionListByConnectionID(&sessions, kConnId) != 0) abort();
    if (sessions.size() != kSessions) abort();
  }
  state.SetItemsProcessed(state.iterations() * kSessions);
}
BENCHMARK(BM_GetSessionListByConnectionID);

std::string Text(sqlite3_stmt* stmt, int col) {
  const unsigned char* t = sqlite3_column_text(stmt, col);
  return t ? reinterpret_cast<const char*>(t) : "";
}

// The same 28 columns read into the same records, with no path or flag
// rules applied.
void BM_RawSelectSessions(benchmark::State& state) {
  RawDb raw;
  sqlite3_stmt* stmt = nullptr;
  sqlite3_prepare_v2(
      raw.db,
      "SELECT id, conn_id, share_name, ctime, view_id, status, error, share_version, "
      "sync_folder, perm_mode, is_read_only, is_daemon_enable, node_id, sync_direction, "
      "ignore_local_remove, conflict_policy, rename_conflict, remote_path, is_encryption, "
      "is_mounted, attribute_check_strength, sync_temp_file, use_windows_cloud_file_api, "
      "is_shared_with_me, session_type, with_q9share, q9_share_id, q9_hash_key "
      "FROM session_table WHERE conn_id = ?;",
      -1, &stmt, nullptr);
  std::list<SessionInfo> sessions;
  for (auto _ : state) {
    sessions.clear();
    sqlite3_bind_int64(stmt, 1, kConnId);
    while (sqlite3_step(stmt) == SQLITE_ROW) {
      sessions.emplace_back();
      SessionInfo& s = sessions.back();
      s.id = sqlite3_column_int64(stmt, 0);
      s.conn_id = sqlite3_column_int64(stmt, 1);
      s.share_name = Text(stmt, 2);
      s.view_id = sqlite3_column_int64(stmt, 4);
      s.share_version = sqlite3_column_int(stmt, 7);
      s.sync_folder = Text(stmt, 8);
      s.perm_mode = sqlite3_column_int(stmt, 9);
      s.is_read_only = sqlite3_column_int(stmt, 10) != 0;
      s.is_daemon_enable = sqlite3_column_int(stmt, 11) != 0;
      s.node_id = sqlite3_column_int64(stmt, 12);
      s.sync_direction = sqlite3_column_int(stmt, 13);
      s.ignore_local_remove = sqlite3_column_int(stmt, 14) != 0;
      s.conflict_policy = Text(stmt, 15);
      s.rename_conflict = sqlite3_column_int(stmt, 16) != 0;
      s.remote_path = Text(stmt, 17);
      s.is_encryption = sqlite3_column_int(stmt, 18) == 1;
      s.is_mounted = sqlite3_column_int(stmt, 19) == 1;
      s.attribute_check_strength = sqlite3_column_int(stmt, 20);
      s.sync_temp_file = sqlite3_column_int(stmt, 21) == 1;
      s.use_windows_cloud_file_api = sqlite3_column_int(stmt, 22) == 1;
      s.is_shared_with_me = sqlite3_column_int(stmt, 23) == 1;
      s.session_type = sqlite3_column_int(stmt, 24);
      s.with_q9share = sqlite3_column_int(stmt, 25) != 0;
      s.q9_share_id = Text(stmt, 26);
      s.q9_hash_key = Text(stmt, 27);
    }
    sqlite3_reset(stmt);
    if (sessions.size() != kSessions) abort();
  }
  sqlite3_finalize(stmt);
  state.SetItemsProcessed(state.iterations() * kSessions);
}
BENCHMARK(BM_RawSelectSessions);

}  // namespace
