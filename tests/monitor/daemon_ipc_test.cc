// The sync-daemon command client against the simulated sync daemon of
// tests/peers/sync_daemon.py, which has its own wire codec: every request is
// checked key by key as the daemon decoded it, with expected values typed
// here from the command tables (integers as numbers, texts as strings).
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "ipc/daemon_ipc.h"
#include "json/json.h"
#include "log/logger.h"
#include "stream/PObject.h"
#include "tests/common/sync_daemon_peer.h"
#include "tests/common/temp_dir.h"

namespace {

class DaemonIpcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    volume_ = MakeVestaRoot(dir_);
    Logger::Init(Logger::kFile, dir_.File("test.log"), "", 50, 1);
    daemon_.reset(new SyncDaemonPeer(dir_));
    ASSERT_TRUE(daemon_->started()) << "simulated daemon did not start";
  }

  void TearDown() override {
    daemon_.reset();
    Logger::Shutdown();
    unsetenv("VESTA_ROOT");
  }

  void StopDaemon() { daemon_->Stop(); }
  void SetScript(const std::string& json) { daemon_->SetScript(json); }
  std::vector<Json::Value> TakeRequests() { return daemon_->TakeRequests(); }
  void ExpectRequests(const std::vector<std::string>& expected) {
    daemon_->ExpectRequests(expected);
  }

  std::string Log() { return ReadFile(dir_.File("test.log")); }

  SessionInfo HomeSession() {
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
    s.conflict_policy = "compare_mtime";
    s.rename_conflict = false;
    s.attribute_check_strength = 3;
    s.with_q9share = true;
    return s;
  }

  TempDir dir_;
  std::string volume_;
  std::unique_ptr<SyncDaemonPeer> daemon_;
};

TEST_F(DaemonIpcTest, EveryCommandAsTheDaemonReceivesIt) {
  const uint64_t big = 0x8000000000000001ULL;  // travels as 8 bytes
  EXPECT_EQ(0, RemoveSession(1));
  EXPECT_EQ(0, PauseSession(2));
  EXPECT_EQ(0, ResumeSession(3));
  EXPECT_EQ(0, RemoveWatchSession(4));
  EXPECT_EQ(0, PauseConnection(5));
  EXPECT_EQ(0, UnlinkConnection(big));
  EXPECT_EQ(0, ReloadSessionFilter(7));
  EXPECT_EQ(0, ReloadSessionConflictPolicy(8, "rename", true));
  EXPECT_EQ(0, AddEvent(9, "upload", "/a b/c", true));
  EXPECT_EQ(0, AddWatchSession(10, false));
  PObject status;
  EXPECT_EQ(0, GetStatus(&status));
  ExpectRequests({
      R"({"action": "remove_session", "session_id": 1})",
      R"({"action": "pause", "session_id": 2})",
      R"({"action": "resume", "session_id": 3})",
      R"({"action": "remove_watch_session", "session_id": 4})",
      R"({"action": "pause", "connection_id": 5})",
      R"({"action": "unlink_connection", "connection_id": -9223372036854775807})",
      R"({"action": "reload_session", "session_id": 7, "do_reload_filter": 1})",
      R"({"action": "reload_session", "session_id": 8, "conflict_policy": "rename",
          "rename_conflict": 1})",
      R"({"action": "add_event", "session_id": 9, "type": "upload", "path": "/a b/c",
          "is_dir": 1})",
      R"({"action": "add_watch_session", "session_id": 10, "merge_mode": 0})",
      R"({"action": "get_status"})",
  });
}

