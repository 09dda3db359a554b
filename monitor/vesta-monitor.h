// MonitorDaemon: the one object of the vesta-monitor process.  It holds the
// configuration (built-in defaults, overridden once by an optional key=value
// file before Run), the state the three threads share, and the threads.
//
// Locks: state_mutex guards the connection status list and the share-listing
// schedule (and update_status_period when the status thread reads it); it is
// always taken before view_cache_mutex, which guards the server-view cache.
// The periods, the threshold and fast_monitor_since are plain words.
#ifndef VESTA_MONITOR_VESTA_MONITOR_H_
#define VESTA_MONITOR_VESTA_MONITOR_H_

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <string>

#include "monitor/daemon.h"

// The sync daemon's last reported view of one connection.
struct ConnectionStatusEntry {
  uint64_t conn_id = 0;
  int32_t disconnected_since = 0;  // seconds since the epoch; 0 = not counting
  int32_t monitor_state = 0;       // 0 connected, 1 connecting, 2 disconnected
  int32_t daemon_status = 0;       // 0 "connected", else 2
};

// When one connection's shared folders are next listed.
struct ListShareScheduleEntry {
  uint64_t conn_id = 0;
  int32_t last_listed = 0;  // seconds since the epoch; 0 = as soon as possible
  int32_t conn_status = 0;  // status column when the schedule was built; 1 = do not list
};

class MonitorDaemon : public Daemon {
 public:
  MonitorDaemon();
  ~MonitorDaemon() override;

  // Applies the key=value file at `path` over the current members.  0 when
  // read; -1 when it could not be opened or parsed, and nothing changed.
  int LoadConfig(const std::string& path);

  int Run() override;

  std::string pid_file = "/var/run/vesta-monitord.pid";
  std::string system_db_path = "/tmp/vesta-system-db.sqlite";
  std::string socket_path = "/tmp/tarn-monitor.sock";
  std::string log_level_file = "/volume1/log.debug";
  std::string ca_path = "/etc/ssl/certs/ca-certificates.crt";
  std::atomic<int32_t> list_share_period{300};            // seconds
  std::atomic<int32_t> disconnected_time_threadhold{30};  // seconds
  std::atomic<int32_t> update_status_period{5};           // seconds
  std::atomic<int32_t> fast_monitor_since{0};             // epoch seconds; 0 = off

  pthread_mutex_t state_mutex;
  pthread_mutex_t view_cache_mutex;

  std::list<ConnectionStatusEntry> connection_status_list;  // state_mutex
  std::list<ListShareScheduleEntry> list_share_schedule;    // state_mutex

  pthread_t list_share_thread{};
  std::atomic<bool> list_share_thread_running{false};
  pthread_t status_thread{};
  std::atomic<bool> status_thread_running{false};
};

#endif  // VESTA_MONITOR_VESTA_MONITOR_H_
