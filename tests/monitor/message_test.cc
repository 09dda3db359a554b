// When the reply of one request is written relative to its handler: a
// notification is acknowledged before the handler runs, an action answered
// after it.  The handler is held inside "refresh_session" by keeping
// state_mutex locked, so the order shows without any timing luck.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "gtest/gtest.h"
#include "monitor/vesta-monitor.h"
#include "net/channel.h"
#include "stream/PObject.h"
#include "stream/stream.h"

namespace {

// One request on a socket pair; HandleMessage runs on its own thread.
class Exchange {
 public:
  Exchange(MonitorDaemon* daemon, const PObject& request) {
    int fds[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
    EXPECT_EQ(0, client_.Open(fds[0], false));
    PStream stream;
    EXPECT_EQ(0, stream.Send(&client_, request));
    const int server_fd = fds[1];
    server_ = std::thread([daemon, server_fd, this] { result_ = daemon->HandleMessage(server_fd); });
  }
  ~Exchange() {
    if (server_.joinable()) server_.join();
  }

  // True when reply bytes are waiting within `ms` milliseconds.
  bool ReplyReady(int ms) {
    pollfd p{client_.GetFd(), POLLIN, 0};
    return poll(&p, 1, ms) == 1;
  }
  PObject Reply() {
    PObject reply;
    PStream stream;
    EXPECT_EQ(0, stream.Recv(&client_, &reply));
    return reply;
  }
  int Finish() {
    server_.join();
    return result_;
  }

 private:
  Channel client_;
  std::thread server_;
  int result_ = -2;
};

TEST(HandleMessage, NotificationAckedBeforeHandlerActionAnsweredAfter) {
  MonitorDaemon d;
  d.list_share_schedule = {{1, 500, 0}};

  PObject notify;
  notify["notify"] = "share_hook";
  notify["action"] = "refresh_session";
  notify["conn_id"] = 1;
  pthread_mutex_lock(&d.state_mutex);
  {
    Exchange ex(&d, notify);
    PObject want;
    want["ack"] = "ok";
    EXPECT_TRUE(ex.ReplyReady(5000));  // while the handler waits for the lock
    EXPECT_EQ(ToJson(want), ToJson(ex.Reply()));
    EXPECT_EQ(500, d.list_share_schedule.front().last_listed);
    pthread_mutex_unlock(&d.state_mutex);
    EXPECT_EQ(0, ex.Finish());
  }
  EXPECT_EQ(0, d.list_share_schedule.front().last_listed);

  PObject action;
  action["action"] = "refresh_session";
  action["conn_id"] = 1;
  d.list_share_schedule.front().last_listed = 500;
  pthread_mutex_lock(&d.state_mutex);
  {
    Exchange ex(&d, action);
    EXPECT_FALSE(ex.ReplyReady(200));  // the handler has not run yet
    pthread_mutex_unlock(&d.state_mutex);
    EXPECT_TRUE(ex.Reply().IsNull());
    EXPECT_EQ(0, ex.Finish());
  }
  EXPECT_EQ(0, d.list_share_schedule.front().last_listed);
}

TEST(HandleMessage, UnreadableRequestGetsNoReply) {
  MonitorDaemon d;
  int fds[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
  const unsigned char kBinary[] = {0x30, 0, 0, 0, 0, 0, 0, 0, 1, 'x'};
  ASSERT_EQ(static_cast<ssize_t>(sizeof(kBinary)), write(fds[0], kBinary, sizeof(kBinary)));
  shutdown(fds[0], SHUT_WR);
  EXPECT_EQ(-1, d.HandleMessage(fds[1]));
  char byte;
  EXPECT_EQ(0, read(fds[0], &byte, 1));  // closed without a reply
  close(fds[0]);
}

}  // namespace
