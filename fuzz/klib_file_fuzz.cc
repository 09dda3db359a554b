// libFuzzer target of the platform stand-in's key=value files (tools/fuzz.sh):
// each input is a share's file and the proxy file below a private
// VESTA_ROOT, read by every call of the daemon that parses one.  A share
// that loads has a normalised path; its yes/no answers are -1, 0 or 1; a
// relaxed read keeps no empty value.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "log/key_value_file.h"
#include "platform/holders.h"
#include "platform/normalize_path.h"

namespace {

std::string g_root;  // the private VESTA_ROOT, removed at exit
std::string g_file;  // the share file "f", and the proxy file through a link

void CheckShare() {
  ZephShare* raw = nullptr;
  if (ZEPHShareGet("f", &raw) != 0) return;
  ShareRecord share(raw);
  if (share->path.empty() || NormalizePath(share->path) != share->path) abort();
  for (int answer : {KLIBShareIsEncryptionGet(share.get()), KLIBShareIsEncryptedGet(share.get())}) {
    if (answer < -1 || answer > 1) abort();
  }
}

void CheckProxy() {
  ProxySettingRecord setting(ZEPHProxySettingInit());
  ProxyInfoRecord info(ZEPHProxyInfoInit(0));
  if (!setting || !info) return;
  bool flag = false;
  ZEPHProxySettingAttrBoolGet(setting.get(), ZEPH_PROXY_SETTING_ENABLED, &flag);
  ZEPHProxySettingAttrStrGet(setting.get(), ZEPH_PROXY_SETTING_USERNAME);
  ZEPHProxyInfoAttrGet(info.get(), ZEPH_PROXY_INFO_PORT);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char root[] = "/tmp/vesta-fuzz-XXXXXX";
  if (mkdtemp(root) == nullptr) abort();
  g_root = root;
  atexit([] { std::system(("rm -rf '" + g_root + "'").c_str()); });
  setenv("VESTA_ROOT", root, 1);
  const std::string etc = std::string(root) + "/etc/vesta";
  if (std::system(("mkdir -p '" + etc + "/shares'").c_str()) != 0) abort();
  g_file = etc + "/shares/f.conf";
  if (symlink(g_file.c_str(), (etc + "/proxy.conf").c_str()) != 0) abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FILE* file = fopen(g_file.c_str(), "w");
  if (file == nullptr || fwrite(data, 1, size, file) != size || fclose(file) != 0) abort();
  std::map<std::string, std::string> pairs;
  if (ReadKeyValueFile(g_file, &pairs, KeyValueRules::kRelaxed) == 0) {
    for (const auto& pair : pairs) {
      if (pair.first.empty() || pair.second.empty()) abort();
    }
  }
  char volume[256];
  KLIBCFileGetKeyValue(g_file.c_str(), "volume", volume, sizeof(volume), 0);
  CheckShare();
  CheckProxy();
  return 0;
}
