#include "sdk/share-service.h"

#include "log/log.h"
#include "platform/shares.h"
#include "sdk/sdk-cpp.h"

namespace SDK {

std::shared_ptr<Share> GetShare(const std::string& name, const std::string& mount_table) {
  ReentrantLock lock("GetShare");
  ZephShare* raw = nullptr;
  const int ret = ZEPHShareGet(name.c_str(), &raw);
  ShareRecord record(raw);
  if (ret != 0 || !record) {
    LOG_ERROR("sdk_debug", "ZEPHShareGet(%s): %d Error code: %d", name.c_str(), ret, KLIBErrCodeGet());
    return nullptr;
  }
  return std::make_shared<Share>(std::move(record), mount_table);
}

}  // namespace SDK
