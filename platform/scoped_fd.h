// Owns one file descriptor and closes it on every path, unless it is
// released to a new owner.  Used by the stand-in's files and the sockets of
// the connect helpers.
#ifndef VESTA_PLATFORM_SCOPED_FD_H_
#define VESTA_PLATFORM_SCOPED_FD_H_

#include <unistd.h>

class ScopedFd {
 public:
  explicit ScopedFd(int fd) : fd_(fd) {}
  ~ScopedFd() {
    if (fd_ >= 0) close(fd_);
  }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // Gives the descriptor up without closing it.
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;  // -1 when none
};

#endif  // VESTA_PLATFORM_SCOPED_FD_H_
