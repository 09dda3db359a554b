#include "platform/shares.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "log/key_value_file.h"
#include "log/log.h"
#include "platform/fixed_path.h"
#include "platform/flags.h"
#include "platform/holders.h"
#include "platform/klib.h"
#include "platform/normalize_path.h"
#include "platform/scoped_fd.h"
#include "platform/users.h"

namespace {

constexpr char kSharesDir[] = "/etc/vesta/shares/";

// A share name is one file name: no "/", not "." or "..", not empty.
bool IsValidName(const char* name) {
  return name != nullptr && name[0] != '\0' && std::strchr(name, '/') == nullptr &&
         std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0;
}

// Each status bit and the yes/no key that sets it.
struct StatusKey {
  uint32_t bit;
  const char* key;
};
constexpr StatusKey kStatusKeys[] = {
    {ZEPH_SHARE_STATUS_FORBIDDEN, "forbidden"},
    {ZEPH_SHARE_STATUS_INDEXED, "indexed"},
    {ZEPH_SHARE_STATUS_READONLY, "readonly"},
    {ZEPH_SHARE_STATUS_COLD_STORAGE, "cold_storage"},
};

int LoadShare(const char* name, ZephShare* share) {
  if (!IsValidName(name)) {
    KLIB_SET_ERR(KLIB_ERR_BAD_PARAMETER);
    return -1;
  }
  const std::string file = ZephShareFilePath(name);
  if (access(file.c_str(), F_OK) != 0) {
    KLIB_SET_ERR(KLIB_ERR_NO_SUCH_SHARE);
    return -1;
  }
  if (ReadKeyValueFile(file, &share->keys, KeyValueRules::kRelaxed) != 0) {
    LOG_ERROR("platform", "share file '%s' cannot be read or is malformed", file.c_str());
    KLIB_SET_ERR(KLIB_ERR_FILE);
    return -1;
  }
  share->name = name;
  share->path = KlibValueOf(share->keys, "path");
  if (share->path.empty() || share->path[0] != '/') {
    LOG_ERROR("platform", "share file '%s' has no absolute path", file.c_str());
    KLIB_SET_ERR(KLIB_ERR_BAD_VALUE);
    return -1;
  }
  // The encryption path, the snapshot search and the acl_mask lookup work
  // on the path's text: one folder must have one text.
  share->path = NormalizePath(share->path);
  share->status = 0;
  for (const StatusKey& s : kStatusKeys) {
    int flag = KlibFlagOf(share->keys, s.key);
    if (flag < 0) return -1;
    if (flag == 1) share->status |= s.bit;
  }
  share->deny_list = KlibValueOf(share->keys, "deny_users");
  share->rw_list = KlibValueOf(share->keys, "rw_users");
  share->ro_list = KlibValueOf(share->keys, "ro_users");
  return 0;
}

int Flag(const ZephShare* share, const char* key) {
  if (share == nullptr) {
    KLIB_SET_ERR(KLIB_ERR_BAD_PARAMETER);
    return -1;
  }
  return KlibFlagOf(share->keys, key);
}

int CopyOut(const std::string& value, char* buf, size_t size) {
  if (buf == nullptr || value.size() >= size) {
    KLIB_SET_ERR(buf == nullptr ? KLIB_ERR_BAD_PARAMETER : KLIB_ERR_BUFFER_TOO_SMALL);
    return -1;
  }
  std::memcpy(buf, value.c_str(), value.size() + 1);
  return 0;
}

// "/volume1/photo" -> "/volume1/@photo"; "" for a path of another shape.
std::string DefaultEncryptPath(const std::string& path) {
  size_t slash = path.find('/', 1);
  if (slash == std::string::npos || slash + 1 >= path.size()) return "";
  if (path.find('/', slash + 1) != std::string::npos) return "";
  return path.substr(0, slash + 1) + "@" + path.substr(slash + 1);
}

}  // namespace

std::string ZephShareFilePath(const std::string& name) {
  return FixedPath(kSharesDir + name + ".conf");
}

