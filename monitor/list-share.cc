// The share-listing thread: asks each connection's server for its shared
// folders, at most once per list_share_period, and keeps the schedule.
#include <unistd.h>

#include <list>
#include <map>

#include "db/system-db.h"
#include "log/log.h"
#include "monitor/monitor-util.h"
#include "monitor/vesta-monitor.h"

using monitor::kComponent;
using monitor::MutexLock;
using monitor::Now;

void* MonitorDaemon::ListShareThreadMain(void* arg) {
  static_cast<MonitorDaemon*>(arg)->ListShareThreadLoop();
  return nullptr;
}

void MonitorDaemon::ListShareThreadLoop() {
  UpdateListShareConnections();
  while (list_share_thread_running.load()) {
    ListShareScheduleEntry due;
    if (!FindDueConnection(Now(), &due)) {
      sleep(1);
      continue;
    }
    if (ListShare(due) != 0) {
      LOG_ERROR(kComponent, "failed to list shared folder for connection %llu",
                static_cast<unsigned long long>(due.conn_id));
    }
  }
}

bool MonitorDaemon::FindDueConnection(int32_t now, ListShareScheduleEntry* due) {
  MutexLock lock(&state_mutex);
  const int32_t period = list_share_period.load();
  for (const ListShareScheduleEntry& e : list_share_schedule) {
    // 64-bit sum: last_listed + period must not wrap for a period near 2^31.
    if (e.conn_status != 1 && static_cast<int64_t>(now) >= int64_t{e.last_listed} + period) {
      *due = e;
      return true;
    }
  }
  return false;
}

void MonitorDaemon::UpdateListShareConnections() {
  LOG_DEBUG(kComponent, "UpdateListShareConnections");
  std::list<ConnectionEntry> connections;
  if (SystemDB::getLinkedConnectionEntryList(&connections) != 0) {
    LOG_ERROR(kComponent, "Can't get connection entry list");
    return;
  }
  MutexLock lock(&state_mutex);
  std::map<uint64_t, int32_t> last_listed;
  for (const ListShareScheduleEntry& e : list_share_schedule) last_listed[e.conn_id] = e.last_listed;
  std::list<ListShareScheduleEntry> schedule;
  for (const ConnectionEntry& c : connections) {
    ListShareScheduleEntry e;
    e.conn_id = c.id;
    auto it = last_listed.find(c.id);
    e.last_listed = it == last_listed.end() ? 0 : it->second;
    e.conn_status = c.status;
    schedule.push_back(e);
  }
  list_share_schedule.swap(schedule);
}

int MonitorDaemon::ListShare(const ListShareScheduleEntry& entry) {
  int rc = ListShareConnection(entry);
  MarkListed(entry.conn_id, Now());
  return rc;
}

// Asking the server for its shares and reconciling the sessions arrives with
// the share-listing updater.  Until then a listing does nothing.
int MonitorDaemon::ListShareConnection(const ListShareScheduleEntry& /*entry*/) { return 0; }

void MonitorDaemon::MarkListed(uint64_t conn_id, int32_t now) {
  MutexLock lock(&state_mutex);
  for (ListShareScheduleEntry& e : list_share_schedule) {
    if (e.conn_id == conn_id) {
      e.last_listed = now;
      return;
    }
  }
}

