// The remote-server client against tests/peers/remote_server.py.  (TLS and the
// signature it reports are error_system_test.py's, the checks tls_test.cc's.)
#include <time.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "json/json.h"
#include "log/logger.h"
#include "net/cat/controller.h"
#include "net/proto-ui.h"
#include "tests/common/shell.h"
#include "tests/common/sync_daemon_peer.h"
#include "tests/common/temp_dir.h"

namespace {

class ProtoUITest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new TempDir();
    Logger::Init(Logger::kFile, dir_->File("test.log"), "", 50, 1);
    server_ = new PeerProcess(*dir_, "remote_server",
                              {"--port", "0", "--unix", dir_->File("server.sock")});
    port_ = atoi(server_->ready().c_str());
  }
  static void TearDownTestSuite() {
    delete server_;
    Logger::Shutdown();
    delete dir_;
  }

  void SetUp() override {
    ASSERT_TRUE(server_->started() && port_ > 0);
    server_->SetScript("{}");
    server_->Take();
  }

  static void Connect(ProtoUI* ui) {
    ui->SetServer("127.0.0.1", port_);
    ui->SetSsl(false, false, "", "");
  }

  inline static TempDir* dir_ = nullptr;
  inline static PeerProcess* server_ = nullptr;
  inline static int port_ = 0;
};

// The daemon logs in with the connection's session only, over TCP or a
// "unix:" address (where TLS, though asked for, is not used).
TEST_F(ProtoUITest, LoginAsTheServerReceivesIt) {
  for (bool unix_socket : {false, true}) {
    ProtoUI ui;
    ui.SetServer(unix_socket ? "unix:" + dir_->File("server.sock") : "127.0.0.1", port_);
    ui.SetSsl(unix_socket, false, "", "");
    ui.SetSession("S");
    ui.SetRestoreId("R");
    UserInfo info;
    EXPECT_EQ(0, ui.QueryUserInfo(&info, true));
    std::vector<Json::Value> got = server_->Take();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(unix_socket, got[0]["unix"].asBool());
    // The date is within a minute of now.
    Json::Value request = got[0]["request"];
    EXPECT_NEAR(request["@proto"]["date"].asInt64(), time(nullptr), 60);
    request["@proto"]["date"] = 0;
    Json::Value want = ParseJson(R"({"action": "query_user_info", "get_view": 1,
        "server_id": {"restore_id": "R"}, "session": "S",
        "@proto": {"type": "header", "date": 0, "version": {"major": 7, "minor": 0},
                   "body-continue": 0},
        "agent": {"platform": "Stackbay", "type": "sync",
                  "version": {"major": 3, "minor": 0, "mini": 5, "build": 12700}}})");
    EXPECT_EQ(want.toStyledString(), request.toStyledString());
  }
}

// A clock a second further on at every reading: time passes between any
// two looks at it, however quickly the server answers.
class SteppingClock : public cat::Clock {
 public:
  uint64_t NowMicros() override { return now_us += 1000000; }
  void SleepMicros(uint64_t micros) override { now_us += micros; }
  uint64_t now_us = 0;
};

TEST_F(ProtoUITest, KeepAlivesHoldAnExchangeNoLongerThanTwiceItsTimeOut) {
  // Answered after 1000 keep-alives (5 s): long past the deadline's 20 s
  // by the stepping clock.
  server_->SetScript(R"({"keep_alive": {"query_server_info": 1000}, "keep_alive_every": 0.005,
                         "replies": {"query_server_info": {"server_id": "late"}}})");
  SteppingClock clock;
  ProtoUI ui;
  Connect(&ui);
  ui.SetTimeout(10);
  ui.SetClock(&clock);
  ServerInfo info;
  EXPECT_EQ(-1, ui.QueryServerInfo(&info));
  EXPECT_EQ("-200 stream error while receiving response",
            std::to_string(ui.GetErrorCode()) + " " + ui.GetErrorReason());
}

TEST_F(ProtoUITest, FailuresAndOddReplies) {
  const struct {
    const char* address;  // "server", or another address (port 1)
    bool login;
    const char* script;
    const char* outcome;  // code, sub-code, requests the server recorded, reason
  } kCases[] = {
      {"", true, "{}", "-100 0 0 missing server ip address"},
      {"server", false, "{}", "-100 0 0 missing authentication info"},
      {"127.0.0.1", true, "{}", "-200 0 0 channel error while connecting to server"},
      {"server", true, R"({"close_after_header": ["query_user_info"]})",
       "-200 0 0 stream error while receiving response"},
      {"server", true, R"({"replies": {"*": {"uid": 1, "blob": {"$binary": "file data"}}}})",
       "-301 0 1 stream error while receiving response"},
      {"server", true, R"({"replies": {"*": {"error": {"code": 28680, "reason": "denied"}}}})",
       "-1109 0 1 protocol error, reason = 'denied'"},
      {"server", true, R"({"replies": {"*": {"error": {"code": 57635}}}})",
       "-904 57635 1 protocol error, reason = ''"},
      {"server", true, R"({"replies": {"*": {"error": {"code": 0}}}})", "0 0 1 "},
  };
  const std::string listing = RunCommand("ls -A / .");  // no file lands in either
  ProtoUI ui;  // one client throughout: each request's outcome replaces the last
  UserInfo info;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.script);
    server_->SetScript(c.script);
    Connect(&ui);
    if (std::string(c.address) != "server") ui.SetServer(c.address, 1);
    ui.SetSession(c.login ? "S" : "");
    EXPECT_EQ(-1, ui.QueryUserInfo(&info, true));
    EXPECT_EQ(c.outcome, std::to_string(ui.GetErrorCode()) + " " +
                             std::to_string(ui.GetErrorSubCode()) + " " +
                             std::to_string(server_->Take().size()) + " " + ui.GetErrorReason());
  }
  EXPECT_EQ(listing, RunCommand("ls -A / ."));
}

}  // namespace
