// Stand-in for the storage server's proxy settings, read from the key=value
// file FixedPath("/etc/vesta/proxy.conf") (keys in README.md).  A
// missing file means no proxy is configured; a malformed one makes both
// Init calls fail.  An attribute whose key is absent or empty reads as none.
#ifndef VESTA_PLATFORM_PROXY_H_
#define VESTA_PLATFORM_PROXY_H_

#include <map>
#include <string>

// Attributes of the proxy address record.
enum { ZEPH_PROXY_INFO_HOST = 0, ZEPH_PROXY_INFO_PORT = 1 };
// Flag attributes of the proxy settings.
enum { ZEPH_PROXY_SETTING_ENABLED = 0, ZEPH_PROXY_SETTING_AUTH = 3 };
// Text attributes of the proxy settings.
enum { ZEPH_PROXY_SETTING_USERNAME = 0, ZEPH_PROXY_SETTING_PASSWORD = 1 };

struct ZephProxyInfo {
  std::map<std::string, std::string> keys;  // the proxy file
};
struct ZephProxySetting {
  std::map<std::string, std::string> keys;  // the proxy file
};

// `flags` is reserved and must be 0.  nullptr on failure.
ZephProxyInfo* ZEPHProxyInfoInit(int flags);
// The host or port text, or nullptr.  Owned by `info`.
const char* ZEPHProxyInfoAttrGet(const ZephProxyInfo* info, int attribute);
void ZEPHProxyInfoFree(ZephProxyInfo* info);

ZephProxySetting* ZEPHProxySettingInit();
// 0 with *value set (false when the key is absent), or -1 when the key
// holds no yes/no word or the attribute is unknown.
int ZEPHProxySettingAttrBoolGet(const ZephProxySetting* setting, int attribute, bool* value);
// The user name or password, or nullptr.  Owned by `setting`.
const char* ZEPHProxySettingAttrStrGet(const ZephProxySetting* setting, int attribute);
void ZEPHProxySettingFree(ZephProxySetting* setting);

#endif  // VESTA_PLATFORM_PROXY_H_
