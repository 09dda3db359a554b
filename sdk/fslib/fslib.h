// What lies under a folder: its file system (and so whether quotas and
// snapshots exist), whether it is on a USB disk, where temporary files,
// recycle bins and the file-notification watch go, and its mount point and
// device.  Also the two file helpers that the session and filter code use:
// the existence test and recursive removal.
//
// Called from any thread; keeps no state.  The mount table is read from
// "/proc/mounts" unless a caller names another table, and stat and statfs
// go through an FsProbe that tests may replace, so that every kind of
// volume can be described by a fixture.
#ifndef VESTA_SDK_FSLIB_FSLIB_H_
#define VESTA_SDK_FSLIB_FSLIB_H_

#include <sys/stat.h>
#include <sys/statfs.h>

#include <string>
#include <vector>

#include "stream/PObject.h"

// A value with a map form, exchanged as a PObject.
class PSerializable {
 public:
  virtual ~PSerializable() = default;
  // Writes every field into `out` (made a map).  0 or -1.
  virtual int Serialize(PObject* out) const = 0;
  // Reads every field back from a map; absent members read as 0 or "".
  // 0, or -1 when `in` is no map (the fields are then unchanged).
  virtual int Deserialize(const PObject& in) = 0;
};

// File-system types, as FileSystemProperty::fs_type holds them.
enum FsType {
  kFsUnknown = 0,
  kFsExt4 = 1,
  kFsBtrfs = 2,
  kFsEcryptfs = 3,
  kFsExt3 = 4,
  kFsQ9fs = 5,
};

// The facts of one folder's file system.  Filled by
// GetFileSystemPropertyOfPath; read by the shared-folder code and sent to
// the sync daemon in its map form (keys = field names).
struct FileSystemProperty : public PSerializable {
  int fs_type = kFsUnknown;
  bool support_quota = false;
  bool support_snapshot = false;
  bool is_usb = false;
  bool is_mounted_on_btrfs = false;  // lower file system of an encrypted folder is btrfs
  std::string tmp_path;              // directory for temporary files
  std::string zephtify_path;         // directory the file-notification service watches
  std::string share_bin_path;        // directory under which recycle bins live
  std::string mount_point_path;
  std::string device_path;  // "" where not known

  int Serialize(PObject* out) const override;
  int Deserialize(const PObject& in) override;

  bool operator==(const FileSystemProperty& o) const;
  bool operator!=(const FileSystemProperty& o) const { return !(*this == o); }
};

// "ext4" 1, "btrfs" 2, "ecryptfs" 3, "ext3" 4, anything else 0.  (q9fs is
// recognised by GetFileSystemPropertyOfPath alone.)
int FsTypeOfName(const std::string& name);

constexpr char kProcMounts[] = "/proc/mounts";

// One line of a mount table.
struct MountEntry {
  std::string device;
  std::string mount_point;
  std::string type;

  bool operator==(const MountEntry& o) const {
    return device == o.device && mount_point == o.mount_point && type == o.type;
  }
};

// Every entry of the mount table at `table` (octal escapes such as "\040"
// decoded), in order.  0, or -1 when it cannot be read.
int ReadMountTable(const std::string& table, std::vector<MountEntry>* out);

// The entry mounted at exactly `mount_point` (the last one when several
// are stacked there).  1 found, 0 not found, -1 the table cannot be read.
int FindMountEntry(const std::string& mount_point, MountEntry* out,
                   const std::string& table = kProcMounts);

// How the functions below look at the file system.  The default answers
// with stat(2) and statfs(2).
class FsProbe {
 public:
  virtual ~FsProbe() = default;
  virtual int Stat(const std::string& path, struct stat* st) const;
  virtual int StatFs(const std::string& path, struct statfs* st) const;
};

// statfs reports the btrfs magic number for `path`.  A statfs failure is
// logged and gives false.
bool IsOnBtrfs(const std::string& path);
bool IsOnBtrfs(const std::string& path, const FsProbe& probe);

// Fills `out` for the folder (or file) `path`.  0, or -1 when the path
// cannot be examined or lies on a file system the daemon cannot sync
// (logged).
int GetFileSystemPropertyOfPath(const std::string& path, FileSystemProperty* out,
                                const std::string& mount_table = kProcMounts);
int GetFileSystemPropertyOfPath(const std::string& path, FileSystemProperty* out,
                                const std::string& mount_table, const FsProbe& probe);

// `path` names something that exists (stat succeeds; links are followed).
// "" does not exist.
bool PathExists(const std::string& path);

// Removes `path`: a directory with everything below it, entries first
// (symbolic links are removed, never followed, also when one takes a
// directory's place during the walk); anything else is unlinked.  Holds one
// descriptor per directory level being walked.  0 when all is gone; -1 when
// something could not be removed (as much as possible is removed all the
// same).
int RemovePath(const std::string& path);

#endif  // VESTA_SDK_FSLIB_FSLIB_H_
