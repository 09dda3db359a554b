// The share-listing thread: asks each connection's server for its shared
// folders, at most once per list_share_period, and keeps the schedule.
// From each answer it keeps the connection's user information, the cache
// and the server_view_table rows of the server's views, and every session
// on one of those views in line with it.
#include <unistd.h>

#include <algorithm>
#include <list>
#include <map>

#include "db/system-db.h"
#include "ipc/daemon_ipc.h"
#include "log/log.h"
#include "monitor/monitor-util.h"
#include "monitor/vesta-monitor.h"
#include "net/proto-ui.h"

using monitor::kComponent;
using monitor::LogId;
using monitor::MutexLock;

namespace {

// A listing waits this long for the server's answer (seconds).
constexpr int kListShareTimeout = 60;
// Privilege of a view.
constexpr int kPrivilegeReadOnly = 1;
constexpr int kPrivilegeReadWrite = 2;
// Session values written here.
constexpr int kPermModeExecBitOnly = 2;
constexpr int kSessionStatusRunning = 1;
constexpr int kSessionErrorEncryptedUnmounted = -8;

// Shares whose files carry no permissions worth syncing beyond the exec bit.
bool IsExecBitOnlyShare(const std::string& name) {
  return name == "photo" || name == "surveillance";
}

void SetUpProtoUI(const ConnectionEntry& c, ProtoUI* proto) {
  proto->SetServer(c.server_ip, static_cast<uint32_t>(c.server_port));
  proto->SetSession(c.session);
  proto->SetBuildNumber(c.package_version);
  proto->SetSsl(c.use_ssl, false, "", c.ssl_signature);
  proto->SetTimeout(kListShareTimeout);
  if (c.conn_mode & kConnModeProxy) proto->SetProxy(c.proxy);
  if (c.conn_mode & kConnModeTunnel) proto->SetTunnel(c.tunnel);
}

void UpdateUserInfo(const ConnectionEntry& c, const UserInfo& user) {
  const uint32_t uid = static_cast<uint32_t>(user.uid);
  const uint32_t gid = static_cast<uint32_t>(user.gid);
  if (c.user_uid == uid && c.user_gid == gid && c.user_is_admin == user.is_admin_group) return;
  if (SystemDB::updateUserInfo(c.id, uid, gid, user.is_admin_group) != 0) {
    LOG_ERROR(kComponent, "failed to update user info of connection %llu", LogId(c.id));
  }
}

// The views as the cache and server_view_table keep them: sorted by
// view_id, a node_id of 0 standing for the view itself.
std::vector<ServerViewEntry> StoredViews(const std::vector<ViewInfo>& views) {
  std::vector<ServerViewEntry> out;
  out.reserve(views.size());
  for (const ViewInfo& v : views) {
    ServerViewEntry e;
    e.view_id = v.view_id;
    e.node_id = v.node_id == 0 ? v.view_id : v.node_id;
    e.name = v.name;
    e.privilege = v.privilege;
    e.share_version = v.share_version;
    e.share_priv_disabled = v.share_priv_disabled;
    e.is_encryption = v.is_encryption;
    e.is_mount = v.is_mounted;
    e.is_q9share = v.is_q9share;
    out.push_back(std::move(e));
  }
  std::stable_sort(out.begin(), out.end(), [](const ServerViewEntry& a, const ServerViewEntry& b) {
    return a.view_id < b.view_id;
  });
  return out;
}

// Share name and version follow the server, unless the view is an encrypted
// share the server has not mounted (its name and version say nothing then).
int UpdateSessionName(const SessionInfo& s, const ServerViewEntry& v) {
  if (v.is_encryption && !v.is_mount) return 0;
  if (s.share_name == v.name && s.share_version == v.share_version) return 0;
  SessionInfo renamed = s;
  renamed.share_name = v.name;
  renamed.share_version = v.share_version;
  if (IsExecBitOnlyShare(v.name)) renamed.perm_mode = kPermModeExecBitOnly;
  LOG_INFO(kComponent, "switch session %llu name from '%s' -> '%s'", LogId(s.id),
           s.share_name.c_str(), v.name.c_str());
  LOG_INFO(kComponent, "version for session %llu switch from '%d' -> '%d'", LogId(s.id),
           s.share_version, v.share_version);
  if (SystemDB::updateSessionInfo(&renamed) != 0) {
    LOG_ERROR(kComponent, "failed to changed session %llu name from '%s' -> '%s'", LogId(s.id),
              s.share_name.c_str(), v.name.c_str());
    return -1;
  }
  return 0;
}

// The read-only flag follows the view's privilege; the sync daemon reads it
// from the database.
int UpdateSessionPrivilege(const SessionInfo& s, const ServerViewEntry& v) {
  if (v.privilege == kPrivilegeReadOnly && !s.is_read_only) {
    LOG_INFO(kComponent, "switch session %llu from read-write -> read-only", LogId(s.id));
    if (SystemDB::setSessionReadOnly(s.id) != 0) {
      LOG_ERROR(kComponent,
                "failed to switch session %llu from read-write -> read-only (database)", LogId(s.id));
      return -1;
    }
  } else if (v.privilege == kPrivilegeReadWrite && s.is_read_only) {
    LOG_INFO(kComponent, "switch session %llu from read-only -> read-write", LogId(s.id));
    if (SystemDB::clearSessionReadOnly(s.id) != 0) {
      LOG_ERROR(kComponent,
                "failed to switch session %llu from read-only -> read-write (database)", LogId(s.id));
      return -1;
    }
  }
  return 0;
}

// A session stopped because its encrypted remote share was unmounted runs
// again once the server has mounted the share.
int ResumeRemountedSession(const SessionInfo& s, const ServerViewEntry& v) {
  if (!(s.is_daemon_enable && s.is_mounted && v.is_encryption && v.is_mount)) return 0;
  int status = 0, error = 0, conn_status = 0, conn_error = 0;
  if (SystemDB::getSessionStatusAndErr(s.id, &status, &error, &conn_status, &conn_error) != 0) {
    LOG_ERROR(kComponent, "Fail to get session (%llu) status.", LogId(s.id));
    return -1;
  }
  if (error != kSessionErrorEncryptedUnmounted) return 0;
  LOG_INFO(kComponent, "Server remounted session(%llu). Resuming back.", LogId(s.id));
  ResumeSession(s.id);
  if (SystemDB::setSessionErr(s.id, 0) != 0) {
    LOG_ERROR(kComponent, "Failed to set session (%llu) error.", LogId(s.id));
    return -1;
  }
  if (SystemDB::setSessionStatus(s.id, kSessionStatusRunning) != 0) {
    LOG_ERROR(kComponent, "Failed to set session (%llu) status.", LogId(s.id));
    return -1;
  }
  return 0;
}

// One session against the view it syncs with; the first failing step ends it.
int UpdateSession(const SessionInfo& s, const ServerViewEntry& v) {
  if (UpdateSessionName(s, v) != 0) return -1;
  if (UpdateSessionPrivilege(s, v) != 0) return -1;
  return ResumeRemountedSession(s, v);
}

}  // namespace

