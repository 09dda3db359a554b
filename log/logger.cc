#include "log/logger.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>

#include "log/key_value_file.h"
#include "platform/safe_file.h"

namespace {

constexpr int kDefaultLevel = LOG_LEVEL_WARNING;
constexpr size_t kAsyncBufferSize = 4096;

// Counters that processes forked after Init must share live in anonymous
// shared mappings; otherwise on the heap.
template <typename T>
T* AllocateCounter(bool shared) {
  if (!shared) return new T(0);
  void* p = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) return nullptr;
  return new (p) T(0);
}

template <typename T>
void FreeCounter(T* counter, bool shared) {
  if (counter == nullptr) return;
  if (shared) {
    munmap(counter, sizeof(T));
  } else {
    delete counter;
  }
}

bool CountersShared(const Logger::InitConfig& c) { return c.share_mode >= 2; }

// The message of `format` with its arguments, on one line: a control
// character inside it (a line break that a peer's text carried, above all)
// is written as an escape, so that a message never forges or cuts a line.
// Only a line break at the very end stays.
std::string OneLine(const char* format, va_list args) {
  va_list again;
  va_copy(again, args);
  char small[1024];
  const int n = vsnprintf(small, sizeof(small), format, args);
  std::string text;
  if (n >= static_cast<int>(sizeof(small))) {
    text.resize(static_cast<size_t>(n) + 1);
    vsnprintf(&text[0], text.size(), format, again);
    text.resize(static_cast<size_t>(n));
  } else if (n > 0) {
    text.assign(small, static_cast<size_t>(n));
  }
  va_end(again);
  std::string line;
  line.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if ((c >= 0x20 && c != 0x7f) || c == '\t' || (c == '\n' && i + 1 == text.size())) {
      line += static_cast<char>(c);
    } else if (c == '\n' || c == '\r') {
      line += c == '\n' ? "\\n" : "\\r";
    } else {
      char escape[8];
      snprintf(escape, sizeof(escape), "\\x%02x", c);
      line += escape;
    }
  }
  return line;
}

