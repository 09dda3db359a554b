#include "ipc/ipc.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

#include "log/log.h"
#include "net/cat/controller.h"
#include "platform/safe_file.h"
#include "stream/PObject.h"
#include "stream/stream.h"

namespace {

const char kComponent[] = "ipc";

// Processes of every user connect to the socket: bind creates its file
// with mode 0777 less the umask, so this mask gives it 0666 from the start.
// A chmod by path afterwards could be made to land on another file.
constexpr mode_t kSocketUmask = 0111;

// Longest path a socket address holds, leaving its terminating zero.
constexpr size_t kMaxSocketPath = sizeof(sockaddr_un::sun_path) - 1;  // 107

// Logs the failed socket call `what` with the error text and number.
void LogSocketError(const char* what) {
  int err = errno;
  LOG_ERROR(kComponent, "%s: %s (%d)", what, strerror(err), err);
}

void ShutdownAndClose(int fd) {
  shutdown(fd, SHUT_RDWR);
  close(fd);
}

// Closes a bound socket and removes the file it reports as its name.
void CloseBound(int fd) {
  sockaddr_un addr;
  memset(&addr, 0, sizeof(addr));
  socklen_t len = sizeof(addr);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    int err = errno;
    LOG_ERROR(kComponent, "getsockname: %s (%d).", strerror(err), err);
    ShutdownAndClose(fd);
    return;
  }
  ShutdownAndClose(fd);
  std::string bound(addr.sun_path, strnlen(addr.sun_path, sizeof(addr.sun_path)));
  if (!bound.empty()) unlink(bound.c_str());
}

}  // namespace

// ---- IPCServer ----

IPCServer::~IPCServer() { Close(); }

int IPCServer::Listen(const std::string& path, int backlog) {
  if (fd_ >= 0 || path.empty()) return -1;
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    LogSocketError("socket");
    return -1;
  }

  sockaddr_un addr;
  memset(&addr, 0, sizeof(addr));
  addr.sun_family = AF_UNIX;
  const size_t n = std::min(path.size(), kMaxSocketPath);
  memcpy(addr.sun_path, path.data(), n);
  // A stale socket of an earlier run, under either name.
  unlink(path.c_str());
  if (n < path.size()) unlink(addr.sun_path);

  const int on = 1;
  const char* failed = nullptr;
  if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0) {
    failed = "setsockopt";
  } else {
    ScopedUmask socket_mode(kSocketUmask);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) failed = "bind";
  }
  if (failed != nullptr) {
    LogSocketError(failed);
    ShutdownAndClose(fd);
    return -1;
  }
  // Bound: from here on a failure also removes the socket file.
  if (listen(fd, backlog) != 0) failed = "listen";
  if (failed != nullptr) {
    LogSocketError(failed);
    CloseBound(fd);
    return -1;
  }
  LOG_DEBUG(kComponent, "listening on domain socket '%s' with backlog %d.", path.c_str(), backlog);
  fd_ = fd;
  path_ = path;
  return 0;
}

int IPCServer::WaitForConnection() {
  if (fd_ < 0) return 0;
  pollfd p;
  p.fd = fd_;
  p.events = POLLIN | POLLPRI | POLLRDHUP;
  p.revents = 0;
  const int timeout_ms = wait_seconds_ * 1000 + wait_microseconds_ / 1000;
  int rc = poll(&p, 1, timeout_ms);
  if (rc > 0) {
    if (p.revents & (POLLERR | POLLNVAL)) return 0;
    return (p.revents & (POLLIN | POLLPRI)) ? 1 : 0;
  }
  if (rc < 0) {
    // Also the way of a stop signal that interrupts the wait.
    int err = errno;
    LOG_ERROR(kComponent, "Failed when poll(): %s", strerror(err));
    return 0;
  }
  LOG_DEBUG(kComponent, "poll() timeout");
  return 0;
}

int IPCServer::Accept() {
  if (fd_ < 0) return -1;
  int fd = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) LogSocketError("accept");
  return fd;
}

void IPCServer::Close() {
  if (fd_ < 0) return;
  if (!path_.empty()) {
    CloseBound(fd_);
  } else {
    ShutdownAndClose(fd_);
  }
  fd_ = -1;
  path_.clear();
}

// ---- IPCSender ----

const std::atomic<int32_t>* IPCSender::m_run_flag = nullptr;
std::atomic<uint64_t> IPCSender::m_stop_deadline_us{0};

IPCSender::IPCSender() : channel_(Channel::kDefaultBlockSize) {}

IPCSender::~IPCSender() { Disconnect(); }

int IPCSender::Connect(const std::string& path) {
  const bool stopping = m_run_flag != nullptr && m_run_flag->load() == 0;
  if (!stopping) channel_.SetRunFlag(m_run_flag);
  if (channel_.Open(path) != 0) return -1;
  if (stopping) {
    // The first exchange of a stopping daemon sets the end of them all.
    uint64_t none = 0;
    const uint64_t end = channel_.GetClock()->NowMicros() + kStopGraceSeconds * 1000000u;
    m_stop_deadline_us.compare_exchange_strong(none, end);
    channel_.SetDeadlineAt(m_stop_deadline_us.load());
  }
  return 0;
}

void IPCSender::Disconnect() {
  if (!channel_.IsClosed()) channel_.Close();
}

int IPCSender::Send(const PObject& request) {
  PStream stream;
  return stream.Send(&channel_, request) == 0 ? 0 : -1;
}

int IPCSender::Receive(PObject* reply) {
  PStream stream;
  stream.SetRefuseBinaries(true);
  return stream.Recv(&channel_, reply) == 0 ? 0 : -1;
}

int IPCSender::SendRequest(const PObject& request, bool wait, PObject* reply) {
  if (Send(request) != 0) return -1;
  if (!wait) return 0;
  return Receive(reply);
}
