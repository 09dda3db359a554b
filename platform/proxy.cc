#include "platform/proxy.h"

#include <unistd.h>

#include <new>

#include "log/key_value_file.h"
#include "log/log.h"
#include "platform/fixed_path.h"
#include "platform/flags.h"
#include "platform/klib.h"

namespace {

constexpr char kProxyFile[] = "/etc/vesta/proxy.conf";

// Reads the proxy file into `keys`: a missing file is an empty one.
int ReadProxyFile(std::map<std::string, std::string>* keys) {
  const std::string path = FixedPath(kProxyFile);
  keys->clear();
  if (access(path.c_str(), F_OK) != 0) return 0;
  if (ReadKeyValueFile(path, keys, KeyValueRules::kRelaxed) != 0) {
    LOG_ERROR("platform", "proxy file '%s' cannot be read or is malformed", path.c_str());
    KLIB_SET_ERR(KLIB_ERR_FILE);
    return -1;
  }
  return 0;
}

template <typename Record>
Record* LoadRecord() {
  Record* record = new (std::nothrow) Record;
  if (record == nullptr) {
    KLIB_SET_ERR(KLIB_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  if (ReadProxyFile(&record->keys) != 0) {
    delete record;
    return nullptr;
  }
  return record;
}

// The value of `key`, or nullptr when absent or empty.
const char* TextOf(const std::map<std::string, std::string>& keys, const char* key) {
  auto it = keys.find(key);
  return it == keys.end() || it->second.empty() ? nullptr : it->second.c_str();
}

}  // namespace

ZephProxyInfo* ZEPHProxyInfoInit(int flags) {
  if (flags != 0) {
    KLIB_SET_ERR(KLIB_ERR_BAD_PARAMETER);
    return nullptr;
  }
  return LoadRecord<ZephProxyInfo>();
}

const char* ZEPHProxyInfoAttrGet(const ZephProxyInfo* info, int attribute) {
  if (info == nullptr) return nullptr;
  switch (attribute) {
    case ZEPH_PROXY_INFO_HOST:
      return TextOf(info->keys, "host");
    case ZEPH_PROXY_INFO_PORT:
      return TextOf(info->keys, "port");
    default:
      return nullptr;
  }
}

void ZEPHProxyInfoFree(ZephProxyInfo* info) { delete info; }

ZephProxySetting* ZEPHProxySettingInit() { return LoadRecord<ZephProxySetting>(); }

int ZEPHProxySettingAttrBoolGet(const ZephProxySetting* setting, int attribute, bool* value) {
  const char* key = attribute == ZEPH_PROXY_SETTING_ENABLED ? "enabled"
                    : attribute == ZEPH_PROXY_SETTING_AUTH  ? "auth_enabled"
                                                            : nullptr;
  if (setting == nullptr || value == nullptr || key == nullptr) {
    KLIB_SET_ERR(KLIB_ERR_BAD_PARAMETER);
    return -1;
  }
  int flag = KlibFlagOf(setting->keys, key);
  if (flag < 0) return -1;
  *value = flag == 1;
  return 0;
}

const char* ZEPHProxySettingAttrStrGet(const ZephProxySetting* setting, int attribute) {
  if (setting == nullptr) return nullptr;
  switch (attribute) {
    case ZEPH_PROXY_SETTING_USERNAME:
      return TextOf(setting->keys, "username");
    case ZEPH_PROXY_SETTING_PASSWORD:
      return TextOf(setting->keys, "password");
    default:
      return nullptr;
  }
}

void ZEPHProxySettingFree(ZephProxySetting* setting) { delete setting; }
