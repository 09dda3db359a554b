// The buffered stream, the bandwidth controller, host-name matching, address
// parsing and connecting, driven through small fakes of the descriptor and
// the clock so that EINTR, short writes, full disks and silent peers happen
// exactly when the test says.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "net/cat/buffered_io.h"
#include "net/cat/controller.h"
#include "net/cat/socket_ops.h"
#include "net/cat/ssl_socket.h"
#include "tests/common/temp_dir.h"
#include "tests/net_io/net_io_test_util.h"

namespace {

const bool kSigpipeIgnored = net_io_test::IgnoreSigpipe();

// A clock that moves only when told to (or when a fake wait passes).
class FakeClock : public cat::Clock {
 public:
  uint64_t NowMicros() override { return now_us; }
  void SleepMicros(uint64_t micros) override {
    sleeps.push_back(micros);
    now_us += micros;
  }
  uint64_t now_us = 1000000000;
  std::vector<uint64_t> sleeps;
};

// One scripted outcome of a Read or Write call.
struct Step {
  ssize_t rc;        // >= 0: bytes (Read: taken from data); < 0: fail with err
  int err = 0;
  std::string data;  // Read: the bytes delivered
};

// State shared by a fake descriptor and its clones.
struct Script {
  std::deque<Step> reads;   // empty: end of stream
  std::deque<Step> writes;  // empty: accept everything
  std::string written;      // all bytes accepted by Write
  bool silent = false;      // Wait reports nothing ready
  FakeClock* clock = nullptr;
  int waits = 0;
  int read_calls = 0;
};

// Descriptor whose every call follows the script.  Derives from Socket so
// that streams treat it as one.
class ScriptedSocket : public cat::Socket {
 public:
  explicit ScriptedSocket(std::shared_ptr<Script> s) : cat::Socket(1000), s_(std::move(s)) {}

  ssize_t Read(void* buffer, size_t n) override {
    ++s_->read_calls;
    if (s_->reads.empty()) return 0;
    Step& step = s_->reads.front();
    if (step.rc < 0) {
      errno = step.err;
      s_->reads.pop_front();
      return -1;
    }
    size_t k = std::min(n, step.data.size());
    memcpy(buffer, step.data.data(), k);
    step.data.erase(0, k);
    if (step.data.empty()) s_->reads.pop_front();
    return static_cast<ssize_t>(k);
  }

  ssize_t Write(const void* buffer, size_t n) override {
    size_t k = n;
    if (!s_->writes.empty()) {
      Step step = s_->writes.front();
      s_->writes.pop_front();
      if (step.rc < 0) {
        errno = step.err;
        return -1;
      }
      k = std::min(n, static_cast<size_t>(step.rc));
    }
    s_->written.append(static_cast<const char*>(buffer), k);
    return static_cast<ssize_t>(k);
  }

  int Wait(int /*events*/, int seconds) override {
    ++s_->waits;
    if (!s_->silent) return 1;
    s_->clock->now_us += static_cast<uint64_t>(seconds) * 1000000u;
    return 0;
  }

  std::unique_ptr<cat::IOBase> Clone() const override {
    return std::make_unique<ScriptedSocket>(s_);
  }

 private:
  std::shared_ptr<Script> s_;
};

// A file whose writes fail with `err` after `good_bytes` bytes.
class FailingFile : public cat::File {
 public:
  FailingFile(int fd, size_t good_bytes, int err)
      : cat::File(fd), good_bytes_(good_bytes), err_(err) {}
  ssize_t Write(const void* buffer, size_t n) override {
    if (written_ >= good_bytes_) {
      errno = err_;
      return -1;
    }
    size_t k = std::min(n, good_bytes_ - written_);
    written_ += k;
    return cat::File::Write(buffer, k);
  }

