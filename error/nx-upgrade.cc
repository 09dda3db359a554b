// The connection changes of NXClientErrorHandler: the upgrade of a
// connection whose server changed (with the re-synchronisation, reload or
// three-way merge its change of build calls for) and the refresh of its
// certificate signature.
#include <time.h>

#include "config/service.h"
#include "config/setting.h"
#include "db/connection-updater.h"
#include "db/filter-db-util.h"
#include "db/system-db.h"
#include "error/nx-error-handler.h"
#include "ipc/daemon_ipc.h"
#include "log/log.h"
#include "net/proto-ui.h"
#include "platform/fixed_path.h"
#include "stream/PObject.h"

namespace {

const char* const kComponent = kErrorHandlerComponent;

using ull = unsigned long long;

// Build numbers at which the sync daemon's view of a connection's sessions
// changed.  Crossing one means the old build lies below it and the new one
// at or above it.
constexpr int kResyncBuilds[] = {3208, 10119};  // events must be rebuilt
constexpr int kReloadBuild = 4101;              // sessions must be reloaded
constexpr int kMergeBuild = 12124;              // nodes must meet in a three-way merge

bool Crosses(int old_build, int new_build, int threshold) {
  return old_build < threshold && threshold <= new_build;
}

// A session that the sync daemon runs.
bool InDaemon(const SessionInfo& session) {
  return session.is_daemon_enable && session.is_mounted;
}

// `text` up to its last ":", or all of it ("host:port" -> "host").
std::string HostPart(const std::string& text) {
  const size_t colon = text.rfind(':');
  return colon == std::string::npos ? text : text.substr(0, colon);
}

}  // namespace

void ResyncPause::Wait() const {
  timespec ts{static_cast<time_t>(seconds), 0};
  nanosleep(&ts, nullptr);  // a signal ends it early, and the upgrade goes on
}

int NXClientErrorHandler::UpgradeConnection(uint64_t conn_id,
                                            const ConnectionEntry& old_connection,
                                            const ConnectionEntry& new_connection) {
  LOG_INFO(kComponent, "UpgradeConnection: upgrading connection.");
  const int from = old_connection.package_version;
  const int to = new_connection.package_version;
  bool resync = !old_connection.restore_id.empty() &&
                old_connection.restore_id != new_connection.restore_id;
  for (int build : kResyncBuilds) resync = resync || Crosses(from, to, build);
  const bool reload = Crosses(from, to, kReloadBuild);
  const bool merge = Crosses(from, to, kMergeBuild);

  std::list<SessionInfo> sessions;
  if (SystemDB::getSessionListByConnectionID(&sessions, conn_id) != 0) {
    LOG_ERROR(kComponent, "failed to list sessions of connection (%llu)", (ull)conn_id);
    return -1;
  }
  if (resync) {
    for (const SessionInfo& s : sessions) {
      if (InDaemon(s) && RemoveSession(s.id) != 0) {
        LOG_ERROR(kComponent, "failed to remove daemon session %llu", (ull)s.id);
      }
    }
    // The sessions are out of the sync daemon now: only the steps below
    // hand them back, so they run even when the daemon is stopping.
    pause_.Wait();
    ResetSessionDatabases(sessions);
  }

  if (SystemDB::setConnectionErr(conn_id, 0) != 0) {
    LOG_ERROR(kComponent, "failed to set connection error (%llu, %d)", (ull)conn_id, 0);
    return -1;
  }
  if (SystemDB::setConnectionStatus(conn_id, kConnectionConnected) != 0) {
    LOG_ERROR(kComponent, "failed to set connection status (%llu, connected)", (ull)conn_id);
    return -1;
  }
  ConnectionEntry stored = new_connection;
  if (SystemDB::updateConnectionEntry(&stored, new_connection.proxy, new_connection.tunnel) !=
      0) {
    LOG_ERROR(kComponent, "failed to update connection entry %llu (%s:%u)", (ull)conn_id,
              new_connection.server_ip.c_str(), static_cast<unsigned>(new_connection.server_port));
    return -1;
  }
  if (ReloadConnection(new_connection) != 0) {
    LOG_ERROR(kComponent, "failed to reload connection %llu (%s:%u)", (ull)conn_id,
              new_connection.server_ip.c_str(), static_cast<unsigned>(new_connection.server_port));
    return -1;
  }

  if (resync) {
    GeneralOptions options;
    if (SystemDB::getGeneralOptions(&options) != 0) {
      LOG_ERROR(kComponent, "Fail to get general_options");
      return -1;
    }
    AddSessionsAgain(sessions, options);
  } else if (reload) {
    for (const SessionInfo& s : sessions) {
      if (InDaemon(s) &&
          ReloadSessionConflictPolicy(s.id, s.conflict_policy, s.rename_conflict) != 0) {
        LOG_ERROR(kComponent, "failed to reload daemon session %llu", (ull)s.id);
      }
    }
  }
  if (merge) {
    for (const SessionInfo& s : sessions) {
      LOG_INFO(kComponent,
               "Upgrade connectino and force 3-way merge to sync all node before pullevent");
      AddThreeWayMergeEvent(s.id);
    }
  }
  return 0;
}

