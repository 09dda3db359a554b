#include "net/conn-finder.h"

#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "log/log.h"
#include "platform/holders.h"

namespace {

constexpr size_t kHostNameSize = 512;

bool Flag(const ZephProxySetting* setting, int attribute) {
  bool value = false;
  return ZEPHProxySettingAttrBoolGet(setting, attribute, &value) == 0 && value;
}

// "CORP\alice" or "CORP/alice": the domain before the last separator, the
// user after it.  "/" wins over a backslash.
void SplitDomain(ProxyInfo* p) {
  size_t sep = p->proxy_username.rfind('/');
  if (sep == std::string::npos) sep = p->proxy_username.rfind('\\');
  if (sep == std::string::npos) {
    p->proxy_domain.clear();
    return;
  }
  p->proxy_domain = p->proxy_username.substr(0, sep);
  p->proxy_username = p->proxy_username.substr(sep + 1);
}

std::string HostName() {
  char host[kHostNameSize] = "";
  if (gethostname(host, sizeof(host) - 1) != 0) return "";
  host[sizeof(host) - 1] = '\0';
  return host;
}

int ReadProxy(const ZephProxyInfo* info, const ZephProxySetting* setting, ProxyInfo* p) {
  const char* host = ZEPHProxyInfoAttrGet(info, ZEPH_PROXY_INFO_HOST);
  const char* port = ZEPHProxyInfoAttrGet(info, ZEPH_PROXY_INFO_PORT);
  if (!Flag(setting, ZEPH_PROXY_SETTING_ENABLED) || host == nullptr || port == nullptr) {
    LOG_DEBUG("autoconn_debug", "proxy is not enabled");
    return -1;
  }
  p->use_proxy = true;
  p->use_system_proxy = false;
  p->proxy_ip = host;
  char* end = nullptr;
  const unsigned long number = std::strtoul(port, &end, 10);
  if (*end != '\0' || number > 65535) {
    LOG_WARNING("autoconn_debug", "proxy port '%s' is not a port number", port);
  }
  p->proxy_port = static_cast<uint16_t>(number);  // keeps the low 16 bits

  const char* user = ZEPHProxySettingAttrStrGet(setting, ZEPH_PROXY_SETTING_USERNAME);
  const char* password = ZEPHProxySettingAttrStrGet(setting, ZEPH_PROXY_SETTING_PASSWORD);
  if (!Flag(setting, ZEPH_PROXY_SETTING_AUTH) || user == nullptr || password == nullptr) {
    LOG_DEBUG("autoconn_debug", "proxy auth is not enabled");
    return 0;
  }
  LOG_DEBUG("autoconn_debug", "proxy setting: username = '%s'", user);
  p->proxy_username = user;
  p->proxy_password = password;
  p->proxy_host = HostName();
  SplitDomain(p);
  LOG_DEBUG("autoconn_debug", "final proxy settings: username = '%s', domain = '%s', host = '%s'",
            p->proxy_username.c_str(), p->proxy_domain.c_str(), p->proxy_host.c_str());
  return 0;
}

}  // namespace

int GetSystemProxy(ProxyInfo* proxy) {
  ProxyInfoRecord info(ZEPHProxyInfoInit(0));
  if (!info) {
    LOG_ERROR("autoconn_debug", "failed to init proxy info");
    return -1;
  }
  ProxySettingRecord setting(ZEPHProxySettingInit());
  if (!setting) {
    LOG_ERROR("autoconn_debug", "failed to init proxy setting");
    return -1;
  }
  *proxy = ProxyInfo();
  return ReadProxy(info.get(), setting.get(), proxy);
}
