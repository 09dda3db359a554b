// "notify": "error" from the sync daemon, and HandleError, which notifies the
// administrators of a new error and passes it to the error handler.
#include "log/log.h"
#include "monitor/monitor-util.h"
#include "monitor/vesta-monitor.h"
#include "stream/PObject.h"

using monitor::kComponent;

// Reading the connection and session and handing the translated code to the
// error handler arrives with the error handling; until then the
// notification is acknowledged and logged.
int MonitorDaemon::HandleErrorNotification(const PObject& request, PObject* /*reply*/) {
  LOG_DEBUG(kComponent, "error notification: conn %llu sess %llu type %d",
            static_cast<unsigned long long>(request.Lookup("conn_id").AsInteger()),
            static_cast<unsigned long long>(request.Lookup("sess_id").AsInteger()),
            static_cast<int>(request.Lookup("error_type").AsInteger()));
  return 0;
}

// The notification and the error handler arrive with the error handling;
// until then an error is only logged.
int MonitorDaemon::HandleError(const ConnectionEntry& connection, const SessionInfo& session,
                               int code, const ConnectionEntry* /*previous*/) {
  LOG_DEBUG(kComponent, "error %d: conn %llu sess %llu", code,
            static_cast<unsigned long long>(connection.id),
            static_cast<unsigned long long>(session.id));
  return 0;
}
