#include "platform/users.h"

#include <dirent.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "log/log.h"
#include "platform/dir_reader.h"
#include "platform/fixed_path.h"
#include "platform/flags.h"
#include "platform/holders.h"
#include "platform/shares.h"
#include "platform/utf8_case.h"

namespace {

constexpr char kSharesDir[] = "/etc/vesta/shares";
constexpr size_t kLookupBufferSize = 16384;  // plenty for one passwd or group entry

struct User {
  uid_t uid = 0;
  gid_t gid = 0;
};

int LookUpUser(const char* name, User* user) {
  if (name == nullptr || name[0] == '\0') {
    KLIB_SET_ERR(KLIB_ERR_BAD_PARAMETER);
    return -1;
  }
  struct passwd entry;
  struct passwd* found = nullptr;
  std::vector<char> buf(kLookupBufferSize);
  if (getpwnam_r(name, &entry, buf.data(), buf.size(), &found) != 0 || found == nullptr) {
    KLIB_SET_ERR(KLIB_ERR_NO_SUCH_USER);
    return -1;
  }
  user->uid = entry.pw_uid;
  user->gid = entry.pw_gid;
  return 0;
}

// Every group id of `name`, its primary group first.
int GroupIdsOf(const char* name, gid_t primary, std::vector<gid_t>* gids) {
  int count = 64;
  for (;;) {
    gids->assign(static_cast<size_t>(count), 0);
    int n = count;
    if (getgrouplist(name, primary, gids->data(), &n) >= 0) {
      gids->resize(static_cast<size_t>(n));
      return 0;
    }
    if (n <= count) {  // no growth asked for: a real failure
      KLIB_SET_ERR(KLIB_ERR_SYSTEM);
      return -1;
    }
    count = n;
  }
}

bool GroupIdByName(const char* group, gid_t* gid) {
  struct group entry;
  struct group* found = nullptr;
  std::vector<char> buf(kLookupBufferSize);
  if (getgrnam_r(group, &entry, buf.data(), buf.size(), &found) != 0 || found == nullptr) {
    return false;
  }
  *gid = entry.gr_gid;
  return true;
}

// The group's name, or its number in decimal when it has no entry.
std::string GroupNameOf(gid_t gid) {
  struct group entry;
  struct group* found = nullptr;
  std::vector<char> buf(kLookupBufferSize);
  if (getgrgid_r(gid, &entry, buf.data(), buf.size(), &found) != 0 || found == nullptr) {
    return std::to_string(gid);
  }
  return entry.gr_name;
}

// Finds `user` in an "acl_mask" list ("alice:0x1fff,bob:0x75").
bool MaskInList(const std::string& list, const std::string& user, uint32_t* mask) {
  size_t begin = 0;
  while (begin <= list.size()) {
    size_t end = list.find(',', begin);
    if (end == std::string::npos) end = list.size();
    const std::string item = list.substr(begin, end - begin);
    begin = end + 1;
    size_t colon = item.rfind(':');
    if (colon == std::string::npos || !Utf8CaseEqual(user.c_str(), item.c_str(), colon)) continue;
    const std::string text = item.substr(colon + 1);
    char* stop = nullptr;
    errno = 0;
    unsigned long value = std::strtoul(text.c_str(), &stop, 0);
    if (text.empty() || *stop != '\0' || errno != 0 || value > ZEPH_ACL_FULL) {
      LOG_ERROR("platform", "acl_mask entry '%s' is not a mask; ignored", item.c_str());
      continue;
    }
    *mask = static_cast<uint32_t>(value);
    return true;
  }
  return false;
}

// A mask named for `user` by a share whose path or encryption path is
// `path`: 1 and the mask, 0 when no share names one, -1 when the shares
// could not all be read, since a mask left unread would let the folder's
// own mode bits grant more than the mask allows.
int ExplicitMask(const std::string& path, const std::string& user, uint32_t* mask) {
  const std::string shares_dir = FixedPath(kSharesDir);
  DirReader dir(opendir(shares_dir.c_str()));
  if (!dir.valid() && errno == ENOENT) return 0;  // no shared folders at all
  static const std::string kSuffix = ".conf";
  const char* name = nullptr;
  int listed = -1;
  while (dir.valid() && (listed = dir.Next(&name)) == 1) {
    std::string file = name;
    if (file.size() <= kSuffix.size() ||
        file.compare(file.size() - kSuffix.size(), kSuffix.size(), kSuffix) != 0) {
      continue;
    }
    file.resize(file.size() - kSuffix.size());
    ZephShare* raw = nullptr;
    if (ZEPHShareGet(file.c_str(), &raw) != 0) continue;
    ShareRecord share(raw);
    char enc_path[4096] = "";
    if (share->path != path &&
        (KLIBShareEncryptPathGet(share.get(), enc_path, sizeof(enc_path)) != 0 || path != enc_path)) {
      continue;
    }
    if (MaskInList(KlibValueOf(share->keys, "acl_mask"), user, mask)) return 1;
  }
  if (listed < 0) {
    const int err = errno;
    LOG_ERROR("platform", "cannot list the shared folders in '%s': %s (%d)", shares_dir.c_str(),
              std::strerror(err), err);
  }
  return listed;
}

uint32_t MaskOfModeBits(mode_t rwx) {
  uint32_t mask = 0;
  if (rwx & 4) mask |= ZEPH_ACL_MODE_READ;
  if (rwx & 2) mask |= ZEPH_ACL_WRITE;
  return mask;
}

}  // namespace

