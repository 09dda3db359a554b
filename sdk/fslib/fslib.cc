#include "sdk/fslib/fslib.h"

#include <dirent.h>
#include <fcntl.h>
#include <mntent.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "log/log.h"
#include "platform/dir_reader.h"
#include "platform/normalize_path.h"

namespace {

constexpr uint32_t kBtrfsMagic = 0x9123683E;  // statfs f_type of btrfs

// ---- paths ----

// The text before the last "/", or "/".
std::string Parent(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

// `dir` + "/" + `name`, without doubling the root's "/".
std::string Join(const std::string& dir, const char* name) {
  return dir == "/" ? std::string("/") + name : dir + "/" + name;
}

// "/a/b" -> {"a", "b"}.  `path` is normalised.
std::vector<std::string> Components(const std::string& path) {
  std::vector<std::string> parts;
  size_t begin = 1;
  while (begin < path.size()) {
    size_t end = path.find('/', begin);
    if (end == std::string::npos) end = path.size();
    parts.push_back(path.substr(begin, end - begin));
    begin = end + 1;
  }
  return parts;
}

// ---- mount points ----

int StatLogged(const FsProbe& probe, const std::string& path, struct stat* st) {
  if (probe.Stat(path, st) == 0) return 0;
  const int err = errno;
  LOG_ERROR("sdk_debug", "stat('%s'): %s (%d)", path.c_str(), std::strerror(err), err);
  return -1;
}

// The mount point of normalised `path`: the highest directory above it
// still on its device.
int FindMountPoint(const std::string& path, const FsProbe& probe, std::string* mount_point) {
  struct stat st;
  if (StatLogged(probe, path, &st) != 0) return -1;
  const dev_t device = st.st_dev;
  std::string current = path;
  while (current != "/") {
    const std::string parent = Parent(current);
    struct stat parent_st;
    if (StatLogged(probe, parent, &parent_st) != 0) return -1;
    if (parent_st.st_dev != device) break;
    current = parent;
  }
  *mount_point = current;
  LOG_DEBUG("sdk_debug", "mount_point: %s", current.c_str());
  return 0;
}

struct MntClose {
  void operator()(FILE* f) const { endmntent(f); }
};

// ---- the property of one kind of volume ----

// M is a btrfs subvolume that the mount table does not list: it lives in
// the volume V above it.
void FillSubvolume(const std::string& m, FileSystemProperty* p) {
  const std::string volume = Parent(m);
  p->fs_type = kFsBtrfs;
  p->support_quota = true;
  p->support_snapshot = true;
  p->is_usb = false;
  p->tmp_path = Join(volume, "@tmp");
  p->zephtify_path = volume;
  p->share_bin_path = volume;
  p->mount_point_path = m;
  p->device_path = "";
}

void FillUsb(const std::string& m, const MountEntry& entry, FileSystemProperty* p) {
  p->fs_type = FsTypeOfName(entry.type);
  p->is_usb = true;
  p->support_quota = false;
  p->support_snapshot = false;
  p->tmp_path = Join(m, "@tmp");
  p->zephtify_path = m;
  p->share_bin_path = Join(m, "@sharebin");
  p->mount_point_path = m;
  p->device_path = "";
}

// The row of a volume type: what it supports and where its directories go.
struct VolumeKind {
  const char* type;
  int fs_type;
  bool quota;
  bool snapshot;
  const char* tmp_dir;     // below M
  bool bin_in_parent;      // recycle bins in M's parent rather than M
  bool device_from_entry;  // device_path is the entry's device
};
constexpr VolumeKind kVolumeKinds[] = {
    {"ecryptfs", kFsEcryptfs, true, false, "@eaDir/@tmp", true, false},
    {"ext4", kFsExt4, true, false, "@tmp", false, true},
    {"ext3", kFsExt3, true, false, "@tmp", false, true},
    {"btrfs", kFsBtrfs, false, true, "@tmp", false, true},
    {"q9fs", kFsQ9fs, false, false, "@eaDir", true, false},
};

const VolumeKind* VolumeKindOf(const std::string& type) {
  for (const VolumeKind& kind : kVolumeKinds) {
    if (type == kind.type) return &kind;
  }
  return nullptr;
}

// An encrypted folder M: where its lower directory lives.
int FillEcryptfsDevice(const std::string& m, const std::string& table, const FsProbe& probe,
                       FileSystemProperty* p) {
  const std::string parent = Parent(m);
  if (!IsOnBtrfs(parent, probe)) {
    p->is_mounted_on_btrfs = false;
    std::string parent_mount;
    MountEntry parent_entry;
    if (FindMountPoint(parent, probe, &parent_mount) != 0 ||
        FindMountEntry(parent_mount, &parent_entry, table) != 1) {
      return -1;
    }
    p->device_path = parent_entry.device;
    return 0;
  }
  p->is_mounted_on_btrfs = true;
  const std::vector<std::string> parts = Components(m);
  p->device_path = parts.size() == 2 ? "/" + parts[0] + "/@" + parts[1] : "";
  return 0;
}

int FillProperty(const std::string& path, const std::string& table, const FsProbe& probe,
                 FileSystemProperty* p) {
  std::string m;
  if (FindMountPoint(NormalizePath(path), probe, &m) != 0) return -1;

  MountEntry entry;
  const int found = FindMountEntry(m, &entry, table);
  if (found < 0) return -1;
  if (found == 0) {
    if (!IsOnBtrfs(m, probe)) return -1;
    FillSubvolume(m, p);
    return 0;
  }

  const std::vector<std::string> parts = Components(m);
  if (parts.size() == 2 && parts[0].compare(0, 9, "volumeUSB") == 0) {
    FillUsb(m, entry, p);
    return 0;
  }

  const VolumeKind* kind = VolumeKindOf(entry.type);
  if (kind == nullptr) return -1;
  p->fs_type = kind->fs_type;
  p->support_quota = kind->quota;
  p->support_snapshot = kind->snapshot;
  p->is_usb = false;
  p->tmp_path = Join(m, kind->tmp_dir);
  p->zephtify_path = m;
  p->share_bin_path = kind->bin_in_parent ? Parent(m) : m;
  p->mount_point_path = m;
  p->device_path = kind->device_from_entry ? entry.device : "";
  if (kind->fs_type == kFsEcryptfs) return FillEcryptfsDevice(m, table, probe, p);
  return 0;
}

// ---- removal ----

int RemoveAt(int parent_fd, const char* name);

// Removes every entry of the directory open at `dir_fd`, which the walk
// takes over and closes.  Subdirectories are entered by descriptor, never
// by a path, so a directory swapped for a symbolic link behind the walk's
// back cannot lead it out of the tree.  A listing that fails is a failure.
int RemoveEntries(int dir_fd) {
  DirReader dir(fdopendir(dir_fd));
  if (!dir.valid()) {
    close(dir_fd);
    return -1;
  }
  int result = 0;
  const char* name = nullptr;
  int listed;
  while ((listed = dir.Next(&name)) == 1) {
    if (RemoveAt(dir.fd(), name) != 0) result = -1;
  }
  return listed < 0 ? -1 : result;
}

// Removes `name` of the directory `parent_fd` (AT_FDCWD for a path): a
// directory with its tree, anything else (a symbolic link included) by
// unlinking the name.
int RemoveAt(int parent_fd, const char* name) {
  const int fd = openat(parent_fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    // Not a directory; or one that cannot be opened, which goes only when empty.
    return unlinkat(parent_fd, name, errno == ENOTDIR || errno == ELOOP ? 0 : AT_REMOVEDIR);
  }
  const int entries = RemoveEntries(fd);
  return unlinkat(parent_fd, name, AT_REMOVEDIR) == 0 ? entries : -1;
}

}  // namespace

// ---- FileSystemProperty ----

int FileSystemProperty::Serialize(PObject* out) const {
  PObject& o = *out;
  o.Clear();
  o["fs_type"] = fs_type;
  o["support_quota"] = support_quota ? 1 : 0;
  o["support_snapshot"] = support_snapshot ? 1 : 0;
  o["is_usb"] = is_usb ? 1 : 0;
  o["is_mounted_on_btrfs"] = is_mounted_on_btrfs ? 1 : 0;
  o["tmp_path"] = tmp_path;
  o["zephtify_path"] = zephtify_path;
  o["share_bin_path"] = share_bin_path;
  o["mount_point_path"] = mount_point_path;
  o["device_path"] = device_path;
  return 0;
}

int FileSystemProperty::Deserialize(const PObject& in) {
  if (!in.IsMap()) return -1;
  fs_type = static_cast<int>(in.Lookup("fs_type").AsInteger());
  support_quota = in.Lookup("support_quota").AsInteger() != 0;
  support_snapshot = in.Lookup("support_snapshot").AsInteger() != 0;
  is_usb = in.Lookup("is_usb").AsInteger() != 0;
  is_mounted_on_btrfs = in.Lookup("is_mounted_on_btrfs").AsInteger() != 0;
  tmp_path = in.Lookup("tmp_path").AsString();
  zephtify_path = in.Lookup("zephtify_path").AsString();
  share_bin_path = in.Lookup("share_bin_path").AsString();
  mount_point_path = in.Lookup("mount_point_path").AsString();
  device_path = in.Lookup("device_path").AsString();
  return 0;
}

bool FileSystemProperty::operator==(const FileSystemProperty& o) const {
  return fs_type == o.fs_type && support_quota == o.support_quota &&
         support_snapshot == o.support_snapshot && is_usb == o.is_usb &&
         is_mounted_on_btrfs == o.is_mounted_on_btrfs && tmp_path == o.tmp_path &&
         zephtify_path == o.zephtify_path && share_bin_path == o.share_bin_path &&
         mount_point_path == o.mount_point_path && device_path == o.device_path;
}

int FsTypeOfName(const std::string& name) {
  if (name == "ext4") return kFsExt4;
  if (name == "btrfs") return kFsBtrfs;
  if (name == "ecryptfs") return kFsEcryptfs;
  if (name == "ext3") return kFsExt3;
  return kFsUnknown;
}

// ---- mount table ----

int ReadMountTable(const std::string& table, std::vector<MountEntry>* out) {
  out->clear();
  std::unique_ptr<FILE, MntClose> file(setmntent(table.c_str(), "r"));
  if (!file) {
    const int err = errno;
    LOG_ERROR("sdk_debug", "setmntent('%s'): %s (%d)", table.c_str(), std::strerror(err), err);
    return -1;
  }
  struct mntent entry;
  char buf[8192];  // one line of the table
  while (getmntent_r(file.get(), &entry, buf, sizeof(buf)) != nullptr) {
    out->push_back(MountEntry{entry.mnt_fsname, entry.mnt_dir, entry.mnt_type});
  }
  return 0;
}

int FindMountEntry(const std::string& mount_point, MountEntry* out, const std::string& table) {
  std::vector<MountEntry> entries;
  if (ReadMountTable(table, &entries) != 0) return -1;
  for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
    if (it->mount_point != mount_point) continue;
    *out = *it;
    LOG_DEBUG("sdk_debug", "mount info: device = %s, type = %s", out->device.c_str(),
              out->type.c_str());
    return 1;
  }
  return 0;
}

