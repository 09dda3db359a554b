// The sync-daemon command client against tests/peers/sync_daemon.py, which
// has its own wire codec: every request is checked whole as it decoded it.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "ipc/daemon_ipc.h"
#include "json/json.h"
#include "stream/PObject.h"
#include "tests/common/sync_daemon_peer.h"
#include "tests/common/temp_dir.h"
#include "tests/db/db_test_util.h"

namespace {

class DaemonIpcTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(peer_.started()) << "simulated daemon did not start"; }
  void TearDown() override { unsetenv("VESTA_ROOT"); }

  static SessionInfo HomeSession() {
    SessionInfo s;
    s.id = 12;
    s.conn_id = 3;
    s.view_id = 4000000000ULL;
    s.node_id = 5;
    s.share_name = "team";
    s.sync_folder = "home";
    s.perm_mode = 1;
    s.sync_direction = 2;
    s.ignore_local_remove = true;
    s.attribute_check_strength = 3;
    s.with_q9share = true;
    return s;
  }

  TempDir dir_;
  LogCapture log_{dir_, ""};
  const std::string volume_ = MakeVestaRoot(dir_);
  SyncDaemonPeer peer_{dir_};
};

// A session's pause, resume, remove, watch, filter reload and upload event,
// as the daemon receives them, are the share hooks' system test's.
TEST_F(DaemonIpcTest, CommandsAsTheDaemonReceivesThem) {
  EXPECT_EQ(0, PauseConnection(5));
  EXPECT_EQ(0, UnlinkConnection(0x8000000000000001ULL));  // travels as 8 bytes
  EXPECT_EQ(0, ReloadSessionConflictPolicy(8, "rename", true));
  EXPECT_EQ(0, AddEvent(9, "upload", "/a b/c", false));
  PObject status;
  EXPECT_EQ(0, GetStatus(&status));
  peer_.ExpectRequests({
      R"({"action": "pause", "connection_id": 5})",
      R"({"action": "unlink_connection", "connection_id": -9223372036854775807})",
      R"({"action": "reload_session", "session_id": 8, "conflict_policy": "rename",
          "rename_conflict": 1})",
      R"({"action": "add_event", "session_id": 9, "type": "upload", "path": "/a b/c",
          "is_dir": 0})",
      R"({"action": "get_status"})",
  });
}

TEST_F(DaemonIpcTest, ReplyRules) {
  peer_.SetScript(R"({"replies": {"pause": {"error": "busy", "ack": "ok"},
                                  "resume": {"ack": "later"},
                                  "get_status": {"connection_list": [{"connection_id": 3}]},
                                  "remove_session": {"ack": "ok", "extra": 1},
                                  "reload_session": {"error": 17}},
                     "close": ["unlink_connection"]})");
  log_.ExpectEach({
      {[] { return PauseSession(1); }, -1, "ERROR ipc response error[action=pause, error=busy]"},
      {[] { return ResumeSession(1); }, -1, "ERROR ipc ack not ok[ack=later]"},
      {[] { return ReloadSessionFilter(1); }, -1,
       "ERROR ipc response error[action=reload_session, error=17]"},
      {[] { return UnlinkConnection(1); }, -1,
       "WARNING Channel: -2\nERROR Error stack: \n"
       "ERROR receive ipc command fail[action=unlink_connection]"},
  });
  EXPECT_EQ(0, RemoveSession(1));
  EXPECT_EQ(0, AddWatchSession(1, true));  // "*" absent: empty map succeeds
  PObject reply;
  EXPECT_EQ(0, GetStatus(&reply));
  EXPECT_EQ(3, reply.Lookup("connection_list").AsArray().at(0).Lookup("connection_id")
                   .AsInteger());

  peer_.Stop();
  EXPECT_EQ(-1, PauseConnection(1));
  const std::string line = log_.Take();
  EXPECT_EQ(0u, line.find("ERROR open domain socket fail[code=")) << line;
  EXPECT_NE(std::string::npos, line.find(", path=" + dir_.File("tmp/tarn.sock") + "]\n")) << line;
}

TEST_F(DaemonIpcTest, AddSession) {
  GeneralOptions options;
  options.sync_mode = 2;
  const std::string session_dir = volume_ + "/@FernboxTandem/session/12";
  const std::string add =
      R"({"action": "add_session", "sync_mode": 2, "session_id": 12, "connection_id": 3,
          "view_id": 4000000000, "node_id": 5, "sync_folder": "home",
          "config_path": ")" + session_dir + R"(", "perm_mode": "domain-only",
          "share_name": "team", "sync_direction": 2, "ignore_local_remove": 1,
          "conflict_policy": "compare_mtime", "rename_conflict": 0,
          "attribute_check_strength": 3, "with_q9share": 1})";
  // Both flags: the three-way merge event and no resume (the resume alone is
  // the share hooks' system test's).
  EXPECT_EQ(0, AddSession(HomeSession(), options, true, true));
  struct stat st;
  ASSERT_EQ(0, stat(session_dir.c_str(), &st));
  EXPECT_EQ(S_IFDIR | 0755u, st.st_mode & (S_IFMT | 0777));
  peer_.ExpectRequests({add, R"({"action": "add_event", "session_id": 12,
                                 "type": "three_way_merge", "path": "/"})"});

  // A rejected add has no follow-up; the last two fail before anything is sent.
  peer_.SetScript(R"({"replies": {"add_session": {"error": "no"}}})");
  SessionInfo file = HomeSession(), unknown = HomeSession();
  file.id = 77;
  dir_.Write("volume1/@FernboxTandem/session/77", "a regular file");
  unknown.sync_folder = "no-such-share";
  log_.ExpectEach({
      {[&] { return AddSession(HomeSession(), options, true, false); }, -1,
       "ERROR ipc response error[action=add_session, error=no]\n"
       "ERROR add session to daemon fail[id=12,path=team]"},
      {[&] { return AddSession(file, options, true, false); }, -1,
       "ERROR create session folder fail"},
      {[&] { return AddSession(unknown, options, true, false); }, -1,
       "ERROR ZEPHShareGet(no-such-share): -1 Error code: 5120\n"
       "ERROR get share path fail[no-such-share]\nERROR prepare PObject for adding session fail"},
  });
  EXPECT_EQ(1u, peer_.TakeRequests().size());
}

TEST_F(DaemonIpcTest, ReloadConnection) {
  ConnectionEntry c = SampleConnection();  // its own proxy is never used
  c.id = 9;
  c.username = "alice";
  Json::Value want = ParseJson(R"({"action": "reload_connection", "connection_id": 9,
      "server_name": "o'brien's server", "connection_mode": 5, "domain_name": "example.test",
      "server_ip": "10.0.0.7", "server_port": 6690, "nx_id": "NX1", "restore_id": "r1",
      "protocol_version": 70, "use_ssl": 1, "ssl_signature": "sig",
      "ssl_allow_untrust": 1, "use_proxy": 1, "use_sys_proxy": 1, "proxy_ip": "",
      "proxy_port": 0, "proxy_username": "", "proxy_password": "", "proxy_domain": "",
      "proxy_host": "", "tunnel_ip": "10.2.2.2", "tunnel_port": 65535,
      "session": "sess-token", "username": "alice", "computer_name": "pc",
      "package_version": 10234, "package_major": 7, "package_minor": 2})");
  EXPECT_EQ(0, ReloadConnection(c));
  EXPECT_EQ(std::vector<Json::Value>{want}, peer_.TakeRequests());
}

}  // namespace