 private:
  size_t good_bytes_;
  size_t written_ = 0;
  int err_;
};

// Records what the stream asks and reports; grants at most `max_step`.
class RecordingController : public cat::BufferedIOController {
 public:
  bool IsCancelled() override { return cancelled; }
  size_t ReadQuota(size_t n) override { return std::min(n, max_step); }
  size_t WriteQuota(size_t n) override { return std::min(n, max_step); }
  void OnRead(size_t n) override { read_total += n; }
  void OnWrite(size_t n) override { write_total += n; }

  bool cancelled = false;
  size_t max_step = SIZE_MAX;
  size_t read_total = 0;
  size_t write_total = 0;
};

struct Fixture {
  Fixture() {
    script->clock = &clock;
    stream.SetClock(&clock);
    stream.SetController(&controller);
    stream.Attach(ScriptedSocket(script));
  }
  std::shared_ptr<Script> script = std::make_shared<Script>();
  FakeClock clock;
  RecordingController controller;
  cat::BufferedIO stream;
};

std::string Pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>('a' + (i * 7) % 26);
  return s;
}

TEST(BufferedIOTest, ReadRetriesInterruptsAndEndsCleanlyAtEndOfStream) {
  Fixture f;
  f.script->reads = {{-1, EINTR, ""}, {5, 0, "hello"}, {-1, EAGAIN, ""}, {3, 0, "abc"}};
  char buf[16] = {0};
  EXPECT_EQ(f.stream.Read(buf, 16), 8);
  EXPECT_EQ(std::string(buf, 8), "helloabc");
  EXPECT_EQ(f.stream.GetError(), 0);  // a clean close is not an error
  EXPECT_TRUE(f.stream.GetFlags() & cat::BufferedIOBase::kReadClosed);
  EXPECT_FALSE(f.stream.IsReadable());
  EXPECT_TRUE(f.stream.IsWritable());
  EXPECT_EQ(f.controller.read_total, 8u);
}

TEST(BufferedIOTest, ReadServesSmallReadsFromTheBufferAndHonoursTheQuota) {
  Fixture f;
  const std::string data = Pattern(20000);
  f.script->reads = {{0, 0, data}};
  f.controller.max_step = 3000;
  std::string got;
  char buf[7];
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(f.stream.Read(buf, sizeof(buf)), 7);
    got.append(buf, 7);
  }
  EXPECT_EQ(f.script->read_calls, 1);  // one refill served both
  std::vector<char> big(20000 - 14);
  ASSERT_EQ(f.stream.Read(big.data(), big.size()), static_cast<ssize_t>(big.size()));
  got.append(big.data(), big.size());
  EXPECT_EQ(got, data);
  EXPECT_EQ(f.controller.read_total, 20000u);
  EXPECT_GE(f.script->read_calls, 7);  // 20000 bytes in steps of at most 3000
}

TEST(BufferedIOTest, ReadFailureSetsIoErrorAndClosesReadSide) {
  Fixture f;
  f.script->reads = {{2, 0, "ok"}, {-1, ECONNRESET, ""}};
  char buf[10];
  EXPECT_EQ(f.stream.Read(buf, 10), 2);
  EXPECT_EQ(f.stream.GetError(), cat::kErrIO);
  EXPECT_FALSE(f.stream.IsReadable());
}

TEST(BufferedIOTest, WritesStayBufferedUntilFlushAndSurviveShortWrites) {
  Fixture f;
  EXPECT_EQ(f.stream.Write("abc", 3), 3);
  EXPECT_EQ(f.stream.Write("def", 3), 3);
  EXPECT_EQ(f.script->written, "");
  EXPECT_EQ(f.stream.Flush(), 0);
  EXPECT_EQ(f.script->written, "abcdef");

  // A large write: buffered bytes first, then the rest directly, through
  // short writes and interruptions.
  f.script->written.clear();
  const std::string big = Pattern(30000);
  EXPECT_EQ(f.stream.Write("x", 1), 1);
  f.script->writes = {{1, 0, ""}, {-1, EINTR, ""}, {100, 0, ""}, {-1, EAGAIN, ""}, {7000, 0, ""}};
  EXPECT_EQ(f.stream.Write(big.data(), big.size()), 30000);
  EXPECT_EQ(f.stream.Flush(), 0);
  EXPECT_EQ(f.script->written, "x" + big);
  EXPECT_EQ(f.controller.write_total, 6u + 30001u);
  EXPECT_EQ(f.stream.GetError(), 0);
}

