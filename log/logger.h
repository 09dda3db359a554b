// The process-wide log facility.  Every component reports through the
// macros of log/log.h, which test Logger::IsLogEnabled before they evaluate
// any argument and then call Logger::Log.
//
// A message passes when its level is at most its component's level (a
// component without a configured level has level 4, WARNING).  It is written
// with a local-time stamp to a file, standard output or standard error, or
// sent to syslog.  A message stays on its one line: a control character in
// it (a line break a peer's text carried) is written as an escape (\n, \r,
// \xHH), and a line that a full disk cannot take whole is not written at
// all (the file is cut back to where it began).  A file is rotated by size;
// several threads (share_mode 1) or several processes forked after Init
// (share_mode 2) may write one file.
// The file, its numbered rotations and its lock file are opened, renamed
// and removed by name within the log's directory, opened by Init
// (platform/safe_file.h): a symbolic link at any of those names is refused
// or moved, never written through.
//
// With async set, a background thread flushes the stream, whose buffer the
// logger owns until Shutdown has closed the stream; on standard output or
// error the logger writes through a stream of its own on a duplicate of the
// descriptor, so the process's stream keeps its own buffer.
//
// Init and Shutdown are called by the main thread while no other thread
// logs; Log and IsLogEnabled may be called from any thread.
#ifndef VESTA_LOG_LOGGER_H_
#define VESTA_LOG_LOGGER_H_

#include <pthread.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>

// Levels: smaller is more severe.
enum {
  LOG_LEVEL_CRIT = 2,
  LOG_LEVEL_ERROR = 3,
  LOG_LEVEL_WARNING = 4,
  LOG_LEVEL_INFO = 6,
  LOG_LEVEL_DEBUG = 7,
};

class Logger {
 public:
  enum OutputType { kSyslog = 0, kStdout = 1, kStderr = 2, kFile = 3 };

  struct InitConfig {
    int output_type = kStdout;
    std::string path;               // the log file, for kFile
    std::string level_config_path;  // key=value file of component levels; "" = none
    int rotate_count = 50;          // numbered slots; path_0 .. path_{N-2} are kept
    int share_mode = 1;             // 0 none, 1 threads, >=2 processes
    bool async = false;             // flush from a background thread
    int flush_interval_ms = 500;
  };

  class AsyncLoggingHandler;

  // Size past which the file is rotated: rotation happens when the byte
  // counter reaches 5,242,881 or more.
  static constexpr int32_t kRotateSize = 5242880;

  static int Init(const InitConfig& config);
  static int Init(int output_type, const std::string& path,
                  const std::string& level_config_path, int rotate_count,
                  int share_mode);
  static bool IsLogEnabled(int level, const char* component);
  static void Log(int level, const char* component, const char* format, ...)
      __attribute__((format(printf, 3, 4)));
  static void Shutdown();
  static int GetLevel(const std::string& component);

  static InitConfig config;
  static std::map<std::string, int> log_level;
  static FILE* log_fp;
  static std::string log_path;
  static int32_t* log_size;
  static uint64_t* log_rotated_count_shared;
  static uint64_t log_rotated_count_private;
  static pthread_mutex_t* log_lock;
  static int log_flock;
  static bool log_initialized;
  static AsyncLoggingHandler* async_handler;

 private:
  static int Rotate();
  static int OpenFile();
  static int OpenOwnStandardStream();
  static void Lock();
  static void Unlock();
};

#endif  // VESTA_LOG_LOGGER_H_
