// The buffered stream over fakes of the descriptor and clock; host names, connects.
#include "net/cat/buffered_io.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "net/cat/controller.h"
#include "net/cat/socket_ops.h"
#include "net/cat/ssl_socket.h"
#include "tests/common/temp_dir.h"
#include "tests/net_io/net_io_test_util.h"

namespace {

// A clock that moves only when told to (or when a fake wait passes).
class FakeClock : public cat::Clock {
 public:
  uint64_t NowMicros() override { return now_us; }
  void SleepMicros(uint64_t micros) override { now_us += micros; }
  uint64_t now_us = 1000000000;
};

struct Step {
  ssize_t rc;  // >= 0: bytes (Read: taken from data); < 0: fail with err
  int err = 0;
  std::string data;  // Read: the bytes delivered
};

// State shared by a fake descriptor and its clones.
struct Script {
  std::deque<Step> reads;   // then the end
  std::deque<Step> writes;  // empty: accept everything
  std::string written;      // all bytes accepted by Write
  bool silent = false;      // Wait reports nothing ready, once the clock has moved on
  FakeClock clock;
  int waits = 0;
  int read_calls = 0;
};

// A descriptor that follows the script; a Socket, so that streams treat it as one.
class ScriptedSocket : public cat::Socket {
 public:
  explicit ScriptedSocket(std::shared_ptr<Script> s) : cat::Socket(1000), s_(std::move(s)) {}

  ssize_t Read(void* buffer, size_t n) override {
    ++s_->read_calls;
    if (s_->reads.empty()) return 0;
    if (Failed(&s_->reads)) return -1;
    Step& step = s_->reads.front();
    const size_t k = step.data.copy(static_cast<char*>(buffer), n);
    step.data.erase(0, k);
    if (step.data.empty()) s_->reads.pop_front();
    return static_cast<ssize_t>(k);
  }

  ssize_t Write(const void* buffer, size_t n) override {
    if (Failed(&s_->writes)) return -1;
    size_t k = n;
    if (!s_->writes.empty()) {
      k = std::min(n, static_cast<size_t>(s_->writes.front().rc));
      s_->writes.pop_front();
    }
    s_->written.append(static_cast<const char*>(buffer), k);
    return static_cast<ssize_t>(k);
  }

  int Wait(int /*events*/, int seconds) override {
    ++s_->waits;
    if (!s_->silent) return 1;
    s_->clock.now_us += static_cast<uint64_t>(seconds) * 1000000u;
    return 0;
  }

  std::unique_ptr<cat::IOBase> Clone() const override {
    return std::make_unique<ScriptedSocket>(s_);
  }

 private:
  // Pops a failing first step of `steps`, setting errno: true when there was one.
  static bool Failed(std::deque<Step>* steps) {
    if (steps->empty() || steps->front().rc >= 0) return false;
    errno = steps->front().err;
    steps->pop_front();
    return true;
  }

  std::shared_ptr<Script> s_;
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
    stream.SetClock(&script->clock);
    stream.SetController(&controller);
    stream.Attach(ScriptedSocket(script));
  }
  // The error, whether readable and writable, the bytes reported read and written.
  std::string State() const {
    return std::to_string(stream.GetError()) + (stream.IsReadable() ? " r" : " -") +
           (stream.IsWritable() ? "w" : "-") + " in " + std::to_string(controller.read_total) +
           " out " + std::to_string(controller.write_total);
  }
  std::shared_ptr<Script> script = std::make_shared<Script>();
  RecordingController controller;
  cat::BufferedIO stream;
};

