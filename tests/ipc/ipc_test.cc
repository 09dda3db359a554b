// IPCServer and IPCSender over real UNIX sockets.
#include "ipc/ipc.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
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
// request and, if `answer`, answers with `reply`, by default {"echo": request}.
PObject ServeOne(IPCServer* server, PObject reply = PObject(), bool answer = true) {
  EXPECT_EQ(1, server->WaitForConnection());
  Channel channel;
  EXPECT_EQ(0, channel.Open(server->Accept(), false));
  PObject request;
  PStream in, out;
  EXPECT_EQ(0, in.Recv(&channel, &request));
  if (reply.IsNull()) reply["echo"] = request;
  if (answer) out.Send(&channel, reply);
  return request;
}

class IPCTest : public ::testing::Test {
 protected:
  TempDir dir_;
  LogCapture log_{dir_, ""};
  const std::string path_ = dir_.File("monitor.sock");
};

TEST_F(IPCTest, ListenReplacesStaleFileAndCloseRemovesIt) {
  dir_.Write("monitor.sock", "left over by an earlier run");
  IPCServer server;
  ASSERT_EQ(0, server.Listen(path_, 8));
  EXPECT_EQ("socket 666", What(path_));

  // A second Listen fails and leaves the first socket alone.
  EXPECT_EQ(-1, server.Listen(dir_.File("other.sock"), 8));
  EXPECT_EQ("-", What(dir_.File("other.sock")));
  EXPECT_EQ("socket 666", What(path_));

  server.Close();
  EXPECT_EQ("-", What(path_));
  EXPECT_EQ(-1, server.Accept());
  EXPECT_EQ(0, server.WaitForConnection());
  server.Close();  // harmless twice

  // Listening again after Close works; the destructor removes the file.
  {
    IPCServer again;
    ASSERT_EQ(0, again.Listen(path_, 1));
  }
  EXPECT_EQ("-", What(path_));
}

TEST_F(IPCTest, LongPathIsBoundUnderItsFirst107Bytes) {
  std::string long_path = dir_.path() + "/";
  while (long_path.size() < 130) long_path += "d";
  const std::string bound = long_path.substr(0, 107);
  // A stale socket under the cut name is replaced too.
  dir_.Write(bound.substr(dir_.path().size() + 1), "stale");

  IPCServer server;
  ASSERT_EQ(0, server.Listen(long_path, 4));
  EXPECT_EQ("socket 666", What(bound));
  EXPECT_EQ("-", What(long_path));

  // A client reaches it under the cut name.
  std::thread client([&] {
    IPCSender sender;
    ASSERT_EQ(0, sender.Connect(bound));
    PObject request("x"), reply;
    EXPECT_EQ(0, sender.SendRequest(request, true, &reply));
  });
  ServeOne(&server);
  client.join();

  server.Close();
  EXPECT_EQ("-", What(bound));
}

TEST_F(IPCTest, FailuresLeaveNothingBehindAndWaitsEnd) {
  IPCServer server;
  EXPECT_EQ(-1, server.Listen("", 4));
  EXPECT_EQ(-1, server.Listen(dir_.File("no/such/dir/sock"), 4));
  EXPECT_NE(std::string::npos, log_.Take().find("bind: No such file or directory (2)"));
  EXPECT_FALSE(server.IsListening());
  EXPECT_EQ(-1, server.Accept());

  IPCSender sender;
  EXPECT_EQ(-1, sender.Connect(dir_.File("nobody-listens")));
  PObject reply;
  EXPECT_EQ(-1, sender.SendRequest(PObject(1), true, &reply));

  // With nobody connecting, a wait ends after three seconds.
  ASSERT_EQ(0, server.Listen(path_, 4));
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(0, server.WaitForConnection());
  double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_GE(waited, 2.9);
  EXPECT_LT(waited, 30.0);
}

TEST_F(IPCTest, ExchangesWithAndWithoutWaiting) {
  IPCServer server;
  ASSERT_EQ(0, server.Listen(path_, 4));

  // wait = false: returns once written, before the server has even accepted.
  PObject request;
  request["action"] = "stop";
  request["long"] = std::string(20000, 'z');
  {
    IPCSender sender;
    ASSERT_EQ(0, sender.Connect(path_));
    PObject untouched(5);
    EXPECT_EQ(0, sender.SendRequest(request, false, &untouched));
    EXPECT_EQ(5, untouched.AsInteger());
    EXPECT_TRUE(ServeOne(&server, PObject(), false) == request);
  }

  // wait = true: the reply is read through the Receive slot.
  struct CountingSender : IPCSender {
    int Receive(PObject* reply) override {
      ++receives;
      return IPCSender::Receive(reply);
    }
    int receives = 0;
  };
  std::thread serve([&] { ServeOne(&server); });
  CountingSender sender;
  ASSERT_EQ(0, sender.Connect(path_));
  PObject reply;
  EXPECT_EQ(0, sender.SendRequest(request, true, &reply));
  serve.join();
  EXPECT_EQ(1, sender.receives);
  EXPECT_TRUE(reply.Lookup("echo") == request);

  // A server that closes without answering: the receive fails.
  std::thread silent([&] {
    ASSERT_EQ(1, server.WaitForConnection());
    close(server.Accept());
  });
  IPCSender unlucky;
  ASSERT_EQ(0, unlucky.Connect(path_));
  silent.join();
  EXPECT_EQ(-1, unlucky.Receive(&reply));

  // A reply that carries a file is refused.
  const std::string file = dir_.Write("payload", "abc");
  std::thread binary([&] { ServeOne(&server, PObject(PObject::binary_type{0, 3, file})); });
  IPCSender refused;
  ASSERT_EQ(0, refused.Connect(path_));
  EXPECT_EQ(-1, refused.SendRequest(PObject(1), true, &reply));
  binary.join();
}

// A stop ends an exchange with a silent sync daemon.  Once stopping, an
// exchange with a live peer still goes through (a stopping daemon still
// hands work back) and one with a silent peer is given up after the grace.
TEST_F(IPCTest, AStopEndsExchangesWithASilentPeer) {
  IPCServer server;
  ASSERT_EQ(0, server.Listen(path_, 4));
  static std::atomic<int32_t> run{1};
  IPCSender::m_run_flag = &run;
  PObject request, reply;
  request["action"] = "get_status";

  std::promise<void> asked;
  std::future<void> sent = asked.get_future();
  std::future<int> waiting = std::async(std::launch::async, [&] {
    IPCSender sender;
    if (sender.Connect(path_) != 0 || sender.Send(request) != 0) return -2;
    asked.set_value();
    return sender.Receive(&reply);
  });
  sent.wait();
  ASSERT_EQ(1, server.WaitForConnection());
  Channel silent;  // accepted, never answered
  ASSERT_EQ(0, silent.Open(server.Accept(), false));
  run = 0;
  EXPECT_EQ(std::future_status::ready, waiting.wait_for(std::chrono::seconds(30)));
  EXPECT_EQ(-1, waiting.get());

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
