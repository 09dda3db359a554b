#include "sdk/sdk-impl.h"

namespace SDK {

int PrivilegeOfMask(uint32_t mask, bool read_only) {
  if (mask == 0) return kPrivNoAccess;
  const bool may_read = (mask & ZEPH_ACL_READ) == ZEPH_ACL_READ;
  const bool may_write = (mask & ZEPH_ACL_WRITE) == ZEPH_ACL_WRITE;
  if (read_only) return may_read ? kPrivReadOnly : kPrivNoAccess;
  if (may_read && may_write) {
    return (mask & kAclControl) == kAclControl ? kPrivFullControl : kPrivReadWrite;
  }
  if (may_write) return kPrivReadWrite;
  if (may_read) return kPrivReadOnly;
  return kPrivNoAccess;
}

}  // namespace SDK
