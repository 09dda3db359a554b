// The two worker threads of MonitorDaemon in-process, on a stepped clock.
#include <signal.h>
#include <stdlib.h>
#include <time.h>

#include <chrono>
#include <future>
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
    Daemon::SetSignalHandler(SIGTERM, Daemon::stop);  // SIGTERM wakes a worker
    setenv("VESTA_ROOT", dir_.path().c_str(), 1);     // no sync daemon answers there
    ASSERT_EQ(0, SystemDB::initialize(dir_.File("system.sqlite")));
  }
  void TearDown() override {
    SystemDB::deinitialize();
    Daemon::daemon_run.store(1);
    unsetenv("VESTA_ROOT");
  }

  std::string Sql(const std::string& sql) { return SqliteShell(dir_.File("system.sqlite"), sql); }

  TempDir dir_;
  LogCapture log_{dir_, "monitor_daemon=7\n"};
};

// Watches what the status passes hand to HandleError, on a clock the test sets.
class WatchedMonitor : public MonitorDaemon {
 public:
  int HandleError(const ConnectionEntry& connection, const SessionInfo& /*session*/, int code,
                  const ConnectionEntry* previous) override {
    EXPECT_EQ(1u, connection.id);
    errors.push_back(code * 10 + (previous != nullptr));
    return 0;
  }
  int64_t CurrentTime() const override {
    ++clock_reads;
    return now;
  }

  std::atomic<int64_t> now{kJune2038};
  mutable std::atomic<int> clock_reads{0};
  std::vector<int> errors;  // code * 10 + 1 when the previous record was given
};

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

TEST_F(WorkerTest, ListsDueConnectionsAndStopsOnSigterm) {
  Sql("INSERT INTO connection_table (id, session, status) VALUES (4, 's', 0);"
      "INSERT INTO connection_table (id, session, status) VALUES (5, 's', 1);");
  WatchedMonitor d;  // the clock stands in June 2038
  d.update_status_period = 30;
  ASSERT_EQ(0, d.StartWorkerThreads());
  EXPECT_TRUE(d.status_thread_running && d.list_share_thread_running);
  // Right after start every listable connection is due; status 1 never is.
  EXPECT_TRUE(WaitFor([&] { return LastListed(&d, 4) == kJune2038; }));
  EXPECT_EQ(0, LastListed(&d, 5));
  // A second start leaves the running workers alone.
  EXPECT_EQ(0, d.StartWorkerThreads());

  // Listed again once the period has passed; "refresh_session" makes a
  // listed connection due at once, which alone explains the last listing.
  d.list_share_period = 3600;
  d.now = kJune2038 + 3600;
  EXPECT_TRUE(WaitFor([&] { return LastListed(&d, 4) == d.now; }));
  d.now += 1;
  PObject refresh, reply;
  refresh["action"] = "refresh_session";
  refresh["conn_id"] = 4;
  EXPECT_EQ(0, d.Dispatch(refresh, &reply));
  EXPECT_TRUE(WaitFor([&] { return LastListed(&d, 4) == d.now; }));
  EXPECT_TRUE(reply.IsNull());

  // An id that is not scheduled rebuilds the schedule from the database,
  // keeping the last-listed time of the connections that stay.
  const int64_t listed = LastListed(&d, 4);
  Sql("INSERT INTO connection_table (id, session, status) VALUES (6, 's', 0);");
  refresh["conn_id"] = 6;
  d.Dispatch(refresh, &reply);
  EXPECT_EQ(listed, LastListed(&d, 4));
  EXPECT_TRUE(WaitFor([&] { return LastListed(&d, 6) > 0; }));

  // Both workers end at once, although the status thread sleeps 30-s periods.
  auto stopped = std::async(std::launch::async, [&d] { d.StopWorkerThreads(); });
  EXPECT_EQ(std::future_status::ready, stopped.wait_for(std::chrono::seconds(3)));
  stopped.wait();
  EXPECT_FALSE(d.status_thread_running || d.list_share_thread_running);
  d.StopWorkerThreads();  // harmless when stopped
}

