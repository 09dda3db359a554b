// MonitorDaemon: the one object of the vesta-monitor process.  It holds the
// configuration (built-in defaults, overridden once by an optional key=value
// file before Run), the state the three threads share, and the threads.
//
// Threads: Run and every request handler (HandleMessage, Dispatch and the
// handlers below it) run on the main thread; the status thread and the
// share-listing thread are started by StartWorkerThreads and stopped by
// StopWorkerThreads, both from the main thread.  A worker leaves its loop
// when its own running flag is cleared; SIGTERM sent to it cuts its current
// one-second sleep short.
//
// Locks: state_mutex guards the connection status list and the share-listing
// schedule (and update_status_period when the status thread reads it); it is
// always taken before view_cache_mutex, which guards the server-view cache.
// The periods, the threshold and fast_monitor_since are plain words.
//
// Times are 64-bit seconds since the epoch on every target, so that the
// schedule and the status list keep working after January 2038.
#ifndef VESTA_MONITOR_VESTA_MONITOR_H_
#define VESTA_MONITOR_VESTA_MONITOR_H_

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "db/records.h"
#include "monitor/daemon.h"

class Channel;
class PObject;
struct UserInfo;
namespace SDK {
class Notifier;
}  // namespace SDK

// The sync daemon's last reported view of one connection.
struct ConnectionStatusEntry {
  uint64_t conn_id = 0;
  int64_t disconnected_since = 0;  // seconds since the epoch; 0 = not counting
  int32_t monitor_state = 0;       // 0 connected, 1 connecting, 2 disconnected
  int32_t daemon_status = 0;       // 0 "connected", else 2
};

// When one connection's shared folders are next listed.
struct ListShareScheduleEntry {
  uint64_t conn_id = 0;
  int64_t last_listed = 0;  // seconds since the epoch; 0 = as soon as possible
  int32_t conn_status = 0;  // status column when the schedule was built; 1 = do not list
};

class MonitorDaemon : public Daemon {
 public:
  MonitorDaemon();
  ~MonitorDaemon() override;

  // Applies the key=value file at `path` over the current members.  0 when
  // read; -1 when it could not be opened or parsed, and nothing changed.
  int LoadConfig(const std::string& path);

  // Start-up, message loop and clean-up of the daemon.  0 after an orderly
  // stop, -1 when start-up failed; everything started is released either way.
  int Run() override;

  // Starts whichever worker is not yet running: the status thread, then the
  // share-listing thread.  -1 when a thread could not be created (one already
  // started stays; StopWorkerThreads stops it).
  int StartWorkerThreads();
  // Clears each running worker's flag, wakes it with SIGTERM and joins it:
  // the status thread first.  The process must have a SIGTERM handler.
  void StopWorkerThreads();

  // Parses the text of socket_allowed_uids: decimal uids (0 to
  // 4294967294) separated by commas, blanks allowed around each.  0 with
  // the list (empty for ""), or -1 when the text is anything else.
  static int ParseAllowedUids(const std::string& text, std::vector<uint32_t>* uids);
  // Whether the peer of the accepted connection `fd` may be served: always
  // while no uid is listed; else only a listed peer uid (SO_PEERCRED).  A
  // refusal is logged at WARNING with the peer's uid and pid.
  bool PeerAllowed(int fd) const;

  // Serves one accepted connection: reads one request (binaries refused),
  // replies and dispatches.  Takes ownership of `fd`.  0, or -1 when the
  // request could not be read or the reply not written.
  int HandleMessage(int fd);
  // Routes a request by "action", then by "notify".  Always 0.
  int Dispatch(const PObject& request, PObject* reply);
  // "fast_monitor": list shares every 10 s for the next 30 s.  Always 0.
  int EnableFastMonitor(const PObject& request, PObject* reply);
  // "refresh_session": makes connection "conn_id" due for listing at once,
  // rebuilding the schedule when it is not in it.  Always 0.
  int RefreshSession(const PObject& request, PObject* reply);
  // "notify": "error" from the sync daemon: reads the connection "conn_id"
  // and the session "sess_id" (none when 0 or not stored), translates
  // "error_type" into a monitor error code and calls HandleError.  0, or -1
  // when the connection or the session could not be read.
  int HandleErrorNotification(const PObject& request, PObject* reply);
  // "notify": "share_hook" from the storage server's share hooks: finds the
  // session whose sync_folder is "share_name" and, by "type", pauses,
  // resumes, reloads or re-adds it, stores its encryption state, or hands it
  // to HandleError (code 12 for an unmounted share, 11 for any other type).
  // 0, or -1 when a database or share step failed (logged).
  int HandleShareHook(const PObject& request, PObject* reply);

  // Turns monitor error `code` into a desktop notification (only for a new
  // error: both stored errors 0) and passes it to a fresh error handler.
  // `session` may be empty (id 0).  `previous` is the connection as stored
  // before the change, given only by the status monitor for codes 16 and
  // 36; nullptr everywhere else.  Called from the main thread and from the
  // status thread (which holds state_mutex meanwhile); keeps no state.
  // A connection upgrade that re-synchronises waits 3 s on the calling
  // thread; SIGTERM sent to that thread cuts the wait short, and the
  // upgrade is carried out in full.  Every remote server asked on the way
  // is cancelled once daemon_run is cleared.
  // Returns the error handler's result.  Virtual so that tests can watch
  // the status monitor's findings.
  virtual int HandleError(const ConnectionEntry& connection, const SessionInfo& session, int code,
                  const ConnectionEntry* previous);

