#include "db/filter-db-util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "db/sqlite-guards.h"
#include "log/log.h"
#include "platform/safe_file.h"
#include "sdk/fslib/fslib.h"

namespace {

const char kComponent[] = "filter_db_util_debug";

using ull = unsigned long long;

#define FILTER_KEY(name, type, section, field) {name, type, offsetof(section, field)}

const ConfigKey kVersionKeys[] = {
    FILTER_KEY("major", kConfigInt32, FilterVersionSection, major),
    FILTER_KEY("minor", kConfigInt32, FilterVersionSection, minor),
};

const ConfigKey kCommonKeys[] = {
    FILTER_KEY("black_char", kConfigString, FilterCommonSection, black_char),
    FILTER_KEY("black_prefix", kConfigStringSet, FilterCommonSection, black_prefix),
    FILTER_KEY("black_suffix", kConfigStringSet, FilterCommonSection, black_suffix),
    FILTER_KEY("black_name", kConfigStringSet, FilterCommonSection, black_name),
    FILTER_KEY("black_dir_prefix", kConfigStringSet, FilterCommonSection, black_dir_prefix),
    FILTER_KEY("black_path_prefix_selective_sync", kConfigStringSet, FilterCommonSection,
               black_dir_prefix),
    FILTER_KEY("max_length", kConfigUint64, FilterCommonSection, max_length),
    FILTER_KEY("max_path", kConfigUint64, FilterCommonSection, max_path),
};

const ConfigKey kFileKeys[] = {
    FILTER_KEY("black_char", kConfigString, FilterFileSection, black_char),
    FILTER_KEY("black_prefix", kConfigStringSet, FilterFileSection, black_prefix),
    FILTER_KEY("black_suffix", kConfigStringSet, FilterFileSection, black_suffix),
    FILTER_KEY("black_glob", kConfigStringSet, FilterFileSection, black_glob),
    FILTER_KEY("black_ext", kConfigStringSet, FilterFileSection, black_ext),
    FILTER_KEY("black_ext_selective_sync", kConfigStringSet, FilterFileSection, black_ext),
    FILTER_KEY("black_name", kConfigStringSet, FilterFileSection, black_name),
    FILTER_KEY("black_name_selective_sync", kConfigStringSet, FilterFileSection, black_name),
    FILTER_KEY("max_size", kConfigUint64, FilterFileSection, max_size),
    FILTER_KEY("max_size_selective_sync", kConfigUint64, FilterFileSection, max_size),
};

const ConfigKey kDirectoryKeys[] = {
    FILTER_KEY("black_char", kConfigString, FilterDirectorySection, black_char),
    FILTER_KEY("black_name", kConfigStringSet, FilterDirectorySection, black_name),
    FILTER_KEY("black_prefix", kConfigStringSet, FilterDirectorySection, black_prefix),
    FILTER_KEY("black_suffix", kConfigStringSet, FilterDirectorySection, black_suffix),
};

const ConfigKey kEAKeys[] = {
    FILTER_KEY("black_ea_name", kConfigStringSet, FilterEASection, black_ea_name),
};

#undef FILTER_KEY

template <size_t N>
constexpr int CountOf(const ConfigKey (&)[N]) {
  return static_cast<int>(N);
}

const ConfigSection kFilterSections[] = {
    {"Version", offsetof(FilterConfig, version), kVersionKeys, CountOf(kVersionKeys)},
    {"Common", offsetof(FilterConfig, common), kCommonKeys, CountOf(kCommonKeys)},
    {"File", offsetof(FilterConfig, file), kFileKeys, CountOf(kFileKeys)},
    {"Directory", offsetof(FilterConfig, directory), kDirectoryKeys, CountOf(kDirectoryKeys)},
    {"EA", offsetof(FilterConfig, ea), kEAKeys, CountOf(kEAKeys)},
};

// Escaped bytes of one written value, at most; the rest is dropped.
constexpr size_t kMaxEscapedValue = 4095;

// Appends the escaped form of byte `c` to `out`.
void EscapeByte(unsigned char c, std::string* out) {
  switch (c) {
    case '\\': *out += "\\\\"; return;
    case '"': *out += "\\\""; return;
    case '\t': *out += "\\t"; return;
    case '\n': *out += "\\n"; return;
    case '\v': *out += "\\v"; return;
    case '\f': *out += "\\f"; return;
    default: break;
  }
  if (c < 0x20 || c > 0x7E || c == '$' || c == '@' || c == '`') {
    char hex[5];
    snprintf(hex, sizeof(hex), "\\x%02x", c);
    *out += hex;
    return;
  }
  out->push_back(static_cast<char>(c));
}

// Writes `value` double-quoted, escaped so that the parser reads back the
// same bytes.
void WriteQuoted(FILE* f, const char* value) {
  std::string escaped;
  std::string one;
  for (const char* p = value; *p != '\0'; ++p) {
    one.clear();
    EscapeByte(static_cast<unsigned char>(*p), &one);
    if (escaped.size() + one.size() > kMaxEscapedValue) break;
    escaped += one;
  }
  fputc('"', f);
  fwrite(escaped.data(), 1, escaped.size(), f);
  fputc('"', f);
}

void WriteString(FILE* f, const char* key, const char* value) {
  if (value == nullptr) return;
  fprintf(f, "%s = ", key);
  WriteQuoted(f, value);
  fputc('\n', f);
}

// Five elements a line; a broken line ends with ", ".
void WriteSet(FILE* f, const char* key, const ConfigStringSet& set) {
  if (set.count == 0) return;
  fprintf(f, "%s = ", key);
  for (size_t i = 0; i < set.count; ++i) {
    WriteQuoted(f, set.items[i]);
    const bool more = i + 1 < set.count;
    if (more) fputs(", ", f);
    if ((i + 1) % 5 == 0) fputc('\n', f);
  }
  fputc('\n', f);
}

void WriteMaximum(FILE* f, const char* key, uint64_t value) {
  fprintf(f, "%s = %llu\n", key, static_cast<ull>(value));
}

// A filter file made where none was, as the daemon's umask would make it.
constexpr mode_t kNewFilterFileMode = 0644;

void WriteConfig(FILE* f, const FilterConfig& c) {
  fprintf(f, "[Version]\nmajor = %d\nminor = %d\n\n", c.version.major, c.version.minor);

  fputs("[Common]\n", f);
  WriteString(f, "black_char", c.common.black_char);
  WriteSet(f, "black_prefix", c.common.black_prefix);
  WriteSet(f, "black_suffix", c.common.black_suffix);
  WriteSet(f, "black_dir_prefix", c.common.black_dir_prefix);
  WriteSet(f, "black_name", c.common.black_name);
  WriteMaximum(f, "max_length", c.common.max_length);
  WriteMaximum(f, "max_path", c.common.max_path);
  fputc('\n', f);

  fputs("[File]\n", f);
  WriteString(f, "black_char", c.file.black_char);
  WriteSet(f, "black_ext", c.file.black_ext);
  WriteSet(f, "black_name", c.file.black_name);
  WriteSet(f, "black_prefix", c.file.black_prefix);
  WriteSet(f, "black_suffix", c.file.black_suffix);
  WriteSet(f, "black_glob", c.file.black_glob);
  WriteMaximum(f, "max_size", c.file.max_size);
  fputc('\n', f);

  fputs("[Directory]\n", f);
  WriteString(f, "black_char", c.directory.black_char);
  WriteSet(f, "black_name", c.directory.black_name);
  WriteSet(f, "black_prefix", c.directory.black_prefix);
  WriteSet(f, "black_suffix", c.directory.black_suffix);
  fputc('\n', f);

  fputs("[EA]\n", f);
  WriteSet(f, "black_ea_name", c.ea.black_ea_name);
  fputc('\n', f);
}

// The text of `c` as the writer above lays it out.  -1 when the memory for
// it could not be had.
int RenderConfig(const FilterConfig& c, std::string* text) {
  char* buffer = nullptr;
  size_t size = 0;
  FILE* f = open_memstream(&buffer, &size);
  if (f == nullptr) return -1;
  WriteConfig(f, c);
  const bool written = fflush(f) == 0 && !ferror(f);
  fclose(f);
  if (written) text->assign(buffer, size);
  free(buffer);
  return written ? 0 : -1;
}

}  // namespace

