#include "log/key_value_file.h"

#include <memory>

#include "log/read_line.h"

namespace {

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

enum LineResult { kSkipped, kPair, kUnset, kSyntaxError };

LineResult ParseLine(const char* line, KeyValueRules rules, std::string* key,
                     std::string* value) {
  const char* p = SkipBlanks(line);
  if (*p == '\0' || *p == '#') return kSkipped;

  const char* key_begin = p;
  while (IsKeyChar(*p)) ++p;
  if (p == key_begin) return kSyntaxError;
  key->assign(key_begin, p);

  p = SkipBlanks(p);
  if (*p != '=') return kSyntaxError;
  p = SkipBlanks(p + 1);
  if (*p == '\0') return rules == KeyValueRules::kRelaxed ? kUnset : kSyntaxError;

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
  return rules == KeyValueRules::kRelaxed && value->empty() ? kUnset : kPair;
}

struct FileCloser {
  void operator()(FILE* f) const { fclose(f); }
};

}  // namespace

int ReadKeyValueFile(const std::string& path, std::map<std::string, std::string>* out,
                     KeyValueRules rules) {
  out->clear();
  std::unique_ptr<FILE, FileCloser> file(fopen(path.c_str(), "r"));
  if (!file) return -1;
  return ReadKeyValueStream(file.get(), rules, out);
}

int ReadKeyValueStream(FILE* file, KeyValueRules rules, std::map<std::string, std::string>* out) {
  out->clear();
  const bool strict = rules == KeyValueRules::kStrict;
  std::string line, key, value;
  for (;;) {
    const LineRead read = ReadLine(file, strict ? kKeyValuePiece : kKeyValueMaxLine, &line);
    if (read == LineRead::kEnd) return 0;
    // A strict reader parses each piece of a long line as a line of its
    // own; a relaxed one refuses a line over its limit.
    LineResult result = kSyntaxError;
    if (strict || read == LineRead::kLine) result = ParseLine(line.c_str(), rules, &key, &value);
    switch (result) {
      case kSkipped:
        break;
      case kPair:
        (*out)[key] = value;
        break;
      case kUnset:
        out->erase(key);
        break;
      case kSyntaxError:
        out->clear();
        return -1;
    }
  }
}
