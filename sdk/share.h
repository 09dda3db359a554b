// A local shared folder of the storage server, as the daemon sees it: its
// path and name, whether it is encrypted and unlocked, read-only, on a USB
// disk, syncable, and what a user may do in it.  Obtained by name through
// SDK::GetShare (sdk/share-service.h) and used through shared pointers by
// the message loop, the share-event handlers and the sync-daemon command
// client, on whichever thread they run.
//
// Each operation holds SDK::ReentrantMutex while it calls the platform and
// answers false, -1 or "" when the object holds no record.  The object owns
// its platform record and frees it on destruction.
#ifndef VESTA_SDK_SHARE_H_
#define VESTA_SDK_SHARE_H_

#include <cstdint>
#include <string>

#include "sdk/fslib/fslib.h"
#include "sdk/sdk-impl.h"
#include "stream/PObject.h"

namespace SDK {

// The operations of a shared folder, in the order the platform wrappers
// have always laid them out.
class IShare {
 public:
  virtual ~IShare() = default;

  virtual bool IsValid() const = 0;
  virtual bool IsOnSata() const = 0;
  virtual bool IsGluster() const = 0;
  virtual bool IsEncryption() const = 0;  // the share is encrypted
  virtual bool IsMounted() const = 0;     // not locked: its key has been entered
  virtual bool IsForbidden() const = 0;
  virtual bool IsReadOnly() const = 0;
  virtual bool IsIndexed() const = 0;
  virtual bool IsReserved() const = 0;    // kept for layout; always false
  virtual bool IsAccessible() const = 0;  // unencrypted, or encrypted and mounted
  virtual bool IsSyncable() const = 0;
  virtual bool IsOnUsb() const = 0;
  virtual bool IsInternalUnencrypted() const = 0;
  virtual bool IsSharePrivilegeDisabled() const = 0;
  virtual bool IsReadOnlyByReplica() const = 0;
  virtual bool IsShareReadOnlyRegisteredBy(const std::string& registrant) const = 0;
  virtual bool IsShareRecycleBinEnabled() const = 0;
  virtual bool IsShareRecyceAdminOnly() const = 0;
  virtual bool IsColdStorage() const = 0;
  virtual int GetStatusFlags() const = 0;  // raw status word, -1 without a record
  virtual int GetVersion() const = 0;      // 5 with Windows-style ACLs, else 4
  virtual std::string GetName() const = 0;
  virtual int GetFileSystemProperty(FileSystemProperty* out) const = 0;  // 0 or -1
  virtual int GetFileSystemProperty(PObject* out) const = 0;  // its map form; 0 or -1
  virtual int GetBinPath(std::string* out) const = 0;         // 0 or -1
  virtual std::string GetPath() const = 0;
  // Privilege codes of sdk/sdk-impl.h: 1 read-only, 2 read-write, 4 no
  // access, 8 read-write with full control.
  virtual int GetPrivilege(const std::string& user) const = 0;
  virtual int GetLoosePrivilege(const std::string& user) const = 0;
  // The 64 bytes of an encrypted share's default key: 1 read, 0 not.
  virtual int GetUniqueKey(std::string* out) const = 0;
  virtual int GetUuid(std::string* out) const = 0;  // 0 or -1
};

class Share : public IShare {
 public:
  // Takes `record` (may be null).  `mount_table` is where IsSyncable and
  // GetFileSystemProperty read the mounts.
  explicit Share(ShareRecord record, std::string mount_table = kProcMounts);
  ~Share() override;
  Share(const Share&) = delete;
  Share& operator=(const Share&) = delete;

  bool IsValid() const override;
  bool IsOnSata() const override;
  bool IsGluster() const override;
  bool IsEncryption() const override;
  bool IsMounted() const override;
  bool IsForbidden() const override;
  bool IsReadOnly() const override;
  bool IsIndexed() const override;
  bool IsReserved() const override;
  bool IsAccessible() const override;
  bool IsSyncable() const override;
  bool IsOnUsb() const override;
  bool IsInternalUnencrypted() const override;
  bool IsSharePrivilegeDisabled() const override;
  bool IsReadOnlyByReplica() const override;
  bool IsShareReadOnlyRegisteredBy(const std::string& registrant) const override;
  bool IsShareRecycleBinEnabled() const override;
  bool IsShareRecyceAdminOnly() const override;
  bool IsColdStorage() const override;
  int GetStatusFlags() const override;
  int GetVersion() const override;
  std::string GetName() const override;
  int GetFileSystemProperty(FileSystemProperty* out) const override;
  int GetFileSystemProperty(PObject* out) const override;
  int GetBinPath(std::string* out) const override;
  std::string GetPath() const override;
  int GetPrivilege(const std::string& user) const override;
  int GetLoosePrivilege(const std::string& user) const override;
  int GetUniqueKey(std::string* out) const override;
  int GetUuid(std::string* out) const override;

 private:
  bool HasStatusBit(uint32_t bit, const char* label) const;
  bool PathBeginsWith(const char* prefix, const char* label) const;
  // A platform yes/no query: 1 means yes; -1 is logged with `error`.
  bool AskPlatform(int (*query)(const ZephShare*), const char* label, const char* error) const;
  bool HasSnapshotMountBelow() const;
  // Steps 7 and 8 of GetPrivilege, and the final mask's code.
  int FilterByUserLists(const std::string& user, uint32_t* mask) const;

  ShareRecord record_;      // null when the share could not be read
  std::string mount_table_;  // the mount table to consult
};

}  // namespace SDK

#endif  // VESTA_SDK_SHARE_H_
