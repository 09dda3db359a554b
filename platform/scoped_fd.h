// Owns one file descriptor of the stand-in and closes it on every path.
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

 private:
  int fd_;  // -1 when none
};

#endif  // VESTA_PLATFORM_SCOPED_FD_H_
