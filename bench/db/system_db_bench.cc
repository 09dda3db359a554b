// SystemDB operations beside SQLite doing the same statement on the same
// handle, in the same run: each one-row write beside sqlite3_exec of its very
// SQL text (formatted before the clock runs), and the 1,000-session read
// beside stepping the same select prepared once.  The journal is kept in
// memory and synchronous is OFF, so that the figures compare the code, not
// the file system: creating and deleting a journal file costs more than the
// statement itself and varies with the disk's state and load.
#include <stdlib.h>
#include <unistd.h>

#include <list>
#include <string>
#include <vector>

#include "benchmark/benchmark.h"
#include "db/system-db.h"

namespace {

constexpr int kRows = 1000;  // connections, and sessions of connection 1
constexpr uint64_t kConnId = 1;

using ull = unsigned long long;

void Exec(sqlite3* db, const char* sql) {
  char* error = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
    fprintf(stderr, "%s: %s\n", sql, error ? error : "");
    abort();
  }
  sqlite3_free(error);
}

// Opens SystemDB on a fresh file holding kRows connections and kRows
// sessions, all of connection 1.
void Prepare() {
  static bool done = [] {
    static char dir[] = "/tmp/vesta-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr) abort();
    std::atexit([] { std::system((std::string("rm -rf '") + dir + "'").c_str()); });
    if (SystemDB::initialize(std::string(dir) + "/system.sqlite") != 0) abort();
    Exec(SystemDB::m_db, "PRAGMA synchronous = OFF;");
    Exec(SystemDB::m_db, "PRAGMA journal_mode = MEMORY;");
    Exec(SystemDB::m_db, "BEGIN;");
    for (int i = 1; i <= kRows; ++i) {
      const std::string n = std::to_string(i);
      Exec(SystemDB::m_db, ("INSERT INTO connection_table (id, nx_id) VALUES (" + n + ", 'NX" +
                            n + "');").c_str());
      Exec(SystemDB::m_db, ("INSERT INTO session_table (id, conn_id, share_name, view_id, "
                            "sync_folder, remote_path) VALUES (" + n + ", 1, 'share" + n +
                            "', " + n + ", '/volume1/s" + n + "/', '/r/');").c_str());
    }
    Exec(SystemDB::m_db, "COMMIT;");
    return true;
  }();
  (void)done;
}

// One one-row writer: the operation, and the SQL text it must run for the
// same arguments (row id 1..kRows, a varying value).
struct Writer {
  const char* name;
  int (*call)(uint64_t id, int value);
  char* (*sql)(uint64_t id, int value);  // sqlite3_mprintf result
};

const Writer kWriters[] = {
    {"setSessionStatus", [](uint64_t id, int v) { return SystemDB::setSessionStatus(id, v); },
     [](uint64_t id, int v) {
       return sqlite3_mprintf("update session_table SET status = %d WHERE id = %llu;", v,
                              static_cast<ull>(id));
     }},
    {"setConnectionStatus",
     [](uint64_t id, int v) { return SystemDB::setConnectionStatus(id, v); },
     [](uint64_t id, int v) {
       return sqlite3_mprintf("update connection_table SET status = %d WHERE id = %llu;", v,
                              static_cast<ull>(id));
     }},
    {"setSessionErr", [](uint64_t id, int v) { return SystemDB::setSessionErr(id, -v); },
     [](uint64_t id, int v) {
       return sqlite3_mprintf("update session_table SET error = %d WHERE id = %llu;", -v,
                              static_cast<ull>(id));
     }},
    {"setConnectionErr", [](uint64_t id, int v) { return SystemDB::setConnectionErr(id, -v); },
     [](uint64_t id, int v) {
       return sqlite3_mprintf("update connection_table SET error = %d WHERE id = %llu;", -v,
                              static_cast<ull>(id));
     }},
    {"setLinkByConnection",
     [](uint64_t id, int v) { return SystemDB::setLinkByConnection(id, v & 1); },
     [](uint64_t id, int v) {
       return sqlite3_mprintf("UPDATE connection_table SET linked = %d WHERE id = %llu; ", v & 1,
                              static_cast<ull>(id));
     }},
    {"updateUserInfo",
     [](uint64_t id, int v) {
       return SystemDB::updateUserInfo(id, 1000u + v, 100u, (v & 1) != 0);
     },
     [](uint64_t id, int v) {
       return sqlite3_mprintf(
           "UPDATE connection_table SET user_uid = %u, user_gid = %u, user_is_admin = %u "
           "WHERE id = %llu\n",
           1000u + v, 100u, (v & 1) != 0 ? 1u : 0u, static_cast<ull>(id));
     }},
    {"setSessionReadOnly", [](uint64_t id, int) { return SystemDB::setSessionReadOnly(id); },
     [](uint64_t id, int) {
       return sqlite3_mprintf("UPDATE session_table SET is_read_only = 1 WHERE id = %llu;",
                              static_cast<ull>(id));
     }},
    {"clearSessionReadOnly", [](uint64_t id, int) { return SystemDB::clearSessionReadOnly(id); },
     [](uint64_t id, int) {
       return sqlite3_mprintf("UPDATE session_table SET is_read_only = 0 WHERE id = %llu;",
                              static_cast<ull>(id));
     }},
    {"setSessionEncryptionState",
     [](uint64_t id, int v) { return SystemDB::setSessionEncryptionState(id, v & 1, v & 2); },
     [](uint64_t id, int v) {
       return sqlite3_mprintf(
           "UPDATE session_table SET is_encryption = %d, is_mounted = %d WHERE id = %llu;",
           v & 1, (v & 2) != 0 ? 1 : 0, static_cast<ull>(id));
     }},
};

