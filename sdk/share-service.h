// Finding a local shared folder by name.  Any thread; holds
// SDK::ReentrantMutex while the platform reads the share.
#ifndef VESTA_SDK_SHARE_SERVICE_H_
#define VESTA_SDK_SHARE_SERVICE_H_

#include <memory>
#include <string>

#include "sdk/share.h"

namespace SDK {

// The share `name`, or an empty pointer when the platform does not know it
// (logged).  `mount_table` is handed to the Share.
std::shared_ptr<Share> GetShare(const std::string& name,
                                const std::string& mount_table = kProcMounts);

}  // namespace SDK

#endif  // VESTA_SDK_SHARE_SERVICE_H_