// Appends `line` to the stream's file whole or not at all: when a full disk
// takes only part of it, the file is cut back to where the line began, so
// that the next line never runs on from a cut one.  True when written.
bool AppendWhole(FILE* fp, const std::string& line) {
  if (fflush(fp) != 0) return false;
  const int fd = fileno(fp);
  struct stat st;
  const bool regular = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  size_t done = 0;
  while (done < line.size()) {
    const ssize_t n = write(fd, line.data() + done, line.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  if (done == line.size()) return true;
  if (done > 0 && regular) {
    const int cut = ftruncate(fd, st.st_size);
    (void)cut;  // a file that cannot be cut back keeps the cut line
  }
  return false;
}

}  // namespace

namespace {

// Modes of the files the logger creates: what the daemon's umask of 022
// made of 0666 (the log) and 0777 (the lock file).
constexpr mode_t kLogFileMode = 0644;
constexpr mode_t kLockFileMode = 0755;

// The log's directory, opened by Init: the log, its rotations and its lock
// file are opened, renamed and removed by name within it, never through a
// link at the name.  log_name is the log's own name there.
FileDir log_dir;
std::string log_name;

// path_i, by its name in log_dir.
std::string NumberedName(int i) { return log_name + "_" + std::to_string(i); }

// flock locks belong to an open file description, which a forked child
// shares with its parent: a child must open the lock file anew before its
// lock excludes anyone.  A fork handler marks the child, so that Lock need
// not ask for the process id on every message.
bool lock_file_inherited = false;

void MarkLockFileInherited() { lock_file_inherited = true; }

int OpenLockFile() {
  static const int registered = pthread_atfork(nullptr, nullptr, MarkLockFileInherited);
  (void)registered;
  lock_file_inherited = false;
  return log_dir.Open(log_name + ".lock", O_RDWR | O_SYNC, kLockFileMode);
}

// True while log_fp is a stream the logger opened (the log file, or its own
// stream on standard output or error when flushing asynchronously), which
// Shutdown must close.
bool stream_owned = false;

}  // namespace

// Flushes the log stream from a thread of its own, so that a burst of
// messages costs one write per 4096 bytes or per flush interval.
//
// Its buffer is the stream's own: the handler must outlive every stream it
// is installed on (Shutdown closes the stream before it deletes the
// handler), and the buffer is installed before anything is written to the
// stream.
class Logger::AsyncLoggingHandler {
 public:
  AsyncLoggingHandler() = default;
  AsyncLoggingHandler(const AsyncLoggingHandler&) = delete;
  AsyncLoggingHandler& operator=(const AsyncLoggingHandler&) = delete;

  // Makes the handler's buffer the stream's own (full buffering).  `fp` has
  // just been opened: nothing has been written to it yet.
  void InstallBuffer(FILE* fp) { setvbuf(fp, buffer_, _IOFBF, sizeof(buffer_)); }

  void SpawnThread(int flush_interval_ms) {
    thread_ = std::thread([this, flush_interval_ms] { Loop(flush_interval_ms); });
  }

  void Stop() {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      stop_ = true;
    }
    cond_.notify_all();
    if (thread_.joinable()) thread_.join();
  }

  // Called under the log lock after a stamped write of n bytes.
  void AddPending(size_t n) {
    pending_ += n;
    if (pending_ >= kAsyncBufferSize) {
      if (Logger::log_fp != nullptr) fflush(Logger::log_fp);
      pending_ = 0;
    }
  }
  void ResetPending() { pending_ = 0; }

 private:
  void Loop(int flush_interval_ms) {
    for (;;) {
      {
        std::unique_lock<std::mutex> lock(mutex_);
        if (stop_) break;
        cond_.wait_until(lock, std::chrono::system_clock::now() +
                                   std::chrono::milliseconds(flush_interval_ms),
                         [this] { return stop_; });
        if (stop_) break;
      }
      Logger::Lock();
      if (Logger::log_fp != nullptr) fflush(Logger::log_fp);
      pending_ = 0;
      Logger::Unlock();
    }
    Logger::Lock();
    if (Logger::log_fp != nullptr) fflush(Logger::log_fp);
    pending_ = 0;
    Logger::Unlock();
  }

  char buffer_[kAsyncBufferSize];
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable cond_;
  bool stop_ = false;     // guarded by mutex_
  size_t pending_ = 0;    // bytes written but not flushed; guarded by the log lock
};

Logger::InitConfig Logger::config;
std::map<std::string, int> Logger::log_level;
FILE* Logger::log_fp = stderr;
std::string Logger::log_path;
int32_t* Logger::log_size = nullptr;
uint64_t* Logger::log_rotated_count_shared = nullptr;
uint64_t Logger::log_rotated_count_private = 0;
pthread_mutex_t* Logger::log_lock = nullptr;
int Logger::log_flock = -1;
bool Logger::log_initialized = true;
Logger::AsyncLoggingHandler* Logger::async_handler = nullptr;

int Logger::Init(int output_type, const std::string& path, const std::string& level_config_path,
                 int rotate_count, int share_mode) {
  InitConfig c;
  c.output_type = output_type;
  c.path = path;
  c.level_config_path = level_config_path;
  c.rotate_count = rotate_count;
  c.share_mode = share_mode;
  c.async = false;
  c.flush_interval_ms = 500;
  return Init(c);
}