void NXClientErrorHandler::ResetSessionDatabases(const std::list<SessionInfo>& sessions) {
  ServiceSetting setting(FixedPath(kServiceConfigPath));
  LOG_INFO(kComponent, "UpgradeConnection: UpgradeConnectionEventTable.");
  // A session that fails is left as it is; the next one is still reset.
  for (const SessionInfo& s : sessions) {
    std::string db_dir, filter_db;
    if (setting.GetSessionDbDir(s.id, &db_dir) != 0) {
      LOG_ERROR(kComponent, "Failed to get db path for session %llu", (ull)s.id);
      continue;
    }
    if (setting.GetFilterDbPath(&filter_db) != 0) {
      LOG_ERROR(kComponent, "Failed to get filter db path for session '%llu'", (ull)s.id);
      continue;
    }
    if (CleanUpFilterDBBySession(filter_db, s.id) != 0) {
      LOG_ERROR(kComponent, "Failed to clean up filter db for session %llu", (ull)s.id);
      continue;
    }
    ConnectionUpdater events;
    if (events.Open(db_dir + "/event-db.sqlite") != 0) {
      LOG_ERROR(kComponent, "Failed to open event database from db path '%s'", db_dir.c_str());
      continue;
    }
    if (events.ClearEvents() != 0) {
      LOG_CRIT(kComponent, "Failed to clear event db from db path '%s'", db_dir.c_str());
      continue;
    }
    if (events.SetSyncId(0) != 0) {
      LOG_CRIT(kComponent, "Failed to reset sync_id from db path '%s'", db_dir.c_str());
    }
  }
}

void NXClientErrorHandler::AddSessionsAgain(const std::list<SessionInfo>& sessions,
                                            const GeneralOptions& options) {
  for (const SessionInfo& s : sessions) {
    if (!InDaemon(s)) continue;
    if (SystemDB::setSessionStatus(s.id, kSessionRestarted) != 0 ||
        SystemDB::setSessionErr(s.id, 0) != 0 || AddSession(s, options, true, true) != 0) {
      LOG_ERROR(kComponent, "failed to add daemon session %llu", (ull)s.id);
    }
  }
}

SslHostCheck NXClientErrorHandler::SslHostRule(const ConnectionEntry& c) {
  const int kind = c.conn_mode & kModeAddressKindMask;
  if (c.ssl_allow_untrust || c.server_name.empty()) return {false, ""};
  if (c.conn_mode & kModeByDomainName) return {true, HostPart(c.domain_name)};
  if (!(c.conn_mode & kModeRelay)) return {true, kind == 3 ? HostPart(c.server_name) : c.server_ip};
  // A relay presents its own certificate for these address kinds.
  if (kind == 3 || kind == 4 || kind == 5 || (c.conn_mode & kModeTunnel)) return {false, ""};
  return {true, c.server_ip};
}

int NXClientErrorHandler::ProNXQuerySSLSignature(ConnectionEntry* connection,
                                                 const ProxyInfo& proxy,
                                                 const TunnelInfo& tunnel) {
  ProtoUI client;
  if (connection->conn_mode & kModeProxy) client.SetProxy(proxy);
  if (connection->conn_mode & kModeTunnel) client.SetTunnel(tunnel);
  const SslHostCheck check = SslHostRule(*connection);
  client.SetSsl(connection->use_ssl, check.verify, check.host, connection->ssl_signature);
  client.SetServer(connection->server_ip, static_cast<uint32_t>(connection->server_port));
  client.SetSession(connection->session);
  client.SetBuildNumber(connection->package_version);
  client.SetRestoreId(connection->restore_id);
  client.SetTimeout(kServerTimeout);

  std::string signature;
  if (client.QuerySslSignature(&signature) != 0) {
    LOG_ERROR(kComponent, "ProNXQuerySSLSignature: code: %d, reason: %s.", client.GetErrorCode(),
              client.GetErrorReason().c_str());
    return -1;
  }
  connection->ssl_signature = signature;
  return 0;
}

int NXClientErrorHandler::UpdateSslSignature(const ConnectionEntry& connection) {
  ConnectionEntry stored = connection;
  ConnectionEntry query = connection;
  if ((connection.conn_mode & kModeRelay) && (connection.conn_mode & kModeTunnel)) {
    // Through a relay's tunnel any certificate is taken as it comes.
    query.ssl_allow_untrust = true;
    query.ssl_signature.clear();
    if (ProNXQuerySSLSignature(&query, query.proxy, query.tunnel) != 0) {
      LOG_ERROR(kComponent, "Failed to pass sign auth");
      return -1;
    }
  } else {
    query.ssl_allow_untrust = false;
    if (ProNXQuerySSLSignature(&query, query.proxy, query.tunnel) != 0) {
      LOG_ERROR(kComponent, "Failed to pass sign auth.");
      return -1;
    }
    stored.ssl_allow_untrust = false;
  }
  LOG_INFO(kComponent, "Update ssl sign for conn_id: %llu, old: %s, new: %s.", (ull)stored.id,
           stored.ssl_signature.c_str(), query.ssl_signature.c_str());
  stored.ssl_signature = query.ssl_signature;
  // The server has answered; storing and reloading are not checked.
  SystemDB::updateConnectionEntry(&stored, stored.proxy, stored.tunnel);
  ReloadConnection(stored);
  return 0;
}
