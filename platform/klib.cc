#include "platform/klib.h"

#include <cstring>
#include <map>
#include <new>

#include "log/key_value_file.h"
#include "log/log.h"

namespace {

struct ErrorRecord {
  int code = KLIB_ERR_NONE;
  const char* file = "";
  int line = 0;
};

thread_local ErrorRecord t_error;

}  // namespace

int KLIBErrCodeGet() { return t_error.code; }
const char* KLIBErrFileGet() { return t_error.file; }
int KLIBErrLineGet() { return t_error.line; }

void KLIBErrSet(int code, const char* file, int line) {
  const char* base = std::strrchr(file, '/');
  t_error.code = code;
  t_error.file = base != nullptr ? base + 1 : file;
  t_error.line = line;
}

int KLIBCFileGetKeyValue(const char* path, const char* key, char* buf, size_t size, int flags) {
  if (path == nullptr || key == nullptr || buf == nullptr || size == 0 || flags != 0) {
    KLIB_SET_ERR(KLIB_ERR_BAD_PARAMETER);
    return -1;
  }
  buf[0] = '\0';
  std::map<std::string, std::string> pairs;
  if (ReadKeyValueFile(path, &pairs, KeyValueRules::kRelaxed) != 0) {
    LOG_ERROR("platform", "cannot read key=value file '%s'", path);
    KLIB_SET_ERR(KLIB_ERR_FILE);
    return -1;
  }
  auto it = pairs.find(key);
  if (it == pairs.end()) {
    KLIB_SET_ERR(KLIB_ERR_NO_SUCH_KEY);
    return -1;
  }
  const std::string& value = it->second;
  if (value.size() >= size) {
    LOG_ERROR("platform", "value of '%s' in '%s' is longer than %zu bytes", key, path, size - 1);
    KLIB_SET_ERR(KLIB_ERR_BUFFER_TOO_SMALL);
    return -1;
  }
  std::memcpy(buf, value.c_str(), value.size() + 1);
  return static_cast<int>(value.size());
}

void KLIBCSzListFree(KlibSzList* list) { delete list; }

KlibSzHash* KLIBCSzHashAlloc(size_t capacity) {
  KlibSzHash* hash = new (std::nothrow) KlibSzHash;
  if (hash == nullptr) {
    KLIB_SET_ERR(KLIB_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  hash->capacity = capacity;
  return hash;
}

int KLIBCSzHashSetValue(KlibSzHash* hash, const char* key, const char* value) {
  if (hash == nullptr || key == nullptr || value == nullptr) {
    KLIB_SET_ERR(KLIB_ERR_BAD_PARAMETER);
    return -1;
  }
  for (auto& entry : hash->entries) {
    if (entry.first == key) {
      entry.second = value;
      return 0;
    }
  }
  if (hash->entries.size() >= hash->capacity) {
    KLIB_SET_ERR(KLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
  hash->entries.emplace_back(key, value);
  return 0;
}

const char* KLIBCSzHashGetValue(const KlibSzHash* hash, const char* key) {
  if (hash == nullptr || key == nullptr) return nullptr;
  for (const auto& entry : hash->entries) {
    if (entry.first == key) return entry.second.c_str();
  }
  return nullptr;
}

void KLIBCSzHashFree(KlibSzHash* hash) { delete hash; }