int ZEPHShareGet(const char* name, ZephShare** out) {
  if (out == nullptr) {
    KLIB_SET_ERR(KLIB_ERR_BAD_PARAMETER);
    return -1;
  }
  *out = nullptr;
  ShareRecord share(new (std::nothrow) ZephShare);
  if (!share) {
    KLIB_SET_ERR(KLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
  if (LoadShare(name, share.get()) != 0) return -1;
  *out = share.release();
  return 0;
}

void ZEPHShareFree(ZephShare* share) { delete share; }

int KLIBIsGlusterShare(const ZephShare* share) { return Flag(share, "gluster"); }
int KLIBShareIsEncryptionGet(const ZephShare* share) { return Flag(share, "encrypted"); }
int KLIBShareIsForbiddenGet(const ZephShare* share) { return Flag(share, "forbidden"); }
int KLIBShareIsReadOnlyGet(const ZephShare* share) { return Flag(share, "readonly"); }
int KLIBShareIsOnlyAcl(const ZephShare* share) { return Flag(share, "acl_only"); }
int KLIBShareIsWinShareGet(const ZephShare* share) { return Flag(share, "windows_acl"); }
int KLIBShareIsSkipSmbPermGet(const ZephShare* share) { return Flag(share, "skip_privilege_check"); }
int KLIBShareRecycleStatusGet(const ZephShare* share) { return Flag(share, "recycle_bin"); }
int KLIBShareRecycleAdminOnlyStatusGet(const ZephShare* share) {
  return Flag(share, "recycle_bin_admin_only");
}

int KLIBShareIsEncryptedGet(const ZephShare* share) {
  int encrypted = Flag(share, "encrypted");
  if (encrypted <= 0) return encrypted;
  return Flag(share, "locked");
}

int KLIBShareEncryptPathGet(const ZephShare* share, char* buf, size_t size) {
  if (share == nullptr) {
    KLIB_SET_ERR(KLIB_ERR_BAD_PARAMETER);
    return -1;
  }
  std::string path = KlibValueOf(share->keys, "encryption_path");
  if (path.empty()) path = DefaultEncryptPath(share->path);
  if (path.empty()) {
    KLIB_SET_ERR(KLIB_ERR_NO_SUCH_KEY);
    return -1;
  }
  return CopyOut(path, buf, size);
}

int ZEPHShareAttrReadOnlyIsRegBy(const char* share_name, const char* registrant) {
  ZephShare share;
  if (registrant == nullptr) {
    KLIB_SET_ERR(KLIB_ERR_BAD_PARAMETER);
    return -1;
  }
  if (LoadShare(share_name, &share) != 0) return -1;
  const std::string list = "," + KlibValueOf(share.keys, "readonly_registered_by") + ",";
  return list.find(std::string(",") + registrant + ",") != std::string::npos ? 1 : 0;
}

int ZEPHShareBinPathGet(const char* share_name, char* buf, size_t size) {
  ZephShare share;
  if (LoadShare(share_name, &share) != 0) return -1;
  std::string path = KlibValueOf(share.keys, "recycle_bin_path");
  if (path.empty()) path = share.path + "/#recycle";
  return CopyOut(path, buf, size);
}

int ZEPHShareUuidGet(const char* share_name, char* buf, size_t size) {
  ZephShare share;
  if (LoadShare(share_name, &share) != 0) return -1;
  const std::string uuid = KlibValueOf(share.keys, "uuid");
  if (uuid.empty()) {
    KLIB_SET_ERR(KLIB_ERR_NO_SUCH_KEY);
    return -1;
  }
  return CopyOut(uuid, buf, size);
}

int ZEPHShareEncDefaultKeyFileRead(const char* share_name, char* buf, size_t size) {
  ZephShare share;
  if (buf == nullptr) {
    KLIB_SET_ERR(KLIB_ERR_BAD_PARAMETER);
    return -1;
  }
  if (LoadShare(share_name, &share) != 0) return -1;
  const std::string key_file = KlibValueOf(share.keys, "default_key_file");
  if (key_file.empty()) {
    KLIB_SET_ERR(KLIB_ERR_NO_SUCH_KEY);
    return -1;
  }
  ScopedFd fd(open(key_file.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) {
    KLIB_SET_ERR(KLIB_ERR_FILE);
    return -1;
  }
  size_t got = 0;
  while (got < size) {
    ssize_t n = read(fd.get(), buf + got, size - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  if (got != size) {
    KLIB_SET_ERR(KLIB_ERR_FILE);
    return -1;
  }
  return 0;
}

int ZEPHShareUserPrivCalc(const char* user, const char* share_name) {
  ZephShare share;
  if (LoadShare(share_name, &share) != 0) return -1;
  if (share.status & ZEPH_SHARE_STATUS_FORBIDDEN) return 4;
  uint32_t mask = 0;
  if (ZEPHACLPermCalc(share.path.c_str(), user, &mask) != 0) return -1;
  if ((mask & ZEPH_ACL_WRITE) == ZEPH_ACL_WRITE) return 2;
  if ((mask & ZEPH_ACL_READ) == ZEPH_ACL_READ) return 1;
  return 4;
}
