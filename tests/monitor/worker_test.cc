// The bodies of the two worker threads, run on the test's thread on a
// stepped clock.
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "db/system-db.h"
#include "gtest/gtest.h"
#include "monitor/vesta-monitor.h"
#include "stream/PObject.h"
#include "tests/common/log_capture.h"
#include "tests/common/shell.h"
#include "tests/common/temp_dir.h"

namespace {

// 2038-06-01T00:00:00Z, past the end of 32-bit time: the workers' clock.
constexpr int64_t kJune2038 = 2158963200;

int64_t LastListed(MonitorDaemon* d, uint64_t conn_id) {
  pthread_mutex_lock(&d->state_mutex);
  int64_t value = -1;
  for (const ListShareScheduleEntry& e : d->list_share_schedule) {
    if (e.conn_id == conn_id) value = e.last_listed;
  }
  pthread_mutex_unlock(&d->state_mutex);
  return value;
}

class WorkerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("VESTA_ROOT", dir_.path().c_str(), 1);  // no sync daemon answers there
    ASSERT_EQ(0, SystemDB::initialize(dir_.File("system.sqlite")));
  }
  void TearDown() override {
    SystemDB::deinitialize();
    unsetenv("VESTA_ROOT");
  }

  std::string Sql(const std::string& sql) { return SqliteShell(dir_.File("system.sqlite"), sql); }

  TempDir dir_;
  LogCapture log_{dir_, "monitor_daemon=7\n"};
};

// Watches what the status passes hand to HandleError, on a clock the test
// sets; the workers' pauses and clock reads are traced ("s" a second of
// pause, "t" a clock read) and the status thread is stopped after `stop_after`
// of them.
class WatchedMonitor : public MonitorDaemon {
 public:
  int HandleError(const ConnectionEntry& connection, const SessionInfo& /*session*/, int code,
                  const ConnectionEntry* previous) override {
    EXPECT_EQ(1u, connection.id);
    errors.push_back(code * 10 + (previous != nullptr));
    return 0;
  }
  int64_t CurrentTime() const override {
    Trace('t');
    return now;
  }
  void PauseOneSecond() override { Trace('s'); }

  // Runs the status thread's body on the calling thread until `steps` have
  // been traced; returns the trace.
  std::string RunStatusThread(size_t steps) {
    trace.clear();
    stop_after = steps;
    status_thread_running = true;
    StatusThreadMain(this);
    return trace;
  }

  std::atomic<int64_t> now{kJune2038};
  std::vector<int> errors;  // code * 10 + 1 when the previous record was given
  mutable std::string trace;
  size_t stop_after = 0;

 private:
  void Trace(char c) const {
    trace += c;
    if (trace.size() == stop_after) {
      const_cast<WatchedMonitor*>(this)->status_thread_running = false;
      const_cast<WatchedMonitor*>(this)->list_share_thread_running = false;
    }
  }
};

// Between two passes (each reading the clock once: no sync daemon answers)
// the status thread pauses exactly its period, in one-second steps that
// end at once when its flag is cleared; a period of 0 means no pause.
TEST_F(WorkerTest, StatusPassesArePausedByTheirPeriod) {
  const struct {
    int32_t period;
    size_t steps;
    const char* trace;
  } kCases[] = {
      {3, 12, "ssstssstssst"}, {1, 6, "ststst"}, {0, 3, "ttt"}, {3, 5, "sssts"},
  };
  for (const auto& c : kCases) {
    WatchedMonitor d;
    d.update_status_period = c.period;
    EXPECT_EQ(c.trace, d.RunStatusThread(c.steps)) << c.period;
  }
}

