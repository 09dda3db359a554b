// libFuzzer target of the filter-file parser (tools/fuzz.sh): any input gives
// one of the three results, every string stored (also before an error) at
// most 4096 bytes, and clearing frees all of it (LeakSanitizer watches).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config/service.h"
#include "db/filter-db-util.h"

namespace {

void CheckText(const char* text) {
  if (text == nullptr) return;
  const size_t n = strlen(text);
  // A decoded "\0" ends the C string early, so only the upper bound holds.
  if (n > kConfigMaxValue) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FILE* file = fmemopen(const_cast<uint8_t*>(data), size, "r");
  if (file == nullptr) return 0;  // an empty input
  FilterConfig config;
  memset(&config, 0, sizeof(config));
  const int rc = ParseConfigStream(file, cs_filter_schema, &config);
  fclose(file);
  if (rc != kParseOk && rc != kParseUnknownKeys && rc != kParseFailed) abort();
  char* const base = reinterpret_cast<char*>(&config);
  for (int s = 0; s < cs_filter_schema.section_count; ++s) {
    const ConfigSection& section = cs_filter_schema.sections[s];
    for (int k = 0; k < section.key_count; ++k) {
      char* field = base + section.offset + section.keys[k].offset;
      if (section.keys[k].type == kConfigString) CheckText(*reinterpret_cast<char**>(field));
      if (section.keys[k].type != kConfigStringSet) continue;
      const ConfigStringSet* set = reinterpret_cast<const ConfigStringSet*>(field);
      if (set->count > set->capacity) abort();
      for (size_t i = 0; i < set->count; ++i) CheckText(set->items[i]);
    }
  }
  FilterConfigClear(&config);
  return 0;
}
