// Channel over a UNIX socket pair and loopback TCP: closed channels and bad
// arguments, big-endian integers, digests, socket options, the cancel flag.
// Files (and full disks, peers gone mid-file) are PStream's to test
// (tests/stream), idle and deadline waits the buffered stream's
// (buffered_io_test.cc, on a fake clock).
#include "net/channel.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/common/temp_dir.h"
#include "tests/net_io/net_io_test_util.h"

namespace {

// `a` and `b` joined by a UNIX socket pair or loopback TCP (`a` opened by host and
// port, which is returned).
int Connect(bool tcp, Channel* a, Channel* b) {
  if (tcp) {
    net_io_test::Listener listener;
    EXPECT_EQ(0, a->Open("127.0.0.1", listener.port()));
    EXPECT_EQ(0, b->Open(listener.Accept(), true));
    return listener.port();
  }
  int fds[2];
  EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
  EXPECT_EQ(0, a->Open(fds[0], true));
  EXPECT_EQ(0, b->Open(fds[1], true));
  return 0;
}

TEST(ChannelTest, ClosedChannelAndBadArguments) {
  Channel ch;
  EXPECT_FALSE(ch.IsGood());
  char buf[4];
  size_t received = 99;
  std::string text = "x";
  int port = 0;
  // (A read of 0 bytes never touches the socket.)
  EXPECT_EQ(
      (std::vector<int>{0, -2, -2, -1, -2, -2, -1, -1, -4, -4, -4, 0}),
      (std::vector<int>{ch.Read(buf, 0, &received), ch.Read(buf, 4), ch.Write(buf, 4), ch.Flush(0),
                        ch.SendFile(0, 0, 1, nullptr), ch.RecvFile(0, 0, 1, nullptr, nullptr),
                        ch.GetPeerInfo(&text, &port), ch.SetNoDelay(true), ch.Open(nullptr, 443),
                        ch.Open("host", -1), ch.Open(-1, false), ch.GetSslSignature(&text)}));
  EXPECT_EQ("0", std::to_string(received) + ch.GetSslSignatureHash() + text);

  Channel a, b;
  Connect(false, &a, &b);
  const int first = a.GetFd();
  EXPECT_EQ(-4, a.Open(b.GetFd(), false));  // keeps the first descriptor
  EXPECT_EQ(first, a.GetFd());
  EXPECT_TRUE(a.IsGood());
  EXPECT_EQ(0, a.Close());
  EXPECT_TRUE(a.IsClosed());
  EXPECT_EQ(-1, a.GetFd());
}

TEST(ChannelTest, BigEndianIntegersExactReadsAndDigests) {
  Channel a, b;
  Connect(false, &a, &b);
  ASSERT_TRUE(a.WriteUInt8(0xAB) == 0 && a.WriteUInt16(0x0102) == 0 &&
              a.WriteUInt32(0x03040506) == 0 && a.WriteUInt64(0x0708090A0B0C0D0EULL) == 0 &&
              a.Flush(0) == 0);
  const std::string wire("\xAB\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C\x0D\x0E", 15);
  std::string raw(15, '\0');
  ASSERT_EQ(15, read(b.GetFd(), &raw[0], 15));  // beside the channel
  EXPECT_EQ(wire, raw);
  ASSERT_EQ(15, write(a.GetFd(), wire.data(), 15));
  uint8_t u8;
  uint16_t u16;
  uint32_t u32;
  uint64_t u64;
  ASSERT_TRUE(b.ReadUInt8(&u8) == 0 && b.ReadUInt16(&u16) == 0 && b.ReadUInt32(&u32) == 0 &&
              b.ReadUInt64(&u64) == 0);
  EXPECT_EQ(std::make_tuple(0xAB, 0x0102, 0x03040506u, 0x0708090A0B0C0D0EULL),
            std::make_tuple(u8, u16, u32, u64));

  // Every byte written or read passes the digest; reading it disturbs nothing.
  const std::string abc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
  EXPECT_EQ(0, a.SetHash(true, "no-such-digest"));
  EXPECT_EQ("", a.GetHash());
  EXPECT_EQ(1, a.SetHash(true, "sha256"));
  EXPECT_EQ("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855", a.GetHash());
  ASSERT_EQ(0, a.Write("abc", 3));
  EXPECT_EQ(abc + abc, a.GetHash() + a.GetHash());
  ASSERT_EQ(0, a.Write("d", 1));
  EXPECT_EQ("88d4266fd4e6338d13b845fcf289579d209c897823b9217da3e161936f031589", a.GetHash());
  a.ResetHash();
  ASSERT_EQ(0, a.Write("abc", 3));
  EXPECT_EQ(abc, a.GetHash());
  ASSERT_EQ(0, a.Flush(0));
  EXPECT_EQ(1, b.SetHash(true, "md5"));
  char buf[8];
  ASSERT_EQ(0, b.Read(buf, 7));
  EXPECT_EQ("0ac27f0cf69cf6ec2f2676a90136c140", b.GetHash());  // md5("abcdabc")
  EXPECT_EQ(1, b.SetHash(false, ""));
  EXPECT_EQ("", b.GetHash());

  // A peer that closes after 3 of 8 bytes: the read fails, reporting 3.
  ASSERT_EQ(0, a.Write("abc", 3));
  a.Close();
  size_t received = 0;
  EXPECT_EQ(-2, b.Read(buf, 8, &received));
  EXPECT_EQ(3u, received);
  EXPECT_EQ(0, b.GetIOError());   // a clean end, not an I/O error
  EXPECT_EQ(-2, b.Read(buf, 1));  // the read side stays closed
}

TEST(ChannelTest, OpenTunesTheSocketAndKnowsThePeer) {
  Channel client, server;
  const int listener_port = Connect(true, &client, &server);
  ASSERT_EQ(0, client.SetNoDelay(true));
  const struct {
    int fd, level, name, value;
  } kOptions[] = {{client.GetFd(), SOL_SOCKET, SO_KEEPALIVE, 1},
                  {client.GetFd(), IPPROTO_TCP, TCP_KEEPIDLE, 150},
                  {client.GetFd(), IPPROTO_TCP, TCP_KEEPINTVL, 10},
                  {client.GetFd(), IPPROTO_TCP, TCP_KEEPCNT, 3},
                  {client.GetFd(), IPPROTO_TCP, TCP_NODELAY, 1},
                  {client.GetFd(), SOL_SOCKET, SO_LINGER, 1 | 1 << 8},   // on, 1 s
                  {server.GetFd(), SOL_SOCKET, SO_LINGER, 1 | 1 << 8}};  // also adopted
  for (const auto& o : kOptions) {
    int value[2] = {0, 0};  // a struct linger is two ints
    socklen_t len = sizeof(value);
    ASSERT_EQ(0, getsockopt(o.fd, o.level, o.name, value, &len));
    EXPECT_EQ(o.value, value[0] | value[1] << 8) << o.name;
    EXPECT_TRUE(fcntl(o.fd, F_GETFL) & O_NONBLOCK);
  }
  std::string address;
  int port = 0;
  ASSERT_EQ(0, client.GetPeerInfo(&address, &port));
  EXPECT_EQ("127.0.0.1:" + std::to_string(listener_port), address + ":" + std::to_string(port));
}

TEST(ChannelTest, CancelFlagStopsConnectsAndReads) {
  net_io_test::Listener listener;
  std::atomic<int> cancel{1};
  Channel ch;
  ch.SetCancelFlag(&cancel);
  EXPECT_EQ(-2, ch.Open("127.0.0.1", listener.port()));
  cancel = 0;
  EXPECT_EQ(0, ch.Open("127.0.0.1", listener.port()));
  int accepted = listener.Accept();
  cancel = 1;  // a set flag also stops reads at once
  char buf[1];
  EXPECT_EQ(-2, ch.Read(buf, 1));
  EXPECT_EQ(-2, ch.GetIOError());
  close(accepted);
}

}  // namespace
