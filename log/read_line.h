// Reads a text file one line at a time without a fixed line buffer, so that
// a line is never cut in two by the buffer's size.  Used by the key=value
// reader (log/key_value_file.h) and by the sectioned parser of filter files
// (config/service.h).  Keeps no state beyond the FILE's own: call it from
// the thread that owns the FILE.
#ifndef VESTA_LOG_READ_LINE_H_
#define VESTA_LOG_READ_LINE_H_

#include <cstddef>
#include <cstdio>
#include <string>

enum class LineRead {
  kLine,     // `line` holds one line, its newline included when the file had one
  kTooLong,  // `line` holds the first `limit` bytes; the rest of the line is still unread
  kEnd,      // nothing was left to read
};

// Reads the next line of `file` into `line` (bytes kept as they are, NUL
// bytes included), at most `limit` bytes of it.
LineRead ReadLine(FILE* file, size_t limit, std::string* line);

#endif  // VESTA_LOG_READ_LINE_H_