  // Rebuilds the share-listing schedule from the system database, keeping
  // the last-listed time of connections that stay.  Takes state_mutex.
  void UpdateListShareConnections();
  // One status pass (status thread): asks the sync daemon for its status,
  // then UpdateStatusFrom.  0, or -1 when the daemon could not be asked.
  int UpdateStatus();
  // The rest of the pass on the daemon's reply `status`: follows each
  // reported connection against the system database and connection_status_list
  // (taking state_mutex for the walk, calling HandleError under it), then
  // rebuilds the schedule when anything changed.  0, or -1 when the
  // connections could not be read.
  int UpdateStatusFrom(const PObject& status);
  // Lists one connection's shares on its server and brings its user
  // information, server views and sessions in line, then marks it listed
  // now.  Share-listing thread; never holds state_mutex while the server or
  // the database works.  0, or -1 when the connection or its sessions could
  // not be read.
  int ListShare(const ListShareScheduleEntry& entry);
  // The rest of a successful listing on the server's answer `user`: the
  // user-info update, then the server views and the sessions of
  // `connection`.  Takes view_cache_mutex alone.
  void ListShareFrom(const ConnectionEntry& connection, const UserInfo& user);
  // Forgets the server views cached for `conn_id`.  Takes view_cache_mutex.
  void EraseServerViews(uint64_t conn_id);
  // The first schedule entry that may be listed and is due at `now`;
  // false when none is.  Takes state_mutex.
  bool FindDueConnection(int64_t now, ListShareScheduleEntry* due);

  // Seconds since the epoch, as the workers read the clock.  Virtual so that
  // tests can step over the thresholds without waiting for them.
  virtual int64_t CurrentTime() const;
  // One second of a worker's pause: the status thread pays its period in
  // such steps, the share-listing thread waits one when nothing is due.
  // SIGTERM sent to the thread cuts it short.  Virtual so that tests can
  // count the pauses without waiting them.
  virtual void PauseOneSecond();

  // Bodies of the two workers; `arg` is the MonitorDaemon.
  static void* StatusThreadMain(void* arg);
  static void* ListShareThreadMain(void* arg);

  std::string pid_file = "/var/run/vesta-monitord.pid";
  std::string system_db_path = "/tmp/vesta-system-db.sqlite";
  std::string socket_path = "/tmp/tarn-monitor.sock";
  std::string log_level_file = "/volume1/log.debug";
  std::string ca_path = "/etc/ssl/certs/ca-certificates.crt";
  // Who may drive the socket, as the configuration gives it ("" serves
  // every local user).  Run refuses to start when it does not parse.
  std::string socket_allowed_uids;
  std::atomic<int32_t> list_share_period{300};            // seconds
  std::atomic<int32_t> disconnected_time_threadhold{30};  // seconds
  std::atomic<int32_t> update_status_period{5};           // seconds
  std::atomic<int64_t> fast_monitor_since{0};             // epoch seconds; 0 = off

  pthread_mutex_t state_mutex;
  pthread_mutex_t view_cache_mutex;

  std::list<ConnectionStatusEntry> connection_status_list;  // state_mutex
  std::list<ListShareScheduleEntry> list_share_schedule;    // state_mutex
  // The views each connection's server offered at its last listing, sorted
  // by view_id, node_id resolved as stored.  view_cache_mutex.
  std::map<uint64_t, std::vector<ServerViewEntry>> server_view_cache;

  pthread_t list_share_thread{};
  std::atomic<bool> list_share_thread_running{false};
  pthread_t status_thread{};
  std::atomic<bool> status_thread_running{false};

  // Desktop notifications to administrators.
  std::unique_ptr<SDK::Notifier> notifier;

 private:
  class RunGuard;

  // Start-up steps of Run up to the running workers; -1 at the first failure.
  int StartUp(RunGuard* run);

  // socket_allowed_uids as parsed by StartUp; empty serves everyone.
  std::vector<uint32_t> allowed_uids_;
  static int WriteReply(Channel* channel, const PObject& reply);
  // The body of one listing, without the schedule update.
  int ListShareConnection(const ListShareScheduleEntry& entry);
  void StatusThreadLoop();
  void ListShareThreadLoop();
  // Ends fast monitoring once it has lasted 30 s (also when it is off).
  void EndFastMonitorIfDue(int64_t now);
  void MarkListed(uint64_t conn_id, int64_t now);
  // Stores `views` for `conn_id` unless the cache holds an equal list; true
  // when it stored them.  Takes view_cache_mutex.
  bool CacheServerViews(uint64_t conn_id, const std::vector<ServerViewEntry>& views);

  // The status walk and its two checks, with state_mutex held.
  bool WalkStatusLists(std::list<ConnectionStatusEntry>* reported,
                       const std::map<uint64_t, ConnectionEntry>& stored,
                       const std::map<uint64_t, const PObject*>& details);
  bool FollowConnection(ConnectionStatusEntry* entry, const ConnectionStatusEntry& now_reported,
                        const ConnectionEntry& stored, const PObject& details);
  int CheckConnectionInfo(const ConnectionEntry& stored, ConnectionEntry* reported);
  int TransitStatus(int old_status, int new_status, const ConnectionEntry& reported,
                    ConnectionStatusEntry* entry);
};

#endif  // VESTA_MONITOR_VESTA_MONITOR_H_