const ConfigSchema cs_filter_schema = {kFilterSections,
                                       static_cast<int>(sizeof(kFilterSections) /
                                                        sizeof(kFilterSections[0]))};

bool IsTableExist(sqlite3* db, const char* table) {
  SqliteText sql(sqlite3_mprintf(
      "SELECT count(*) FROM sqlite_master WHERE type='table' AND name='%q';", table));
  if (!sql) {
    LOG_ERROR(kComponent, "sqlite3_mprintf failed");
    return false;
  }
  SqliteStatement stmt;
  int rc = sqlite3_prepare_v2(db, sql.get(), -1, stmt.out(), nullptr);
  if (rc != SQLITE_OK) {
    LOG_ERROR(kComponent, "IsTableExist: sqlite3_prepare_v2: %s (%d)", sqlite3_errmsg(db), rc);
    return false;
  }
  rc = sqlite3_step(stmt.get());
  if (rc != SQLITE_ROW) {
    LOG_ERROR(kComponent, "sqlite3_step: [%d] %s", rc, sqlite3_errmsg(db));
    return false;
  }
  return sqlite3_column_int(stmt.get(), 0) != 0;
}

int CleanUpFilterDBBySession(const std::string& db_path, uint64_t session_id) {
  if (!PathExists(db_path)) {
    LOG_INFO(kComponent, "filter db is not exist");
    return 0;
  }
  SqliteHandle db;
  int rc = sqlite3_open(db_path.c_str(), db.out());
  if (rc != SQLITE_OK) {
    LOG_ERROR(kComponent, "CleanUpFilterDBBySession: Failed to open database at '%s'. [%d] %s",
              db_path.c_str(), rc, sqlite3_errmsg(db.get()));
    return -1;
  }
  if (!IsTableExist(db.get(), "filter_table") || !IsTableExist(db.get(), "filter_range_table")) {
    LOG_INFO(kComponent, "Filter event table does not exist, bail out");
    return 0;
  }
  const std::string id = std::to_string(session_id);
  const std::string sql = "BEGIN TRANSACTION;"
                          "DELETE FROM filter_table WHERE sess_id = " + id + ";"
                          "DELETE FROM filter_range_table WHERE sess_id = " + id + ";"
                          "END TRANSACTION;";
  SqliteText error;
  rc = sqlite3_exec(db.get(), sql.c_str(), nullptr, nullptr, error.out());
  if (rc != SQLITE_OK) {
    LOG_ERROR(kComponent, "CleanUpFilterDBBySession '%s' %llu fail: %s", db_path.c_str(),
              static_cast<ull>(session_id), error.c_str());
    return -1;
  }
  LOG_DEBUG(kComponent, "CleanUpFilterDBBySession Done '%s' %llu", db_path.c_str(),
            static_cast<ull>(session_id));
  return 0;
}

