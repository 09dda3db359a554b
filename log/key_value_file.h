// The strict key=value reader of the daemon's configuration file and of the
// logger's level file.  Lines of at most 8192 bytes; blank lines and "#"
// comments are skipped; a key is a run of letters, digits, "_", "-" and ".";
// a value is a run of printable non-space characters, or anything printable
// between a pair of single or double quotes; a "#" comment may follow it.
// A later key replaces an earlier one.  The first syntax error discards the
// whole file.
#ifndef VESTA_LOG_KEY_VALUE_FILE_H_
#define VESTA_LOG_KEY_VALUE_FILE_H_

#include <map>
#include <string>

// Reads `path` into `out` (cleared first).  0 when read; -1 when the file
// cannot be opened or holds a syntax error, and `out` is then empty.
int ReadKeyValueFile(const std::string& path, std::map<std::string, std::string>* out);

#endif  // VESTA_LOG_KEY_VALUE_FILE_H_