TEST(BufferedIOTest, WriteFailuresMapToStreamErrors) {
  struct Case {
    int err;
    int expected;
  };
  const Case cases[] = {{ENOSPC, -5}, {EDQUOT, -5}, {EFBIG, -6}, {EPIPE, -1}, {EIO, -1}};
  for (const Case& c : cases) {
    Fixture f;
    f.script->writes = {{100, 0, ""}, {-1, c.err, ""}};
    const std::string big = Pattern(20000);
    EXPECT_EQ(f.stream.Write(big.data(), big.size()), 100) << c.err;
    EXPECT_EQ(f.stream.GetError(), c.expected) << c.err;
    EXPECT_FALSE(f.stream.IsWritable());
    EXPECT_EQ(f.stream.Write("a", 1), 0);  // a closed write side takes nothing
  }
  Fixture f;  // a write of 0 bytes closes the write side without an error
  f.script->writes = {{0, 0, ""}};
  const std::string big = Pattern(9000);
  EXPECT_EQ(f.stream.Write(big.data(), big.size()), 0);
  EXPECT_EQ(f.stream.GetError(), 0);
  EXPECT_FALSE(f.stream.IsWritable());
}

TEST(BufferedIOTest, FailedFlushKeepsTheUnwrittenTail) {
  Fixture f;
  f.stream.Write("0123456789", 10);
  f.script->writes = {{4, 0, ""}, {-1, EPIPE, ""}};
  EXPECT_EQ(f.stream.Flush(), -1);
  EXPECT_EQ(f.script->written, "0123");
  // A write that needs the buffer emptied first gets nothing in.
  const std::string big = Pattern(9000);
  EXPECT_EQ(f.stream.Write(big.data(), big.size()), 0);
}

TEST(BufferedIOTest, SilentPeerTimesOutAfterTheIdleLimitInThreeSecondWaits) {
  Fixture f;
  f.script->silent = true;
  const uint64_t start = f.clock.now_us;
  char buf[4];
  EXPECT_EQ(f.stream.Read(buf, 4), 0);  // default idle time-out: 60 s
  EXPECT_EQ(f.stream.GetError(), cat::kErrTimeout);
  EXPECT_EQ(f.script->waits, 21);  // 60 s is not yet "more than 60 s"
  EXPECT_EQ(f.clock.now_us - start, 63000000u);
  EXPECT_EQ(f.script->read_calls, 0);

  Fixture w;  // writes time out the same way, with a short limit
  w.script->silent = true;
  w.stream.SetTimeout(5);
  const std::string big = Pattern(9000);
  EXPECT_EQ(w.stream.Write(big.data(), big.size()), 0);
  EXPECT_EQ(w.stream.GetError(), cat::kErrTimeout);
  EXPECT_EQ(w.script->waits, 2);
}

TEST(BufferedIOTest, CancelStopsBeforeAnyIo) {
  Fixture f;
  f.script->reads = {{3, 0, "abc"}};
  f.controller.cancelled = true;
  char buf[3];
  EXPECT_EQ(f.stream.Read(buf, 3), 0);
  EXPECT_EQ(f.stream.GetError(), cat::kErrCancelled);
  EXPECT_EQ(f.script->read_calls, 0);
  EXPECT_EQ(f.script->waits, 0);
}

