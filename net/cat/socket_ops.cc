#include "net/cat/socket_ops.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/scoped_fd.h"

namespace cat {
namespace {

// The caller's two flags, asked before every step.
struct Stop {
  const std::atomic<int>* cancel_flag;
  const std::atomic<int32_t>* run_flag;
  bool Now() const { return StopAsked(cancel_flag, run_flag); }
};

// Owns a getaddrinfo list.
struct AddrInfoDeleter {
  void operator()(struct addrinfo* list) const { freeaddrinfo(list); }
};

// Waits for a non-blocking connect on `fd` to finish.  0 when connected.
int WaitConnected(int fd, int timeout, const Stop& stop) {
  if (timeout <= 0) return -1;
  const long long limit_us = static_cast<long long>(timeout) * 1000000;
  long long elapsed_us = 0;
  for (;;) {
    if (stop.Now()) return -1;
    struct pollfd pfd = {fd, POLLOUT, 0};
    int rc = poll(&pfd, 1, kConnectPollMillis);
    if (rc < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (rc == 0) {
      elapsed_us += kConnectPollMillis * 1000;
      if (elapsed_us >= limit_us) return -1;
      continue;
    }
    if (pfd.revents != POLLOUT) return -1;
    int error = 0;
    socklen_t len = sizeof(error);
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len) < 0 || error != 0) {
      return -1;
    }
    return 0;
  }
}

// connect() on a fresh socket in the mode chosen by `timeout`; 0 when
// connected.
int ConnectSocket(int fd, const struct sockaddr* addr, socklen_t len, int timeout,
                  const Stop& stop) {
  Socket sock(fd);
  if (sock.SetBlocking(timeout == 0) < 0) return -1;
  if (connect(fd, addr, len) == 0) return 0;
  if (errno != EINPROGRESS) return -1;
  return WaitConnected(fd, timeout, stop);
}

}  // namespace

bool StopAsked(const std::atomic<int>* cancel_flag, const std::atomic<int32_t>* run_flag) {
  return (cancel_flag != nullptr && cancel_flag->load(std::memory_order_relaxed) != 0) ||
         (run_flag != nullptr && run_flag->load(std::memory_order_relaxed) == 0);
}

int ConnectUnix(const std::string& path, int timeout, const std::atomic<int>* cancel_flag,
                const std::atomic<int32_t>* run_flag) {
  const Stop stop{cancel_flag, run_flag};
  if (stop.Now()) return -1;
  ScopedFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) return -1;
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof(addr));
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path.c_str(), kUnixPathMax);
  if (ConnectSocket(fd.get(), reinterpret_cast<struct sockaddr*>(&addr),
                    sizeof(addr), timeout, stop) != 0) {
    return -1;
  }
  return fd.release();
}

int ConnectTcp(const std::string& host, int port, int timeout,
               const std::atomic<int>* cancel_flag, const std::atomic<int32_t>* run_flag) {
  const Stop stop{cancel_flag, run_flag};
  struct addrinfo hints;
  memset(&hints, 0, sizeof(hints));
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  char service[16];
  snprintf(service, sizeof(service), "%d", port);
  struct addrinfo* raw = nullptr;
  if (getaddrinfo(host.c_str(), service, &hints, &raw) != 0) return -1;
  std::unique_ptr<struct addrinfo, AddrInfoDeleter> list(raw);
  for (struct addrinfo* ai = list.get(); ai != nullptr; ai = ai->ai_next) {
    if (stop.Now()) return -1;
    ScopedFd fd(socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol));
    if (fd.get() < 0) continue;
    if (ConnectSocket(fd.get(), ai->ai_addr, ai->ai_addrlen, timeout, stop) == 0) {
      return fd.release();
    }
  }
  return -1;
}

std::unique_ptr<Socket> CreateTcpSocket(bool blocking, int linger) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return nullptr;
  auto sock = std::make_unique<Socket>(fd);
  if (sock->SetBlocking(blocking) < 0 || (linger >= 0 && sock->SetLinger(linger) < 0)) {
    sock->Close();
    return nullptr;
  }
  return sock;
}

std::string ParseHostAddress(const std::string& host, int* port) {
  char address[65] = {0};
  char rest[65] = {0};
  char extra[33] = {0};
  int suffix_port = 0;
  const char* text = host.c_str();

  int n = sscanf(text, "[%64[0123456789abcdefABCDEF:]]%64s", address, rest);
  if (n >= 1) {
    if (n == 2 && sscanf(rest, ":%d%32s", &suffix_port, extra) == 1) {
      *port = suffix_port;
    }
    return address;
  }
  n = sscanf(text, "%64[0123456789abcdefABCDEF:]%64s", address, rest);
  if (n == 1 && strchr(address, ':') != nullptr && host.size() == strlen(address)) {
    return address;  // a bare IPv6 literal
  }
  unsigned a, b, c, d;
  rest[0] = '\0';
  n = sscanf(text, "%u.%u.%u.%u%64s", &a, &b, &c, &d, rest);
  if (n >= 4 && a < 256 && b < 256 && c < 256 && d < 256) {
    if (n == 5 && sscanf(rest, ":%d%32s", &suffix_port, extra) == 1) {
      *port = suffix_port;
    }
    char v4[16];
    snprintf(v4, sizeof(v4), "%u.%u.%u.%u", a, b, c, d);
    return v4;
  }
  return host;
}

}  // namespace cat