void* MonitorDaemon::ListShareThreadMain(void* arg) {
  static_cast<MonitorDaemon*>(arg)->ListShareThreadLoop();
  return nullptr;
}

void MonitorDaemon::ListShareThreadLoop() {
  UpdateListShareConnections();
  while (list_share_thread_running.load()) {
    ListShareScheduleEntry due;
    if (!FindDueConnection(CurrentTime(), &due)) {
      PauseOneSecond();
      continue;
    }
    if (ListShare(due) != 0) {
      LOG_ERROR(kComponent, "failed to list shared folder for connection %llu",
                static_cast<unsigned long long>(due.conn_id));
    }
  }
}

bool MonitorDaemon::FindDueConnection(int64_t now, ListShareScheduleEntry* due) {
  MutexLock lock(&state_mutex);
  const int32_t period = list_share_period.load();
  for (const ListShareScheduleEntry& e : list_share_schedule) {
    if (e.conn_status != 1 && now >= e.last_listed + period) {
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
  std::map<uint64_t, int64_t> last_listed;
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
  MarkListed(entry.conn_id, CurrentTime());
  return rc;
}

int MonitorDaemon::ListShareConnection(const ListShareScheduleEntry& entry) {
  LOG_DEBUG(kComponent, "ListShare: listing shared folders of connection %llu", LogId(entry.conn_id));
  ConnectionEntry connection;
  if (SystemDB::getConnectionEntryByConnID(entry.conn_id, &connection) != 0) {
    LOG_ERROR(kComponent, "failed to get connection %llu", LogId(entry.conn_id));
    return -1;
  }
  LOG_DEBUG(kComponent, "ListShare: connecting to server at %s:%u", connection.server_ip.c_str(),
            static_cast<unsigned>(connection.server_port));
  ProtoUI proto;
  SetUpProtoUI(connection, &proto);
  UserInfo user;
  if (proto.QueryUserInfo(&user, true) == 0) {
    ListShareFrom(connection, user);
    return 0;
  }
  LOG_WARNING(kComponent,
              "ListShare: list shared folder for connection #%llu failed with error code %d (%s)",
              LogId(connection.id), proto.GetErrorCode(), proto.GetErrorReason().c_str());
  std::list<SessionInfo> sessions;
  if (SystemDB::getSessionListByConnectionID(&sessions, connection.id) != 0) {
    LOG_ERROR(kComponent, "failed to get session list of connection %llu", LogId(connection.id));
    return -1;
  }
  return 0;
}

// Caches and stores the server's views when they changed, then brings each
// session on one of them in line.  An empty list changes no session.
void MonitorDaemon::ListShareFrom(const ConnectionEntry& connection, const UserInfo& user) {
  UpdateUserInfo(connection, user);
  const std::vector<ServerViewEntry> views = StoredViews(user.views);
  std::list<SessionInfo> sessions;
  if (SystemDB::getSessionListByConnectionID(&sessions, connection.id) != 0) {
    LOG_ERROR(kComponent, "failed to get session list of connection %llu", LogId(connection.id));
    sessions.clear();
  }
  if (CacheServerViews(connection.id, views)) {
    const std::list<ServerViewEntry> rows(views.begin(), views.end());
    if (SystemDB::replaceServerViews(connection.id, rows) != 0) {
      LOG_ERROR(kComponent, "Fail to set server_view_cached for connection_id = %llu",
                LogId(connection.id));
    }
  }
  if (views.empty()) return;
  for (const SessionInfo& s : sessions) {
    auto v = std::lower_bound(
        views.begin(), views.end(), s.view_id,
        [](const ServerViewEntry& view, uint64_t id) { return view.view_id < id; });
    if (v != views.end() && v->view_id == s.view_id) UpdateSession(s, *v);
  }
}

bool MonitorDaemon::CacheServerViews(uint64_t conn_id, const std::vector<ServerViewEntry>& views) {
  MutexLock lock(&view_cache_mutex);
  auto it = server_view_cache.find(conn_id);
  if (it != server_view_cache.end() && it->second == views) return false;
  server_view_cache[conn_id] = views;
  return true;
}

void MonitorDaemon::EraseServerViews(uint64_t conn_id) {
  MutexLock lock(&view_cache_mutex);
  server_view_cache.erase(conn_id);
}

void MonitorDaemon::MarkListed(uint64_t conn_id, int64_t now) {
  MutexLock lock(&state_mutex);
  for (ListShareScheduleEntry& e : list_share_schedule) {
    if (e.conn_id == conn_id) {
      e.last_listed = now;
      return;
    }
  }
}

