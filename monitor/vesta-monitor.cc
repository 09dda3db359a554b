#include "monitor/vesta-monitor.h"

#include <unistd.h>

#include <map>
#include <sstream>

#include "log/key_value_file.h"

namespace {

// Numbers are read by stream extraction: text that is no number gives 0.
int32_t ToInt(const std::string& text) {
  int32_t value = 0;
  std::istringstream in(text);
  in >> value;
  return value;
}

}  // namespace

MonitorDaemon::MonitorDaemon() {
  pthread_mutex_init(&state_mutex, nullptr);
  pthread_mutex_init(&view_cache_mutex, nullptr);
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

// The serving loop arrives with the run sequence; until then the daemon
// detaches, keeps its pid file and waits for a stop.
int MonitorDaemon::Run() {
  if (Daemonize(pid_file) != 0) return -1;
  while (daemon_run.load()) sleep(1);
  RemovePidFile(pid_file);
  return 0;
}
