// A session's filter rules: the shared filter database, in which the sync
// daemon keeps per-session filter rows, and each session's filter file
// (blacklist.filter in its configuration directory), which tells the sync
// daemon which names, prefixes, suffixes, extensions, globs and extended
// attributes to leave out and how long names and paths and how large files
// may be.
//
// The monitor cleans a removed session's rows out of the filter database
// and rewrites a filter file's maximum name length when the encryption
// state of the session's shared folder changes.  Called from the message
// loop and the error handler; nothing here is shared between calls except
// through the files.  Messages go to filter_db_util_debug.
#ifndef VESTA_DB_FILTER_DB_UTIL_H_
#define VESTA_DB_FILTER_DB_UTIL_H_

#include <sqlite3.h>

#include <cstdint>
#include <mutex>
#include <string>

#include "config/service.h"

// True when `db` has a table named `table`; false when not, and on any
// failure.
bool IsTableExist(sqlite3* db, const char* table);

// Deletes the rows of session `session_id` from filter_table and
// filter_range_table of the filter database at `db_path`, in one
// transaction.  A missing database, or one without those tables, has
// nothing to clean.  0 done or nothing to do, -1 failure.
int CleanUpFilterDBBySession(const std::string& db_path, uint64_t session_id);

// The rules of one filter file, grouped by section.  A string is an owned
// C string (null when absent), a set a ConfigStringSet; a maximum of 0
// means no limit.  Zero-initialise, and free with FilterConfigClear.
struct FilterVersionSection {
  int32_t major;
  int32_t minor;
};
struct FilterCommonSection {
  char* black_char;
  ConfigStringSet black_prefix;
  ConfigStringSet black_suffix;
  ConfigStringSet black_name;
  ConfigStringSet black_dir_prefix;  // also read as black_path_prefix_selective_sync
  uint64_t max_length;               // bytes of a name
  uint64_t max_path;                 // bytes of a path
};
struct FilterFileSection {
  char* black_char;
  ConfigStringSet black_prefix;
  ConfigStringSet black_suffix;
  ConfigStringSet black_glob;
  ConfigStringSet black_ext;   // also read as black_ext_selective_sync
  ConfigStringSet black_name;  // also read as black_name_selective_sync
  uint64_t max_size;           // bytes of a file; also read as max_size_selective_sync
};
struct FilterDirectorySection {
  char* black_char;
  ConfigStringSet black_name;
  ConfigStringSet black_prefix;
  ConfigStringSet black_suffix;
};
struct FilterEASection {
  ConfigStringSet black_ea_name;
};
struct FilterConfig {
  FilterVersionSection version;
  FilterCommonSection common;
  FilterFileSection file;
  FilterDirectorySection directory;
  FilterEASection ea;
};

// Frees every string and set and zeroes the config.
void FilterConfigClear(FilterConfig* config);

// The sections and keys of a filter file and where each lands in a
// FilterConfig.
extern const ConfigSchema cs_filter_schema;

// Values of FilterFile::SetMaximum's `which`.
enum {
  kFilterMaxLength = 7,  // Common max_length
  kFilterMaxPath = 8,    // Common max_path
};

// One filter file's config in memory, for one operation: create, Load,
// change, Write, destroy.  Every operation holds the object's mutex; a
// caller that reads or changes fields directly brackets that with Lock and
// Unlock.  Nothing here locks the file against other processes.
class FilterFile {
 public:
  FilterFile();
  ~FilterFile();
  FilterFile(const FilterFile&) = delete;
  FilterFile& operator=(const FilterFile&) = delete;

  // Replaces the config with the file's.  A file with keys outside the
  // schema is accepted only when it says major 1 and minor above 0.  0, or
  // -1 with the config empty.
  int Load(const std::string& path);
  // Replaces the file at `path` with the config: written to a temporary
  // file in the same directory ("path.XXXXXX", with the old file's mode, or
  // 0644), synced, then renamed over `path` (platform/safe_file.h).  0, or
  // -1 when any step fails or a link sits at `path`; `path` is then as it
  // was and the temporary file is gone.
  int Write(const std::string& path);
  // Sets Common max_length (kFilterMaxLength) or max_path (kFilterMaxPath).
  // -1 for any other `which`.
  int SetMaximum(int which, uint64_t value);

  void Lock() { mutex_.lock(); }
  void Unlock() { mutex_.unlock(); }
  // The config; read or change it only between Lock and Unlock.
  FilterConfig& config() { return config_; }

 private:
  FilterConfig config_;  // owned strings and sets
  std::mutex mutex_;     // held by every operation
};

#endif  // VESTA_DB_FILTER_DB_UTIL_H_