int Logger::Init(const InitConfig& new_config) {
  if (new_config.output_type == kFile) {
    // Refuse before tearing anything down, so that a file that cannot be
    // opened leaves the previous output in place.
    if (new_config.path.empty()) return -1;
    const int probe = OpenFileNoFollow(new_config.path, O_WRONLY | O_APPEND, kLogFileMode);
    if (probe < 0) return -1;
    close(probe);
  }
  Shutdown();

  config = new_config;
  if (config.output_type != kFile) config.share_mode = 0;
  if (config.output_type == kFile) {
    std::string dir;
    SplitPath(config.path, &dir, &log_name);
    if (log_dir.OpenDir(dir) != 0) {
      Shutdown();
      return -1;
    }
  }

  if (config.share_mode > 1) log_flock = OpenLockFile();
  if (config.share_mode >= 1) {
    log_lock = new pthread_mutex_t;
    pthread_mutex_init(log_lock, nullptr);
  }

  const bool shared = CountersShared(config);
  log_size = AllocateCounter<int32_t>(shared);
  log_rotated_count_shared = AllocateCounter<uint64_t>(shared);
  if (log_size == nullptr || log_rotated_count_shared == nullptr) {
    Shutdown();
    return -1;
  }

  log_level.clear();
  log_level["default_component"] = kDefaultLevel;
  if (!config.level_config_path.empty()) {
    std::map<std::string, std::string> levels;
    ReadKeyValueFile(config.level_config_path, &levels);
    for (const auto& kv : levels) log_level[kv.first] = atoi(kv.second.c_str());
  }

  const bool stamped = config.output_type == kStdout || config.output_type == kStderr ||
                       config.output_type == kFile;
  if (config.async && stamped) async_handler = new AsyncLoggingHandler;

  switch (config.output_type) {
    case kSyslog:
    case kStdout:
    case kStderr:
      log_fp = config.output_type == kSyslog ? nullptr
               : config.output_type == kStdout ? stdout
                                               : stderr;
      if (async_handler != nullptr && OpenOwnStandardStream() != 0) {
        Shutdown();
        return -1;
      }
      log_path.clear();
      *log_size = -1;
      *log_rotated_count_shared = 0;
      log_rotated_count_private = 0;
      break;
    case kFile:
      if (OpenFile() != 0) {
        Shutdown();
        return -1;
      }
      *log_rotated_count_shared = 0;
      log_rotated_count_private = 0;
      break;
    default:
      log_fp = stderr;
      break;
  }

  if (async_handler != nullptr) async_handler->SpawnThread(config.flush_interval_ms);

  log_initialized = true;
  return 0;
}

// Opens config.path for appending and sets the size counter to the file's
// size.  Leaves no stream on failure.
int Logger::OpenFile() {
  const int fd = log_dir.Open(log_name, O_WRONLY | O_APPEND, kLogFileMode);
  log_fp = fd >= 0 ? fdopen(fd, "a") : nullptr;
  if (log_fp == nullptr) {
    if (fd >= 0) close(fd);
    return -1;
  }
  stream_owned = true;
  if (async_handler != nullptr) async_handler->InstallBuffer(log_fp);
  log_path = config.path;
  struct stat st;
  if (fstat(fd, &st) != 0) {
    int err = errno;
    fprintf(log_fp, "stat(%s): %s (%d)\n", config.path.c_str(), strerror(err), err);
    *log_size = 0;
  } else {
    // A file already past the limit rotates at the first line; the cap
    // keeps one past 2 GiB from wrapping the 32-bit counter.
    *log_size = static_cast<int32_t>(std::min<int64_t>(st.st_size, int64_t{kRotateSize} + 1));
  }
  return 0;
}

// Replaces log_fp, standard output or error, with a stream of the logger's
// own on a duplicate of its descriptor, carrying the handler's buffer.  The
// process's stream keeps its own buffer, which may already hold output, and
// stays usable whatever becomes of the handler.
int Logger::OpenOwnStandardStream() {
  int fd = fcntl(fileno(log_fp), F_DUPFD_CLOEXEC, 0);
  FILE* own = fd >= 0 ? fdopen(fd, "a") : nullptr;
  if (own == nullptr) {
    if (fd >= 0) close(fd);
    return -1;
  }
  log_fp = own;
  stream_owned = true;
  async_handler->InstallBuffer(log_fp);
  return 0;
}

bool Logger::IsLogEnabled(int level, const char* component) {
  return log_initialized && level <= GetLevel(component);
}

int Logger::GetLevel(const std::string& component) {
  auto it = log_level.find(component);
  return it == log_level.end() ? kDefaultLevel : it->second;
}


void Logger::Lock() {
  if (log_lock != nullptr) pthread_mutex_lock(log_lock);
  if (log_flock >= 0 && lock_file_inherited) {
    int fd = OpenLockFile();
    if (fd >= 0) {
      close(log_flock);
      log_flock = fd;
    }
  }
  // The daemon's signal handlers do not restart system calls: a signal
  // that ends the wait for another process's lock must not let this write
  // through without it.
  if (log_flock >= 0) {
    while (flock(log_flock, LOCK_EX) != 0 && errno == EINTR) {
    }
  }
}