int KLIBGroupIsAdminGroupMem(const char* user) {
  User u;
  if (LookUpUser(user, &u) != 0) return -1;
  gid_t admin_gid = 0;
  if (!GroupIdByName(kAdministratorsGroup, &admin_gid)) return 0;
  std::vector<gid_t> gids;
  if (GroupIdsOf(user, u.gid, &gids) != 0) return -1;
  return std::find(gids.begin(), gids.end(), admin_gid) != gids.end() ? 1 : 0;
}

int KLIBGroupInfoListGet(const char* user, KlibSzList** out) {
  if (out == nullptr) {
    KLIB_SET_ERR(KLIB_ERR_BAD_PARAMETER);
    return -1;
  }
  *out = nullptr;
  User u;
  if (LookUpUser(user, &u) != 0) return -1;
  std::vector<gid_t> gids;
  if (GroupIdsOf(user, u.gid, &gids) != 0) return -1;
  SzList list(new (std::nothrow) KlibSzList);
  if (!list) {
    KLIB_SET_ERR(KLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
  for (gid_t gid : gids) list->items.push_back(GroupNameOf(gid));
  *out = list.release();
  return 0;
}

int ZEPHACLPermCalc(const char* path, const char* user, uint32_t* mask) {
  if (path == nullptr || mask == nullptr) {
    KLIB_SET_ERR(KLIB_ERR_BAD_PARAMETER);
    return -1;
  }
  User u;
  if (LookUpUser(user, &u) != 0) return -1;
  struct stat st;
  if (stat(path, &st) != 0) {
    KLIB_SET_ERR(KLIB_ERR_SYSTEM);
    return -1;
  }
  const int named = ExplicitMask(path, user, mask);
  if (named != 0) {
    if (named < 0) KLIB_SET_ERR(KLIB_ERR_SYSTEM);
    return named < 0 ? -1 : 0;
  }
  if (st.st_uid == u.uid) {
    *mask = ZEPH_ACL_FULL;
    return 0;
  }
  std::vector<gid_t> gids;
  if (GroupIdsOf(user, u.gid, &gids) != 0) return -1;
  const bool in_group = std::find(gids.begin(), gids.end(), st.st_gid) != gids.end();
  *mask = MaskOfModeBits(in_group ? (st.st_mode >> 3) & 7 : st.st_mode & 7);
  return 0;
}
