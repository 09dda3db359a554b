// The background-process frame that MonitorDaemon stands on: detection of
// a running instance through the pid file, detaching, the pid file itself
// and the process signal handlers.
//
// Its own messages go straight to syslog at LOG_ERR, each gated by
// Daemon::log_level (the Logger is not yet set up when most of them can
// happen).  Called from the main thread only; the signal handlers touch
// nothing but the two statics.
#ifndef VESTA_MONITOR_DAEMON_H_
#define VESTA_MONITOR_DAEMON_H_

#include <signal.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

class Daemon {
 public:
  typedef void (*SignalHandler)(int, siginfo_t*, void*);

  Daemon() = default;
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  virtual ~Daemon() = default;

  virtual int Run() = 0;

  // 1 and *pid when the pid file names a live process, else 0.  Only a
  // positive pid counts: 0, a negative number or text means not running.
  static int IsRunning(const std::string& pid_file, pid_t* pid);
  // Detaches into the background with signal handlers and a pid file.
  static int Daemonize(const std::string& pid_file);
  static int WritePidFile(const std::string& pid_file);
  static void RemovePidFile(const std::string& pid_file);
  static int IgnoreSignal(int signo);
  static int SetSignalHandler(int signo, SignalHandler handler);

  // Opens syslog with an empty identifier, LOG_NDELAY and LOG_USER.
  static void OpenSyslog();
  // Writes `message` to syslog at LOG_ERR, ungated.
  static void SyslogError(const char* message);

  // Signal handlers: SIGINT/SIGTERM, SIGUSR1, SIGUSR2.
  static void stop(int signo, siginfo_t* info, void* context);
  static void increaseLogLevel(int signo, siginfo_t* info, void* context);
  static void decreateLogLevel(int signo, siginfo_t* info, void* context);

  // Gates the syslog messages of this class only (not the Logger's levels).
  // Initially 3.  Words written by signal handlers: atomics, relaxed.
  static std::atomic<int32_t> log_level;
  // Non-zero while the process should keep serving.  Initially 1.
  static std::atomic<int32_t> daemon_run;
};

#endif  // VESTA_MONITOR_DAEMON_H_