TEST(BufferedIOTest, ReadsRetryInterruptsServeFromTheBufferAndEndCleanly) {
  Fixture f;
  f.script->reads = {{-1, EINTR, ""}, {5, 0, "hello"}, {-1, EAGAIN, ""}, {3, 0, "abc"}};
  char buf[16] = {0};
  EXPECT_EQ(8, f.stream.Read(buf, 16));
  EXPECT_EQ("helloabc", std::string(buf, 8));
  EXPECT_EQ("0 -w in 8 out 0", f.State());  // a clean close is not an error

  Fixture g;  // small reads from the buffer, then a large one in steps of the quota
  g.script->reads = {{20000, 0, net_io_test::Pattern(20000)}};
  g.controller.max_step = 3000;
  std::string got(20000, '\0');
  ASSERT_EQ(7, g.stream.Read(&got[0], 7));
  ASSERT_EQ(7, g.stream.Read(&got[7], 7));
  ASSERT_EQ(20000 - 14, g.stream.Read(&got[14], 20000 - 14));
  EXPECT_EQ(net_io_test::Pattern(20000), got);
  EXPECT_EQ("0 rw in 20000 out 0", g.State());
  EXPECT_GE(g.script->read_calls, 7);  // 20000 bytes in steps of at most 3000

  Fixture h;  // a failed read is an I/O error and closes the read side
  h.script->reads = {{2, 0, "ok"}, {-1, ECONNRESET, ""}};
  EXPECT_EQ(2, h.stream.Read(buf, 10));
  EXPECT_EQ("-1 -- in 2 out 0", h.State());
}

TEST(BufferedIOTest, WritesStayBufferedUntilFlushAndSurviveShortWrites) {
  Fixture f;
  EXPECT_EQ(3, f.stream.Write("abc", 3));
  EXPECT_EQ(3, f.stream.Write("def", 3));
  EXPECT_EQ("", f.script->written);
  EXPECT_EQ(0, f.stream.Flush());
  EXPECT_EQ("abcdef", f.script->written);

  // A large write: buffered bytes, then the rest directly through short writes and EINTR.
  const std::string big = net_io_test::Pattern(30000);
  EXPECT_EQ(1, f.stream.Write("x", 1));
  f.script->writes = {{1, 0, ""}, {-1, EINTR, ""}, {100, 0, ""}, {-1, EAGAIN, ""}, {7000, 0, ""}};
  EXPECT_EQ(30000, f.stream.Write(big.data(), big.size()));
  EXPECT_EQ(0, f.stream.Flush());
  EXPECT_EQ("abcdefx" + big, f.script->written);
  EXPECT_EQ("0 rw in 0 out 30007", f.State());

  Fixture g;  // a failed flush keeps the unwritten tail; nothing more goes in
  g.stream.Write("0123456789", 10);
  g.script->writes = {{4, 0, ""}, {-1, EPIPE, ""}};
  EXPECT_EQ(-1, g.stream.Flush());
  EXPECT_EQ("0123", g.script->written);
  EXPECT_EQ(0, g.stream.Write(big.data(), 9000));
  EXPECT_EQ("-1 -- in 0 out 4", g.State());

  Fixture h;  // a write of 0 bytes closes the write side, without an error
  h.script->writes = {{0, 0, ""}};
  EXPECT_EQ(0, h.stream.Write(big.data(), 9000));
  EXPECT_EQ("0 r- in 0 out 0", h.State());
}

TEST(BufferedIOTest, SilentPeerTimesOutInThreeSecondWaitsAndCancelStopsFirst) {
  Fixture f;
  f.script->silent = true;
  const uint64_t start = f.script->clock.now_us;
  char buf[4];
  EXPECT_EQ(0, f.stream.Read(buf, 4));  // default idle time-out: 60 s
  EXPECT_EQ("-3 -- in 0 out 0", f.State());
  EXPECT_EQ(21, f.script->waits);  // 60 s is not yet "more than 60 s"
  EXPECT_EQ(63000000u, f.script->clock.now_us - start);
  EXPECT_EQ(0, f.script->read_calls);

  Fixture w;  // writes time out the same way, with a short limit
  w.script->silent = true;
  w.stream.SetTimeout(5);
  const std::string big = net_io_test::Pattern(9000);
  EXPECT_EQ(0, w.stream.Write(big.data(), big.size()));
  EXPECT_EQ("-3 -- in 0 out 0", w.State());
  EXPECT_EQ(2, w.script->waits);

  Fixture d;  // a deadline ends the waits before the idle time-out would
  d.script->silent = true;
  d.stream.SetDeadline(5000000);
  EXPECT_EQ(0, d.stream.Read(buf, 4));
  EXPECT_EQ("-3 -- in 0 out 0", d.State());
  EXPECT_EQ(5000000u, d.script->clock.now_us - start);

  Fixture c;
  c.script->reads = {{3, 0, "abc"}};
  c.controller.cancelled = true;
  EXPECT_EQ(0, c.stream.Read(buf, 3));
  EXPECT_EQ("-2 -- in 0 out 0", c.State());
  EXPECT_EQ(0, c.script->read_calls + c.script->waits);
}