// The share-listing thread builds its schedule from the database, lists
// each due connection in schedule order (never one of status 1), and pauses
// a second when none is due.
TEST_F(WorkerTest, ListingThreadListsDueConnectionsInScheduleOrder) {
  Sql("INSERT INTO connection_table (id, session, status) VALUES (5, 's', 1), (4, 's', 0),"
      "(3, 's', 0);");
  WatchedMonitor d;
  d.list_share_period = 3600;
  d.stop_after = 6;  // two listings (a clock read to find, one to mark), then a pause
  d.list_share_thread_running = true;
  MonitorDaemon::ListShareThreadMain(&d);
  EXPECT_EQ("ttttts", d.trace);
  EXPECT_EQ((std::vector<int64_t>{0, kJune2038, kJune2038}),
            (std::vector<int64_t>{LastListed(&d, 5), LastListed(&d, 4), LastListed(&d, 3)}));

  // Due again once the period has passed; "refresh_session" makes a listed
  // connection due at once; an id not in the schedule rebuilds it from the
  // database, keeping the last-listed time of the connections that stay.
  ListShareScheduleEntry due;
  EXPECT_FALSE(d.FindDueConnection(kJune2038 + 3599, &due));
  EXPECT_TRUE(d.FindDueConnection(kJune2038 + 3600, &due) && due.conn_id == 3);
  PObject refresh, reply;
  refresh["action"] = "refresh_session";
  refresh["conn_id"] = 4;
  EXPECT_EQ(0, d.Dispatch(refresh, &reply));
  EXPECT_TRUE(reply.IsNull());
  EXPECT_TRUE(d.FindDueConnection(kJune2038, &due) && due.conn_id == 4);
  Sql("INSERT INTO connection_table (id, session, status) VALUES (6, 's', 0);");
  refresh["conn_id"] = 6;
  d.Dispatch(refresh, &reply);
  EXPECT_EQ((std::vector<int64_t>{0, kJune2038, 0}),
            (std::vector<int64_t>{LastListed(&d, 4), LastListed(&d, 3), LastListed(&d, 6)}));
  // A period near the top of the range does not wrap into "due".
  d.list_share_period = 2147483647;
  d.list_share_schedule = {{1, 1000, 0}};
  EXPECT_FALSE(d.FindDueConnection(2000, &due));
}

// "fast_monitor" lists every 10 s for 30 s: the first status pass after them
// restores the periods.
TEST_F(WorkerTest, FastMonitorEndsAfterThirtySeconds) {
  WatchedMonitor d;
  PObject request, reply;
  request["action"] = "fast_monitor";
  d.disconnected_time_threadhold = 9;
  d.update_status_period = 0;
  d.Dispatch(request, &reply);
  auto state = [&d] {
    return std::vector<int64_t>{d.list_share_period, d.disconnected_time_threadhold,
                                d.fast_monitor_since};
  };
  EXPECT_EQ((std::vector<int64_t>{10, 30, kJune2038}), state());
  d.disconnected_time_threadhold = 9;
  d.now = kJune2038 + 30;
  d.RunStatusThread(1);
  EXPECT_EQ((std::vector<int64_t>{10, 9, kJune2038}), state());
  d.now = kJune2038 + 31;
  d.RunStatusThread(1);
  EXPECT_EQ((std::vector<int64_t>{300, 30, 0}), state());
}

// Connection 1 as stored; DaemonStatus reports it unchanged but for `key`.
const char kConnectionRow[] =
    "DELETE FROM connection_table; INSERT INTO connection_table (id, conn_mode, "
    "package_version, protocol_version, status) VALUES (1, 1, 10000, 70, 1);";

PObject DaemonStatus(const std::string& status, const char* key = "", const PObject& value = {}) {
  PObject c, reply;
  c["connection_id"] = 1;
  c["status"] = status;
  c["connection_mode"] = 1;
  c["package_version"] = 10000;
  c["protocol_version"] = 70;
  if (*key) c[key] = value;
  reply["connection_list"].MutableArray().push_back(c);
  return reply;
}

TEST_F(WorkerTest, StatusPassesFollowConnectingDisconnectedAndRecovered) {
  Sql(kConnectionRow);
  WatchedMonitor d;
  d.connection_status_list = {{1, 0, 0, 0}, {5, 0, 0, 0}};
  d.server_view_cache = {{1, {}}, {5, {}}};
  const struct {
    int32_t second;      // since the daemon first reported the connection lost
    const char* status;  // the daemon's word
    int stored_error;    // written before the pass, as the error handler would
    int monitor_state;
    size_t errors;  // HandleError calls so far, each 26
  } steps[] = {
      {0, "disconnected", 0, 1, 0},  {29, "lost", 0, 1, 0},          {30, "disconnected", 0, 2, 1},
      {35, "disconnected", 0, 2, 2}, {40, "disconnected", -1, 2, 2}, {41, "connected", -1, 0, 2},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.second);
    Sql("UPDATE connection_table SET error = " + std::to_string(step.stored_error) + ";");
    d.now = kJune2038 + step.second;
    EXPECT_EQ(0, d.UpdateStatusFrom(DaemonStatus(step.status)));
    EXPECT_EQ(step.monitor_state, d.connection_status_list.front().monitor_state);
    EXPECT_EQ(step.errors, d.errors.size());
  }
  EXPECT_EQ((std::vector<int>{260, 260}), d.errors);
  EXPECT_EQ("0|0", Sql("SELECT status, error FROM connection_table;"));
  // Connection 5, never reported, went with its cached views at the first pass.
  EXPECT_EQ(1u, d.connection_status_list.size());
  EXPECT_TRUE(d.server_view_cache.count(1) == 1 && d.server_view_cache.count(5) == 0);

  // An empty report drops every connection and its cached views.
  EXPECT_EQ(0, d.UpdateStatusFrom(PObject()));
  EXPECT_TRUE(d.connection_status_list.empty() && d.server_view_cache.empty());
}

