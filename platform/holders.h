// Owners of the records that the platform's calls hand out, each freed with
// the platform's own call on every path.  Used by the daemon's wrappers
// (sdk/, net/) and by the stand-in itself where one of its calls uses
// another.
#ifndef VESTA_PLATFORM_HOLDERS_H_
#define VESTA_PLATFORM_HOLDERS_H_

#include <memory>

#include "platform/klib.h"
#include "platform/proxy.h"
#include "platform/shares.h"

template <typename Record, void (*Free)(Record*)>
struct PlatformFree {
  void operator()(Record* record) const { Free(record); }
};

using ShareRecord = std::unique_ptr<ZephShare, PlatformFree<ZephShare, ZEPHShareFree>>;
using SzList = std::unique_ptr<KlibSzList, PlatformFree<KlibSzList, KLIBCSzListFree>>;
using SzHash = std::unique_ptr<KlibSzHash, PlatformFree<KlibSzHash, KLIBCSzHashFree>>;
using ProxyInfoRecord =
    std::unique_ptr<ZephProxyInfo, PlatformFree<ZephProxyInfo, ZEPHProxyInfoFree>>;
using ProxySettingRecord =
    std::unique_ptr<ZephProxySetting, PlatformFree<ZephProxySetting, ZEPHProxySettingFree>>;

#endif  // VESTA_PLATFORM_HOLDERS_H_
