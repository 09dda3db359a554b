// Channel over a UNIX socket pair and loopback TCP: closed channels and bad
// arguments, socket options, the cancel flag.  Files, digests, full disks and
// peers gone mid-file are PStream's to test (tests/stream), idle and
// deadline waits the buffered stream's (buffered_io_test.cc, on a fake
// clock), TLS tls_test.cc's.
#include "net/channel.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/net_io/net_io_test_util.h"

namespace {

TEST(ChannelTest, ClosedChannelAndBadArguments) {
  Channel ch;
  EXPECT_FALSE(ch.IsGood());
  char buf[4];
  size_t received = 99;
  std::string text = "x";
  // (A read of 0 bytes never touches the socket.)
  EXPECT_EQ(
      (std::vector<int>{0, -2, -2, -1, -2, -2, -1, -4, -4, -4, 0}),
      (std::vector<int>{ch.Read(buf, 0, &received), ch.Read(buf, 4), ch.Write(buf, 4), ch.Flush(0),
                        ch.SendFile(0, 0, 1, nullptr), ch.RecvFile(0, 0, 1, nullptr, nullptr),
                        ch.SetNoDelay(true), ch.Open(nullptr, 443), ch.Open("host", -1),
                        ch.Open(-1, false), ch.GetSslSignature(&text)}));
  EXPECT_EQ("0", std::to_string(received) + ch.GetSslSignatureHash() + text);

  int fds[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
  Channel a;
  ASSERT_EQ(0, a.Open(fds[0], true));
  EXPECT_EQ(-4, a.Open(fds[1], false));  // keeps the first descriptor
  EXPECT_EQ(fds[0], a.GetFd());
  EXPECT_TRUE(a.IsGood());
  EXPECT_EQ(0, a.Close());
  EXPECT_TRUE(a.IsClosed());
  EXPECT_EQ(-1, a.GetFd());
  close(fds[1]);
}

// Keep-alive probes find a dead server; an adopted descriptor lingers too.
TEST(ChannelTest, OpenTunesTheSocket) {
  net_io_test::Listener listener;
  Channel client, server;
  ASSERT_EQ(0, client.Open("127.0.0.1", listener.port()));
  ASSERT_EQ(0, server.Open(listener.Accept(), true));
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
