// The key=value reader of the daemon's configuration file, of the logger's
// level file and of the files that stand in for the storage server's own
// settings (platform/).  Blank lines and "#" comments are skipped; a key is
// a run of letters, digits, "_", "-" and "."; a value is a run of printable
// non-space characters, or anything printable between a pair of single or
// double quotes; a "#" comment may follow it.  A later key replaces an
// earlier one.  The first syntax error discards the whole file.
//
// The two kinds of file differ in two rules, named by KeyValueRules.
#ifndef VESTA_LOG_KEY_VALUE_FILE_H_
#define VESTA_LOG_KEY_VALUE_FILE_H_

#include <cstddef>
#include <cstdio>
#include <map>
#include <string>

enum class KeyValueRules {
  // The daemon's configuration file and the level file: a line arrives in
  // pieces of at most kKeyValuePiece bytes, each parsed as a line of its
  // own; "key =" with nothing after it is a syntax error.
  kStrict,
  // The files of the platform stand-in: a line is read whole, up to
  // kKeyValueMaxLine bytes (a longer one is a syntax error); a key whose
  // value is empty ("key=" or key="") is unset, also when set earlier.
  kRelaxed,
};

constexpr size_t kKeyValuePiece = 8191;
constexpr size_t kKeyValueMaxLine = 1 << 20;

// Reads `path` into `out` (cleared first).  0 when read; -1 when the file
// cannot be opened or holds a syntax error, and `out` is then empty.
int ReadKeyValueFile(const std::string& path, std::map<std::string, std::string>* out,
                     KeyValueRules rules = KeyValueRules::kStrict);
// The same from an open file, read to its end.
int ReadKeyValueStream(FILE* file, KeyValueRules rules, std::map<std::string, std::string>* out);

#endif  // VESTA_LOG_KEY_VALUE_FILE_H_
