// The two worker threads of MonitorDaemon in-process: start and stop with
// SIGTERM, the share-listing schedule (built from the system database, due
// search, "refresh_session") and the end of fast monitoring.
#include <signal.h>
#include <sqlite3.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "db/system-db.h"
#include "gtest/gtest.h"
#include "log/logger.h"
#include "monitor/vesta-monitor.h"
#include "stream/PObject.h"
#include "tests/common/temp_dir.h"

namespace {

template <typename Pred>
bool WaitFor(Pred pred, int limit_ms = 5000) {
  for (int waited = 0; waited < limit_ms; waited += 10) {
    if (pred()) return true;
    usleep(10000);
  }
  return pred();
}

int32_t LastListed(MonitorDaemon* d, uint64_t conn_id) {
  pthread_mutex_lock(&d->state_mutex);
  int32_t value = -1;
  for (const ListShareScheduleEntry& e : d->list_share_schedule) {
    if (e.conn_id == conn_id) value = e.last_listed;
  }
  pthread_mutex_unlock(&d->state_mutex);
  return value;
}

class WorkerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // SIGTERM wakes a worker; the process handler must be in place.
    Daemon::SetSignalHandler(SIGTERM, Daemon::stop);
    Logger::Init(Logger::kFile, dir_.File("test.log"), "", 50, 1);
    ASSERT_EQ(0, SystemDB::initialize(dir_.File("system.sqlite")));
  }
  void TearDown() override {
    SystemDB::deinitialize();
    Logger::Shutdown();
    Daemon::daemon_run.store(1);
  }

  // Rows written with the raw library, as the user-interface back end does.
  void Exec(const std::string& sql) {
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(dir_.File("system.sqlite").c_str(), &db));
    char* err = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err)) << err;
    sqlite3_free(err);
    sqlite3_close(db);
  }

  TempDir dir_;
};

TEST_F(WorkerTest, ListsDueConnectionsAndStopsOnSigterm) {
  Exec("INSERT INTO connection_table (id, session, status) VALUES (4, 's', 0);"
       "INSERT INTO connection_table (id, session, status) VALUES (5, 's', 1);");
  MonitorDaemon d;
  d.update_status_period = 5;
  ASSERT_EQ(0, d.StartWorkerThreads());
  EXPECT_TRUE(d.status_thread_running.load());
  EXPECT_TRUE(d.list_share_thread_running.load());
  // Right after start every listable connection is due; status 1 never is.
  EXPECT_TRUE(WaitFor([&] { return LastListed(&d, 4) > 0; }));
  EXPECT_EQ(0, LastListed(&d, 5));
  // A second start leaves the running workers alone.
  EXPECT_EQ(0, d.StartWorkerThreads());

  // "refresh_session" makes a listed connection due again at once; the
  // period is long, so only the refresh can explain a new listing.
  d.list_share_period = 3600;
  pthread_mutex_lock(&d.state_mutex);
  d.list_share_schedule.front().last_listed = 1;
  pthread_mutex_unlock(&d.state_mutex);
  PObject refresh, reply;
  refresh["action"] = "refresh_session";
  refresh["conn_id"] = 4;
  EXPECT_EQ(0, d.Dispatch(refresh, &reply));
  EXPECT_TRUE(WaitFor([&] { return LastListed(&d, 4) > 1; }));
  EXPECT_TRUE(reply.IsNull());

  // An id that is not scheduled rebuilds the schedule from the database,
  // keeping the last-listed time of the connections that stay.
  const int32_t listed = LastListed(&d, 4);
  Exec("INSERT INTO connection_table (id, session, status) VALUES (6, 's', 0);");
  refresh["conn_id"] = 6;
  d.Dispatch(refresh, &reply);
  EXPECT_EQ(listed, LastListed(&d, 4));
  EXPECT_TRUE(WaitFor([&] { return LastListed(&d, 6) > 0; }));

  // Both workers end although the status thread sleeps 5-s periods.
  d.StopWorkerThreads();
  EXPECT_FALSE(d.status_thread_running.load());
  EXPECT_FALSE(d.list_share_thread_running.load());
  d.StopWorkerThreads();  // harmless when stopped
}

TEST_F(WorkerTest, DueSearchFollowsScheduleOrder) {
  MonitorDaemon d;
  d.list_share_period = 100;
  d.list_share_schedule = {{1, 950, 0}, {2, 0, 1}, {3, 900, 0}, {4, 0, 0}};
  ListShareScheduleEntry due;
  ASSERT_TRUE(d.FindDueConnection(1000, &due));
  EXPECT_EQ(3u, due.conn_id);  // 900 + 100 <= 1000; entry 1 is not due yet
  ASSERT_TRUE(d.FindDueConnection(1050, &due));
  EXPECT_EQ(1u, due.conn_id);
  d.list_share_schedule = {{2, 0, 1}};
  EXPECT_FALSE(d.FindDueConnection(1000, &due));
  // A period near the top of the range does not wrap into "due".
  d.list_share_period = 2147483647;
  d.list_share_schedule = {{1, 1000, 0}};
  EXPECT_FALSE(d.FindDueConnection(2000, &due));
}

TEST_F(WorkerTest, FastMonitorEndsAfterThirtySeconds) {
  MonitorDaemon d;
  PObject request, reply;
  request["action"] = "fast_monitor";
  d.list_share_period = 77;
  d.disconnected_time_threadhold = 9;
  d.Dispatch(request, &reply);
  EXPECT_EQ(10, d.list_share_period.load());
  EXPECT_EQ(30, d.disconnected_time_threadhold.load());
  EXPECT_GE(d.fast_monitor_since.load(), static_cast<int32_t>(time(nullptr)) - 1);

  // Passes back to back: fast monitoring started 29 s ago stays on ...
  d.update_status_period = 0;
  d.fast_monitor_since = static_cast<int32_t>(time(nullptr)) - 29;
  ASSERT_EQ(0, d.StartWorkerThreads());
  usleep(200000);
  EXPECT_EQ(10, d.list_share_period.load());
  // ... and ends once more than 30 s have passed.
  d.fast_monitor_since = static_cast<int32_t>(time(nullptr)) - 31;
  EXPECT_TRUE(WaitFor([&] { return d.fast_monitor_since.load() == 0; }));
  EXPECT_EQ(300, d.list_share_period.load());
  EXPECT_EQ(30, d.disconnected_time_threadhold.load());
  d.StopWorkerThreads();
}

}  // namespace
