// Small helpers shared by the MonitorDaemon's files: the log component, the
// clock and a scoped pthread mutex.  Internal to monitor/.
#ifndef VESTA_MONITOR_MONITOR_UTIL_H_
#define VESTA_MONITOR_MONITOR_UTIL_H_

#include <pthread.h>
#include <time.h>

#include <cstdint>

namespace monitor {

// Every line of the MonitorDaemon is logged under this component.
constexpr char kComponent[] = "monitor_daemon";

// Fast monitoring lasts this long after the last "fast_monitor" request;
// meanwhile shares are listed every kFastListSharePeriod seconds.
constexpr int32_t kFastMonitorSeconds = 30;
constexpr int32_t kFastListSharePeriod = 10;
// The built-in periods that the end of fast monitoring restores (seconds).
constexpr int32_t kListSharePeriod = 300;
constexpr int32_t kDisconnectedThreshold = 30;

// An id as the log's %llu takes it.
inline unsigned long long LogId(uint64_t id) { return static_cast<unsigned long long>(id); }

// Seconds since the epoch, as the schedule and the status list keep them.
static_assert(sizeof(time_t) == 8, "time_t must be 64-bit (_TIME_BITS=64 on 32-bit targets)");
inline int64_t Now() { return time(nullptr); }

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

}  // namespace monitor

#endif  // VESTA_MONITOR_MONITOR_UTIL_H_
