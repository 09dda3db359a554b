// Internal to sdk/: owners of the platform's records, freed on every path,
// and the pure steps of the privilege computation.
#ifndef VESTA_SDK_SDK_IMPL_H_
#define VESTA_SDK_SDK_IMPL_H_

#include <cstdint>
#include <memory>

#include "platform/klib.h"
#include "platform/shares.h"
#include "platform/users.h"

namespace SDK {

struct ShareRecordFree {
  void operator()(ZephShare* share) const { ZEPHShareFree(share); }
};
struct SzListFree {
  void operator()(KlibSzList* list) const { KLIBCSzListFree(list); }
};
struct SzHashFree {
  void operator()(KlibSzHash* hash) const { KLIBCSzHashFree(hash); }
};
using ShareRecord = std::unique_ptr<ZephShare, ShareRecordFree>;
using SzList = std::unique_ptr<KlibSzList, SzListFree>;
using SzHash = std::unique_ptr<KlibSzHash, SzHashFree>;

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
