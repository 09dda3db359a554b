// Requests on the monitor's socket: who may send them, then one request and
// one reply per accepted connection, routed by "action" and then by
// "notify".  Main thread only.
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "log/log.h"
#include "monitor/monitor-util.h"
#include "monitor/vesta-monitor.h"
#include "net/channel.h"
#include "stream/PObject.h"
#include "stream/stream.h"

using monitor::kComponent;
using monitor::MutexLock;
using monitor::kDisconnectedThreshold;
using monitor::kFastListSharePeriod;

namespace {

// The buffer of a served connection.
constexpr size_t kChannelBufferSize = 81920;
// A client holds the main thread at most this long, however it trickles
// its request: every other client waits meanwhile.
constexpr int kRequestDeadlineSeconds = 10;
// The memory one request may take once decoded; the largest well-formed
// request is a few hundred bytes.
constexpr size_t kRequestSizeCap = 16u << 20;

bool HasMember(const PObject& map, const char* key) {
  return map.IsMap() && map.AsMap().count(key) != 0;
}

}  // namespace

bool MonitorDaemon::PeerAllowed(int fd) const {
  if (allowed_uids_.empty()) return true;
  ucred peer;
  socklen_t size = sizeof(peer);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    const int err = errno;
    LOG_WARNING(kComponent, "refused a connection whose peer is unknown: %s (%d)", strerror(err),
                err);
    return false;
  }
  if (std::find(allowed_uids_.begin(), allowed_uids_.end(), peer.uid) != allowed_uids_.end()) {
    return true;
  }
  LOG_WARNING(kComponent, "refused a connection from uid %u (pid %d): not in socket_allowed_uids",
              static_cast<unsigned>(peer.uid), static_cast<int>(peer.pid));
  return false;
}

int MonitorDaemon::HandleMessage(int fd) {
  // The channel owns the socket from here on and closes it on every path.
  Channel channel(kChannelBufferSize);
  if (channel.Open(fd, true) != 0) return -1;

  PObject request, reply;
  {
    // No local process may make the daemon write a file, nor take more
    // than the cap of its memory, nor hold it past the deadline; a stop
    // signal ends the wait at once.  The reply is written without these.
    channel.SetDeadline(kRequestDeadlineSeconds);
    channel.SetRunFlag(&daemon_run);
    PStream stream;
    stream.SetRefuseBinaries(true);
    stream.SetSizeCap(kRequestSizeCap);
    if (stream.Recv(&channel, &request) != 0) return -1;
    channel.SetDeadline(0);
    channel.SetRunFlag(nullptr);
  }
  if (HasMember(request, "notify")) {
    // The notifier is released before the work is done.
    reply["ack"] = std::string("ok");
    if (WriteReply(&channel, reply) != 0) return -1;
    Dispatch(request, &reply);
    return 0;
  }
  Dispatch(request, &reply);
  return WriteReply(&channel, reply);
}

int MonitorDaemon::WriteReply(Channel* channel, const PObject& reply) {
  PStream stream;
  return stream.Send(channel, reply) == 0 ? 0 : -1;
}

int MonitorDaemon::Dispatch(const PObject& request, PObject* reply) {
  const std::string action = request.Lookup("action").AsString();
  const std::string notify = request.Lookup("notify").AsString();

  if (action == "stop") {
    daemon_run.store(0);
  } else if (action == "fast_monitor") {
    EnableFastMonitor(request, reply);
  } else if (action == "refresh_session") {
    RefreshSession(request, reply);
  }

  if (notify == "error") {
    HandleErrorNotification(request, reply);
  } else if (notify == "share_hook") {
    HandleShareHook(request, reply);
  }
  return 0;
}

int MonitorDaemon::EnableFastMonitor(const PObject& /*request*/, PObject* /*reply*/) {
  LOG_DEBUG(kComponent, "Enable fast monitor");
  list_share_period.store(kFastListSharePeriod);
  disconnected_time_threadhold.store(kDisconnectedThreshold);
  fast_monitor_since.store(CurrentTime());
  return 0;
}

int MonitorDaemon::RefreshSession(const PObject& request, PObject* /*reply*/) {
  const uint64_t conn_id = static_cast<uint64_t>(request.Lookup("conn_id").AsInteger());
  {
    MutexLock lock(&state_mutex);
    for (ListShareScheduleEntry& e : list_share_schedule) {
      if (e.conn_id == conn_id) {
        e.last_listed = 0;
        return 0;
      }
    }
  }
  UpdateListShareConnections();
  return 0;
}