TEST_F(DaemonIpcTest, ReplyRules) {
  PObject reply;
  SetScript(R"({"replies": {"pause": {"error": "busy", "ack": "ok"},
                            "resume": {"ack": "later"},
                            "get_status": {"connection_list": [{"connection_id": 3}]},
                            "remove_session": {"ack": "ok", "extra": 1},
                            "reload_session": {"error": 17}},
               "close": ["unlink_connection"]})");
  EXPECT_EQ(-1, PauseSession(1));
  EXPECT_NE(std::string::npos, Log().find("ipc response error[action=pause, error=busy]"));
  EXPECT_EQ(-1, ResumeSession(1));
  EXPECT_NE(std::string::npos, Log().find("ipc ack not ok[ack=later]"));
  EXPECT_EQ(0, RemoveSession(1));
  EXPECT_EQ(-1, ReloadSessionFilter(1));
  EXPECT_NE(std::string::npos, Log().find("ipc response error[action=reload_session, error=17]"));
  EXPECT_EQ(0, AddWatchSession(1, true));  // "*" absent: empty map succeeds
  EXPECT_EQ(-1, UnlinkConnection(1));
  EXPECT_NE(std::string::npos,
            Log().find("receive ipc command fail[action=unlink_connection]"));

  EXPECT_EQ(0, GetStatus(&reply));
  EXPECT_EQ(3, reply.Lookup("connection_list").AsArray().at(0).Lookup("connection_id")
                   .AsInteger());

  StopDaemon();
  EXPECT_EQ(-1, PauseConnection(1));
  EXPECT_NE(std::string::npos, Log().find("open domain socket fail[code="));
  EXPECT_NE(std::string::npos, Log().find("path=" + dir_.File("tmp/tarn.sock") + "]"));
}

TEST_F(DaemonIpcTest, AddSession) {
  GeneralOptions options;
  options.sync_mode = 2;
  const std::string session_dir = volume_ + "/@FernboxTandem/session/12";

  // Both flags: the three-way merge event and no resume.
  EXPECT_EQ(0, AddSession(HomeSession(), options, true, true));
  struct stat st;
  ASSERT_EQ(0, stat(session_dir.c_str(), &st));
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(0755u, st.st_mode & 0777);
  const std::string add =
      R"({"action": "add_session", "sync_mode": 2, "session_id": 12, "connection_id": 3,
          "view_id": 4000000000, "node_id": 5, "sync_folder": "home",
          "config_path": ")" + session_dir + R"(", "perm_mode": "domain-only",
          "share_name": "team", "sync_direction": 2, "ignore_local_remove": 1,
          "conflict_policy": "compare_mtime", "rename_conflict": 0,
          "attribute_check_strength": 3, "with_q9share": 1})";
  ExpectRequests({add, R"({"action": "add_event", "session_id": 12,
                           "type": "three_way_merge", "path": "/"})"});

  // Resume alone; perm_mode outside the table travels as "".
  SessionInfo s = HomeSession();
  s.perm_mode = 5;
  EXPECT_EQ(0, AddSession(s, options, true, false));
  std::vector<Json::Value> got = TakeRequests();
  ASSERT_EQ(2u, got.size());
  EXPECT_EQ("", got[0]["perm_mode"].asString());
  EXPECT_EQ(ParseJson(R"({"action": "resume", "session_id": 12})"), got[1]);

  // Neither flag: only the add.
  EXPECT_EQ(0, AddSession(HomeSession(), options, false, false));
  EXPECT_EQ(1u, TakeRequests().size());

  // Perm-mode names, checked against the table typed here.
  const char* const kNames[][2] = {{"0", "sync-all"}, {"1", "domain-only"},
                                   {"2", "exec-bit-only"}, {"3", ""}, {"-1", ""}};
  for (const auto& row : kNames) EXPECT_STREQ(row[1], PermModeName(atoi(row[0]))) << row[0];

  // The daemon rejects the add: no follow-up is sent.
  SetScript(R"({"replies": {"add_session": {"error": "no"}}})");
  EXPECT_EQ(-1, AddSession(HomeSession(), options, true, false));
  EXPECT_EQ(1u, TakeRequests().size());
  EXPECT_NE(std::string::npos, Log().find("add session to daemon fail[id=12,path=team]"));
}

TEST_F(DaemonIpcTest, AddSessionFailsBeforeSending) {
  GeneralOptions options;
  SessionInfo s = HomeSession();
  s.id = 77;
  dir_.Write("volume1/@FernboxTandem/session/77", "a regular file");
  EXPECT_EQ(-1, AddSession(s, options, true, false));
  EXPECT_NE(std::string::npos, Log().find("create session folder fail"));

  s.id = 78;
  s.sync_folder = "no-such-share";
  EXPECT_EQ(-1, AddSession(s, options, true, false));
  EXPECT_NE(std::string::npos, Log().find("get share path fail[no-such-share]"));
  EXPECT_NE(std::string::npos, Log().find("prepare PObject for adding session fail"));
  EXPECT_TRUE(TakeRequests().empty());
}

