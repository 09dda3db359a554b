// The MonitorDaemon's configuration and run sequence: built-in defaults,
// the optional configuration file, start-up in its fixed order, the message
// loop on the main thread and the clean-up, and the start and stop of the
// two worker threads.
#include "monitor/vesta-monitor.h"

#include <openssl/ssl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <sstream>

#include "config/service.h"
#include "config/setting.h"
#include "db/system-db.h"
#include "ipc/ipc.h"
#include "log/key_value_file.h"
#include "log/log.h"
#include "monitor/monitor-util.h"
#include "net/channel.h"
#include "net/proto-ui.h"
#include "platform/fixed_path.h"
#include "sdk/sdk-cpp.h"

namespace {

// Numbers are read by stream extraction: text that is no number gives 0.
int32_t ToInt(const std::string& text) {
  int32_t value = 0;
  std::istringstream in(text);
  in >> value;
  return value;
}

using monitor::kComponent;

// The listening socket's backlog.
constexpr int kListenBacklog = 8;

// The largest uid socket_allowed_uids may name: (uid_t)-1 is no user.
constexpr uint64_t kMaxUid = 4294967294u;

// One element of socket_allowed_uids: a decimal uid, blanks around it.
bool ParseUid(const std::string& item, uint32_t* uid) {
  const size_t first = item.find_first_not_of(" \t");
  if (first == std::string::npos) return false;
  const std::string digits = item.substr(first, item.find_last_not_of(" \t") + 1 - first);
  // Ten digits hold every uid; more could overflow the conversion.
  if (digits.size() > 10 || digits.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  const uint64_t value = std::stoull(digits);
  if (value > kMaxUid) return false;
  *uid = static_cast<uint32_t>(value);
  return true;
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
  // A stop ends every exchange with a remote server or the sync daemon and
  // every wait for another process's database lock, on any thread.
  ProtoUI::m_run_flag = &daemon_run;
  SystemDB::m_run_flag = &daemon_run;
  IPCSender::m_run_flag = &daemon_run;
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
      {"socket_allowed_uids", &MonitorDaemon::socket_allowed_uids},
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
  // Checked before detaching, so that the error reaches whoever started
  // the daemon; a list meant to restrict never ends up serving everyone.
  if (ParseAllowedUids(socket_allowed_uids, &allowed_uids_) != 0) {
    LOG_ERROR(kComponent,
              "socket_allowed_uids '%s' is not a list of numeric uids separated by commas: "
              "refusing to start",
              socket_allowed_uids.c_str());
    return -1;
  }
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
    if (fd < 0) continue;
    if (PeerAllowed(fd)) {
      HandleMessage(fd);
    } else {
      close(fd);  // unanswered
    }
  }
  LOG_INFO(kComponent, "monitor daemon stops receiving messages");
  return 0;
}

int MonitorDaemon::ParseAllowedUids(const std::string& text, std::vector<uint32_t>* uids) {
  uids->clear();
  if (text.empty()) return 0;
  std::vector<uint32_t> parsed;
  for (size_t start = 0;;) {
    const size_t end = std::min(text.find(',', start), text.size());
    uint32_t uid = 0;
    if (!ParseUid(text.substr(start, end - start), &uid)) return -1;
    parsed.push_back(uid);
    if (end == text.size()) break;
    start = end + 1;
  }
  uids->swap(parsed);
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
