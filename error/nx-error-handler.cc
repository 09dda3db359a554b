// The session and connection actions of NXClientErrorHandler, the stored
// error values of each code, and the server build check of code 14.  The
// upgrade and the certificate signature live in nx-upgrade.cc.
#include "error/nx-error-handler.h"

#include "db/system-db.h"
#include "error/version-rules.h"
#include "ipc/daemon_ipc.h"
#include "log/log.h"
#include "net/proto-ui.h"

namespace {

const char* const kComponent = kErrorHandlerComponent;

struct StoredError {
  int code;
  int value;
};

// Codes stored on a session, and their values.
constexpr StoredError kSessionErrors[] = {
    {0, 0},   {1, -1},  {2, -1},  {3, -2},  {7, -3},   {9, -4},
    {10, -5}, {11, -6}, {15, -8}, {30, -9}, {8, -10}, {12, -11},
};

// Codes stored on a connection, and their values (14: see
// VerifyDaemonVersionError).
constexpr StoredError kConnectionErrors[] = {
    {0, 0},   {36, 0},  {13, -1}, {26, -1}, {22, -2}, {23, -3},  {14, -4},  {24, -4},
    {21, -5}, {25, -5}, {5, -6},  {27, -6}, {19, -7}, {28, -7},  {20, -8},  {29, -8},
    {6, -9},  {33, -10}, {34, -11}, {35, -12}, {39, -13},
};

// The value of an error that no table row names.
constexpr int kUnknownStoredError = -14;

template <size_t N>
bool LookUp(const StoredError (&table)[N], int code, int* value) {
  for (const StoredError& row : table) {
    if (row.code == code) {
      *value = row.value;
      return true;
    }
  }
  return false;
}

using ull = unsigned long long;

// What stopping and disabling a session store first: its error for `code`
// and the stopped status.  0, or -1 at the first failing write.
int StoreStopped(const SessionInfo& session, int code) {
  if (SystemDB::setSessionErr(session.id, NXClientErrorHandler::ToSessionError(code)) != 0) {
    LOG_ERROR(kComponent, "failed to set session error (%llu, %d)", (ull)session.id, code);
    return -1;
  }
  if (SystemDB::setSessionStatus(session.id, kSessionStopped) != 0) {
    LOG_ERROR(kComponent, "failed to set session status (%llu, stop)", (ull)session.id);
    return -1;
  }
  return 0;
}

}  // namespace

int NXClientErrorHandler::ToSessionError(int code) {
  int value = 0;
  if (LookUp(kSessionErrors, code, &value)) return value;
  LOG_ERROR(kComponent, "unknown session error code %d", code);
  return kUnknownStoredError;
}

int NXClientErrorHandler::ToConnectionError(int code) {
  int value = 0;
  if (LookUp(kConnectionErrors, code, &value)) return value;
  LOG_ERROR(kComponent, "unknown connection error code %d", code);
  return kUnknownStoredError;
}

int NXClientErrorHandler::HandleReadOnly(const SessionInfo& session) {
  // Only a session that also uploads has a direction that no longer fits.
  if (session.sync_direction != 2) PauseSession(session, 30);
  if (session.is_read_only) {
    LOG_DEBUG(kComponent, "session %llu is now read-only, skip reload", (ull)session.id);
    return 0;
  }
  if (SystemDB::setSessionReadOnly(session.id) != 0) {
    LOG_ERROR(kComponent, "failed to update session (%s, %llu, %u)", session.share_name.c_str(),
              (ull)session.id, static_cast<unsigned>(session.is_read_only));
    return -1;
  }
  return 0;
}

int NXClientErrorHandler::PauseSession(const SessionInfo& session, int code) {
  const int value = ToSessionError(code);
  if (SystemDB::setSessionErr(session.id, value) != 0) {
    LOG_ERROR(kComponent, "failed to set session error (%llu, %d)", (ull)session.id, value);
    return -1;
  }
  if (SystemDB::setSessionStatus(session.id, kSessionPaused) != 0) {
    LOG_ERROR(kComponent, "failed to set session status (%llu, pause)", (ull)session.id);
    return -1;
  }
  if (::PauseSession(session.id) != 0) {
    LOG_ERROR(kComponent, "faile to pause daemon session %llu: %d", (ull)session.id, value);
    return -1;
  }
  return 0;
}

int NXClientErrorHandler::StopSession(const SessionInfo& session, int code) {
  if (StoreStopped(session, code) != 0) return -1;
  // is_daemon_enable stays: the session comes back with its folder.
  if (RemoveSession(session.id) != 0) {
    LOG_ERROR(kComponent, "faile to remove daemon session %llu", (ull)session.id);
    return -1;
  }
  return 0;
}