void Logger::Unlock() {
  if (log_flock >= 0) flock(log_flock, LOCK_UN);
  if (log_lock != nullptr) pthread_mutex_unlock(log_lock);
}

void Logger::Log(int level, const char* component, const char* format, ...) {
  if (!log_initialized) return;
  if (level > GetLevel(component)) return;

  // log_fp is read under the lock only: another thread's failed rotation
  // may have closed it meanwhile.
  Lock();
  if (config.output_type != kSyslog && log_fp == nullptr) {
    Unlock();
    return;
  }
  if (config.output_type == kFile && config.share_mode >= 2 &&
      *log_rotated_count_shared != log_rotated_count_private) {
    // Another process rotated the file: follow it to the new one.
    fclose(log_fp);
    log_fp = nullptr;
    stream_owned = false;
    if (OpenFile() != 0) {
      Unlock();
      return;
    }
    log_rotated_count_private = *log_rotated_count_shared;
  }

  va_list args;
  va_start(args, format);
  switch (config.output_type) {
    case kSyslog:
      vsyslog(LOG_ERR, format, args);
      break;
    case kStdout:
    case kStderr:
    case kFile: {
      char stamp[32];
      time_t now = time(nullptr);
      struct tm local;
      localtime_r(&now, &local);
      strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%S ", &local);
      const std::string line = stamp + OneLine(format, args);
      size_t n = line.size();
      if (async_handler == nullptr) {
        if (!AppendWhole(log_fp, line)) n = 0;
      } else {
        if (fwrite(line.data(), 1, n, log_fp) != n) n = 0;
        async_handler->AddPending(n);
      }
      if (config.output_type == kFile) {
        *log_size += static_cast<int32_t>(n);
        if (*log_size > kRotateSize) {
          Rotate();
          *log_size = 0;
        }
      }
      break;
    }
    default:
      vfprintf(stderr, format, args);
      break;
  }
  va_end(args);
  Unlock();
}

// Called under the log lock.  Shifts path_0 .. path_{N-2} up by one, drops
// path_{N-1}, and moves the current file to path_0.
// Every name is taken within log_dir: a link at any of them is moved or
// removed, never followed, and the new file is never opened through one.
int Logger::Rotate() {
  const int n = config.rotate_count;
  for (int i = n - 2; i >= 0; --i) log_dir.Rename(NumberedName(i), NumberedName(i + 1));
  log_dir.Remove(NumberedName(n - 1));

  fclose(log_fp);
  log_fp = nullptr;
  stream_owned = false;
  if (log_dir.Rename(log_name, NumberedName(0)) != 0) return -1;
  if (OpenFile() != 0) return -1;
  if (async_handler != nullptr) async_handler->ResetPending();
  ++*log_rotated_count_shared;
  ++log_rotated_count_private;
  return 0;
}

void Logger::Shutdown() {
  log_initialized = false;
  if (async_handler != nullptr) async_handler->Stop();
  // The stream goes before the handler whose buffer it may use.
  if (stream_owned) {
    fclose(log_fp);
    stream_owned = false;
  }
  delete async_handler;
  async_handler = nullptr;
  // A closed file falls back to standard output; the standard streams are
  // the process's own again.
  if (config.output_type == kFile || config.output_type == kStdout) log_fp = stdout;
  if (config.output_type == kStderr) log_fp = stderr;
  log_path.clear();
  const bool shared = CountersShared(config);
  FreeCounter(log_size, shared);
  FreeCounter(log_rotated_count_shared, shared);
  log_size = nullptr;
  log_rotated_count_shared = nullptr;
  if (log_lock != nullptr) {
    pthread_mutex_destroy(log_lock);
    delete log_lock;
    log_lock = nullptr;
  }
  if (log_flock >= 0) {
    close(log_flock);
    log_flock = -1;
  }
  log_dir.Close();
}
