// Raw descriptors under the buffered streams of the `cat` I/O library: a
// file and a socket, each behind the IOBase interface so that a stream can
// be put on either -- or, in tests, on a fake that fails on demand (EINTR,
// short writes, ENOSPC, a peer that never answers).
//
// An IOBase does not own its descriptor: Clone() makes a second object on
// the same number, and only an explicit Close() ends it.  Whoever created
// the descriptor (Channel keeps a Socket for that) closes it exactly once.
//
// Read and Write return the count moved or -1 with errno set by the system
// call, so callers can tell EINTR, ENOSPC, EDQUOT and EFBIG apart.  Objects
// are used by one thread at a time.
#ifndef VESTA_NET_CAT_IO_H_
#define VESTA_NET_CAT_IO_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <memory>

namespace cat {

// Readiness wanted from IOBase::Wait.
enum WaitEvents {
  kWaitWrite = 1 << 1,
  kWaitRead = 1 << 2,
};

class IOBase {
 public:
  explicit IOBase(int fd) : fd_(fd) {}
  virtual ~IOBase() = default;
  IOBase(const IOBase&) = delete;
  IOBase& operator=(const IOBase&) = delete;

  virtual ssize_t Read(void* buffer, size_t n) = 0;
  virtual ssize_t Write(const void* buffer, size_t n) = 0;
  virtual int Sync() = 0;
  // Closes the descriptor and forgets it (-1).  0, or -1 when close failed.
  virtual int Close();
  // Waits up to `seconds` for the readiness in `events` (WaitEvents).
  // 1 ready, 0 time-out, -1 failure (errno EINTR when interrupted).
  virtual int Wait(int events, int seconds) = 0;
  // A new object of the same kind on the same descriptor.
  virtual std::unique_ptr<IOBase> Clone() const = 0;

  int fd() const { return fd_; }
  void set_fd(int fd) { fd_ = fd; }
  bool valid() const { return fd_ != -1; }

 protected:
  int fd_;  // the descriptor, -1 when none
};

// A regular file (or anything read and written with read/write): always
// ready, so waits return at once.
class File : public IOBase {
 public:
  explicit File(int fd = -1) : IOBase(fd) {}

  ssize_t Read(void* buffer, size_t n) override;
  ssize_t Write(const void* buffer, size_t n) override;
  int Sync() override;
  int Wait(int events, int seconds) override;
  std::unique_ptr<IOBase> Clone() const override;

  // Positions the file at the absolute `offset`.  0, or -1 (errno set).
  virtual int Seek(uint64_t offset);
};

// A connected stream socket.
class Socket : public IOBase {
 public:
  explicit Socket(int fd = -1) : IOBase(fd) {}

  ssize_t Read(void* buffer, size_t n) override;
  ssize_t Write(const void* buffer, size_t n) override;
  int Sync() override { return 0; }
  // Polls for kWaitRead (POLLIN, POLLPRI, POLLRDHUP) and/or kWaitWrite
  // (POLLOUT).  -1 when POLLERR or POLLNVAL is reported or the wanted
  // condition is absent from what poll reports.
  int Wait(int events, int seconds) override;
  std::unique_ptr<IOBase> Clone() const override;

  // Shuts both directions down; 0 or -1.
  int Shutdown();
  // SO_LINGER on with `seconds`; 0 or -1.
  int SetLinger(int seconds);
  // Clears or sets O_NONBLOCK; 0 or -1.
  int SetBlocking(bool blocking);
};

}  // namespace cat

#endif  // VESTA_NET_CAT_IO_H_
