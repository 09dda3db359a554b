// libFuzzer target of the strict key=value reader (tools/fuzz.sh): a file
// that reads gives keys of key characters and printable values, and the
// pairs, written back one per line, read back the same.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "log/key_value_file.h"

namespace {

using Pairs = std::map<std::string, std::string>;

int Read(const void* data, size_t size, Pairs* pairs) {
  FILE* file = fmemopen(const_cast<void*>(data), size, "r");
  if (file == nullptr) return -1;  // an empty input
  const int rc = ReadKeyValueStream(file, KeyValueRules::kStrict, pairs);
  fclose(file);
  return rc;
}

bool IsKeyChar(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         c == '_' || c == '-' || c == '.';
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Pairs pairs;
  if (Read(data, size, &pairs) != 0) {
    if (!pairs.empty()) abort();
    return 0;
  }
  std::string text;
  for (const auto& pair : pairs) {
    if (pair.first.empty()) abort();
    for (unsigned char c : pair.first) {
      if (!IsKeyChar(c)) abort();
    }
    for (unsigned char c : pair.second) {
      if (c < 0x20 || c == 0x7f) abort();
    }
    const char quote = pair.second.find('"') == std::string::npos ? '"' : '\'';
    if (pair.second.find(quote) != std::string::npos) return 0;  // holds both quotes
    text += pair.first + " = " + quote + pair.second + quote + "\n";
  }
  Pairs again;
  if (!text.empty() && (Read(text.data(), text.size(), &again) != 0 || again != pairs)) abort();
  return 0;
}