// Connections the daemon reports ahead of and after a known one join the
// status list and the listing schedule at once.
TEST_F(WorkerTest, ConnectionsAddedAroundAKnownOneAreScheduled) {
  Sql(std::string(kConnectionRow) + "INSERT INTO connection_table (id, conn_mode, "
      "package_version, protocol_version) VALUES (5, 1, 10000, 70), (7, 1, 10000, 70);");
  WatchedMonitor d;
  d.connection_status_list = {{5, 0, 0, 0}};
  PObject report = DaemonStatus("connected");
  for (int64_t id : {5, 7}) {
    PObject c = report["connection_list"].AsArray()[0];
    c["connection_id"] = id;
    report["connection_list"].MutableArray().push_back(c);
  }
  EXPECT_EQ(0, d.UpdateStatusFrom(report));
  EXPECT_EQ(3u, d.connection_status_list.size());
  // Scheduled (-1 would be unknown), not listed yet.
  EXPECT_EQ((std::vector<int64_t>{0, 0, 0}),
            (std::vector<int64_t>{LastListed(&d, 1), LastListed(&d, 5), LastListed(&d, 7)}));
}

// The real second of pause lasts until a signal cuts it short, as SIGTERM
// does for a stopping worker.
TEST_F(WorkerTest, APauseLastsUntilASignalCutsItShort) {
  ASSERT_EQ(0, Daemon::SetSignalHandler(SIGTERM, Daemon::stop));
  std::atomic<pid_t> tid{0};
  std::atomic<bool> done{false};
  std::thread pause([&] {
    tid = static_cast<pid_t>(syscall(SYS_gettid));
    MonitorDaemon().MonitorDaemon::PauseOneSecond();
    done = true;
  });
  EXPECT_TRUE(WaitFor([&] { return done || (tid != 0 && ThreadState(tid) == 'S'); }));
  EXPECT_FALSE(done);
  pthread_kill(pause.native_handle(), SIGTERM);
  pause.join();
  signal(SIGTERM, SIG_DFL);
  Daemon::daemon_run = 1;
}

TEST_F(WorkerTest, ServerChangesGoToHandleErrorInOrderOfPrecedence) {
  const struct {
    const char* key;  // of the daemon's report that differs from the stored row
    int64_t number;
    const char* text;  // the value when not null
    bool stored_too;   // the row holds the same value
    int stored_error;
    int error;          // code * 10 + previous record given; 0 none
    int daemon_status;  // kept for the connection after the pass
  } cases[] = {
      {"nx_id", 0, "OTHER", false, 0, 250, 0},
      {"restore_id", 0, "R2", false, -1, 361, 0},
      {"package_minor", 2, nullptr, false, 0, 161, 0},
      {"package_version", 9999, nullptr, false, 0, 161, 0},
      {"package_version", 9999, nullptr, true, 0, 220, 0},
      {"protocol_version", 69, nullptr, false, 0, 220, 0},
      {"protocol_version", 80, nullptr, false, 0, 230, 0},
      {"nx_id", 0, "OTHER", false, 5, 0, 0},
      {"server_ip", 0, "192.0.2.99", false, 0, 0, 2},  // written, then followed in the same pass
      {"server_port", 6691, nullptr, false, 0, 0, 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.key) + " " + (c.text ? c.text : std::to_string(c.number)));
    Sql(kConnectionRow +
        ("UPDATE connection_table SET error = " + std::to_string(c.stored_error) + ";"));
    if (c.stored_too) Sql("UPDATE connection_table SET package_version = 9999;");
    WatchedMonitor d;
    d.connection_status_list = {{1, 0, 0, 0}};
    const PObject value = c.text ? PObject(c.text) : PObject(c.number);
    EXPECT_EQ(0, d.UpdateStatusFrom(DaemonStatus("disconnected", c.key, value)));
    EXPECT_EQ(c.error ? std::vector<int>{c.error} : std::vector<int>{}, d.errors);
    EXPECT_EQ(c.daemon_status, d.connection_status_list.front().daemon_status);
    if (c.daemon_status == 2) {  // the new address is stored
      EXPECT_EQ(c.text ? "192.0.2.99|0" : "|6691",
                Sql("SELECT server_ip, server_port FROM connection_table;"));
    }
  }
}

}  // namespace
