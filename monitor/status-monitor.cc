// The status thread: one pass every update_status_period seconds compares
// the sync daemon's view of its connections with the system database,
// follows each connection through connected, connecting and disconnected,
// and hands every change of the remote server to HandleError.
#include <unistd.h>

#include "db/system-db.h"
#include "error/version-rules.h"
#include "ipc/daemon_ipc.h"
#include "log/log.h"
#include "monitor/monitor-util.h"
#include "monitor/vesta-monitor.h"
#include "stream/PObject.h"

using monitor::LogId;
using monitor::MutexLock;
using monitor::kComponent;
using monitor::kDisconnectedThreshold;
using monitor::kFastMonitorSeconds;
using monitor::kListSharePeriod;

namespace {

// Daemon status of a connection: 0 when the daemon says "connected", any
// other word counts as lost.
constexpr int kDaemonConnected = 0;
constexpr int kDaemonLost = 2;

// Monitor state of a connection.
constexpr int kStateConnected = 0;
constexpr int kStateConnecting = 1;
constexpr int kStateDisconnected = 2;

// Monitor error codes raised here.
constexpr int kCodeServerTooOld = 22;
constexpr int kCodeClientTooOld = 23;
constexpr int kCodeOtherServer = 25;
constexpr int kCodeDisconnected = 26;
constexpr int kCodeServerRestored = 36;
constexpr int kCodeVersionChanged = 16;

int DaemonStatusOf(const PObject& connection) {
  return connection.Lookup("status").AsStringView() == "connected" ? kDaemonConnected
                                                                    : kDaemonLost;
}

// `stored` with what the daemon reports about the connection written over it.
ConnectionEntry Reported(const ConnectionEntry& stored, uint64_t conn_id, const PObject& c) {
  auto integer = [&c](const char* key) { return static_cast<int>(c.Lookup(key).AsInteger()); };
  ConnectionEntry r = stored;
  r.id = conn_id;
  r.server_ip = c.Lookup("server_ip").AsString();
  r.server_port = integer("server_port");
  r.conn_mode = integer("connection_mode");
  r.proxy.use_proxy = (r.conn_mode & kConnModeProxy) != 0;
  r.tunnel.use_tunnel = (r.conn_mode & kConnModeTunnel) != 0;
  r.major = integer("package_major");
  r.minor = integer("package_minor");
  r.package_version = integer("package_version");
  r.protocol_version = integer("protocol_version");
  r.nx_id = c.Lookup("nx_id").AsString();
  r.restore_id = c.Lookup("restore_id").AsString();
  r.tunnel.tunnel_ip = c.Lookup("tunnel_ip").AsString();
  r.tunnel.tunnel_port = static_cast<uint16_t>(integer("tunnel_port"));
  return r;
}

bool AddressChanged(const ConnectionEntry& s, const ConnectionEntry& r) {
  return s.server_ip != r.server_ip || s.server_port != r.server_port ||
         s.conn_mode != r.conn_mode || s.tunnel.tunnel_ip != r.tunnel.tunnel_ip ||
         s.tunnel.tunnel_port != r.tunnel.tunnel_port;
}

// Only a connection without a lasting error, connected or connecting, is
// compared; the error handler owns every other state.
bool IsFollowed(const ConnectionEntry& stored) {
  return (stored.error == 0 || stored.error == -1) && (stored.status == 0 || stored.status == 1);
}

bool ById(const ConnectionStatusEntry& a, const ConnectionStatusEntry& b) {
  return a.conn_id < b.conn_id;
}

}  // namespace

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
    for (int32_t i = 0; i < period && status_thread_running.load(); ++i) PauseOneSecond();
    if (!status_thread_running.load()) break;
    UpdateStatus();
    EndFastMonitorIfDue(CurrentTime());
  }
}

void MonitorDaemon::EndFastMonitorIfDue(int64_t now) {
  if (now <= fast_monitor_since.load() + kFastMonitorSeconds) return;
  fast_monitor_since.store(0);
  list_share_period.store(kListSharePeriod);
  disconnected_time_threadhold.store(kDisconnectedThreshold);
}

int64_t MonitorDaemon::CurrentTime() const { return monitor::Now(); }

void MonitorDaemon::PauseOneSecond() { sleep(1); }

