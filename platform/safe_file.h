// The one way this root daemon writes a file that it finds by path: it
// opens the file's directory once and then opens, creates, replaces,
// renames and removes by name relative to it, never through a symbolic
// link at the name itself.
//
// Users: the pid file (monitor/daemon.cc), the log file with its rotation
// and its lock file (log/logger.cc), the service settings lock file
// (config/setting.cc), the notifications file (platform/notify.cc) and a
// session's filter file (db/filter-db-util.cc).  ScopedUmask gives the
// monitor's socket its mode as bind creates it (ipc/ipc.cc).
//
// Refused files (a limit of this layer): a symbolic link at the name is
// never followed, replaced or written through; the call fails with errno
// ELOOP and the link stays.  Open also refuses anything but a regular file
// (a FIFO, a device, a directory: errno EINVAL), without blocking on it.
// Links in the directory part of a path are followed, once, when the
// directory is opened (/var/run is commonly a link to /run); a directory
// swapped above it later cannot redirect a name opened relative to it.
//
// A file created here gets exactly the mode asked for, whatever the umask;
// an existing file keeps its own mode.  Descriptors are close-on-exec.
// Results are 0 (or a descriptor) on success and -1 with errno set on
// failure.  Every call is thread-safe except ScopedUmask.
#ifndef VESTA_PLATFORM_SAFE_FILE_H_
#define VESTA_PLATFORM_SAFE_FILE_H_

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

// An open directory and the files named in it.  Names are single path
// components (no "/").  Owns its descriptor.
class FileDir {
 public:
  // As create_mode of Open: open only an existing file.
  static constexpr mode_t kNoCreate = static_cast<mode_t>(-1);

  FileDir() = default;
  ~FileDir() { Close(); }
  FileDir(const FileDir&) = delete;
  FileDir& operator=(const FileDir&) = delete;

  // Opens the directory `dir` ("" is the working directory), closing the
  // one held before.  0 or -1.
  int OpenDir(const std::string& dir);
  void Close();
  bool IsOpen() const { return fd_ >= 0; }

  // Opens `name` with `flags` (O_WRONLY or O_RDWR, with O_APPEND, O_TRUNC,
  // O_SYNC as wanted; O_CREAT and O_EXCL are ignored).  A missing file is
  // created with exactly `create_mode`, unless that is kNoCreate.  The
  // descriptor, owned by the caller, or -1.
  int Open(const std::string& name, int flags, mode_t create_mode) const;
  // Writes `content` into a new temporary file beside `name` (name plus
  // "." and six random characters), gives it exactly `mode`, syncs it and
  // renames it over `name`: whatever happens, `name` holds the old content
  // or the new, never a part.  The temporary is removed on failure.
  int Replace(const std::string& name, const std::string& content, mode_t mode) const;
  // renameat and unlinkat within the directory: a link at either name is
  // moved or removed itself, never followed.
  int Rename(const std::string& from, const std::string& to) const;
  int Remove(const std::string& name) const;

 private:
  int fd_ = -1;  // the open directory; -1 while none
};

// Splits `path` at its last "/" into its directory ("" when it has none,
// "/" for a file at the root) and its name.
void SplitPath(const std::string& path, std::string* dir, std::string* name);

// FileDir::Open and FileDir::Replace on a path: its directory is opened for
// the one call.
int OpenFileNoFollow(const std::string& path, int flags, mode_t create_mode);
int ReplaceFile(const std::string& path, const std::string& content, mode_t mode);

// Sets the process's file-creation mask for the life of the object.  The
// mask is process-wide: use it only while no other thread may create a
// file (the monitor binds its socket before it starts any thread).
class ScopedUmask {
 public:
  explicit ScopedUmask(mode_t mask) : old_(umask(mask)) {}
  ~ScopedUmask() { umask(old_); }
  ScopedUmask(const ScopedUmask&) = delete;
  ScopedUmask& operator=(const ScopedUmask&) = delete;

 private:
  mode_t old_;  // the mask to put back
};

#endif  // VESTA_PLATFORM_SAFE_FILE_H_
