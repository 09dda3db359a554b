#include "net/cat/io.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace cat {

int IOBase::Close() {
  if (fd_ == -1) return 0;
  int rc = ::close(fd_);
  fd_ = -1;
  return rc < 0 ? -1 : 0;
}

ssize_t File::Read(void* buffer, size_t n) {
  ssize_t rc = ::read(fd_, buffer, n);
  return rc < 0 ? -1 : rc;
}

ssize_t File::Write(const void* buffer, size_t n) {
  ssize_t rc = ::write(fd_, buffer, n);
  return rc < 0 ? -1 : rc;
}

int File::Sync() { return ::fsync(fd_) < 0 ? -1 : 0; }

int File::Wait(int /*events*/, int /*seconds*/) { return 1; }

std::unique_ptr<IOBase> File::Clone() const {
  return std::make_unique<File>(fd_);
}

// A 32-bit off_t would cut an offset past 4 GiB down to its low bits.
static_assert(sizeof(off_t) == 8, "off_t must be 64-bit (_FILE_OFFSET_BITS=64 on 32-bit targets)");

int File::Seek(uint64_t offset) {
  if (offset > static_cast<uint64_t>(INT64_MAX)) {
    errno = EOVERFLOW;
    return -1;
  }
  return ::lseek(fd_, static_cast<off_t>(offset), SEEK_SET) < 0 ? -1 : 0;
}

ssize_t Socket::Read(void* buffer, size_t n) {
  ssize_t rc = ::recv(fd_, buffer, n, 0);
  return rc < 0 ? -1 : rc;
}

ssize_t Socket::Write(const void* buffer, size_t n) {
  ssize_t rc = ::send(fd_, buffer, n, 0);
  return rc < 0 ? -1 : rc;
}

int Socket::Wait(int events, int seconds) {
  short wanted = 0;
  if (events & kWaitRead) wanted |= POLLIN | POLLPRI | POLLRDHUP;
  if (events & kWaitWrite) wanted |= POLLOUT;
  struct pollfd pfd = {fd_, wanted, 0};
  int rc = ::poll(&pfd, 1, seconds * 1000);
  if (rc < 0) return -1;
  if (rc == 0) return 0;
  if ((pfd.revents & (POLLERR | POLLNVAL)) || !(pfd.revents & wanted)) {
    errno = EIO;  // not EINTR: the caller must not retry
    return -1;
  }
  return 1;
}

std::unique_ptr<IOBase> Socket::Clone() const {
  return std::make_unique<Socket>(fd_);
}

int Socket::Shutdown() { return ::shutdown(fd_, SHUT_RDWR) < 0 ? -1 : 0; }

int Socket::SetLinger(int seconds) {
  struct linger lg = {1, seconds};
  return ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg)) < 0 ? -1 : 0;
}

int Socket::SetBlocking(bool blocking) {
  int flags = ::fcntl(fd_, F_GETFL);
  if (flags < 0) return -1;
  flags = blocking ? (flags & ~O_NONBLOCK) : (flags | O_NONBLOCK);
  return ::fcntl(fd_, F_SETFL, flags) < 0 ? -1 : 0;
}

}  // namespace cat
