// The status thread: one pass every update_status_period seconds compares
// the sync daemon's view of its connections with the system database.
#include <unistd.h>

#include "monitor/monitor-util.h"
#include "monitor/vesta-monitor.h"

using monitor::MutexLock;
using monitor::Now;
using monitor::kDisconnectedThreshold;
using monitor::kFastMonitorSeconds;
using monitor::kListSharePeriod;

void* MonitorDaemon::StatusThreadMain(void* arg) {
  static_cast<MonitorDaemon*>(arg)->StatusThreadLoop();
  return nullptr;
}

void MonitorDaemon::StatusThreadLoop() {
  while (status_thread_running.load()) {
    int32_t period;
    {
      MutexLock lock(&state_mutex);
      period = update_status_period.load();
    }
    // One-second steps, so that a cleared flag is seen within a second even
    // when the SIGTERM arrived before the sleep began.
    for (int32_t i = 0; i < period && status_thread_running.load(); ++i) sleep(1);
    if (!status_thread_running.load()) break;
    UpdateStatus();
    EndFastMonitorIfDue(Now());
  }
}

void MonitorDaemon::EndFastMonitorIfDue(int32_t now) {
  if (now <= fast_monitor_since.load() + kFastMonitorSeconds) return;
  fast_monitor_since.store(0);
  list_share_period.store(kListSharePeriod);
  disconnected_time_threadhold.store(kDisconnectedThreshold);
}

// The status pass compares the daemon's view with the database; it arrives
// with the status monitor.  Until then a pass does nothing.
int MonitorDaemon::UpdateStatus() { return 0; }

