#include "monitor/vesta-monitor.h"

#include <openssl/ssl.h>
#include <time.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>
#include <map>
#include <sstream>
#include <vector>

#include "config/service.h"
#include "config/setting.h"
#include "db/system-db.h"
#include "ipc/ipc.h"
#include "log/key_value_file.h"
#include "log/log.h"
#include "net/channel.h"
#include "platform/fixed_path.h"
#include "sdk/sdk-cpp.h"
#include "stream/stream.h"
#include "stream/PObject.h"

namespace {

// Numbers are read by stream extraction: text that is no number gives 0.
int32_t ToInt(const std::string& text) {
  int32_t value = 0;
  std::istringstream in(text);
  in >> value;
  return value;
}

const char kComponent[] = "monitor_daemon";

// The listening socket's backlog and the buffer of a served connection.
constexpr int kListenBacklog = 8;
constexpr size_t kChannelBufferSize = 81920;

// Fast monitoring lasts this long after the last "fast_monitor" request.
constexpr int32_t kFastMonitorSeconds = 30;
constexpr int32_t kFastListSharePeriod = 10;
constexpr int32_t kListSharePeriod = 300;
constexpr int32_t kDisconnectedThreshold = 30;

int32_t Now() { return static_cast<int32_t>(time(nullptr)); }

// Holds a pthread mutex for one scope.
class MutexLock {
 public:
  explicit MutexLock(pthread_mutex_t* mu) : mu_(mu) { pthread_mutex_lock(mu_); }
  ~MutexLock() { pthread_mutex_unlock(mu_); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  pthread_mutex_t* mu_;
};

bool HasMember(const PObject& map, const char* key) {
  return map.IsMap() && map.AsMap().count(key) != 0;
}

// OpenSSL 3 allocates with the C library and locks itself; what remains of
// the thread set-up is loading the error strings and initialising once.
void InitTlsLibrary() {
  OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
}

// Stops one worker: clear its flag, cut its sleep short, wait for it.
void StopWorker(pthread_t thread, std::atomic<bool>* running) {
  if (!running->load()) return;
  running->store(false);
  pthread_kill(thread, SIGTERM);
  pthread_join(thread, nullptr);
}

int StartWorker(pthread_t* thread, std::atomic<bool>* running, void* (*body)(void*),
                void* arg) {
  if (running->load()) return 0;
  running->store(true);
  int err = pthread_create(thread, nullptr, body, arg);
  if (err != 0) {
    LOG_ERROR(kComponent, "pthread_create: %s (%d)", strerror(err), err);
    running->store(false);
    return -1;
  }
  return 0;
}

}  // namespace

MonitorDaemon::MonitorDaemon() {
  pthread_mutex_init(&state_mutex, nullptr);
  pthread_mutex_init(&view_cache_mutex, nullptr);
  notifier.reset(new SDK::Notifier("app:app_name", "ZEPH.ZUI.FernboxTandem.Instance",
                                   "@administrators", ""));
  Channel::m_ca_path = ca_path;
}

MonitorDaemon::~MonitorDaemon() {
  pthread_mutex_destroy(&state_mutex);
  pthread_mutex_destroy(&view_cache_mutex);
}

int MonitorDaemon::LoadConfig(const std::string& path) {
  std::map<std::string, std::string> values;
  if (ReadKeyValueFile(path, &values) != 0) return -1;

  struct StringKey {
    const char* key;
    std::string MonitorDaemon::*member;
  };
  static const StringKey kStringKeys[] = {
      {"pid_file", &MonitorDaemon::pid_file},
      {"system_db_path", &MonitorDaemon::system_db_path},
      {"socket_path", &MonitorDaemon::socket_path},
      {"log_level_file", &MonitorDaemon::log_level_file},
  };
  struct NumberKey {
    const char* key;
    std::atomic<int32_t> MonitorDaemon::*member;
  };
  static const NumberKey kNumberKeys[] = {
      {"list_share_period", &MonitorDaemon::list_share_period},
      {"disconnected_time_threadhold", &MonitorDaemon::disconnected_time_threadhold},
      {"update_status_period", &MonitorDaemon::update_status_period},
  };

  for (const StringKey& k : kStringKeys) {
    auto it = values.find(k.key);
    if (it != values.end() && !it->second.empty()) this->*k.member = it->second;
  }
  for (const NumberKey& k : kNumberKeys) {
    auto it = values.find(k.key);
    if (it != values.end() && !it->second.empty()) (this->*k.member).store(ToInt(it->second));
  }
  return 0;
}

// Everything Run acquires, released by its destructor in the fixed order:
// socket, status thread, share-listing thread, database, pid file, then the
// service configuration and the socket object themselves.
class MonitorDaemon::RunGuard {
 public:
  explicit RunGuard(MonitorDaemon* daemon)
      : setting_(FixedPath(kServiceConfigPath)), daemon_(daemon) {}
  ~RunGuard() {
    server_.Close();
    daemon_->StopWorkerThreads();
    if (database_open_) SystemDB::deinitialize();
    if (pid_file_written_) RemovePidFile(daemon_->pid_file);
  }
  RunGuard(const RunGuard&) = delete;
  RunGuard& operator=(const RunGuard&) = delete;

  IPCServer server_;
  ServiceSetting setting_;
  bool pid_file_written_ = false;
  bool database_open_ = false;

