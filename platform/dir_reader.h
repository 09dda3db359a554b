// Reads the names in one directory, telling the end of the listing from a
// failure, which readdir reports alike (a null entry).  A listing that
// failed part way (EIO; EOVERFLOW for a 64-bit directory offset or inode
// number where file offsets are 32-bit) must never pass for the whole
// directory: the stand-in's acl_mask lookup and the recursive removal fail
// instead.  Owns the DIR and closes it.  Any thread; no lock.
#ifndef VESTA_PLATFORM_DIR_READER_H_
#define VESTA_PLATFORM_DIR_READER_H_

#include <dirent.h>

#include <cerrno>
#include <cstring>

class DirReader {
 public:
  // Takes `dir`, from opendir or fdopendir; null when that failed.
  explicit DirReader(DIR* dir) : dir_(dir) {}
  ~DirReader() {
    if (dir_ != nullptr) closedir(dir_);
  }
  DirReader(const DirReader&) = delete;
  DirReader& operator=(const DirReader&) = delete;

  bool valid() const { return dir_ != nullptr; }
  int fd() const { return dirfd(dir_); }

  // 1 and the next name ("." and ".." skipped; valid until the next call),
  // 0 at the end of the directory, -1 when the listing failed (errno).
  int Next(const char** name) {
    for (;;) {
      errno = 0;
      const struct dirent* e = read_entry(dir_);
      if (e == nullptr) return errno == 0 ? 0 : -1;
      if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) {
        *name = e->d_name;
        return 1;
      }
    }
  }

  // The call that reads one entry: readdir, or a test's stand-in that fails.
  static inline struct dirent* (*read_entry)(DIR* dir) = readdir;

 private:
  DIR* dir_;  // null when opening failed
};

#endif  // VESTA_PLATFORM_DIR_READER_H_
