// "notify": "error" from the sync daemon, and HandleError, which notifies the
// administrators of a new error and passes it to the error handler.
#include <json/json.h>

#include <cstdint>

#include "db/system-db.h"
#include "error/nx-error-handler.h"
#include "log/log.h"
#include "monitor/monitor-util.h"
#include "monitor/vesta-monitor.h"
#include "sdk/sdk-cpp.h"
#include "stream/PObject.h"

using monitor::kComponent;

namespace {

using ull = unsigned long long;

// The sync daemon's error codes and the monitor error codes they stand for.
struct DaemonError {
  int64_t daemon_code;
  int code;
};
constexpr DaemonError kDaemonErrors[] = {
    {-6, 5},   {-10, 14}, {-14, 33}, {-15, 7},  {-16, 9},  {-17, 11}, {-18, 1},  {-19, 3},
    {-20, 2},  {-22, 10}, {-24, 19}, {-25, 20}, {-26, 4},  {-29, 15}, {-33, 16}, {-35, 6},
    {-36, 21}, {-41, 8},  {-45, 34}, {-46, 35}, {-48, 36}, {-50, 39},
};

// The monitor code of a daemon error; 0, with a WARNING, for one it does
// not know.
int MonitorCodeOf(int64_t daemon_code) {
  for (const DaemonError& row : kDaemonErrors) {
    if (row.daemon_code == daemon_code) return row.code;
  }
  LOG_WARNING(kComponent, "unhandled daemon error code %d", static_cast<int>(daemon_code));
  return 0;
}

// The desktop notification posted for each error code.
struct Notification {
  int code;
  const char* id;
};
constexpr Notification kNotifications[] = {
    {1, "ShareFailEnable"},       {2, "ShareFailEnable"},
    {3, "ShareNoWritePerm"},      {5, "AuthError"},
    {27, "AuthError"},            {6, "IPNotAllowed"},
    {7, "QuotaFull"},             {8, "RemoteShareQuotaFull"},
    {9, "fernboxtandem_DiskFull"}, {10, "LocalDiskFull"},
    {11, "ShareNonExist"},        {12, "LocalShareNotMounted"},
    {14, "ServerNeedToUpdate"},   {22, "ServerNeedToUpdate"},
    {24, "ServerNeedToUpdate"},   {15, "RemoteShareNotMounted"},
    {19, "SSLVerifyFail"},        {28, "SSLVerifyFail"},
    {20, "SSLChange"},            {29, "SSLChange"},
    {21, "NXChange"},             {25, "NXChange"},
    {23, "ClientNeedToUpdate"},   {30, "SyncDirectionMismatch"},
    {33, "UserKOSDisable"},       {34, "UserNoAppPriv"},
    {35, "UserInfoUnavail"},      {39, "fernboxtandem_UserNotAllowed"},
};

const char* NotificationIdOf(int code) {
  for (const Notification& row : kNotifications) {
    if (row.code == code) return row.id;
  }
  return "UnknownError";
}

// Codes handled without a notification.
bool IsSilent(int code) {
  return code == 0 || code == 13 || code == 16 || code == 26 || code == 36;
}

// True when neither the connection nor the session (when there is one)
// already carries an error, so `code` is news; false also when a stored
// error cannot be read.
bool IsNewError(uint64_t conn_id, uint64_t session_id) {
  int error = 0;
  if (SystemDB::getConnectionErr(conn_id, &error) != 0 || error != 0) return false;
  if (session_id != 0 && (SystemDB::getSessionErr(session_id, &error) != 0 || error != 0)) {
    return false;
  }
  return true;
}

}  // namespace

int MonitorDaemon::HandleErrorNotification(const PObject& request, PObject* /*reply*/) {
  const uint64_t conn_id = static_cast<uint64_t>(request.Lookup("conn_id").AsInteger());
  const uint64_t sess_id = static_cast<uint64_t>(request.Lookup("sess_id").AsInteger());
  const int64_t error_type = request.Lookup("error_type").AsInteger();

  ConnectionEntry connection;
  if (SystemDB::getConnectionEntryByConnID(conn_id, &connection) != 0) {
    LOG_ERROR(kComponent, "failed to get connection info of connection %llu", (ull)conn_id);
    return -1;
  }
  // A session that is not there leaves the record empty (id 0).
  SessionInfo session;
  if (sess_id != 0 && SystemDB::getSessionInfoBySessionID(sess_id, &session) != 0) {
    LOG_ERROR(kComponent, "failed to get session info of session %llu", (ull)sess_id);
    return -1;
  }
  HandleError(connection, session, MonitorCodeOf(error_type), nullptr);
  return 0;
}

int MonitorDaemon::HandleError(const ConnectionEntry& connection, const SessionInfo& session,
                               int code, const ConnectionEntry* previous) {
  if (!IsSilent(code) && IsNewError(connection.id, session.id)) {
    const int notify_code = (code == 4 && session.sync_direction != 2) ? 30 : code;
    const char* id = NotificationIdOf(notify_code);
    LOG_INFO(kComponent, "HandleError string: %s (error code: %d)", id, notify_code);
    Json::Value notification;
    notification["notify_id"] = id;
    if (std::string(id) == "fernboxtandem_DiskFull") {
      Json::Value capacity;
      capacity["key"] = "%CAPACITY%";
      capacity["value"] = "2GB";
      notification["arg_list"].append(capacity);
    }
    // A notification that cannot be sent does not keep the error from
    // being handled.
    if (notifier) notifier->SendNotification(notification);
  }

  NXClientErrorHandler handler;
  return handler.HandleError(connection, session, code, previous);
}