 private:
  MonitorDaemon* daemon_;
};

int MonitorDaemon::StartUp(RunGuard* run) {
  if (Daemonize(pid_file) != 0) {
    LOG_ERROR(kComponent, "failed to become daemon");
    return -1;
  }
  run->pid_file_written_ = true;
  OpenSyslog();
  InitTlsLibrary();

  std::string volume;
  if (run->setting_.GetServiceVolume(&volume) != 0) {
    SyslogError("Failed to get service volume\n");
    return -1;
  }
  if (Logger::Init(Logger::kFile, volume + "/@FernboxTandem/log/tarn_monitor.log",
                   log_level_file, 50, 1) != 0) {
    SyslogError("logger initialize failed\n");
    return -1;
  }
  if (run->server_.Listen(socket_path, kListenBacklog) != 0) {
    LOG_ERROR(kComponent, "failed to listen on socket '%s'", socket_path.c_str());
    return -1;
  }
  if (SystemDB::initialize(system_db_path) != 0) {
    LOG_ERROR(kComponent, "failed to initialize system database at '%s'",
              system_db_path.c_str());
    return -1;
  }
  run->database_open_ = true;
  if (StartWorkerThreads() != 0) {
    LOG_ERROR(kComponent, "failed to start worker threads");
    return -1;
  }
  return 0;
}

int MonitorDaemon::Run() {
  RunGuard run(this);
  if (StartUp(&run) != 0) return -1;

  LOG_INFO(kComponent, "monitor daemon starts receiving messages on domain socket %s",
           socket_path.c_str());
  while (daemon_run.load()) {
    if (run.server_.WaitForConnection() != 1) continue;
    int fd = run.server_.Accept();
    if (fd >= 0) HandleMessage(fd);
  }
  LOG_INFO(kComponent, "monitor daemon stops receiving messages");
  return 0;
}

int MonitorDaemon::StartWorkerThreads() {
  if (StartWorker(&status_thread, &status_thread_running, StatusThreadMain, this) != 0) {
    return -1;
  }
  return StartWorker(&list_share_thread, &list_share_thread_running, ListShareThreadMain, this);
}

void MonitorDaemon::StopWorkerThreads() {
  StopWorker(status_thread, &status_thread_running);
  StopWorker(list_share_thread, &list_share_thread_running);
}

// ---- Status thread ----

void* MonitorDaemon::StatusThreadMain(void* arg) {
  static_cast<MonitorDaemon*>(arg)->StatusThreadLoop();
  return nullptr;
}

void MonitorDaemon::StatusThreadLoop() {
  while (status_thread_running.load()) {
    int32_t period;
    {
      MutexLock lock(&state_mutex);
      period = update_status_period.load();
    }
    // One-second steps, so that a cleared flag is seen within a second even
    // when the SIGTERM arrived before the sleep began.
    for (int32_t i = 0; i < period && status_thread_running.load(); ++i) sleep(1);
    if (!status_thread_running.load()) break;
    UpdateStatus();
    EndFastMonitorIfDue(Now());
  }
}

void MonitorDaemon::EndFastMonitorIfDue(int32_t now) {
  if (now <= fast_monitor_since.load() + kFastMonitorSeconds) return;
  fast_monitor_since.store(0);
  list_share_period.store(kListSharePeriod);
  disconnected_time_threadhold.store(kDisconnectedThreshold);
}

// The status pass compares the daemon's view with the database; it arrives
// with the status monitor.  Until then a pass does nothing.
int MonitorDaemon::UpdateStatus() { return 0; }

// ---- Share-listing thread ----

void* MonitorDaemon::ListShareThreadMain(void* arg) {
  static_cast<MonitorDaemon*>(arg)->ListShareThreadLoop();
  return nullptr;
}

void MonitorDaemon::ListShareThreadLoop() {
  UpdateListShareConnections();
  while (list_share_thread_running.load()) {
    ListShareScheduleEntry due;
    if (!FindDueConnection(Now(), &due)) {
      sleep(1);
      continue;
    }
    if (ListShare(due) != 0) {
      LOG_ERROR(kComponent, "failed to list shared folder for connection %llu",
                static_cast<unsigned long long>(due.conn_id));
    }
  }
}

bool MonitorDaemon::FindDueConnection(int32_t now, ListShareScheduleEntry* due) {
  MutexLock lock(&state_mutex);
  const int32_t period = list_share_period.load();
  for (const ListShareScheduleEntry& e : list_share_schedule) {
    // 64-bit sum: last_listed + period must not wrap for a period near 2^31.
    if (e.conn_status != 1 && static_cast<int64_t>(now) >= int64_t{e.last_listed} + period) {
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
  std::map<uint64_t, int32_t> last_listed;
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
  MarkListed(entry.conn_id, Now());
  return rc;
}

// Asking the server for its shares and reconciling the sessions arrives with
// the share-listing updater.  Until then a listing does nothing.
int MonitorDaemon::ListShareConnection(const ListShareScheduleEntry& /*entry*/) { return 0; }

void MonitorDaemon::MarkListed(uint64_t conn_id, int32_t now) {
  MutexLock lock(&state_mutex);
  for (ListShareScheduleEntry& e : list_share_schedule) {
    if (e.conn_id == conn_id) {
      e.last_listed = now;
      return;
    }
  }
}

// ---- Requests on the monitor's socket ----

int MonitorDaemon::HandleMessage(int fd) {
  // The channel owns the socket from here on and closes it on every path.
  Channel channel(kChannelBufferSize);
  if (channel.Open(fd, true) != 0) return -1;

  PObject request, reply;
  {
    // No local process may make the daemon write a file: binaries refused.
    PStream stream;
    stream.SetRefuseBinaries(true);
    if (stream.Recv(&channel, &request) != 0) return -1;
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
  fast_monitor_since.store(Now());
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

// The share events arrive with their own handlers; until then a hook is
// acknowledged and logged.
int MonitorDaemon::HandleShareHook(const PObject& request, PObject* /*reply*/) {
  LOG_DEBUG(kComponent, "share hook: %s", ToJson(request).c_str());
  return 0;
}
