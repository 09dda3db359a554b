// A notification is acknowledged before its handler runs, an action answered
// after it; the handler is held inside "refresh_session" by state_mutex.
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "gtest/gtest.h"
#include "monitor/vesta-monitor.h"
#include "net/channel.h"
#include "stream/PObject.h"
#include "stream/stream.h"
#include "tests/common/shell.h"

namespace {

TEST(HandleMessage, NotificationAckedBeforeHandlerActionAnsweredAfter) {
  for (const bool notify : {true, false}) {
    SCOPED_TRACE(notify ? "notification" : "action");
    MonitorDaemon d;
    d.list_share_schedule = {{1, 500, 0}};
    PObject request, reply;
    if (notify) request["notify"] = "share_hook";
    request["action"] = "refresh_session";
    request["conn_id"] = 1;
    int fds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
    Channel client;
    ASSERT_EQ(0, client.Open(fds[0], false));
    ASSERT_EQ(0, PStream().Send(&client, request));
    pthread_mutex_lock(&d.state_mutex);
    std::atomic<pid_t> tid{0};
    int result = -2;
    std::thread server([&] {
      tid = static_cast<pid_t>(syscall(SYS_gettid));
      result = d.HandleMessage(fds[1]);
    });
    // Once the handler sleeps on the lock, a notification has its answer
    // (within a generous deadline) and an action none.
    EXPECT_TRUE(WaitFor([&] { return tid != 0 && ThreadState(tid) == 'S'; }));
    pollfd p{client.GetFd(), POLLIN, 0};
    EXPECT_EQ(notify ? 1 : 0, poll(&p, 1, notify ? 5000 : 0));
    EXPECT_EQ(500, d.list_share_schedule.front().last_listed);
    pthread_mutex_unlock(&d.state_mutex);
    EXPECT_EQ(0, PStream().Recv(&client, &reply));
    EXPECT_EQ(notify ? "{\"ack\": \"ok\"}" : "null", ToJson(reply));
    server.join();
    EXPECT_EQ(0, result);
    EXPECT_EQ(0, d.list_share_schedule.front().last_listed);
  }
}

}  // namespace
