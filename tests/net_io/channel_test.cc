// Channel over real descriptors: a UNIX socket pair and loopback TCP.  Files
// cross in both transfer modes and are compared by the sha256sum tool; a
// child process with a small file-size limit shows the file-too-large code.
#include "net/channel.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>

#include "gtest/gtest.h"
#include "tests/common/temp_dir.h"
#include "tests/net_io/net_io_test_util.h"

namespace {

const bool kSigpipeIgnored = net_io_test::IgnoreSigpipe();

using net_io_test::MakeFile;
using net_io_test::Sha256Of;

// Two channels joined by a UNIX socket pair.
struct Pair {
  Pair() {
    int fds[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
    a.Open(fds[0], true);
    b.Open(fds[1], true);
  }
  Channel a;
  Channel b;
};

// Two channels joined over loopback TCP: `client` connected with
// Open(host, port), `server` adopting the accepted descriptor.
struct TcpPair {
  TcpPair() {
    net_io_test::Listener listener;
    client_rc = client.Open("127.0.0.1", listener.port());
    server_rc = server.Open(listener.Accept(), true);
  }
  Channel client;
  Channel server;
  int client_rc;
  int server_rc;
};

// Counts what the channel reports, as a stream's transfer reporter would.
class CountingReporter : public Channel::ProgressReporter {
 public:
  void Update(uint64_t bytes) override { total += bytes; }
  uint64_t GetBytes() const override { return total; }
  uint64_t total = 0;
};

int OpenForWrite(const std::string& path) { return open(path.c_str(), O_RDWR | O_CREAT, 0644); }

TEST(ChannelTest, ClosedChannelAndBadArguments) {
  Channel ch;
  EXPECT_TRUE(ch.IsClosed());
  EXPECT_FALSE(ch.IsGood());
  char buf[4];
  size_t received = 99;
  EXPECT_EQ(ch.Read(buf, 0, &received), 0);  // never touches the socket
  EXPECT_EQ(received, 0u);
  EXPECT_EQ(ch.Read(buf, 4), -2);
  EXPECT_EQ(ch.Write(buf, 4), -2);
  EXPECT_EQ(ch.Flush(0), -1);
  EXPECT_EQ(ch.SendFile(0, 0, 1, nullptr), -2);
  EXPECT_EQ(ch.RecvFile(0, 0, 1, nullptr, nullptr), -2);
  std::string address;
  int port = 0;
  EXPECT_EQ(ch.GetPeerInfo(&address, &port), -1);
  EXPECT_EQ(ch.SetNoDelay(true), -1);
  EXPECT_EQ(ch.Open(nullptr, 443), -4);
  EXPECT_EQ(ch.Open("host", -1), -4);
  EXPECT_EQ(ch.Open(-1, false), -4);
  EXPECT_EQ(ch.GetSslSignatureHash(), "");
  std::string sig = "x";
  EXPECT_EQ(ch.GetSslSignature(&sig), 0);
  EXPECT_EQ(sig, "");

  Pair p;
  int first = p.a.GetFd();
  int fds[2];
  socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
  EXPECT_EQ(p.a.Open(fds[0], false), -4);  // keeps the first descriptor
  EXPECT_EQ(p.a.GetFd(), first);
  close(fds[0]);
  close(fds[1]);
  EXPECT_TRUE(p.a.IsGood());
  EXPECT_EQ(p.a.Close(), 0);
  EXPECT_TRUE(p.a.IsClosed());
  EXPECT_EQ(p.a.GetFd(), -1);
}

TEST(ChannelTest, ExactReadsAndBigEndianIntegers) {
  Pair p;
  ASSERT_EQ(p.a.WriteUInt8(0xAB), 0);
  ASSERT_EQ(p.a.WriteUInt16(0x0102), 0);
  ASSERT_EQ(p.a.WriteUInt32(0x03040506), 0);
  ASSERT_EQ(p.a.WriteUInt64(0x0708090A0B0C0D0EULL), 0);
  ASSERT_EQ(p.a.Flush(0), 0);
  // The raw bytes, read beside the channel.
  unsigned char raw[15];
  ASSERT_EQ(read(p.b.GetFd(), raw, sizeof(raw)), 15);
  const unsigned char expected[15] = {0xAB, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07,
                                      0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E};
  EXPECT_EQ(memcmp(raw, expected, sizeof(raw)), 0);

  ASSERT_EQ(write(p.a.GetFd(), expected, sizeof(expected)), 15);
  uint8_t u8;
  uint16_t u16;
  uint32_t u32;
  uint64_t u64;
  EXPECT_EQ(p.b.ReadUInt8(&u8), 0);
  EXPECT_EQ(p.b.ReadUInt16(&u16), 0);
  EXPECT_EQ(p.b.ReadUInt32(&u32), 0);
  EXPECT_EQ(p.b.ReadUInt64(&u64), 0);
  EXPECT_EQ(u8, 0xAB);
  EXPECT_EQ(u16, 0x0102);
  EXPECT_EQ(u32, 0x03040506u);
  EXPECT_EQ(u64, 0x0708090A0B0C0D0EULL);
  EXPECT_EQ(Channel::Swap16(0x0102), 0x0201);
  EXPECT_EQ(Channel::Swap32(0x01020304u), 0x04030201u);
  EXPECT_EQ(Channel::Swap64(0x0102030405060708ULL), 0x0807060504030201ULL);

  // A peer that closes after 3 of 8 bytes: the read fails, reporting 3.
  ASSERT_EQ(p.a.Write("abc", 3), 0);
  p.a.Close();
  char buf[8];
  size_t received = 0;
  EXPECT_EQ(p.b.Read(buf, 8, &received), -2);
  EXPECT_EQ(received, 3u);
  EXPECT_EQ(p.b.GetIOError(), 0);  // a clean end, not an I/O error
  EXPECT_EQ(p.b.Read(buf, 1), -2);  // the read side stays closed
}

TEST(ChannelTest, DigestOfEveryByteThatPasses) {
  Pair p;
  EXPECT_EQ(p.a.SetHash(true, "no-such-digest"), 0);
  EXPECT_EQ(p.a.GetHash(), "");
  EXPECT_EQ(p.a.SetHash(true, "sha256"), 1);
  EXPECT_EQ(p.a.GetHash(),  // the empty input
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  ASSERT_EQ(p.a.Write("abc", 3), 0);
  const std::string abc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
  EXPECT_EQ(p.a.GetHash(), abc);
  EXPECT_EQ(p.a.GetHash(), abc);  // reading it does not disturb it
  ASSERT_EQ(p.a.Write("d", 1), 0);
  EXPECT_NE(p.a.GetHash(), abc);
  p.a.ResetHash();
  ASSERT_EQ(p.a.Write("abc", 3), 0);
  EXPECT_EQ(p.a.GetHash(), abc);
  ASSERT_EQ(p.a.Flush(0), 0);

  EXPECT_EQ(p.b.SetHash(true, "md5"), 1);  // reads are digested too
  char buf[7];
  ASSERT_EQ(p.b.Read(buf, 7), 0);
  EXPECT_EQ(std::string(buf, 7), "abcdabc");
  EXPECT_EQ(p.b.GetHash(), "0ac27f0cf69cf6ec2f2676a90136c140");  // md5("abcdabc")
  EXPECT_EQ(p.b.SetHash(false, ""), 1);
  EXPECT_EQ(p.b.GetHash(), "");
}

TEST(ChannelTest, LargeFileOverLoopbackTcpArrivesIntact) {
  TempDir dir;
  const std::string src = dir.File("src");
  const std::string dst = dir.File("dst");
  const uint64_t size = 64ull << 20;
  MakeFile(src, size);

  TcpPair t;
  ASSERT_EQ(t.client_rc, 0);
  ASSERT_EQ(t.server_rc, 0);
  EXPECT_EQ(t.client.SetNoDelay(true), 0);
  std::string address;
  int port = 0;
  ASSERT_EQ(t.server.GetPeerInfo(&address, &port), 0);
  EXPECT_EQ(address, "127.0.0.1");
  std::string client_address;
  int client_port = 0;
  ASSERT_EQ(t.client.GetPeerInfo(&client_address, &client_port), 0);
  EXPECT_GT(port, 0);
  EXPECT_GT(client_port, 0);

  int in = open(src.c_str(), O_RDONLY);
  auto sender = std::async(std::launch::async, [&] {
    CountingReporter r;
    int rc = t.client.SendFile(in, 0, size, &r);
    if (rc == 0) rc = t.client.Flush(0);
    return rc == 0 && r.total == size ? 0 : -1;
  });
  int out = OpenForWrite(dst);
  CountingReporter r;
  uint64_t received = 0;
  EXPECT_EQ(t.server.RecvFile(out, 0, size, &r, &received), 0);
  EXPECT_EQ(received, size);
  EXPECT_EQ(r.total, size);
  EXPECT_EQ(sender.get(), 0);
  close(in);
  close(out);
  EXPECT_EQ(Sha256Of(dst), Sha256Of(src));
}

TEST(ChannelTest, ResumedTransferBehindAHeaderOverASocketPair) {
  TempDir dir;
  const std::string src = dir.File("src");
  const std::string dst = dir.File("dst");
  const uint64_t size = 6000000;
  const uint64_t offset = 1000003;  // not page-aligned
  MakeFile(src, size, 7);
  // The receiver already holds the first `offset` bytes.
  RunCommand("head -c " + std::to_string(offset) + " '" + src + "' > '" + dst + "'");

  Pair p;
  int in = open(src.c_str(), O_RDONLY);
  auto sender = std::async(std::launch::async, [&] {
    // A small header first: the receiver's buffered read takes file bytes
    // along with it.
    if (p.a.WriteUInt32(0xCAFEF00D) != 0) return -1;
    int rc = p.a.SendFile(in, offset, size - offset, nullptr);
    return rc == 0 ? p.a.Flush(0) : rc;
  });
  uint32_t header = 0;
  ASSERT_EQ(p.b.ReadUInt32(&header), 0);
  EXPECT_EQ(header, 0xCAFEF00Du);
  int out = OpenForWrite(dst);
  uint64_t received = 0;
  EXPECT_EQ(p.b.RecvFile(out, offset, size - offset, nullptr, &received), 0);
  EXPECT_EQ(received, size - offset);
  EXPECT_EQ(sender.get(), 0);
  close(in);
  close(out);
  EXPECT_EQ(Sha256Of(dst), Sha256Of(src));
}

TEST(ChannelTest, DigestingSendAndCopyingReceiveAgreeOnTheHash) {
  TempDir dir;
  const std::string src = dir.File("src");
  const std::string dst = dir.File("dst");
  const uint64_t size = 3000000;
  MakeFile(src, size, 3);
  Pair p;
  ASSERT_EQ(p.a.SetHash(true, "sha256"), 1);
  ASSERT_EQ(p.b.SetHash(true, "sha256"), 1);
  int in = open(src.c_str(), O_RDONLY);
  auto sender = std::async(std::launch::async, [&] {
    CountingReporter r;
    int rc = p.a.SendFile(in, 100, size - 100, &r);  // digesting send
    if (rc == 0) rc = p.a.Flush(0);
    return rc == 0 && r.total == size - 100 ? 0 : -1;
  });
  int out = OpenForWrite(dst);
  CountingReporter r;
  uint64_t received = 0;
  EXPECT_EQ(p.b.RecvFile(out, 0, size - 100, &r, &received), 0);  // copying receive
  EXPECT_EQ(received, size - 100);
  EXPECT_EQ(r.GetBytes(), size - 100);
  EXPECT_EQ(sender.get(), 0);
  close(in);
  close(out);
  const std::string expected = Sha256Of(src, 100);
  EXPECT_EQ(Sha256Of(dst), expected);
  EXPECT_EQ(p.a.GetHash(), expected);
  EXPECT_EQ(p.b.GetHash(), expected);

  // Discarding into /dev/null with the copying receive.
  ASSERT_EQ(p.a.Write("0123456789", 10), 0);
  ASSERT_EQ(p.a.Flush(0), 0);
  int null_fd = open("/dev/null", O_WRONLY);
  CountingReporter discard;
  EXPECT_EQ(p.b.RecvFileCopying(null_fd, 0, 10, &discard), 0);
  EXPECT_EQ(discard.GetBytes(), 10u);
  close(null_fd);
}

TEST(ChannelTest, PeerVanishingMidFileLeavesWhatArrived) {
  TempDir dir;
  const std::string src = dir.File("src");
  const std::string dst = dir.File("dst");
  MakeFile(src, 1 << 20, 5);
  for (int copying = 0; copying < 2; ++copying) {
    Pair p;
    if (copying) p.b.SetHash(true, "sha1");
    int in = open(src.c_str(), O_RDONLY);
    auto sender = std::async(std::launch::async, [&] {
      int rc = p.a.SendFile(in, 0, 1 << 20, nullptr);  // 1 MiB of a promised 4
      if (rc == 0) rc = p.a.Flush(0);
      p.a.Close();
      return rc;
    });
    int out = open(dst.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    CountingReporter r;
    uint64_t received = 0;
    EXPECT_EQ(p.b.RecvFile(out, 0, 4 << 20, &r, &received), -2) << copying;
    EXPECT_EQ(sender.get(), 0);
    EXPECT_EQ(received, copying ? (1u << 20) - (1u << 20) % Channel::kDefaultBlockSize
                                : (1u << 20)) << copying;
    EXPECT_EQ(r.GetBytes(), received);
    close(in);
    close(out);
    EXPECT_EQ(Sha256Of(dst, 0, static_cast<long long>(received)),
              Sha256Of(src, 0, static_cast<long long>(received)));
  }
}

// In a child limited to 1 MiB files, a receive that would pass the limit
// ends with -34 in both receive modes.  Returns the child's exit code: the
// negated channel result.
int ReceiveUnderFileLimit(const std::string& path, bool copying) {
  int fds[2];
  socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit = {1 << 20, 1 << 20};
    setrlimit(RLIMIT_FSIZE, &limit);
    Channel ch;
    ch.Open(fds[1], true);
    if (copying) ch.SetHash(true, "sha256");
    int out = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    uint64_t received = 0;
    int rc = ch.RecvFile(out, 0, 4 << 20, nullptr, &received);
    _exit(-rc);
  }
  close(fds[1]);
  std::vector<char> data(4 << 20, 'x');
  size_t sent = 0;
  while (sent < data.size()) {
    ssize_t w = write(fds[0], data.data() + sent, data.size() - sent);
    if (w <= 0) break;  // the child stopped reading
    sent += static_cast<size_t>(w);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  close(fds[0]);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(ChannelTest, FileTooLargeAndDiskFullHaveTheirOwnCodes) {
  TempDir dir;
  EXPECT_EQ(ReceiveUnderFileLimit(dir.File("plain"), false), 34);
  EXPECT_EQ(ReceiveUnderFileLimit(dir.File("copying"), true), 34);

  // /dev/full fails every write with ENOSPC.
  for (int copying = 0; copying < 2; ++copying) {
    Pair p;
    if (copying) p.b.SetHash(true, "sha256");
    std::string data(100000, 'y');
    auto sender = std::async(std::launch::async, [&] {
      p.a.Write(data.data(), data.size());
      return p.a.Flush(0);
    });
    int full = open("/dev/full", O_WRONLY);
    ASSERT_GE(full, 0);
    EXPECT_EQ(p.b.RecvFile(full, 0, data.size(), nullptr, nullptr), -16) << copying;
    close(full);
    p.b.Close();
    sender.get();
  }
}

TEST(ChannelTest, SilentPeerTimesOutAndCancelStopsAConnect) {
  Pair p;
  p.b.SetTimeout(1);
  char buf[1];
  EXPECT_EQ(p.b.Read(buf, 1), -2);  // after one 3-second wait
  EXPECT_EQ(p.b.GetIOError(), -3);
  EXPECT_FALSE(p.b.IsGood());

  net_io_test::Listener listener;
  std::atomic<int> cancel{1};
  Channel ch;
  ch.SetCancelFlag(&cancel);
  EXPECT_EQ(ch.Open("127.0.0.1", listener.port()), -2);
  EXPECT_EQ(ch.Connect("127.0.0.1", listener.port()), -1);
  cancel = 0;
  EXPECT_EQ(ch.Open("127.0.0.1", listener.port()), 0);
  int accepted = listener.Accept();
  cancel = 1;  // a set flag also stops reads at once
  EXPECT_EQ(ch.Read(buf, 1), -2);
  EXPECT_EQ(ch.GetIOError(), -2);
  close(accepted);
}

TEST(ChannelTest, UnixSocketPathOpen) {
  TempDir dir;
  const std::string path = dir.File("s.sock");
  int lfd = socket(AF_UNIX, SOCK_STREAM, 0);
  struct sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
  ASSERT_EQ(bind(lfd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)), 0);
  listen(lfd, 4);
  Channel ch;
  EXPECT_EQ(ch.Open(dir.File("missing.sock")), -2);
  ASSERT_EQ(ch.Open(path), 0);
  int server_fd = accept(lfd, nullptr, nullptr);
  Channel server;
  ASSERT_EQ(server.Open(server_fd, true), 0);
  ASSERT_EQ(ch.Write("ping", 4), 0);
  ASSERT_EQ(ch.Flush(0), 0);
  char buf[4];
  ASSERT_EQ(server.Read(buf, 4), 0);
  EXPECT_EQ(std::string(buf, 4), "ping");
  close(lfd);
}

}  // namespace
