// A notification is acknowledged before its handler runs, an action answered
// after it; the handler is held inside "refresh_session" by state_mutex.
#include <poll.h>
#include <sys/socket.h>

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
  for (const bool notify : {true, false}) {
    SCOPED_TRACE(notify ? "notification" : "action");
    MonitorDaemon d;
    d.list_share_schedule = {{1, 500, 0}};
    PObject request;
    if (notify) request["notify"] = "share_hook";
    request["action"] = "refresh_session";
    request["conn_id"] = 1;
    pthread_mutex_lock(&d.state_mutex);
    Exchange ex(&d, request);
    // While the handler waits for the lock, a notification has its answer
    // and an action has none.
    EXPECT_EQ(notify, ex.ReplyReady(notify ? 5000 : 200));
    EXPECT_EQ(500, d.list_share_schedule.front().last_listed);
    pthread_mutex_unlock(&d.state_mutex);
    EXPECT_EQ(notify ? "{\"ack\": \"ok\"}" : "null", ToJson(ex.Reply()));
    EXPECT_EQ(0, ex.Finish());
    EXPECT_EQ(0, d.list_share_schedule.front().last_listed);
  }
}

}  // namespace
