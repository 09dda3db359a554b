#include "config/setting.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>

#include "platform/fixed_path.h"
#include "platform/klib.h"
#include "platform/safe_file.h"

namespace {

// The source name that prefixes this file's system-log messages.
const char kSource[] = "setting";

constexpr mode_t kLockFileMode = 0644;

// Size of the buffer the volume is read into, NUL included.
constexpr size_t kVolumeBufferSize = 256;

// Holds the lock for one scope; the value is read whether or not it was
// obtained.
class ScopedSettingLock {
 public:
  explicit ScopedSettingLock(ServiceSetting* setting) : setting_(setting) { setting_->Lock(); }
  ~ScopedSettingLock() { setting_->Unlock(); }
  ScopedSettingLock(const ScopedSettingLock&) = delete;
  ScopedSettingLock& operator=(const ScopedSettingLock&) = delete;

 private:
  ServiceSetting* setting_;
};

// Opens the lock file read-write.  One this call creates gets mode 0644
// whatever the umask, since the package's other programs open it too; an
// existing one keeps its mode.  A link at its path is refused.
int OpenLockFile(const std::string& path) {
  return OpenFileNoFollow(path, O_RDWR, kLockFileMode);
}

}  // namespace

ServiceSetting::ServiceSetting(const std::string& config_path)
    : lock_path_(FixedPath(kServiceLockPath)), config_path_(config_path) {}

ServiceSetting::~ServiceSetting() {
  if (locked_) Unlock();
  if (lock_fd_ >= 0) close(lock_fd_);
}

int ServiceSetting::Lock() {
  if (lock_fd_ < 0) {
    lock_fd_ = OpenLockFile(lock_path_);
    if (lock_fd_ < 0) {
      syslog(LOG_CRIT, "%s:%d Failed to open lock file '%s'\n", kSource, __LINE__,
             lock_path_.c_str());
      return -1;
    }
  }
  if (flock(lock_fd_, LOCK_EX) != 0) {
    close(lock_fd_);
    lock_fd_ = -1;
    return -1;
  }
  locked_ = true;
  return 0;
}

void ServiceSetting::Unlock() {
  if (lock_fd_ >= 0 && flock(lock_fd_, LOCK_UN) != 0) {
    close(lock_fd_);
    lock_fd_ = -1;
  }
  locked_ = false;
}

int ServiceSetting::GetServiceVolume(std::string* volume) {
  if (access(config_path_.c_str(), F_OK) != 0) {
    syslog(LOG_CRIT, "%s:%d conf file '%s' does not exist\n", kSource, __LINE__,
           config_path_.c_str());
    return -1;
  }
  ScopedSettingLock lock(this);
  char buffer[kVolumeBufferSize] = {0};
  if (KLIBCFileGetKeyValue(config_path_.c_str(), "volume", buffer, sizeof(buffer), 0) < 0) {
    syslog(LOG_CRIT, "%s:%d Failed to get service volume\n", kSource, __LINE__);
    return -1;
  }
  *volume = buffer;
  return 0;
}

int ServiceSetting::GetSessionRootDir(std::string* path) {
  std::string volume;
  if (GetServiceVolume(&volume) != 0) return -1;
  *path = volume + "/@FernboxTandem/session";
  return 0;
}

int ServiceSetting::GetFilterDbPath(std::string* path) {
  std::string volume;
  if (GetServiceVolume(&volume) != 0) return -1;
  *path = volume + "/@FernboxTandem/db/filter.sqlite";
  return 0;
}

int ServiceSetting::GetSessionDir(uint64_t session_id, std::string* path) {
  std::string root;
  if (GetSessionRootDir(&root) != 0) return -1;
  *path = root + "/" + std::to_string(session_id);
  return 0;
}

int ServiceSetting::GetSessionDbDir(uint64_t session_id, std::string* path) {
  std::string dir;
  if (GetSessionDir(session_id, &dir) != 0) return -1;
  *path = dir + "/db";
  return 0;
}

int ServiceSetting::GetSessionConfDir(uint64_t session_id, std::string* path) {
  std::string dir;
  if (GetSessionDir(session_id, &dir) != 0) return -1;
  *path = dir + "/conf";
  return 0;
}
