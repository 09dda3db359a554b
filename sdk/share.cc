#include "sdk/share.h"

#include "log/log.h"
#include "platform/shares.h"
#include "platform/users.h"
#include "sdk/sdk-cpp.h"

namespace SDK {

namespace {

constexpr size_t kEncryptPathSize = 4095;
constexpr size_t kPathBufferSize = 4096;
constexpr size_t kUuidBufferSize = 256;
constexpr size_t kUniqueKeySize = 64;

// Who may set a share read-only on behalf of replication.
constexpr const char* kReplicaRegistrants[] = {"dkos", "share_replica_demote"};

}  // namespace

Share::Share(ShareRecord record, std::string mount_table)
    : record_(std::move(record)), mount_table_(std::move(mount_table)) {}

Share::~Share() {
  ReentrantLock lock("~Share");
  record_.reset();
}

bool Share::IsValid() const { return record_ != nullptr; }

bool Share::HasStatusBit(uint32_t bit, const char* label) const {
  ReentrantLock lock(label);
  return record_ && (record_->status & bit) != 0;
}

bool Share::PathBeginsWith(const char* prefix, const char* label) const {
  ReentrantLock lock(label);
  return record_ && record_->path.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

bool Share::AskPlatform(int (*query)(const ZephShare*), const char* label, const char* error) const {
  ReentrantLock lock(label);
  if (!record_) return false;
  const int answer = query(record_.get());
  if (answer < 0 && error != nullptr) LOG_ERROR("sdk_debug", "%s", error);
  return answer == 1;
}

bool Share::IsOnSata() const { return PathBeginsWith("/volumeSATA", "IsOnSata"); }
bool Share::IsOnUsb() const { return PathBeginsWith("/volumeUSB", "IsOnUsb"); }

bool Share::IsGluster() const { return AskPlatform(KLIBIsGlusterShare, "IsGluster", nullptr); }

bool Share::IsEncryption() const {
  return AskPlatform(KLIBShareIsEncryptionGet, "IsEncryption", "Failed to get share encryption status");
}

bool Share::IsMounted() const {
  ReentrantLock lock("IsMounted");
  if (!record_) return false;
  const int locked = KLIBShareIsEncryptedGet(record_.get());
  if (locked < 0) LOG_ERROR("sdk_debug", "Failed to get share mount status");
  return locked == 0;
}

bool Share::IsForbidden() const { return HasStatusBit(ZEPH_SHARE_STATUS_FORBIDDEN, "IsForbidden"); }
bool Share::IsReadOnly() const { return HasStatusBit(ZEPH_SHARE_STATUS_READONLY, "IsReadOnly"); }
bool Share::IsIndexed() const { return HasStatusBit(ZEPH_SHARE_STATUS_INDEXED, "IsIndexed"); }
bool Share::IsColdStorage() const {
  return HasStatusBit(ZEPH_SHARE_STATUS_COLD_STORAGE, "IsColdStorage");
}

bool Share::IsReserved() const { return false; }

bool Share::IsAccessible() const {
  ReentrantLock lock("IsAccessible");
  return record_ && (!IsEncryption() || IsMounted());
}

bool Share::HasSnapshotMountBelow() const {
  std::vector<MountEntry> mounts;
  if (ReadMountTable(mount_table_, &mounts) != 0) return false;
  const std::string below = record_->path + "/";
  for (const MountEntry& m : mounts) {
    if (m.mount_point.compare(0, below.size(), below) == 0 &&
        m.mount_point.find("#snapshot") != std::string::npos) {
      return true;
    }
  }
  return false;
}

bool Share::IsSyncable() const {
  ReentrantLock lock("IsSyncable");
  if (!record_) return false;
  if (IsReadOnlyByReplica() || IsForbidden()) return false;
  if (!IsEncryption() && HasSnapshotMountBelow()) return false;
  return !IsOnUsb();
}

bool Share::IsInternalUnencrypted() const {
  ReentrantLock lock("IsInternalUnencrypted");
  if (!record_) return false;
  if (IsOnUsb() || IsOnSata() || IsGluster()) return false;
  return !IsEncryption();
}

bool Share::IsSharePrivilegeDisabled() const {
  return AskPlatform(KLIBShareIsSkipSmbPermGet, "IsSharePrivilegeDisabled",
                     "Failed to get share privilege status");
}

bool Share::IsReadOnlyByReplica() const {
  ReentrantLock lock("IsReadOnlyByReplica");
  if (!record_ || !IsReadOnly()) return false;
  for (const char* registrant : kReplicaRegistrants) {
    if (IsShareReadOnlyRegisteredBy(registrant)) return true;
  }
  return false;
}

bool Share::IsShareReadOnlyRegisteredBy(const std::string& registrant) const {
  ReentrantLock lock("IsShareReadOnlyRegisteredBy");
  return record_ && ZEPHShareAttrReadOnlyIsRegBy(record_->name.c_str(), registrant.c_str()) == 1;
}

bool Share::IsShareRecycleBinEnabled() const {
  return AskPlatform(KLIBShareRecycleStatusGet, "IsShareRecycleBinEnabled",
                     "Failed to get share recycle bin status");
}

bool Share::IsShareRecyceAdminOnly() const {
  return AskPlatform(KLIBShareRecycleAdminOnlyStatusGet, "IsShareRecyceAdminOnly",
                     "Failed to get share recycle bin admin only status");
}

int Share::GetStatusFlags() const {
  ReentrantLock lock("GetStatusFlags");
  return record_ ? static_cast<int>(record_->status) : -1;
}

int Share::GetVersion() const {
  ReentrantLock lock("GetVersion");
  if (!record_) return -1;
  return KLIBShareIsWinShareGet(record_.get()) == 1 ? 5 : 4;
}

std::string Share::GetName() const {
  ReentrantLock lock("GetName");
  return record_ ? record_->name : std::string();
}

std::string Share::GetPath() const {
  ReentrantLock lock("GetPath");
  return record_ ? record_->path : std::string();
}

int Share::GetFileSystemProperty(FileSystemProperty* out) const {
  ReentrantLock lock("GetFileSystemProperty");
  if (!record_) return -1;
  return GetFileSystemPropertyOfPath(record_->path, out, mount_table_);
}

int Share::GetFileSystemProperty(PObject* out) const {
  FileSystemProperty property;
  if (GetFileSystemProperty(&property) != 0) return -1;
  return property.Serialize(out);
}

int Share::GetBinPath(std::string* out) const {
  ReentrantLock lock("GetBinPath");
  if (!record_) return -1;
  char buf[kPathBufferSize];
  if (ZEPHShareBinPathGet(record_->name.c_str(), buf, sizeof(buf)) != 0) {
    LOG_ERROR("sdk_debug", "ZEPHShareBinPathGet(%s): Error code %d", record_->name.c_str(),
              KLIBErrCodeGet());
    return -1;
  }
  *out = buf;
  return 0;
}

int Share::GetLoosePrivilege(const std::string& user) const {
  ReentrantLock lock("GetLoosePrivilege");
  if (!record_) return -1;
  const int priv = ZEPHShareUserPrivCalc(user.c_str(), record_->name.c_str());
  if (priv < 0) {
    LOG_ERROR("sdk_debug", "ZEPHShareUserPrivCalc(%s, %s): err=[0x%04X]", user.c_str(),
              record_->name.c_str(), static_cast<unsigned>(KLIBErrCodeGet()));
    return kPrivNoAccess;
  }
  if (priv == kPrivNoAccess) return kPrivNoAccess;
  if (priv == kPrivReadOnly) return kPrivReadOnly;
  return kPrivReadWrite;
}

int Share::GetUniqueKey(std::string* out) const {
  ReentrantLock lock("GetUniqueKey");
  if (!record_ || !IsEncryption()) return 0;
  char key[kUniqueKeySize];
  if (ZEPHShareEncDefaultKeyFileRead(record_->name.c_str(), key, sizeof(key)) != 0) return 0;
  out->assign(key, sizeof(key));
  return 1;
}

int Share::GetUuid(std::string* out) const {
  ReentrantLock lock("GetUuid");
  if (!record_) return -1;
  char buf[kUuidBufferSize];
  const int ret = ZEPHShareUuidGet(record_->name.c_str(), buf, sizeof(buf));
  if (ret != 0) {
    LOG_ERROR("sdk_debug", "ZEPHShareUuidGet: failed to get share '%s' uuid, %d",
              record_->name.c_str(), ret);
    return -1;
  }
  *out = buf;
  return 0;
}

// ---- GetPrivilege ----

int Share::FilterByUserLists(const std::string& user, uint32_t* mask) const {
  KlibSzList* raw = nullptr;
  if (KLIBGroupInfoListGet(user.c_str(), &raw) != 0) {
    LOG_ERROR("sdk_debug", "Failed to get user group list. [%s] [0x%04X %s:%d]", user.c_str(),
              static_cast<unsigned>(KLIBErrCodeGet()), KLIBErrFileGet(), KLIBErrLineGet());
    return -1;
  }
  SzList groups(raw);
  if (UserIsInList(user.c_str(), groups.get(), record_->deny_list.c_str()) == 0) {
    *mask = 0;
  } else if (UserIsInList(user.c_str(), groups.get(), record_->rw_list.c_str()) == 0) {
    *mask &= kAclRwListMask;
  } else if (UserIsInList(user.c_str(), groups.get(), record_->ro_list.c_str()) == 0) {
    *mask &= kAclRoListMask;
  } else {
    *mask = 0;
  }
  return 0;
}

int Share::GetPrivilege(const std::string& user) const {
  ReentrantLock lock("GetPrivilege");
  if (!record_) return -1;
  const ZephShare* share = record_.get();

  if (KLIBShareIsForbiddenGet(share) != 0) return kPrivNoAccess;  // forbidden, or unknown

  const int acl_only = KLIBShareIsOnlyAcl(share);
  const int win_acl = KLIBShareIsWinShareGet(share);
  const int locked = KLIBShareIsEncryptedGet(share);
  const int read_only = KLIBShareIsReadOnlyGet(share);
  if (acl_only < 0 || win_acl < 0 || locked < 0 || read_only < 0) return kPrivNoAccess;

  // A locked encrypted share is not mounted: its permissions are those of
  // the lower directory.
  std::string path = share->path;
  if (locked == 1) {
    char enc_path[kEncryptPathSize];
    if (KLIBShareEncryptPathGet(share, enc_path, sizeof(enc_path)) != 0) return kPrivNoAccess;
    path = enc_path;
  }
  uint32_t mask = 0;
  if (ZEPHACLPermCalc(path.c_str(), user.c_str(), &mask) != 0) {
    LOG_ERROR("sdk_debug", "Get User Permission error on path '%s', user '%s'", path.c_str(),
              user.c_str());
    return kPrivNoAccess;
  }
  const int admin = KLIBGroupIsAdminGroupMem(user.c_str());
  if (admin < 0) return kPrivNoAccess;

  if (admin == 1 && (mask & ~0x1u) != 0) {
    // An administrator with any real permission has full control, limited
    // on an ordinary share by its user lists.
    mask = ZEPH_ACL_FULL;
    if (acl_only == 1) return read_only == 1 ? kPrivReadOnly : kPrivFullControl;
  } else if (acl_only == 1) {
    return PrivilegeOfMask(mask, read_only == 1);
  } else if (mask == 0) {
    // On a share with Windows-style ACLs an explicit "nothing" holds even
    // for administrators.
    if (admin == 1 && win_acl == 0) {
      mask = ZEPH_ACL_FULL;
    } else {
      return kPrivNoAccess;
    }
  } else if (admin == 1) {
    mask = ZEPH_ACL_FULL;
  }

  if (FilterByUserLists(user, &mask) != 0) return kPrivNoAccess;
  return PrivilegeOfMask(mask, read_only == 1);
}

}  // namespace SDK
