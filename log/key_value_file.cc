#include "log/key_value_file.h"

#include <cstdio>
#include <cstring>
#include <memory>

namespace {

// Lines are read with a fixed buffer, as fgets reads them: a longer line
// arrives as several pieces, each parsed as a line of its own.
constexpr int kLineBufferSize = 8192;

bool IsBlank(unsigned char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

bool IsKeyChar(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         c == '_' || c == '-' || c == '.';
}

// Printable: the visible ASCII characters and the space, and every byte of
// a multi-byte UTF-8 character, so that paths in other scripts read as
// written.
bool IsPrintable(unsigned char c) { return (c >= 0x20 && c < 0x7f) || c >= 0x80; }

const char* SkipBlanks(const char* p) {
  while (*p != '\0' && IsBlank(*p)) ++p;
  return p;
}

enum LineResult { kSkipped, kPair, kSyntaxError };

LineResult ParseLine(const char* line, std::string* key, std::string* value) {
  const char* p = SkipBlanks(line);
  if (*p == '\0' || *p == '#') return kSkipped;

  const char* key_begin = p;
  while (IsKeyChar(*p)) ++p;
  if (p == key_begin) return kSyntaxError;
  key->assign(key_begin, p);

  p = SkipBlanks(p);
  if (*p != '=') return kSyntaxError;
  p = SkipBlanks(p + 1);
  if (*p == '\0') return kSyntaxError;

  if (*p == '"' || *p == '\'') {
    const char quote = *p++;
    const char* value_begin = p;
    while (*p != quote) {
      if (*p == '\0' || !IsPrintable(*p)) return kSyntaxError;
      ++p;
    }
    value->assign(value_begin, p);
    ++p;
  } else {
    const char* value_begin = p;
    while (*p != '\0' && *p != ' ' && IsPrintable(*p)) ++p;
    value->assign(value_begin, p);
  }

  p = SkipBlanks(p);
  if (*p != '\0' && *p != '#') return kSyntaxError;
  return kPair;
}

struct FileCloser {
  void operator()(FILE* f) const { fclose(f); }
};

}  // namespace

int ReadKeyValueFile(const std::string& path, std::map<std::string, std::string>* out) {
  out->clear();
  std::unique_ptr<FILE, FileCloser> file(fopen(path.c_str(), "r"));
  if (!file) return -1;

  char line[kLineBufferSize];
  std::string key, value;
  while (fgets(line, sizeof(line), file.get()) != nullptr) {
    switch (ParseLine(line, &key, &value)) {
      case kSkipped:
        break;
      case kPair:
        (*out)[key] = value;
        break;
      case kSyntaxError:
        out->clear();
        return -1;
    }
  }
  return 0;
}