// ---- probes ----

int FsProbe::Stat(const std::string& path, struct stat* st) const { return stat(path.c_str(), st); }

int FsProbe::StatFs(const std::string& path, struct statfs* st) const {
  return statfs(path.c_str(), st);
}

bool IsOnBtrfs(const std::string& path) { return IsOnBtrfs(path, FsProbe()); }

bool IsOnBtrfs(const std::string& path, const FsProbe& probe) {
  struct statfs st;
  if (probe.StatFs(path, &st) != 0) {
    const int err = errno;
    LOG_ERROR("sdk_debug", "stat('%s'): %s (%d)", path.c_str(), std::strerror(err), err);
    return false;
  }
  // f_type is a signed word of varying width: compare its low 32 bits.
  return static_cast<uint32_t>(st.f_type) == kBtrfsMagic;
}

int GetFileSystemPropertyOfPath(const std::string& path, FileSystemProperty* out,
                                const std::string& mount_table) {
  return GetFileSystemPropertyOfPath(path, out, mount_table, FsProbe());
}

int GetFileSystemPropertyOfPath(const std::string& path, FileSystemProperty* out,
                                const std::string& mount_table, const FsProbe& probe) {
  FileSystemProperty property;
  if (FillProperty(path, mount_table, probe, &property) != 0) {
    LOG_ERROR("sdk_debug", "Failed to get file system property from '%s'", path.c_str());
    return -1;
  }
  *out = property;
  return 0;
}

// ---- files ----

bool PathExists(const std::string& path) {
  struct stat st;
  return !path.empty() && stat(path.c_str(), &st) == 0;
}

int RemovePath(const std::string& path) { return RemoveAt(AT_FDCWD, path.c_str()); }
