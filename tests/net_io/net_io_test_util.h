// Helpers of the wire tests: loopback listeners, child processes that are
// always reaped, the openssl tool's view of a certificate, test files and a
// file size limit.
#ifndef VESTA_TESTS_NET_IO_NET_IO_TEST_UTIL_H_
#define VESTA_TESTS_NET_IO_NET_IO_TEST_UTIL_H_

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/common/shell.h"

namespace net_io_test {

// Tests write to peers that may have gone; the daemon ignores SIGPIPE too.
inline bool IgnoreSigpipe() {
  signal(SIGPIPE, SIG_IGN);
  return true;
}

inline struct sockaddr_in Loopback(int port) {
  struct sockaddr_in addr = {};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  return addr;
}

// A listening TCP socket on 127.0.0.1 and a free port.
class Listener {
 public:
  explicit Listener(int backlog = 8) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    struct sockaddr_in addr = Loopback(0);
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

// True once something accepts connections on 127.0.0.1:port (up to ~10 s).
inline bool WaitForPort(int port) {
  for (int i = 0; i < 200; ++i) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in addr = Loopback(port);
    int rc = connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr));
    close(fd);
    if (rc == 0) return true;
    usleep(50000);
  }
  return false;
}

// A child process running `argv`, killed and reaped when the object goes.
// stdin/stdout/stderr of the child are the given files ("" = /dev/null).
class ChildProcess {
 public:
  ChildProcess(const std::vector<std::string>& argv, const std::string& stdin_path = "",
               const std::string& stdout_path = "") {
    pid_ = fork();
    if (pid_ == 0) {
      setpgid(0, 0);
      dup2(open(stdin_path.empty() ? "/dev/null" : stdin_path.c_str(), O_RDONLY), 0);
      int out = open(stdout_path.empty() ? "/dev/null" : stdout_path.c_str(),
                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(out, 1);
      dup2(out, 2);
      std::vector<char*> args;
      for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
      args.push_back(nullptr);
      execvp(args[0], args.data());
      _exit(127);
    }
  }
  ~ChildProcess() {
    if (pid_ > 0 && !reaped_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Waits up to `seconds` for the child to end; its exit status or -1.
  int Wait(int seconds) {
    for (int i = 0; i < seconds * 20; ++i) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        reaped_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
      usleep(50000);
    }
    return -1;
  }

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
};

// A file of the source tree, by its path from the root.
inline std::string SourcePath(const std::string& relative) {
  const char* root = getenv("VESTA_SOURCE_DIR");
  return std::string(root != nullptr ? root : ".") + "/" + relative;
}

// Makes the test certificates of make_certs.sh in `dir`; true on success.
inline bool MakeCerts(const std::string& dir) {
  int status = 0;
  RunCommand("sh '" + SourcePath("tests/net_io/make_certs.sh") + "' '" + dir + "'", &status);
  return status == 0;
}

// What `openssl x509` prints after `label` for the certificate file `cert`,
// with `keep` characters only (blanks and newlines never).
inline std::string X509Field(const std::string& cert, const std::string& option,
                             const std::string& label, int (*keep)(int)) {
  std::string text = RunCommand("openssl x509 -noout " + option + " -in '" + cert + "'");
  size_t at = text.rfind(label);
  std::string result;
  if (at == std::string::npos) return result;
  for (char c : text.substr(at + label.size())) {
    if (keep(static_cast<unsigned char>(c))) result += static_cast<char>(tolower(c));
  }
  return result;
}

// The signature block of `openssl x509 -text`.
inline std::string CertSignature(const std::string& cert) {
  return X509Field(cert, "-text", "Signature Value:", isgraph);
}

// `openssl x509 -fingerprint -sha256` in lower case without colons.
inline std::string CertFingerprint(const std::string& cert) {
  return X509Field(cert, "-fingerprint -sha256", "=", isxdigit);
}

// SHA-256 of bytes [offset, offset + length) of a file, by the sha256sum tool.
inline std::string Sha256Of(const std::string& path, unsigned long long offset = 0,
                            long long length = -1) {
  std::string cmd = "tail -c +" + std::to_string(offset + 1) + " '" + path + "' 2>/dev/null";
  if (length >= 0) cmd += " | head -c " + std::to_string(length);
  return RunCommand(cmd + " | sha256sum").substr(0, 64);
}

// Writes `size` bytes of a fixed pseudo-random pattern to `path`.
inline void MakeFile(const std::string& path, size_t size, uint32_t seed = 1) {
  FILE* f = fopen(path.c_str(), "wb");
  uint32_t x = seed;
  std::vector<uint32_t> block(16384);
  for (size_t done = 0; done < size;) {
    for (uint32_t& w : block) {
      x ^= x << 13;
      x ^= x >> 17;
      x ^= x << 5;
      w = x;
    }
    size_t n = std::min(size - done, block.size() * sizeof(uint32_t));
    fwrite(block.data(), 1, n, f);
    done += n;
  }
  fclose(f);
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