// Files travel only inside PStream values (tests/stream); this is the
// one offset a 32-bit build could cut: past 4 GiB.
TEST(BufferedIOTest, FileReceiveAtAnOffsetPast4GiB) {
  TempDir dir;
  const uint64_t far = (uint64_t{4} << 30) + 5;
  Fixture f;
  f.script->reads = {{5, 0, "abcde"}};
  cat::File sparse(open(dir.File("sparse").c_str(), O_RDWR | O_CREAT, 0644));
  EXPECT_EQ(5, f.stream.BufferedIOBase::RecvFile(sparse, far, 5));
  char got[5] = {};
  EXPECT_EQ(5, pread(sparse.fd(), got, 5, static_cast<off_t>(far)));
  EXPECT_EQ("abcde", std::string(got, 5));
  sparse.Close();
}

TEST(HostMatchTest, WildcardsAndCase) {
  const struct {
    const char* pattern;
    const char* host;
    bool match;
  } kCases[] = {
      {"*.x.y", "a.x.y", true}, {"*.x.y", "x.y", true},     {"*.x.y", "a.b.x.y", false},
      {"X.Y", "x.y", true},     {"s.test", "s.test", true}, {"s.test", "o.test", false},
      {"*", "anything", false}, {"*", "*", false},          {"*.X.Y", "A.x.y", true},
      {"*.x.y", "ax.y", false}, {"a.x.y", "*.x.y", false},  {"", "x", false},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.match, cat::HostMatches(c.pattern, c.host)) << c.pattern << " vs " << c.host;
  }
}

TEST(SocketOpsTest, HostAddressForms) {
  const char* const kCases[][2] = {
      // the text; the address and the port after parsing, starting from 443
      {"[fe80::1:AbCd]:8443", "fe80::1:AbCd 8443"},
      {"::1", "::1 443"},
      {"10.0.0.7:5566", "10.0.0.7 5566"},
      {"cafe", "cafe 443"},  // all hex letters, but a name
  };
  for (const auto& c : kCases) {
    int port = 443;
    const std::string address = cat::ParseHostAddress(c[0], &port);
    EXPECT_EQ(c[1], address + " " + std::to_string(port));
  }
}

// Connects to 127.0.0.1:port in progress (SYN_SENT in /proc/net/tcp).
int ConnectsInProgress(int port) {
  char remote[32];
  snprintf(remote, sizeof(remote), "0100007F:%04X 02 ", port);
  return atoi(RunCommand("grep -c '" + std::string(remote) + "' /proc/net/tcp").c_str());
}

// Once the accept queue of a listener with backlog 0 holds a connection, the
// kernel drops further handshakes: a connect to it hangs until the time
// limit or the cancel flag ends it.
TEST(SocketOpsTest, HangingConnectEndsAtTheLimitOrOnCancel) {
  net_io_test::Listener listener(0);
  int filler = cat::ConnectTcp("127.0.0.1", listener.port(), 0, nullptr);
  ASSERT_GE(filler, 0);
  EXPECT_EQ(-1, cat::ConnectTcp("127.0.0.1", listener.port(), 1, nullptr));

  // The flag is set once the connect is under way: unset, it would outlast ctest's limit.
  std::atomic<int> cancel{0};
  std::thread canceller([&] {
    for (int i = 0; i < 3000 && ConnectsInProgress(listener.port()) == 0; ++i) usleep(10000);
    cancel = 1;
  });
  EXPECT_EQ(-1, cat::ConnectTcp("127.0.0.1", listener.port(), 3600, &cancel));
  canceller.join();
  close(filler);
}

}  // namespace
