// "notify": "share_hook": events of the storage server's own shared folders.
#include "log/log.h"
#include "monitor/monitor-util.h"
#include "monitor/vesta-monitor.h"
#include "stream/PObject.h"

using monitor::kComponent;

// The share events arrive with their own handlers; until then a hook is
// acknowledged and logged.
int MonitorDaemon::HandleShareHook(const PObject& request, PObject* /*reply*/) {
  LOG_DEBUG(kComponent, "share hook: %s", ToJson(request).c_str());
  return 0;
}