// Row and value of the i-th call: every row in turn, values 0..3.
uint64_t RowOf(size_t i) { return i % kRows + 1; }
int ValueOf(size_t i) { return static_cast<int>(i / kRows + i) & 3; }

void BM_SystemDBWrite(benchmark::State& state, const Writer* w) {
  Prepare();
  size_t i = 0;
  for (auto _ : state) {
    if (w->call(RowOf(i), ValueOf(i)) != 0) abort();
    ++i;
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_ExecSameSql(benchmark::State& state, const Writer* w) {
  Prepare();
  std::vector<std::string> texts;
  for (size_t i = 0; i < 4 * kRows; ++i) {
    char* sql = w->sql(RowOf(i), ValueOf(i));
    texts.emplace_back(sql);
    sqlite3_free(sql);
  }
  size_t i = 0;
  for (auto _ : state) {
    if (sqlite3_exec(SystemDB::m_db, texts[i % texts.size()].c_str(), nullptr, nullptr,
                     nullptr) != SQLITE_OK) {
      abort();
    }
    ++i;
  }
  state.SetItemsProcessed(state.iterations());
}

const bool kRegistered = [] {
  for (const Writer& w : kWriters) {
    benchmark::RegisterBenchmark((std::string("BM_SystemDBWrite/") + w.name).c_str(),
                                 BM_SystemDBWrite, &w);
    benchmark::RegisterBenchmark((std::string("BM_ExecSameSql/") + w.name).c_str(),
                                 BM_ExecSameSql, &w);
  }
  return true;
}();

void BM_GetSessionListByConnectionID(benchmark::State& state) {
  Prepare();
  std::list<SessionInfo> sessions;
  for (auto _ : state) {
    if (SystemDB::getSessionListByConnectionID(&sessions, kConnId) != 0) abort();
    if (sessions.size() != kRows) abort();
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}
BENCHMARK(BM_GetSessionListByConnectionID);

std::string Text(sqlite3_stmt* stmt, int col) {
  const unsigned char* t = sqlite3_column_text(stmt, col);
  return t ? reinterpret_cast<const char*>(t) : "";
}

// The same select, prepared once, stepped into the same records with no
// path or flag rules applied.
void BM_StepPreparedSelect(benchmark::State& state) {
  Prepare();
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(
          SystemDB::m_db,
          "SELECT id, conn_id, share_name, ctime, view_id, status, error, share_version, "
          "sync_folder, perm_mode, is_read_only, is_daemon_enable, node_id, sync_direction, "
          "ignore_local_remove, conflict_policy, rename_conflict, remote_path, is_encryption, "
          "is_mounted, attribute_check_strength, sync_temp_file, use_windows_cloud_file_api, "
          "is_shared_with_me, session_type, with_q9share, q9_share_id, q9_hash_key "
          "FROM session_table WHERE conn_id = 1;",
          -1, &stmt, nullptr) != SQLITE_OK) {
    abort();
  }
  std::list<SessionInfo> sessions;
  for (auto _ : state) {
    sessions.clear();
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
    if (sessions.size() != kRows) abort();
  }
  sqlite3_finalize(stmt);
  state.SetItemsProcessed(state.iterations() * kRows);
}
BENCHMARK(BM_StepPreparedSelect);

}  // namespace
