#include "error/error-handler.h"

#include "error/version-rules.h"
#include "log/log.h"

const char kErrorHandlerComponent[] = "error_handler";

namespace {

const char* const kComponent = kErrorHandlerComponent;

// What each error code calls for.
enum class Action {
  kNothing,
  kDisableSession,
  kPauseSession,
  kHandleReadOnly,
  kStopSession,
  kPauseConnection,
  kPauseAndPostPause,     // PauseConnection, then PostPauseConnection
  kSetConnectionError,    // the error stored, nothing paused
  kUpdateSslSignature,    // the connection paused when that fails
  kServerVersionChanged,  // needs the stored record of the connection
  kUnknown,               // only logged
};

// Indexed by code; codes outside it are unknown.
constexpr Action kActions[] = {
    Action::kNothing,               // 0
    Action::kDisableSession,        // 1
    Action::kDisableSession,        // 2
    Action::kPauseSession,          // 3
    Action::kHandleReadOnly,        // 4
    Action::kPauseConnection,       // 5
    Action::kPauseConnection,       // 6
    Action::kPauseSession,          // 7
    Action::kPauseSession,          // 8
    Action::kPauseSession,          // 9
    Action::kPauseSession,          // 10
    Action::kDisableSession,        // 11
    Action::kStopSession,           // 12
    Action::kSetConnectionError,    // 13
    Action::kPauseConnection,       // 14
    Action::kPauseSession,          // 15
    Action::kServerVersionChanged,  // 16
    Action::kDisableSession,        // 17
    Action::kDisableSession,        // 18
    Action::kUpdateSslSignature,    // 19
    Action::kUpdateSslSignature,    // 20
    Action::kPauseConnection,       // 21
    Action::kPauseConnection,       // 22
    Action::kPauseConnection,       // 23
    Action::kPauseConnection,       // 24
    Action::kPauseConnection,       // 25
    Action::kSetConnectionError,    // 26
    Action::kPauseConnection,       // 27
    Action::kUpdateSslSignature,    // 28
    Action::kUpdateSslSignature,    // 29
    Action::kUnknown,               // 30: HandleReadOnly pauses with it directly
    Action::kPauseSession,          // 31
    Action::kPauseAndPostPause,     // 32
    Action::kPauseConnection,       // 33
    Action::kPauseConnection,       // 34
    Action::kPauseConnection,       // 35
    Action::kServerVersionChanged,  // 36
    Action::kPauseSession,          // 37
    Action::kUnknown,               // 38
    Action::kPauseConnection,       // 39
};
static_assert(sizeof(kActions) / sizeof(kActions[0]) == 40, "one action per code 0 to 39");

Action ActionOf(int code) {
  if (code < 0 || code >= static_cast<int>(sizeof(kActions) / sizeof(kActions[0]))) {
    return Action::kUnknown;
  }
  return kActions[code];
}

}  // namespace

ErrorHandler::~ErrorHandler() = default;

int ErrorHandler::PostPauseConnection(const ConnectionEntry& /*connection*/, int /*code*/) {
  return 0;
}

int ErrorHandler::HandleError(const ConnectionEntry& connection, const SessionInfo& session,
                              int code, const ConnectionEntry* old_connection) {
  LOG_INFO(kComponent, "handling error code %d", code);
  const Action action = ActionOf(code);
  switch (action) {
    case Action::kNothing:
      break;
    case Action::kDisableSession:
      DisableSession(session, code);
      break;
    case Action::kPauseSession:
      PauseSession(session, code);
      break;
    case Action::kHandleReadOnly:
      HandleReadOnly(session);
      break;
    case Action::kStopSession:
      StopSession(session, code);
      break;
    case Action::kPauseConnection:
      PauseConnection(connection, code);
      break;
    case Action::kPauseAndPostPause:
      PauseConnection(connection, code);
      PostPauseConnection(connection, code);
      break;
    case Action::kSetConnectionError:
      SetConnectionError(connection, code);
      break;
    case Action::kUpdateSslSignature:
      if (UpdateSslSignature(connection) < 0) PauseConnection(connection, code);
      break;
    case Action::kServerVersionChanged:
      if (old_connection == nullptr) {
        LOG_INFO(kComponent,
                 "ErrorHandler: daemon server version changed, but the old connection info is "
                 "not given (might because this error comes from the daemon notify message), "
                 "skipping.");
        break;
      }
      HandleServerVersionChanged(*old_connection, session, connection);
      break;
    case Action::kUnknown:
      LOG_ERROR(kComponent, "unknown error code %d", code);
      break;
  }
  return 0;
}

int ErrorHandler::HandleServerVersionChanged(const ConnectionEntry& old_connection,
                                             const SessionInfo& session,
                                             const ConnectionEntry& new_connection) {
  if (old_connection.nx_id != new_connection.nx_id) {
    // Another machine answers at the address: nothing of the old one carries over.
    HandleError(old_connection, session, 21, nullptr);
    return 0;
  }
  UpgradeConnection(new_connection.id, old_connection, new_connection);

  switch (CheckProtocolVersion(new_connection.protocol_version)) {
    case kServerTooOld:
      LOG_ERROR(kComponent,
                "ErrorHandler::HandleServerVersionChanged: Server protocol version not support "
                "or degradation");
      HandleError(old_connection, session, 22, nullptr);
      break;
    case kClientTooOld:
      LOG_ERROR(kComponent,
                "ErrorHandler::HandleServerVersionChanged: Client protocol version not support "
                "or degradation");
      HandleError(old_connection, session, 23, nullptr);
      break;
    default:
      if (IsBuildNumberTooOld(new_connection.package_version)) {
        // Without a line break: the next entry continues this line.
        LOG_ERROR_NO_NEWLINE(kComponent,
                             "ErrorHandler::HandleServerVersionChanged: Server build number %ld "
                             "is too old",
                             static_cast<long>(new_connection.package_version));
        HandleError(old_connection, session, 22, nullptr);
      }
      break;
  }
  return 0;
}

int CheckProtocolVersion(int server_protocol_version) {
  const int decade = server_protocol_version / 10 * 10;
  if (decade > kClientProtocolVersion + 9) return kClientTooOld;
  if (server_protocol_version < kClientProtocolVersion) return kServerTooOld;
  if (server_protocol_version == kClientProtocolVersion) return kProtocolSame;
  return kProtocolCompatible;
}

bool IsBuildNumberTooOld(int build_number) { return build_number < kMinimumServerBuild; }