TEST_F(WorkerTest, DueSearchFollowsScheduleOrder) {
  MonitorDaemon d;
  d.list_share_period = 100;
  d.list_share_schedule = {{1, 950, 0}, {2, 0, 1}, {3, 900, 0}, {4, 0, 0}};
  ListShareScheduleEntry due;
  EXPECT_TRUE(d.FindDueConnection(1000, &due) && due.conn_id == 3);  // 900 + 100 <= 1000
  EXPECT_TRUE(d.FindDueConnection(1050, &due) && due.conn_id == 1);
  d.list_share_schedule = {{2, 0, 1}};
  EXPECT_FALSE(d.FindDueConnection(1000, &due));
  // A period near the top of the range does not wrap into "due".
  d.list_share_period = 2147483647;
  d.list_share_schedule = {{1, 1000, 0}};
  EXPECT_FALSE(d.FindDueConnection(2000, &due));
}

TEST_F(WorkerTest, FastMonitorEndsAfterThirtySeconds) {
  WatchedMonitor d;
  PObject request, reply;
  request["action"] = "fast_monitor";
  d.list_share_period = 77;
  d.disconnected_time_threadhold = 9;
  d.Dispatch(request, &reply);
  EXPECT_EQ(10, d.list_share_period.load());
  EXPECT_EQ(30, d.disconnected_time_threadhold.load());
  EXPECT_EQ(kJune2038, d.fast_monitor_since.load());

  // Status passes back to back on the test's clock, read once per pass (no
  // sync daemon answers): on for 30 s, off one second later.
  d.now = kJune2038 + 30;
  d.disconnected_time_threadhold = 9;
  d.update_status_period = 0;
  d.status_thread_running = true;
  std::thread status(&MonitorDaemon::StatusThreadMain, static_cast<MonitorDaemon*>(&d));
  EXPECT_TRUE(WaitFor([&] { return d.clock_reads.load() >= 3; }));  // a pass has ended
  EXPECT_EQ(10, d.list_share_period.load());
  d.now = kJune2038 + 31;
  EXPECT_TRUE(WaitFor([&] { return d.fast_monitor_since.load() == 0; }));
  d.status_thread_running = false;
  status.join();
  EXPECT_EQ(300, d.list_share_period.load());
  EXPECT_EQ(30, d.disconnected_time_threadhold.load());
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

// A connection the daemon reports ahead of a known one joins the listing
// schedule at once, like one reported after it.
TEST_F(WorkerTest, ConnectionAddedAheadOfAKnownOneIsScheduled) {
  Sql(std::string(kConnectionRow) +
      "INSERT INTO connection_table (id, conn_mode, package_version, "
      "protocol_version, status) VALUES (5, 1, 10000, 70, 0);");
  WatchedMonitor d;
  d.connection_status_list = {{5, 0, 0, 0}};
  PObject report = DaemonStatus("connected");
  PObject five = report["connection_list"].AsArray()[0];
  five["connection_id"] = 5;
  report["connection_list"].MutableArray().push_back(five);
  EXPECT_EQ(0, d.UpdateStatusFrom(report));
  // Both scheduled (-1 would be unknown), neither listed yet.
  EXPECT_EQ(std::make_pair(int64_t{0}, int64_t{0}),
            std::make_pair(LastListed(&d, 1), LastListed(&d, 5)));
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
      {"protocol_version", 70, nullptr, false, 0, 0, 2},
      {"protocol_version", 79, nullptr, false, 0, 0, 2},
      {"protocol_version", 80, nullptr, false, 0, 230, 0},
      {"nx_id", 0, "OTHER", false, 5, 0, 0},
      {"server_ip", 0, "192.0.2.99", false, 0, 0, 2},  // written, then followed in the same pass
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
  }
}

}  // namespace
