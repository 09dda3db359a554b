// Stand-in for the storage server's shared-folder library.  A shared folder
// NAME exists when FixedPath("/etc/vesta/shares/NAME.conf") does; that
// key=value file describes it (README.md lists the keys).  A share
// with no file does not exist.
//
// Attribute queries answer 1 (yes), 0 (no), or -1 when the file holds a
// value of the wrong form for that key; the calling thread's error record
// (platform/klib.h) then says why.  Calls that fill a buffer answer 0 or -1.
// The file is read once by ZEPHShareGet; queries that take a share name
// read it again.
#ifndef VESTA_PLATFORM_SHARES_H_
#define VESTA_PLATFORM_SHARES_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

// Bits of ZephShare::status.
enum {
  ZEPH_SHARE_STATUS_FORBIDDEN = 0x8,
  ZEPH_SHARE_STATUS_INDEXED = 0x20,
  ZEPH_SHARE_STATUS_READONLY = 0x4000,
  ZEPH_SHARE_STATUS_COLD_STORAGE = 0x20000,
};

// One shared folder's record.  Obtained from ZEPHShareGet, released with
// ZEPHShareFree.
struct ZephShare {
  std::string name;
  std::string path;       // absolute path of the shared folder, normalised (NormalizePath)
  uint32_t status = 0;    // ZEPH_SHARE_STATUS_* bits
  std::string deny_list;  // comma-separated users and "@group"s, no access
  std::string rw_list;    // ... read-write
  std::string ro_list;    // ... read-only
  std::map<std::string, std::string> keys;  // the whole file, for the queries below
};

// The share file of `name`: FixedPath("/etc/vesta/shares/" + name + ".conf").
std::string ZephShareFilePath(const std::string& name);

// Reads share `name` into a new record at *out.  0, or -1 (no such share,
// unreadable or malformed file, bad name) with *out set to nullptr.
int ZEPHShareGet(const char* name, ZephShare** out);
void ZEPHShareFree(ZephShare* share);

int KLIBIsGlusterShare(const ZephShare* share);
int KLIBShareIsEncryptionGet(const ZephShare* share);  // the share is encrypted
int KLIBShareIsEncryptedGet(const ZephShare* share);   // encrypted and locked (key not entered)
int KLIBShareIsForbiddenGet(const ZephShare* share);
int KLIBShareIsReadOnlyGet(const ZephShare* share);
int KLIBShareIsOnlyAcl(const ZephShare* share);
int KLIBShareIsWinShareGet(const ZephShare* share);   // Windows-style ACLs
int KLIBShareIsSkipSmbPermGet(const ZephShare* share);  // privilege checks skipped
int KLIBShareRecycleStatusGet(const ZephShare* share);
int KLIBShareRecycleAdminOnlyStatusGet(const ZephShare* share);

// The directory that holds an encrypted share's lower (ciphertext) files.
int KLIBShareEncryptPathGet(const ZephShare* share, char* buf, size_t size);

// 1 when `registrant` is among those that set the share read-only.
int ZEPHShareAttrReadOnlyIsRegBy(const char* share_name, const char* registrant);
// The share's recycle-bin directory.
int ZEPHShareBinPathGet(const char* share_name, char* buf, size_t size);
// The share's uuid text.
int ZEPHShareUuidGet(const char* share_name, char* buf, size_t size);
// The first `size` bytes of the share's default key file; -1 when the file
// is missing or shorter.  `buf` is not NUL-terminated.
int ZEPHShareEncDefaultKeyFileRead(const char* share_name, char* buf, size_t size);

// The privilege `user` has on the share by its ACL alone, without the
// share's user lists: 4 no access, 1 read-only, 2 read-write; -1 on failure.
int ZEPHShareUserPrivCalc(const char* user, const char* share_name);

#endif  // VESTA_PLATFORM_SHARES_H_
