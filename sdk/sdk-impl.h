// Internal to sdk/: the pure steps of the privilege computation.  The
// owners of the platform's records are in platform/holders.h.
#ifndef VESTA_SDK_SDK_IMPL_H_
#define VESTA_SDK_SDK_IMPL_H_

#include <cstdint>

#include "platform/holders.h"
#include "platform/users.h"

namespace SDK {

// Privilege codes.
enum {
  kPrivReadOnly = 1,
  kPrivReadWrite = 2,
  kPrivNoAccess = 4,
  kPrivFullControl = 8,
};

// ACL masks of the privilege computation beside the platform's
// ZEPH_ACL_READ, ZEPH_ACL_WRITE and ZEPH_ACL_FULL.
constexpr uint32_t kAclControl = 0x600;    // all of it, with write: full control
constexpr uint32_t kAclRwListMask = 0x7ff;  // what the read-write list keeps
constexpr uint32_t kAclRoListMask = 0x75;   // what the read-only list keeps

// The privilege code of a final mask `mask` on a share that is read-only or
// not.
int PrivilegeOfMask(uint32_t mask, bool read_only);

}  // namespace SDK

#endif  // VESTA_SDK_SDK_IMPL_H_
