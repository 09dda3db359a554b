// Wire test helpers: loopback listeners, certificates, patterned data, a file size limit.
#ifndef VESTA_TESTS_NET_IO_NET_IO_TEST_UTIL_H_
#define VESTA_TESTS_NET_IO_NET_IO_TEST_UTIL_H_

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "net/cat/socket_ops.h"
#include "tests/common/shell.h"

namespace net_io_test {

// Tests write to peers that may have gone; the daemon ignores SIGPIPE too.
inline const bool kSigpipeIgnored = signal(SIGPIPE, SIG_IGN) != SIG_ERR;

// A listening TCP socket on 127.0.0.1 and a free port.
class Listener {
 public:
  explicit Listener(int backlog = 8) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr));
    listen(fd_, backlog);
    socklen_t len = sizeof(addr);
    getsockname(fd_, reinterpret_cast<struct sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
  }
  ~Listener() { close(fd_); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  int Accept() const { return accept(fd_, nullptr, nullptr); }
  int port() const { return port_; }

 private:
  int fd_;
  int port_;
};

// A port that was free a moment ago (for peers that bind it themselves).
inline int FreePort() { return Listener().port(); }

// True once something accepts connections on 127.0.0.1:port.
inline bool WaitForPort(int port) {
  return WaitFor([port] {
    const int fd = cat::ConnectTcp("127.0.0.1", port, 1, nullptr);
    return fd >= 0 && close(fd) == 0;
  });
}

// Makes the test certificates of make_certs.sh in `dir`; true on success.
inline bool MakeCerts(const std::string& dir) {
  int status = 0;
  RunCommand("sh '" + SourcePath("tests/net_io/make_certs.sh") + "' '" + dir + "'", &status);
  return status == 0;
}

// The signature block of `openssl x509 -text` without blanks.
inline std::string CertSignature(const std::string& cert) {
  return RunCommand("openssl x509 -noout -text -in '" + cert +
                    "' | sed '1,/Signature Value:/d' | tr -d ' \\n'");
}

// SHA-256 of a file, by the sha256sum tool.
inline std::string Sha256Of(const std::string& path) {
  return RunCommand("sha256sum < '" + path + "'").substr(0, 64);
}

// `n` bytes in which each names its own position: a misplaced byte shows.
inline std::string Pattern(size_t n) {
  std::string s(n, '\0');
  for (uint64_t i = 0; i < n; ++i) s[i] = static_cast<char>(i >> (8 * (i % 8)) ^ i % 251);
  return s;
}

// Lowers this process's file size limit for the life of the object; a write
// past it fails with EFBIG instead of raising SIGXFSZ.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &old_);
    struct rlimit limit = {std::min(bytes, old_.rlim_max), old_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &old_); }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  struct rlimit old_;
};

}  // namespace net_io_test

#endif  // VESTA_TESTS_NET_IO_NET_IO_TEST_UTIL_H_