TEST_F(DaemonIpcTest, AddSessionOfANamedShare) {
  ASSERT_EQ(0, system(("mkdir -p '" + dir_.File("etc/vesta/shares") + "'").c_str()));
  dir_.Write("etc/vesta/shares/docs.conf", "path=/volume1/docs\n");
  SessionInfo s = HomeSession();
  s.sync_folder = "docs";
  s.perm_mode = 0;
  GeneralOptions options;
  EXPECT_EQ(0, AddSession(s, options, false, false));
  std::vector<Json::Value> got = TakeRequests();
  ASSERT_EQ(1u, got.size());
  EXPECT_EQ("/volume1/docs", got[0]["sync_folder"].asString());
  EXPECT_EQ("sync-all", got[0]["perm_mode"].asString());
  EXPECT_EQ(0, got[0]["sync_mode"].asInt());
}

ConnectionEntry SampleConnection() {
  ConnectionEntry c;
  c.id = 9;
  c.server_name = "nas";
  c.conn_mode = 48;
  c.domain_name = "example.org";
  c.server_ip = "10.1.2.3";
  c.server_port = 6690;
  c.nx_id = "nx";
  c.restore_id = "r1";
  c.protocol_version = 70;
  c.use_ssl = true;
  c.ssl_signature = "AB:CD";
  c.ssl_allow_untrust = false;
  c.proxy.proxy_ip = "not-sent";  // the connection's own proxy is never used
  c.tunnel.tunnel_ip = "10.9.9.9";
  c.tunnel.tunnel_port = 443;
  c.session = "sid";
  c.username = "alice";
  c.computer_name = "pc";
  c.package_version = 10001;
  c.major = 3;
  c.minor = 1;
  return c;
}

TEST_F(DaemonIpcTest, ReloadConnectionWithoutSystemProxy) {
  EXPECT_EQ(0, ReloadConnection(SampleConnection()));
  ExpectRequests({R"({"action": "reload_connection", "connection_id": 9,
      "server_name": "nas", "connection_mode": 48, "domain_name": "example.org",
      "server_ip": "10.1.2.3", "server_port": 6690, "nx_id": "nx", "restore_id": "r1",
      "protocol_version": 70, "use_ssl": 1, "ssl_signature": "AB:CD",
      "ssl_allow_untrust": 0, "use_proxy": 1, "use_sys_proxy": 1, "proxy_ip": "",
      "proxy_port": 0, "proxy_username": "", "proxy_password": "", "proxy_domain": "",
      "proxy_host": "", "tunnel_ip": "10.9.9.9", "tunnel_port": 443, "session": "sid",
      "username": "alice", "computer_name": "pc", "package_version": 10001,
      "package_major": 3, "package_minor": 1})"});
}

TEST_F(DaemonIpcTest, ReloadConnectionWithSystemProxy) {
  ASSERT_EQ(0, system(("mkdir -p '" + dir_.File("etc/vesta") + "'").c_str()));
  dir_.Write("etc/vesta/proxy.conf",
             "enabled=yes\nhost=10.0.0.1\nport=3128\nauth_enabled=yes\n"
             "username=CORP\\alice\npassword=secret\n");
  EXPECT_EQ(0, ReloadConnection(SampleConnection()));
  std::vector<Json::Value> got = TakeRequests();
  ASSERT_EQ(1u, got.size());
  Json::Value want = ParseJson(R"({"use_proxy": 1, "use_sys_proxy": 0,
      "proxy_ip": "10.0.0.1", "proxy_port": 3128, "proxy_username": "alice",
      "proxy_password": "secret", "proxy_domain": "CORP"})");
  for (const std::string& key : want.getMemberNames()) {
    EXPECT_EQ(want[key], got[0][key]) << key;
  }
  char host[512] = {};
  gethostname(host, sizeof(host) - 1);
  EXPECT_EQ(std::string(host), got[0]["proxy_host"].asString());
  EXPECT_EQ("10.9.9.9", got[0]["tunnel_ip"].asString());
}

}  // namespace
