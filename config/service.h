// The package's configuration files: where the service configuration and
// its lock file live, and the sectioned "key = value" format of the
// package's setting files (a session's filter file is one), read by a
// parser driven by a schema.
//
// The format: "[Section]" lines, then "key = value" lines; "#" starts a
// comment; values are numbers, one double-quoted string with C escapes, or
// a set of quoted strings separated by "," that may continue on the next
// line after a trailing ",".  The schema says which sections and keys exist,
// the type of each value and where in a caller's record it is stored.
//
// ParseConfigFile keeps all its state on the call: it is reentrant.  It
// reports to standard output (unknown keys) and standard error (the first
// error), never to the log.
#ifndef VESTA_CONFIG_SERVICE_H_
#define VESTA_CONFIG_SERVICE_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>

// The service configuration (its key "volume" names the data volume) and
// the lock file that serialises its readers across the package's
// processes.  Open them through FixedPath().
extern const char kServiceConfigPath[];  // "/var/packages/Fernbox/etc/tandem/service.conf"
extern const char kServiceLockPath[];    // "/var/packages/Fernbox/etc/tandem/setting.conf.lock"

// The value types of the schema.
enum ConfigValueType {
  kConfigInt32 = 0,      // int32_t
  kConfigUint64 = 1,     // uint64_t
  kConfigString = 2,     // char*: owned C string, null when absent
  kConfigStringSet = 3,  // ConfigStringSet
};

// A growable array of owned C strings; appending doubles the capacity.
// A zeroed value is an empty set.
struct ConfigStringSet {
  char** items;     // `capacity` slots, the first `count` in use
  size_t count;
  size_t capacity;
};

// Appends a copy of `len` bytes of `text` (NUL added).  0, or -1 when out of
// memory (the set is then unchanged).
int ConfigStringSetAppend(ConfigStringSet* set, const char* text, size_t len);
// Frees every element and the array; leaves an empty set.
void ConfigStringSetClear(ConfigStringSet* set);
// Frees an owned C string and sets it null.
void ConfigStringClear(char** text);

// One key of a section: its value of `type` is stored at `offset` bytes into
// the section's part of the target record.  Aliases share an offset.
struct ConfigKey {
  const char* name;
  int type;  // ConfigValueType
  size_t offset;
};

constexpr int kConfigMaxKeys = 64;      // keys a section may have
constexpr size_t kConfigMaxName = 32;   // characters of a section or key name
constexpr size_t kConfigMaxValue = 4096;  // decoded bytes of a string value
// Bytes of one line, newline included; a longer line is VALUE_TOO_LONG.
// Far above the longest line the filter writer makes (five values of 4,095
// escaped bytes), so every file it writes reads back.
constexpr size_t kConfigMaxLine = 1 << 20;

// One section: its part of the target record starts `offset` bytes in.
struct ConfigSection {
  const char* name;
  size_t offset;
  const ConfigKey* keys;
  int key_count;  // at most kConfigMaxKeys
};

struct ConfigSchema {
  const ConfigSection* sections;
  int section_count;
};

// Error codes; ConfigErrorName gives the name reported for each.
enum ConfigError {
  kConfigNoError = 0,
  kSectionMissingLeftBracket = -1,
  kSectionMissingRightBracket = -2,
  kSectionMissingSection = -3,
  kSectionIllegalCharacter = -4,
  kSectionTooLong = -5,
  kSectionUndefinedSection = -6,
  kKeyMissingKey = -7,
  kKeyIllegalCharacter = -8,
  kKeyTooLong = -9,
  kKeyUndefinedKey = -10,
  kValueNumericMissingIntegerPart = -11,
  kValueNumericMissingFractionalPart = -12,
  kValueNumericMissingValue = -13,
  kValueNumericIllegalSyntax = -14,
  kValueStringMissingLeftQuote = -15,
  kValueStringMissingRightQuote = -16,
  kValueStringEscapeIllegalSequence = -17,
  kValueStringEscapeIllegalHexValue = -18,
  kValueStringEscapeIllegalOctValue = -19,
  kValueStringIllegalCharacter = -20,
  kValueStringEmpty = -21,
  kValueSetMissingSeparater = -22,
  kValueTooLong = -23,
  kLineNotEnded = -24,
  kLineNotExpected = -25,
  kInternalError = -26,
};

// "NO_ERROR", "SECTION_MISSING_LEFT_BRACKET", ...; "Unknown error" for a
// code outside the table.
const char* ConfigErrorName(int code);

// Results of ParseConfigFile.
enum {
  kParseOk = 0,           // parsed
  kParseUnknownKeys = 1,  // parsed, but keys outside the schema were met
  kParseFailed = 2,       // could not be read, or the first error stopped it
};

// Parses the file at `path` into `target` as `schema` lays it out.  Strings
// and sets in `target` must start null/empty or hold values owned as
// described above.  On failure the values stored before the error stay in
// `target`; the caller clears it.
int ParseConfigFile(const char* path, const ConfigSchema& schema, void* target);
// The same from an open file, read from where it stands to its end.
int ParseConfigStream(FILE* file, const ConfigSchema& schema, void* target);

#endif  // VESTA_CONFIG_SERVICE_H_