void FilterConfigClear(FilterConfig* c) {
  ConfigStringClear(&c->common.black_char);
  ConfigStringSetClear(&c->common.black_prefix);
  ConfigStringSetClear(&c->common.black_suffix);
  ConfigStringSetClear(&c->common.black_name);
  ConfigStringSetClear(&c->common.black_dir_prefix);
  ConfigStringClear(&c->file.black_char);
  ConfigStringSetClear(&c->file.black_prefix);
  ConfigStringSetClear(&c->file.black_suffix);
  ConfigStringSetClear(&c->file.black_glob);
  ConfigStringSetClear(&c->file.black_ext);
  ConfigStringSetClear(&c->file.black_name);
  ConfigStringClear(&c->directory.black_char);
  ConfigStringSetClear(&c->directory.black_name);
  ConfigStringSetClear(&c->directory.black_prefix);
  ConfigStringSetClear(&c->directory.black_suffix);
  ConfigStringSetClear(&c->ea.black_ea_name);
  memset(c, 0, sizeof(*c));
}

FilterFile::FilterFile() : config_() {}

FilterFile::~FilterFile() { FilterConfigClear(&config_); }

int FilterFile::Load(const std::string& path) {
  std::lock_guard<std::mutex> lock(mutex_);
  FilterConfigClear(&config_);
  int rc = ParseConfigFile(path.c_str(), cs_filter_schema, &config_);
  if (rc == kParseOk) return 0;
  // Keys this version does not know are fine in a file of a later minor.
  if (rc == kParseUnknownKeys && config_.version.major == 1 && config_.version.minor > 0) {
    return 0;
  }
  FilterConfigClear(&config_);
  return -1;
}

int FilterFile::Write(const std::string& path) {
  std::lock_guard<std::mutex> lock(mutex_);
  // A crash or a full disk leaves the old file or the new one, never a cut
  // one; a link at the path is refused.
  std::string text;
  if (RenderConfig(config_, &text) != 0) return -1;
  struct stat old;
  const mode_t mode = lstat(path.c_str(), &old) == 0 && S_ISREG(old.st_mode)
                          ? (old.st_mode & 07777)
                          : kNewFilterFileMode;
  return ReplaceFile(path, text, mode);
}

int FilterFile::SetMaximum(int which, uint64_t value) {
  std::lock_guard<std::mutex> lock(mutex_);
  switch (which) {
    case kFilterMaxLength:
      config_.common.max_length = value;
      return 0;
    case kFilterMaxPath:
      config_.common.max_path = value;
      return 0;
    default:
      return -1;
  }
}
