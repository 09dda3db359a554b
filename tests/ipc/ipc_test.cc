// IPCServer and IPCSender over real UNIX sockets.
#include "ipc/ipc.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "stream/PObject.h"
#include "stream/stream.h"
#include "tests/common/log_capture.h"
#include "tests/common/temp_dir.h"

namespace {

// "-" when nothing is there, else "socket " or "file " and the mode bits.
std::string What(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return "-";
  char mode[8];
  snprintf(mode, sizeof(mode), "%o", st.st_mode & 07777);
  return (S_ISSOCK(st.st_mode) ? "socket " : "file ") + std::string(mode);
}

// The server side of one exchange: waits for a connection, reads its
// request and answers with `reply`, by default {"echo": request}.
void ServeOne(IPCServer* server, PObject reply = PObject()) {
  EXPECT_EQ(1, server->WaitForConnection());
  Channel channel;
  EXPECT_EQ(0, channel.Open(server->Accept(), false));
  PObject request;
  EXPECT_EQ(0, PStream().Recv(&channel, &request));
  if (reply.IsNull()) reply["echo"] = request;
  PStream().Send(&channel, reply);
}

class IPCTest : public ::testing::Test {
 protected:
  TempDir dir_;
  LogCapture log_{dir_, ""};
  const std::string path_ = dir_.File("monitor.sock");
};

TEST_F(IPCTest, ListenReplacesAStaleFileAndTheEndRemovesTheSocket) {
  // A path past 107 bytes is bound under its first 107, where a stale file
  // is replaced too; a client reaches it there.
  std::string long_path = dir_.path() + "/";
  while (long_path.size() < 130) long_path += "d";
  const std::string bound = long_path.substr(0, 107);
  for (const std::string& path : {path_, long_path}) {
    const std::string file = path.substr(0, 107);
    dir_.Write(file.substr(dir_.path().size() + 1), "left over by an earlier run");
    IPCServer server;
    ASSERT_EQ(0, server.Listen(path, 8));
    EXPECT_EQ("socket 666", What(file));
    std::thread client([&] {
      IPCSender sender;
      PObject reply;
      EXPECT_EQ(0, sender.Connect(file) + sender.SendRequest(PObject("x"), true, &reply));
      EXPECT_EQ(R"({"echo": "x"})", ToJson(reply));
    });
    ServeOne(&server);
    client.join();
  }  // the destructor removes the socket
  EXPECT_EQ("--", What(path_) + What(bound));
}

TEST_F(IPCTest, FailuresLeaveNothingBehindAndWaitsEnd) {
  IPCServer server;
  EXPECT_EQ(-1, server.Listen(dir_.File("no/such/dir/sock"), 4));
  EXPECT_TRUE(log_.Logged("ERROR bind: No such file or directory (2)"));
  EXPECT_EQ(-1, server.Accept());

  IPCSender sender;
  EXPECT_EQ(-1, sender.Connect(dir_.File("nobody-listens")));

  // With nobody connecting, a wait ends empty.
  ASSERT_EQ(0, server.Listen(path_, 4));
  server.SetWaitTimeout(0, 1000);
  EXPECT_EQ(0, server.WaitForConnection());
}

// (Replies and their absence are the daemon command client's tests.)
TEST_F(IPCTest, AReplyCarryingAFileIsRefused) {
  IPCServer server;
  ASSERT_EQ(0, server.Listen(path_, 4));
  const std::string file = dir_.Write("payload", "abc");
  std::thread serve([&] { ServeOne(&server, PObject(PObject::binary_type{0, 3, file})); });
  IPCSender sender;
  PObject reply;
  ASSERT_EQ(0, sender.Connect(path_));
  EXPECT_EQ(-1, sender.SendRequest(PObject(1), true, &reply));
  serve.join();
}

// Once stopping, an exchange with a live peer still goes through (a
// stopping daemon still hands work back) and one with a silent peer is
// given up after the grace.  (A stop during an exchange with a silent sync
// daemon is faults_system_test.py's.)
TEST_F(IPCTest, WhileStoppingLivePeersAreAnsweredAndSilentOnesGivenUp) {
  IPCServer server;
  ASSERT_EQ(0, server.Listen(path_, 4));
  static std::atomic<int32_t> stopping{0};
  IPCSender::m_run_flag = &stopping;
  PObject request, reply;
  request["action"] = "get_status";
  std::thread live([&] { ServeOne(&server); });
  IPCSender late;
  ASSERT_EQ(0, late.Connect(path_));
  EXPECT_EQ(0, late.SendRequest(request, true, &reply));
  live.join();
  IPCSender unanswered;  // queued, never accepted
  ASSERT_EQ(0, unanswered.Connect(path_));
  EXPECT_EQ(-1, unanswered.SendRequest(request, true, &reply));
  IPCSender::m_run_flag = nullptr;
}

}  // namespace