int MonitorDaemon::UpdateStatus() {
  PObject status;
  // A stop gives the query up: a sync daemon that never answers would
  // otherwise hold the stop for the Channel's idle time-out.
  if (GetStatus(&status) != 0) {
    LOG_ERROR(kComponent, "failed to get daemon status");
    return -1;
  }
  return UpdateStatusFrom(status);
}

int MonitorDaemon::UpdateStatusFrom(const PObject& status) {
  std::list<ConnectionEntry> rows;
  if (SystemDB::getLinkedConnectionEntryList(&rows) != 0) {
    LOG_ERROR(kComponent, "Cannnot get connection entry list");
    return -1;
  }
  std::map<uint64_t, ConnectionEntry> stored;
  for (ConnectionEntry& row : rows) stored.emplace(row.id, std::move(row));

  std::list<ConnectionStatusEntry> reported;
  std::map<uint64_t, const PObject*> details;
  for (const PObject& c : status.Lookup("connection_list").AsArray()) {
    const uint64_t id = static_cast<uint64_t>(c.Lookup("connection_id").AsInteger());
    // One entry per connection: a repeated id would follow it twice.
    if (!c.IsMap() || !details.emplace(id, &c).second) {
      LOG_WARNING(kComponent, "UpdateStatus: ignoring a malformed or repeated connection #%llu",
                  LogId(id));
      continue;
    }
    const int daemon_status = DaemonStatusOf(c);
    reported.push_back({id, 0, daemon_status, daemon_status});
  }

  bool changed;
  {
    MutexLock lock(&state_mutex);
    changed = WalkStatusLists(&reported, stored, details);
  }
  if (changed) UpdateListShareConnections();
  return 0;
}

// Walks the stored and the reported lists together, both sorted by id: a
// stored id the daemon no longer reports is dropped, a new one is added, a
// connection on both lists is followed.  True when the set of connections
// or a daemon status changed.
bool MonitorDaemon::WalkStatusLists(std::list<ConnectionStatusEntry>* reported,
                                    const std::map<uint64_t, ConnectionEntry>& stored,
                                    const std::map<uint64_t, const PObject*>& details) {
  std::list<ConnectionStatusEntry>& list = connection_status_list;
  list.sort(ById);
  reported->sort(ById);
  bool changed = false;
  auto s = list.begin();
  auto n = reported->begin();
  while (s != list.end() && n != reported->end()) {
    if (s->conn_id < n->conn_id) {
      EraseServerViews(s->conn_id);
      LOG_DEBUG(kComponent, "UpdateStatus: Connection #%llu has been removed from daemon",
                LogId(s->conn_id));
      s = list.erase(s);
      changed = true;
    } else if (n->conn_id < s->conn_id) {
      list.insert(s, *n);
      LOG_DEBUG(kComponent, "UpdateStatus: Connection #%llu has been added to daemon",
                LogId(n->conn_id));
      ++n;
      changed = true;
    } else {
      auto row = stored.find(s->conn_id);
      changed |= FollowConnection(&*s, *n, row == stored.end() ? ConnectionEntry() : row->second,
                                  *details.at(n->conn_id));
      ++s;
      ++n;
    }
  }
  if (s != list.end()) {
    LOG_DEBUG(kComponent,
              "UpdateStatus: Connection #%llu and any larger connections have been removed "
              "from daemon",
              LogId(s->conn_id));
    for (auto it = s; it != list.end(); ++it) EraseServerViews(it->conn_id);
    list.erase(s, list.end());
    changed = true;
  }
  for (; n != reported->end(); ++n) {
    list.push_back(*n);
    LOG_DEBUG(kComponent, "UpdateStatus: Connection #%llu has been added to daemon",
              LogId(n->conn_id));
    changed = true;
  }
  return changed;
}

// One connection on both lists.  True when its daemon status changed.
bool MonitorDaemon::FollowConnection(ConnectionStatusEntry* entry,
                                     const ConnectionStatusEntry& now_reported,
                                     const ConnectionEntry& stored, const PObject& details) {
  if (!IsFollowed(stored)) return false;
  ConnectionEntry reported = Reported(stored, entry->conn_id, details);
  if (CheckConnectionInfo(stored, &reported) != 0) return false;
  TransitStatus(entry->daemon_status, now_reported.daemon_status, reported, entry);
  if (entry->daemon_status == now_reported.daemon_status) return false;
  LOG_DEBUG(kComponent,
            "UpdateStatus: Connection #%llu status has been changed from %d to %d in daemon.",
            LogId(entry->conn_id), entry->daemon_status, now_reported.daemon_status);
  entry->daemon_status = now_reported.daemon_status;
  return true;
}