int NXClientErrorHandler::DisableSession(const SessionInfo& session, int code) {
  if (StoreStopped(session, code) != 0) return -1;
  if (session.is_daemon_enable) {
    SessionInfo disabled = session;
    disabled.is_daemon_enable = false;
    if (SystemDB::updateSessionInfo(&disabled) != 0) {
      LOG_ERROR(kComponent, "failed to update session (%s, %llu, %u)",
                session.share_name.c_str(), (ull)session.id,
                static_cast<unsigned>(disabled.is_daemon_enable));
      return -1;
    }
    if (RemoveSession(session.id) != 0) {
      LOG_ERROR(kComponent, "faile to remove daemon session %llu", (ull)session.id);
      return -1;
    }
  }
  // Code 0 comes from UnlinkConnection itself, which must not unlink twice.
  if (code == 0) return 0;

  const int enabled = CountEnabledSessions(session.conn_id);
  if (enabled < 0) {
    LOG_ERROR(kComponent, "faile to count sessions of connection %llu", (ull)session.conn_id);
    return -1;
  }
  if (enabled > 0) return 0;
  ConnectionEntry connection;
  connection.id = session.conn_id;
  if (UnlinkConnection(connection, 0) < 0) {
    LOG_ERROR(kComponent, "failed to unlink connection (%llu) after disabling session (%llu)",
              (ull)session.conn_id, (ull)session.id);
    return -1;
  }
  return 0;
}

int NXClientErrorHandler::CountEnabledSessions(uint64_t conn_id) {
  std::list<SessionInfo> sessions;
  if (SystemDB::getSessionListByConnectionID(&sessions, conn_id) != 0) {
    LOG_ERROR(kComponent, "failed to get session list of connection (%llu)", (ull)conn_id);
    return -1;
  }
  int enabled = 0;
  for (const SessionInfo& s : sessions) enabled += s.is_daemon_enable ? 1 : 0;
  return enabled;
}

int NXClientErrorHandler::SetConnectionError(const ConnectionEntry& connection, int code) {
  const int value = code == 14 ? VerifyDaemonVersionError(connection) : ToConnectionError(code);
  if (SystemDB::setConnectionErr(connection.id, value) != 0) {
    LOG_ERROR(kComponent, "failed to set connection error (%llu, %d)", (ull)connection.id,
              value);
    return -1;
  }
  return 0;
}

int NXClientErrorHandler::PauseConnection(const ConnectionEntry& connection, int code) {
  if (SetConnectionError(connection, code) < 0) return -1;
  if (SystemDB::setConnectionStatus(connection.id, kConnectionPaused) != 0) {
    LOG_ERROR(kComponent, "failed to set connection status (%llu, paused)", (ull)connection.id);
    return -1;
  }
  if (::PauseConnection(connection.id) != 0) {
    LOG_ERROR(kComponent, "failed to pause connection %llu", (ull)connection.id);
    return -1;
  }
  return 0;
}

int NXClientErrorHandler::UnlinkConnection(const ConnectionEntry& connection, int code) {
  const int value = ToConnectionError(code);
  if (SystemDB::setConnectionErr(connection.id, value) != 0) {
    LOG_ERROR(kComponent, "failed to set connection error (%llu, %d)", (ull)connection.id,
              value);
    return -1;
  }
  if (SystemDB::setConnectionStatus(connection.id, kConnectionUnlinked) != 0) {
    LOG_ERROR(kComponent, "failed to set connection status (%llu, unlinked)",
              (ull)connection.id);
    return -1;
  }
  if (SystemDB::setLinkByConnection(connection.id, 0) != 0) {
    LOG_ERROR(kComponent, "failed to set connection link status (%llu, unlinked)",
              (ull)connection.id);
    return -1;
  }
  if (code != 0) {
    std::list<SessionInfo> sessions;
    if (SystemDB::getSessionListByConnectionID(&sessions, connection.id) != 0) {
      LOG_ERROR(kComponent, "failed to list sessions of connection (%llu)", (ull)connection.id);
      return -1;
    }
    for (const SessionInfo& s : sessions) {
      if (s.is_daemon_enable && DisableSession(s, 0) < 0) {
        LOG_ERROR(kComponent, "failed to disable session %llu after unlinking connection %llu",
                  (ull)s.id, (ull)connection.id);
      }
    }
  }
  ::UnlinkConnection(connection.id);  // the stored state already says unlinked
  return 0;
}

int NXClientErrorHandler::VerifyDaemonVersionError(const ConnectionEntry& connection) {
  ProtoUI client;
  client.SetServer(connection.server_ip, static_cast<uint32_t>(connection.server_port));
  client.SetSsl(false, false, "", "");
  if (connection.conn_mode & kModeProxy) client.SetProxy(connection.proxy);
  if (connection.conn_mode & kModeTunnel) client.SetTunnel(connection.tunnel);
  client.SetTimeout(kServerTimeout);

  ServerInfo info;
  if (client.QueryServerInfo(&info) != 0) {
    LOG_ERROR(kComponent,
              "PCErrorHandler::VerifyDaemonVersionError: Check Fernbox server version protocol "
              "error");
    return ToConnectionError(14);
  }
  if (IsBuildNumberTooOld(info.package_build)) {
    LOG_ERROR(kComponent,
              "NXErrorHandler::VerifyDaemonVersionError: Server build number %u is too old",
              static_cast<unsigned>(info.package_build));
    return ToConnectionError(22);
  }
  return ToConnectionError(14);
}
