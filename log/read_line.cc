#include "log/read_line.h"

LineRead ReadLine(FILE* file, size_t limit, std::string* line) {
  line->clear();
  int c;
  while ((c = getc(file)) != EOF) {
    if (line->size() >= limit) {
      ungetc(c, file);
      return LineRead::kTooLong;
    }
    line->push_back(static_cast<char>(c));
    if (c == '\n') return LineRead::kLine;
  }
  return line->empty() ? LineRead::kEnd : LineRead::kLine;
}