// The remote server behind the connection, in order of precedence: another
// server, a restored server, a new package, an unsupported protocol, a build
// too old; then a changed address or tunnel is written to the row.  0 when
// nothing was found or the row was brought up to date; -1 when a finding went
// to HandleError or the row could not be written.
int MonitorDaemon::CheckConnectionInfo(const ConnectionEntry& stored, ConnectionEntry* reported) {
  const ConnectionEntry& r = *reported;
  const SessionInfo no_session;
  // A connection mode of 0 tells nothing about the server yet.
  if (r.conn_mode == 0) return 0;
  if (r.nx_id != stored.nx_id) {
    LOG_INFO(kComponent, "Connected to a different nx.");
    HandleError(r, no_session, kCodeOtherServer, nullptr);
    return -1;
  }
  if (r.restore_id != stored.restore_id) {
    LOG_INFO(kComponent, "Server has been restored.");
    HandleError(r, no_session, kCodeServerRestored, &stored);
    return -1;
  }
  if (r.major != stored.major || r.minor != stored.minor ||
      r.package_version != stored.package_version) {
    LOG_INFO(kComponent, "Server package version changed is detected by status monitor.");
    HandleError(r, no_session, kCodeVersionChanged, &stored);
    return -1;
  }
  switch (CheckProtocolVersion(r.protocol_version)) {
    case kClientTooOld:
      LOG_ERROR(kComponent, "Client protocol version not support or degradation");
      HandleError(r, no_session, kCodeClientTooOld, nullptr);
      return -1;
    case kServerTooOld:
      LOG_ERROR(kComponent, "Server protocol version not support or degradation");
      HandleError(r, no_session, kCodeServerTooOld, nullptr);
      return -1;
    default:
      break;
  }
  if (IsBuildNumberTooOld(r.package_version)) {
    LOG_ERROR(kComponent, "Server builder number %ld is too old",
              static_cast<long>(r.package_version));
    HandleError(r, no_session, kCodeServerTooOld, nullptr);
    return -1;
  }
  if (AddressChanged(stored, r)) {
    LOG_INFO(kComponent, "Connection #%llu connection info changed.", LogId(r.id));
    if (SystemDB::updateConnectionEntry(reported, r.proxy, r.tunnel) != 0) {
      LOG_ERROR(kComponent, "failed to update connection %llu", LogId(r.id));
      return -1;
    }
  }
  return 0;
}

// Connected, then connecting when the daemon first reports the connection
// lost, disconnected once that has lasted disconnected_time_threadhold
// seconds (HandleError 26 at every such pass while no error is stored), and
// connected again, with status and error cleared, when the daemon says so.
int MonitorDaemon::TransitStatus(int old_status, int new_status, const ConnectionEntry& reported,
                                 ConnectionStatusEntry* entry) {
  const int64_t now = CurrentTime();
  if (new_status == kDaemonLost) {
    if (entry->disconnected_since == 0) {
      LOG_INFO(kComponent, "Switch connection %llu (%s) to connecting status", LogId(reported.id),
               reported.server_name.c_str());
      entry->disconnected_since = now;
      entry->monitor_state = kStateConnecting;
    } else if (static_cast<uint64_t>(now - entry->disconnected_since) <
               static_cast<uint64_t>(int64_t{disconnected_time_threadhold.load()})) {
      entry->monitor_state = kStateConnecting;
    } else {
      if (reported.error == 0) {
        LOG_INFO(kComponent, "switch connection %llu (%s) to disconnected status",
                 LogId(reported.id), reported.server_name.c_str());
        HandleError(reported, SessionInfo(), kCodeDisconnected, nullptr);
      }
      entry->monitor_state = kStateDisconnected;
    }
    return 0;
  }
  if (new_status == old_status) return 0;

  LOG_INFO(kComponent, "Connection %llu is recovered to connected status", LogId(reported.id));
  entry->monitor_state = kStateConnected;
  entry->disconnected_since = 0;
  if (SystemDB::setConnectionStatus(reported.id, 0) != 0) {
    LOG_ERROR(kComponent, "failed to update connection %llu status to connecting", LogId(reported.id));
    return -1;
  }
  if (SystemDB::setConnectionErr(reported.id, 0) != 0) {
    LOG_ERROR(kComponent, "failed to update connection %llu to err_ok", LogId(reported.id));
    return -1;
  }
  return 0;
}
