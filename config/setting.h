// The service settings: reads which volume holds the client's data from the
// service configuration, under the package's cross-process lock, and
// derives every on-disk place of the client from it.
//
// A ServiceSetting is made for one task (read the volume, derive a path)
// and destroyed after it; it is not shared between threads.  The lock is
// held only inside GetServiceVolume.  Messages go to the system log at
// LOG_CRIT, not to the Logger.
#ifndef VESTA_CONFIG_SETTING_H_
#define VESTA_CONFIG_SETTING_H_

#include <cstdint>
#include <string>

#include "config/service.h"

class ServiceSetting {
 public:
  // `config_path` is the service configuration to read (callers pass
  // FixedPath(kServiceConfigPath)); the lock file is FixedPath(kServiceLockPath).
  explicit ServiceSetting(const std::string& config_path);
  // Unlocks if locked and closes the lock file.
  ~ServiceSetting();
  ServiceSetting(const ServiceSetting&) = delete;
  ServiceSetting& operator=(const ServiceSetting&) = delete;

  // Takes the exclusive lock, creating the lock file (mode 0644) on first
  // use.  0, or -1 with the lock file closed.
  int Lock();
  void Unlock();

  // The data volume named by the configuration's key "volume".  The value
  // is read even when the lock cannot be taken.  0, or -1 when the
  // configuration is missing or has no volume.
  int GetServiceVolume(std::string* volume);

  // Paths below the volume V; each fails (-1) when the volume cannot be read.
  int GetSessionRootDir(std::string* path);                  // V/@FernboxTandem/session
  int GetFilterDbPath(std::string* path);                    // V/@FernboxTandem/db/filter.sqlite
  int GetSessionDir(uint64_t session_id, std::string* path);      // root/<id>
  int GetSessionDbDir(uint64_t session_id, std::string* path);    // root/<id>/db
  int GetSessionConfDir(uint64_t session_id, std::string* path);  // root/<id>/conf

 private:
  bool locked_ = false;      // the flock is held
  int lock_fd_ = -1;         // descriptor of the lock file; -1 while closed
  std::string lock_path_;    // the lock file
  std::string config_path_;  // the service configuration
};

#endif  // VESTA_CONFIG_SETTING_H_
