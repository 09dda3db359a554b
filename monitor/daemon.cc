#include "monitor/daemon.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/safe_file.h"

std::atomic<int32_t> Daemon::log_level{3};
std::atomic<int32_t> Daemon::daemon_run{1};

namespace {

// A syslog message of the base class, written when the level passes.
#define DAEMON_SYSLOG(passes, ...) \
  do {                             \
    if (passes) syslog(LOG_ERR, __VA_ARGS__); \
  } while (0)

int Level() { return Daemon::log_level.load(std::memory_order_relaxed); }

// The largest pid Linux hands out (PID_MAX_LIMIT, 2^22).
constexpr long kMaxPid = 4194304;

// A symbolic link at the pid file's path may name any file of the system:
// the daemon never starts over one.
constexpr char kPidFileIsLink[] = "pid file '%s' is a symbolic link: refusing to start\n";

bool IsLink(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

}  // namespace

void Daemon::OpenSyslog() { openlog("", LOG_NDELAY, LOG_USER); }

void Daemon::SyslogError(const char* message) { syslog(LOG_ERR, "%s", message); }

int Daemon::IsRunning(const std::string& pid_file, pid_t* pid) {
  const char* path = pid_file.c_str();
  if (access(path, F_OK) != 0) {
    DAEMON_SYSLOG(Level() > 6, "cannot access pid file at '%s', daemon is not running\n", path);
    return 0;
  }
  FILE* f = fopen(path, "r");
  if (f == nullptr) {
    DAEMON_SYSLOG(Level() > 2, "cannot open pid file at '%s', daemon is not running\n", path);
    return 0;
  }
  long value = 0;
  int fields = fscanf(f, "%ld", &value);
  fclose(f);
  // Signal 0 to pid 0 or a negative pid asks a whole process group, and
  // succeeds: only a positive pid names one process that may be running.
  if (fields != 1 || value <= 0 || value > kMaxPid) {
    DAEMON_SYSLOG(Level() > 2, "cannot find pid int pid file at '%s', daemon is not running\n",
                  path);
    return 0;
  }
  if (kill(static_cast<pid_t>(value), 0) != 0) {
    int err = errno;
    DAEMON_SYSLOG(Level() > 5, "kill: %s (%d)\n", strerror(err), err);
    return 0;
  }
  *pid = static_cast<pid_t>(value);
  return 1;
}

int Daemon::Daemonize(const std::string& pid_file) {
  // Refused before detaching, so that the start fails where it is seen;
  // WritePidFile refuses a link planted after this check.
  if (IsLink(pid_file)) {
    DAEMON_SYSLOG(Level() > 2, kPidFileIsLink, pid_file.c_str());
    return -1;
  }
  pid_t pid = 0;
  if (IsRunning(pid_file, &pid)) {
    DAEMON_SYSLOG(Level() > 6, "daemon is already running (pid = %d)\n", pid);
    return -1;
  }

  closelog();
  long max_fd = sysconf(_SC_OPEN_MAX);
  for (long fd = 3; fd < max_fd; ++fd) close(static_cast<int>(fd));
  umask(022);

  if (daemon(0, 0) != 0) {
    DAEMON_SYSLOG(Level() > 2, "failed to become daemon (%s)\n", strerror(errno));
    return -1;
  }

  if (IgnoreSignal(SIGPIPE) != 0) {
    int err = errno;
    DAEMON_SYSLOG(Level() >= 3, "signal(%d): %s (%d)\n", SIGPIPE, strerror(err), err);
  }
  SetSignalHandler(SIGINT, stop);
  SetSignalHandler(SIGTERM, stop);
  SetSignalHandler(SIGUSR1, increaseLogLevel);
  SetSignalHandler(SIGUSR2, decreateLogLevel);

  if (WritePidFile(pid_file) != 0) {
    DAEMON_SYSLOG(Level() > 2, "failed to create pid file at '%s'\n", pid_file.c_str());
    return -1;
  }
  return 0;
}

// The file is replaced whole, so that IsRunning never reads half of it.
int Daemon::WritePidFile(const std::string& pid_file) {
  const std::string text = std::to_string(static_cast<int>(getpid())) + "\n";
  if (ReplaceFile(pid_file, text, 0644) != 0) {
    if (errno == ELOOP) DAEMON_SYSLOG(Level() > 2, kPidFileIsLink, pid_file.c_str());
    DAEMON_SYSLOG(Level() >= 3, "failed to create pid file at '%s'\n", pid_file.c_str());
    return -1;
  }
  return 0;
}

void Daemon::RemovePidFile(const std::string& pid_file) { unlink(pid_file.c_str()); }

int Daemon::IgnoreSignal(int signo) { return signal(signo, SIG_IGN) == SIG_ERR ? -1 : 0; }

// SA_NODEFER without SA_RESTART: a blocking call of any thread returns with
// EINTR when one of these signals arrives, which is how the workers' sleeps
// end at once on a stop.
int Daemon::SetSignalHandler(int signo, SignalHandler handler) {
  struct sigaction action;
  memset(&action, 0, sizeof(action));
  if (sigemptyset(&action.sa_mask) != 0) {
    int err = errno;
    DAEMON_SYSLOG(Level() >= 3, "sigemptyset(%d): %s (%d)\n", signo, strerror(err), err);
    return -1;
  }
  action.sa_sigaction = handler;
  action.sa_flags = SA_SIGINFO | SA_NODEFER;
  if (sigaction(signo, &action, nullptr) != 0) {
    int err = errno;
    DAEMON_SYSLOG(Level() >= 3, "sigaction(%d): %s (%d)\n", signo, strerror(err), err);
    return -1;
  }
  return 0;
}

void Daemon::stop(int, siginfo_t*, void*) { daemon_run.store(0, std::memory_order_relaxed); }

void Daemon::increaseLogLevel(int, siginfo_t*, void*) {
  log_level.fetch_add(1, std::memory_order_relaxed);
}

void Daemon::decreateLogLevel(int, siginfo_t*, void*) {
  int32_t level = log_level.load(std::memory_order_relaxed);
  if (level > 0) log_level.store(level - 1, std::memory_order_relaxed);
}
