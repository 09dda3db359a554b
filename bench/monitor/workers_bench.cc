// The two workers' passes at scale, each beside the raw reads it needs in
// the same run: one status pass over 1,000 connections (the sync daemon's
// status reply and the connection table) and one share-listing
// reconciliation of 1,000 sessions against 1,000 views (the session rows).
// Nothing changes from pass to pass, as in a quiet system: the passes only
// read and compare.  The sync daemon is a thread here that answers every
// connection with the same pre-encoded reply.
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>

#include "benchmark/benchmark.h"
#include "db/system-db.h"
#include "monitor/vesta-monitor.h"
#include "net/proto-ui.h"
#include "stream/PObject.h"
#include "stream/stream.h"

namespace {

constexpr int kCount = 1000;  // connections; sessions and views of connection 1

std::string g_root;
std::string g_daemon_socket;
std::string g_request;  // get_status as the monitor encodes it
std::string g_reply;    // the status reply, encoded
std::atomic<bool> g_daemon_running{false};
int g_daemon_listener = -1;

std::string Encode(const PObject& value) {
  std::ostringstream out;
  PStream stream;
  if (stream.Send(&out, value) != 0) abort();
  return out.str();
}

void Exec(sqlite3* db, const std::string& sql) {
  char* error = nullptr;
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
    fprintf(stderr, "%s\n", error ? error : "");
    abort();
  }
  sqlite3_free(error);
}

// kCount connections, each reported connected with what is stored, and
// kCount sessions of connection 1 on views 1..kCount.
void FillDatabase() {
  const std::string path = g_root + "/system.sqlite";
  if (SystemDB::initialize(path) != 0) abort();
  std::string sql = "BEGIN;";
  PObject status;
  PObject::array_type& list = status["connection_list"].MutableArray();
  for (int i = 1; i <= kCount; ++i) {
    const std::string n = std::to_string(i);
    sql += "INSERT INTO connection_table (id, conn_mode, server_name, server_ip, server_port, "
           "nx_id, restore_id, major, minor, package_version, protocol_version, session) VALUES (" +
           n + ", 1, 'nas" + n + "', '192.0.2." + std::to_string(i % 250) + "', 6690, 'NX" + n +
           "', 'R', 3, 1, 10001, 70, 'sid');"
           "INSERT INTO session_table (id, conn_id, share_name, remote_path, view_id, "
           "sync_folder, is_daemon_enable) VALUES (" + n + ", 1, 'share" + n + "', '/', " + n +
           ", '/volume1/s" + n + "/', 1);";
    PObject c;
    c["connection_id"] = i;
    c["status"] = "connected";
    c["server_ip"] = "192.0.2." + std::to_string(i % 250);
    c["server_port"] = 6690;
    c["connection_mode"] = 1;
    c["package_major"] = 3;
    c["package_minor"] = 1;
    c["package_version"] = 10001;
    c["protocol_version"] = 70;
    c["nx_id"] = "NX" + n;
    c["restore_id"] = "R";
    c["tunnel_ip"] = "";
    c["tunnel_port"] = 0;
    list.push_back(std::move(c));
  }
  Exec(SystemDB::m_db, sql + "COMMIT;");
  Exec(SystemDB::m_db, "PRAGMA synchronous = OFF;");
  PObject request;
  request["action"] = "get_status";
  g_request = Encode(request);
  g_reply = Encode(status);
}

