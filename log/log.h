// The logging macros.  Each takes a component name and a printf format and
// writes one line:
//   (pid:tid) [LEVEL] file(line): text
// where tid is the calling thread's id modulo 100000 and file the source
// file's base name without its extension.  The arguments are evaluated only
// when the component's level lets the message through.  The newline is added
// here: formats carry none.
#ifndef VESTA_LOG_LOG_H_
#define VESTA_LOG_LOG_H_

#include <sys/syscall.h>
#include <unistd.h>

#include "log/logger.h"

namespace vesta_log_detail {

constexpr const char* BaseName(const char* path) {
  const char* base = path;
  for (const char* p = path; *p != '\0'; ++p) {
    if (*p == '/') base = p + 1;
  }
  return base;
}

// Length of a base name without its extension ("stream.cc" -> 6).
constexpr int StemLength(const char* base) {
  int len = 0, dot = -1;
  for (; base[len] != '\0'; ++len) {
    if (base[len] == '.') dot = len;
  }
  return dot > 0 ? dot : len;
}

inline int ThreadId() { return static_cast<int>(syscall(SYS_gettid) % 100000); }

}  // namespace vesta_log_detail

#define VESTA_LOG_LINE(level, word, end, component, format, ...)             \
  do {                                                                       \
    if (Logger::IsLogEnabled((level), (component))) {                        \
      constexpr const char* vesta_log_base_ =                                \
          vesta_log_detail::BaseName(__FILE__);                              \
      Logger::Log((level), (component),                                      \
                  "(%5d:%5d) [" word "] %.*s(%d): " format end,              \
                  static_cast<int>(getpid()), vesta_log_detail::ThreadId(),  \
                  vesta_log_detail::StemLength(vesta_log_base_),             \
                  vesta_log_base_, __LINE__, ##__VA_ARGS__);                 \
    }                                                                        \
  } while (0)
#define VESTA_LOG_AT(level, word, component, format, ...) \
  VESTA_LOG_LINE(level, word, "\n", component, format, ##__VA_ARGS__)

#define LOG_CRIT(component, format, ...) \
  VESTA_LOG_AT(LOG_LEVEL_CRIT, "CRIT", component, format, ##__VA_ARGS__)
#define LOG_ERROR(component, format, ...) \
  VESTA_LOG_AT(LOG_LEVEL_ERROR, "ERROR", component, format, ##__VA_ARGS__)
#define LOG_WARNING(component, format, ...) \
  VESTA_LOG_AT(LOG_LEVEL_WARNING, "WARNING", component, format, ##__VA_ARGS__)
#define LOG_INFO(component, format, ...) \
  VESTA_LOG_AT(LOG_LEVEL_INFO, "INFO", component, format, ##__VA_ARGS__)
#define LOG_DEBUG(component, format, ...) \
  VESTA_LOG_AT(LOG_LEVEL_DEBUG, "DEBUG", component, format, ##__VA_ARGS__)
// LOG_ERROR without the added newline: the next message continues its line.
#define LOG_ERROR_NO_NEWLINE(component, format, ...) \
  VESTA_LOG_LINE(LOG_LEVEL_ERROR, "ERROR", "", component, format, ##__VA_ARGS__)

#endif  // VESTA_LOG_LOG_H_
