// Stand-in for the storage server's user, group and ACL library, backed by
// the machine's own user and group database (getpwnam, getgrouplist) and
// the real owner, group and mode bits of files.
#ifndef VESTA_PLATFORM_USERS_H_
#define VESTA_PLATFORM_USERS_H_

#include <cstdint>

#include "platform/klib.h"

// The Linux group whose members administer the storage server.
constexpr const char kAdministratorsGroup[] = "administrators";

// ACL permission bits as ZEPHACLPermCalc reports them.  A mask with every
// bit of ZEPH_ACL_READ lets its user read; every bit of ZEPH_ACL_WRITE,
// write.  Both privilege calculations (ZEPHShareUserPrivCalc here and
// SDK::Share::GetPrivilege) test these same masks.
enum : uint32_t {
  ZEPH_ACL_READ = 0x74,       // read data, attributes and permissions
  ZEPH_ACL_MODE_READ = 0x75,  // what an "r" of a folder's mode grants: the above and 0x1
  ZEPH_ACL_WRITE = 0x18a,     // write data and attributes, append
  ZEPH_ACL_FULL = 0x1fff,     // everything, ownership included
};

// 1 when `user` belongs to kAdministratorsGroup (as primary or
// supplementary group), 0 when not or when that group does not exist, -1
// when there is no such user.
int KLIBGroupIsAdminGroupMem(const char* user);

// The names of every group `user` belongs to, primary group first, in a new
// list at *out (free with KLIBCSzListFree).  0, or -1 with *out nullptr.
int KLIBGroupInfoListGet(const char* user, KlibSzList** out);

// The ACL permission mask of `user` on `path`.  A share whose path or
// encryption path is `path` may name the mask in its "acl_mask" key;
// otherwise the owner gets ZEPH_ACL_FULL, and a member of the file's group,
// or anyone else, gets ZEPH_ACL_MODE_READ for an "r" and ZEPH_ACL_WRITE for
// a "w" in the matching part of the mode.  User names in "acl_mask" match
// without regard to case, as in the share's user lists.  0, or -1 (no such
// user or path).
int ZEPHACLPermCalc(const char* path, const char* user, uint32_t* mask);

#endif  // VESTA_PLATFORM_USERS_H_
