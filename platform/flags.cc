#include "platform/flags.h"

#include "log/log.h"
#include "platform/klib.h"

int KlibFlagOf(const std::map<std::string, std::string>& keys, const std::string& key) {
  auto it = keys.find(key);
  if (it == keys.end()) return 0;
  const std::string& v = it->second;
  if (v == "yes" || v == "true" || v == "1") return 1;
  if (v == "no" || v == "false" || v == "0") return 0;
  LOG_ERROR("platform", "key '%s' holds '%s', not yes or no", key.c_str(), v.c_str());
  KLIB_SET_ERR(KLIB_ERR_BAD_VALUE);
  return -1;
}

std::string KlibValueOf(const std::map<std::string, std::string>& keys, const std::string& key) {
  auto it = keys.find(key);
  return it == keys.end() ? std::string() : it->second;
}