bool WriteAll(int fd, const std::string& bytes) {
  for (size_t done = 0; done < bytes.size();) {
    ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Reads until the peer closes; the number of bytes read.
size_t ReadToEnd(int fd) {
  char buf[65536];
  size_t total = 0;
  for (ssize_t n; (n = read(fd, buf, sizeof(buf))) > 0;) total += static_cast<size_t>(n);
  return total;
}

// The simulated sync daemon: takes in the request's bytes and answers with
// the status reply.
void DaemonLoop() {
  char buf[4096];
  while (g_daemon_running.load()) {
    int fd = accept(g_daemon_listener, nullptr, nullptr);
    if (fd < 0) continue;
    size_t got = 0;
    for (ssize_t n; got < g_request.size() && (n = read(fd, buf, sizeof(buf))) > 0;) {
      got += static_cast<size_t>(n);
    }
    WriteAll(fd, g_reply);
    close(fd);
  }
}

sockaddr_un Address(const std::string& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
  return addr;
}

// Every column of every row the query yields, read as the stored type, on
// SystemDB's own handle (nothing else uses it meanwhile).
size_t RawRead(sqlite3* db, const char* sql) {
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK) abort();
  size_t rows = 0;
  while (sqlite3_step(stmt) == SQLITE_ROW) {
    for (int col = 0; col < sqlite3_column_count(stmt); ++col) {
      if (sqlite3_column_type(stmt, col) == SQLITE_TEXT) {
        benchmark::DoNotOptimize(std::string(
            reinterpret_cast<const char*>(sqlite3_column_text(stmt, col)),
            static_cast<size_t>(sqlite3_column_bytes(stmt, col))));
      } else {
        benchmark::DoNotOptimize(sqlite3_column_int64(stmt, col));
      }
    }
    ++rows;
  }
  sqlite3_finalize(stmt);
  return rows;
}

void BM_StatusPass(benchmark::State& state) {
  MonitorDaemon d;
  if (d.UpdateStatus() != 0) abort();  // the first pass adds every connection
  for (auto _ : state) {
    if (d.UpdateStatus() != 0) abort();
  }
  if (d.connection_status_list.size() != kCount) abort();
  state.SetItemsProcessed(state.iterations() * kCount);
}
BENCHMARK(BM_StatusPass)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same status reply read off the same socket, and the connection table.
void BM_StatusPassRawReads(benchmark::State& state) {
  const sockaddr_un addr = Address(g_daemon_socket);
  for (auto _ : state) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0 ||
        !WriteAll(fd, g_request) || ReadToEnd(fd) != g_reply.size()) {
      abort();
    }
    close(fd);
    if (RawRead(SystemDB::m_db, "SELECT * FROM connection_table;") != kCount) abort();
  }
  state.SetItemsProcessed(state.iterations() * kCount);
}
BENCHMARK(BM_StatusPassRawReads)->Unit(benchmark::kMillisecond)->UseRealTime();

// The server's answer: one view per session, nothing to change.
UserInfo Answer() {
  UserInfo user;
  for (int i = kCount; i >= 1; --i) {  // the server's order is not the view order
    ViewInfo v;
    v.view_id = static_cast<uint64_t>(i);
    v.name = "share" + std::to_string(i);
    v.privilege = 2;
    user.views.push_back(v);
  }
  return user;
}

void BM_Reconcile(benchmark::State& state) {
  MonitorDaemon d;
  ConnectionEntry connection;
  if (SystemDB::getConnectionEntryByConnID(1, &connection) != 0) abort();
  const UserInfo user = Answer();
  d.ListShareFrom(connection, user);  // the first stores the user and the views
  if (SystemDB::getConnectionEntryByConnID(1, &connection) != 0) abort();
  for (auto _ : state) d.ListShareFrom(connection, user);
  state.SetItemsProcessed(state.iterations() * kCount);
}
BENCHMARK(BM_Reconcile)->Unit(benchmark::kMillisecond);

void BM_ReconcileRawReads(benchmark::State& state) {
  for (auto _ : state) {
    const size_t rows = RawRead(SystemDB::m_db, "SELECT * FROM session_table WHERE conn_id = 1;");
    if (rows != kCount) abort();
  }
  state.SetItemsProcessed(state.iterations() * kCount);
}
BENCHMARK(BM_ReconcileRawReads)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  // As in the daemon: a peer gone mid-reply (the wake-up connection below)
  // is a failed write, not a signal that ends the run.
  signal(SIGPIPE, SIG_IGN);
  char pattern[] = "/tmp/vesta-bench-XXXXXX";
  g_root = mkdtemp(pattern);
  setenv("VESTA_ROOT", g_root.c_str(), 1);  // the sync daemon's socket lives below it
  if (system(("mkdir -p '" + g_root + "/tmp'").c_str()) != 0) return 1;
  FillDatabase();

  g_daemon_socket = g_root + "/tmp/tarn.sock";
  g_daemon_listener = socket(AF_UNIX, SOCK_STREAM, 0);
  const sockaddr_un addr = Address(g_daemon_socket);
  if (bind(g_daemon_listener, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0 ||
      listen(g_daemon_listener, 8) != 0) {
    return 1;
  }
  g_daemon_running = true;
  std::thread daemon(DaemonLoop);

  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  g_daemon_running = false;
  const int wake = socket(AF_UNIX, SOCK_STREAM, 0);
  connect(wake, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
  close(wake);
  daemon.join();
  close(g_daemon_listener);
  SystemDB::deinitialize();
  return system(("rm -rf '" + g_root + "'").c_str()) == 0 ? 0 : 1;
}
