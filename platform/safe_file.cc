#include "platform/safe_file.h"

#include <assert.h>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>

#include "platform/scoped_fd.h"

namespace {

// Attempts at a temporary name that nobody holds yet.
constexpr int kTemporaryAttempts = 100;

bool IsName(const std::string& name) {
  return !name.empty() && name.find('/') == std::string::npos;
}

// `name` + "." + six characters drawn from 62.
std::string TemporaryName(const std::string& name) {
  static const char kChars[] =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  static std::atomic<uint32_t> counter{0};
  unsigned char random[6] = {0};
  if (getrandom(random, sizeof(random), GRND_NONBLOCK) != static_cast<ssize_t>(sizeof(random))) {
    // Kernels before 3.17 have no getrandom: a name that only this process
    // makes now will do, since O_EXCL settles any clash.
    const uint64_t mix = (static_cast<uint64_t>(getpid()) << 32) ^
                         static_cast<uint64_t>(time(nullptr)) ^ (counter++ * 2654435761u);
    for (size_t i = 0; i < sizeof(random); ++i) random[i] = static_cast<unsigned char>(mix >> (8 * i));
  }
  std::string temp = name + ".";
  for (unsigned char r : random) temp += kChars[r % (sizeof(kChars) - 1)];
  return temp;
}

bool WriteAll(int fd, const std::string& content) {
  size_t done = 0;
  while (done < content.size()) {
    const ssize_t n = write(fd, content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Keeps `fd` only when it is a regular file, and takes O_NONBLOCK off it
// again (it kept the open from waiting on a FIFO).
int KeepRegular(int fd) {
  ScopedFd guard(fd);
  struct stat st;
  if (fstat(fd, &st) != 0) return -1;
  if (!S_ISREG(st.st_mode)) {
    errno = EINVAL;
    return -1;
  }
  const int flags = fcntl(fd, F_GETFL);
  if (flags < 0 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) return -1;
  return guard.release();
}

}  // namespace

int FileDir::OpenDir(const std::string& dir) {
  Close();
  fd_ = open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  return fd_ >= 0 ? 0 : -1;
}

void FileDir::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

int FileDir::Open(const std::string& name, int flags, mode_t create_mode) const {
  assert(IsName(name));
  const int base = (flags & ~(O_CREAT | O_EXCL)) | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  // A file that appears between the two opens is opened on the next turn.
  for (int turn = 0; turn < 2; ++turn) {
    int fd = openat(fd_, name.c_str(), base);
    if (fd >= 0) return KeepRegular(fd);
    if (errno != ENOENT || create_mode == kNoCreate) return -1;
    // O_EXCL never follows a link: a dangling one gives EEXIST, and the
    // next turn refuses it.
    fd = openat(fd_, name.c_str(), base | O_CREAT | O_EXCL, create_mode);
    if (fd >= 0) {
      if (fchmod(fd, create_mode) != 0) {
        const int err = errno;
        close(fd);
        errno = err;
        return -1;
      }
      return KeepRegular(fd);
    }
    if (errno != EEXIST) return -1;
  }
  return -1;
}

int FileDir::Replace(const std::string& name, const std::string& content, mode_t mode) const {
  assert(IsName(name));
  struct stat st;
  if (fstatat(fd_, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode)) {
    errno = ELOOP;
    return -1;
  }
  std::string temp;
  int fd = -1;
  for (int attempt = 0; fd < 0 && attempt < kTemporaryAttempts; ++attempt) {
    temp = TemporaryName(name);
    fd = openat(fd_, temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0 && errno != EEXIST) return -1;
  }
  if (fd < 0) return -1;
  // A link planted at `name` after the check above is replaced by the
  // rename, not written through.
  const bool written = fchmod(fd, mode) == 0 && WriteAll(fd, content) && fsync(fd) == 0;
  int err = errno;
  const bool closed = close(fd) == 0;
  if (written && !closed) err = errno;
  if (written && closed) {
    if (renameat(fd_, temp.c_str(), fd_, name.c_str()) == 0) return 0;
    err = errno;
  }
  unlinkat(fd_, temp.c_str(), 0);
  errno = err;
  return -1;
}

int FileDir::Rename(const std::string& from, const std::string& to) const {
  return renameat(fd_, from.c_str(), fd_, to.c_str());
}

int FileDir::Remove(const std::string& name) const { return unlinkat(fd_, name.c_str(), 0); }

void SplitPath(const std::string& path, std::string* dir, std::string* name) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    dir->clear();
    *name = path;
    return;
  }
  *dir = slash == 0 ? "/" : path.substr(0, slash);
  *name = path.substr(slash + 1);
}

namespace {

// Opens the directory of `path` into `dir` and sets `name`.  0 or -1.
int OpenDirOf(const std::string& path, FileDir* dir, std::string* name) {
  std::string dir_path;
  SplitPath(path, &dir_path, name);
  if (!IsName(*name)) {
    errno = EINVAL;  // a path ending in "/"
    return -1;
  }
  return dir->OpenDir(dir_path);
}

}  // namespace

int OpenFileNoFollow(const std::string& path, int flags, mode_t create_mode) {
  FileDir dir;
  std::string name;
  if (OpenDirOf(path, &dir, &name) != 0) return -1;
  return dir.Open(name, flags, create_mode);
}

int ReplaceFile(const std::string& path, const std::string& content, mode_t mode) {
  FileDir dir;
  std::string name;
  if (OpenDirOf(path, &dir, &name) != 0) return -1;
  return dir.Replace(name, content, mode);
}