TEST(BufferedIOTest, FileSendAndReceiveReportFailures) {
  TempDir dir;
  const std::string data = Pattern(200000);
  const std::string src = dir.Write("src", data);
  int fd = open(src.c_str(), O_RDONLY);
  {
    Fixture f;  // sends the range in order, through Write
    cat::File file(fd);
    EXPECT_EQ(f.stream.SendFile(file, 1000, 150000), 150000);
    EXPECT_EQ(f.stream.Flush(), 0);
    EXPECT_EQ(f.script->written, data.substr(1000, 150000));
  }
  {
    Fixture f;  // the file ends before the length: -1
    cat::File file(fd);
    EXPECT_EQ(f.stream.SendFile(file, 100000, 100001), -1);
    EXPECT_EQ(f.stream.GetError(), cat::kErrIO);
  }
  close(fd);

  struct Case {
    int err;
    int64_t result;
    int error;
  };
  const Case cases[] = {{ENOSPC, -1, -5}, {EDQUOT, -1, -5}, {EFBIG, -1, -6}, {EIO, 65536, -1}};
  for (const Case& c : cases) {
    Fixture f;
    f.script->reads = {{0, 0, data}};
    int out = open(dir.File("dst").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    FailingFile file(out, 70000, c.err);
    // The generic copy; the socket path would map the file instead.
    EXPECT_EQ(f.stream.BufferedIOBase::RecvFile(file, 0, 200000), c.result) << c.err;
    EXPECT_EQ(f.stream.GetError(), c.error) << c.err;
    close(out);
  }
}

TEST(BufferedIOTest, SocketReceiveStoresBufferedBytesThenTheRest) {
  TempDir dir;
  Fixture f;
  const std::string data = Pattern(300000);
  f.script->reads = {{0, 0, "HDR" + data}};
  char hdr[3];
  ASSERT_EQ(f.stream.Read(hdr, 3), 3);  // leaves 8189 file bytes buffered
  EXPECT_EQ(f.stream.BufferedReadBytes(), 8189u);
  const std::string path = dir.Write("dst", std::string(10, 'Z'));
  int out = open(path.c_str(), O_RDWR);
  cat::File file(out);
  EXPECT_EQ(f.stream.RecvFile(file, 5, 300000), 300000);
  close(out);
  EXPECT_EQ(ReadFile(path), std::string(5, 'Z') + data);
  EXPECT_EQ(f.controller.read_total, 8192u + 300000u);  // buffered bytes reported again

  // On a descriptor that is neither a file nor a socket: -4.
  class Pipe : public cat::IOBase {
   public:
    Pipe() : cat::IOBase(5) {}
    ssize_t Read(void*, size_t) override { return 0; }
    ssize_t Write(const void*, size_t n) override { return static_cast<ssize_t>(n); }
    int Sync() override { return 0; }
    int Wait(int, int) override { return 1; }
    std::unique_ptr<cat::IOBase> Clone() const override { return std::make_unique<Pipe>(); }
  };
  cat::BufferedIO other;
  other.Attach(Pipe());
  cat::File none(-1);
  EXPECT_EQ(other.RecvFile(none, 0, 10), -1);
  EXPECT_EQ(other.GetError(), cat::kErrNotSocket);
  EXPECT_EQ(other.RecvFileMapped(none, 0, 10), -1);
}

TEST(BufferedIOTest, HandOverMovesTheDescriptorAndSettings) {
  Fixture f;
  f.stream.SetTimeout(7);
  cat::BufferedIO target;
  EXPECT_EQ(f.stream.HandOver(&target), 0);
  EXPECT_EQ(target.GetTimeout(), 7);
  EXPECT_EQ(target.GetController(), &f.controller);
  EXPECT_EQ(f.stream.GetIO(), nullptr);
  EXPECT_EQ(target.GetIO()->fd(), 1000);

  // A TLS stream refuses a descriptor that is not a socket.
  cat::BufferedIO on_file;
  on_file.Attach(cat::File(0));
  cat::SslServerSocket tls;
  EXPECT_EQ(on_file.HandOver(&tls), -1);
  EXPECT_EQ(tls.GetError(), cat::kErrSslNotSocket);
  EXPECT_NE(on_file.GetIO(), nullptr);  // unchanged on failure
}

// A rate limiter with fixed rates and allowances.
class FixedLimiter : public cat::RateLimiter {
 public:
  uint64_t GetRate(Direction d) override { return rate[d]; }
  size_t GetAllowance(Direction d) override { return allowance[d]; }
  void OnBlockDone(Direction d, size_t n) override { done[d] += n; }
  uint64_t rate[2] = {0, 0};
  size_t allowance[2] = {0, 0};
  size_t done[2] = {0, 0};
};

TEST(BandwidthControllerTest, SleepsTheRestOfEachBlocksShareOfTheSecond) {
  FakeClock clock;
  FixedLimiter limiter;
  limiter.rate[cat::RateLimiter::kWrite] = 1000000;
  cat::BandwidthController bw(&limiter, &clock);

  clock.now_us += 10000;  // a 64 KiB block written in 10 ms
  bw.OnWrite(65536);
  ASSERT_EQ(clock.sleeps.size(), 1u);
  EXPECT_EQ(clock.sleeps[0], 55536u);

  clock.now_us += 70000;  // slower than its 65,536 us: no sleep
  bw.OnWrite(65536);
  EXPECT_EQ(clock.sleeps.size(), 1u);
  EXPECT_EQ(limiter.done[cat::RateLimiter::kWrite], 131072u);

  limiter.rate[cat::RateLimiter::kWrite] = 1000;  // 65 s expected: capped at 1 s
  bw.OnWrite(65536);
  ASSERT_EQ(clock.sleeps.size(), 2u);
  EXPECT_EQ(clock.sleeps[1], 1000000u);

  bw.OnRead(65536);  // the read direction is unlimited: no sleep, no report
  EXPECT_EQ(clock.sleeps.size(), 2u);
  EXPECT_EQ(limiter.done[cat::RateLimiter::kRead], 0u);

  limiter.rate[cat::RateLimiter::kRead] = 2000000;  // 1 MiB at 2 MB/s, 100 ms taken
  clock.now_us += 100000;
  bw.OnRead(1048576);
  ASSERT_EQ(clock.sleeps.size(), 3u);
  EXPECT_EQ(clock.sleeps[2], 524288u - 100000u);

  cat::BandwidthController unlimited(nullptr, &clock);
  unlimited.OnWrite(1 << 30);
  EXPECT_EQ(clock.sleeps.size(), 3u);
}

TEST(BandwidthControllerTest, QuotaIsTheAllowanceWhenSmaller) {
  FakeClock clock;
  FixedLimiter limiter;
  cat::BandwidthController bw(&limiter, &clock);
  EXPECT_EQ(bw.ReadQuota(5000), 5000u);  // allowance 0: no limit
  limiter.allowance[cat::RateLimiter::kRead] = 100;
  limiter.allowance[cat::RateLimiter::kWrite] = 9000;
  EXPECT_EQ(bw.ReadQuota(5000), 100u);
  EXPECT_EQ(bw.WriteQuota(5000), 5000u);
  EXPECT_FALSE(bw.IsCancelled());
  cat::BandwidthController none(nullptr, &clock);
  EXPECT_EQ(none.WriteQuota(123), 123u);
}

TEST(HostMatchTest, WildcardsAndCase) {
  struct Case {
    const char* pattern;
    const char* host;
    bool match;
  };
  const Case cases[] = {
      {"*.x.y", "a.x.y", true},      {"*.x.y", "x.y", true},
      {"*.x.y", "a.b.x.y", false},   {"X.Y", "x.y", true},
      {"server.test", "server.test", true}, {"server.test", "other.test", false},
      {"*", "anything", false},      {"*", "*", false},
      {"*.X.Y", "A.x.y", true},      {"*.x.y", "ax.y", false},
      {"a.x.y", "*.x.y", false},     {"", "x", false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(cat::HostMatches(c.pattern, c.host), c.match) << c.pattern << " vs " << c.host;
  }
}

TEST(SocketOpsTest, HostAddressForms) {
  struct Case {
    const char* text;
    const char* address;
    int port;  // after parsing, starting from 443
  };
  const Case cases[] = {
      {"[::1]", "::1", 443},
      {"[fe80::1:AbCd]:8443", "fe80::1:AbCd", 8443},
      {"::1", "::1", 443},
      {"10.0.0.7", "10.0.0.7", 443},
      {"10.0.0.7:5566", "10.0.0.7", 5566},
      {"nas.example.org", "nas.example.org", 443},
      {"cafe", "cafe", 443},  // all hex letters, but a name
      {"300.1.1.1", "300.1.1.1", 443},
  };
  for (const Case& c : cases) {
    int port = 443;
    EXPECT_EQ(cat::ParseHostAddress(c.text, &port), c.address) << c.text;
    EXPECT_EQ(port, c.port) << c.text;
  }
}

TEST(SocketOpsTest, ConnectsAndFailsWithinItsLimits) {
  net_io_test::Listener listener;
  int fd = cat::ConnectTcp("127.0.0.1", listener.port(), 5, nullptr);
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
  EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
  close(fd);
  fd = cat::ConnectTcp("localhost", listener.port(), 0, nullptr);  // blocking
  ASSERT_GE(fd, 0);
  EXPECT_FALSE(fcntl(fd, F_GETFL) & O_NONBLOCK);
  close(fd);
  TempDir dir;
  struct sockaddr_un addr = {AF_UNIX, {}};
  snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", dir.File("s.sock").c_str());
  int unix_listener = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(0, bind(unix_listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
  ASSERT_EQ(0, listen(unix_listener, 1));
  fd = cat::ConnectUnix(addr.sun_path, 5, nullptr);
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
  close(fd);
  close(unix_listener);

  std::atomic<int> cancel{1};
  EXPECT_EQ(cat::ConnectTcp("127.0.0.1", listener.port(), 5, &cancel), -1);
  int closed_port = net_io_test::FreePort();
  EXPECT_EQ(cat::ConnectTcp("127.0.0.1", closed_port, 5, nullptr), -1);
  EXPECT_EQ(cat::ConnectTcp("no-such-host.invalid", 80, 5, nullptr), -1);

  EXPECT_EQ(cat::ConnectUnix(dir.File("none.sock"), 5, nullptr), -1);
  auto sock = cat::CreateTcpSocket(false, 1);
  ASSERT_NE(sock, nullptr);
  EXPECT_TRUE(fcntl(sock->fd(), F_GETFL) & O_NONBLOCK);
  EXPECT_TRUE(fcntl(sock->fd(), F_GETFD) & FD_CLOEXEC);
  sock->Close();
  EXPECT_FALSE(sock->valid());
}

// A listener whose accept queue is full drops further handshakes, so a
// connect to it hangs until the time limit or the cancel flag ends it.
TEST(SocketOpsTest, HangingConnectEndsAtTheLimitOrOnCancel) {
  net_io_test::Listener listener(0);
  std::vector<int> fillers;
  bool hanging = false;
  for (int i = 0; i < 8 && !hanging; ++i) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(listener.port()));
    connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr));
    struct pollfd pfd = {fd, POLLOUT, 0};
    hanging = poll(&pfd, 1, 300) == 0;
    fillers.push_back(fd);
  }
  if (!hanging) GTEST_SKIP() << "the kernel accepted every handshake";

  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(cat::ConnectTcp("127.0.0.1", listener.port(), 1, nullptr), -1);
  double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_GE(waited, 1.5);  // two empty 800 ms polls count 1.6 s >= 1 s

  std::atomic<int> cancel{0};
  std::thread canceller([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    cancel = 1;
  });
  start = std::chrono::steady_clock::now();
  EXPECT_EQ(cat::ConnectTcp("127.0.0.1", listener.port(), 60, &cancel), -1);
  waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  canceller.join();
  EXPECT_LT(waited, 30.0);  // ended by the flag, long before the 60 s limit
  for (int fd : fillers) close(fd);
}

}  // namespace
