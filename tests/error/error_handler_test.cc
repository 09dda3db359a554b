// The codes only the monitor raises and server changes; the sync daemon's
// codes go through the real binary in tests/system/error_system_test.py.
#include <regex>
#include <string>
#include <vector>

#include "db/system-db.h"
#include "error/nx-error-handler.h"
#include "error/version-rules.h"
#include "gtest/gtest.h"
#include "monitor/vesta-monitor.h"
#include "tests/common/log_capture.h"
#include "tests/common/sync_daemon_peer.h"
#include "tests/net_io/net_io_test_util.h"

namespace {

class ErrorHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, SystemDB::initialize(dir_.File("system.sqlite")));
    ASSERT_TRUE(peer_.started());
  }
  void TearDown() override { SystemDB::deinitialize(); }

  // Connection 1 of server "nx1" at a closed port, build `build`; its
  // session 1 runs in the sync daemon, session 2 is disabled.  Each session
  // has events, sync position 7 and two filter rows; session 3 of another
  // connection has two filter rows.
  void Reset(int build = 13000, const char* restore_id = "") {
    // One transaction per file: each commit waits for the disk.
    Sql("BEGIN; DELETE FROM connection_table; DELETE FROM session_table;"
        "INSERT INTO connection_table (id, nx_id, server_ip, server_port, linked, "
        "protocol_version, package_version, restore_id) VALUES (1, 'nx1', '127.0.0.1', " +
        std::to_string(net_io_test::FreePort()) + ", 1, 70, " + std::to_string(build) + ", '" +
        restore_id + "');"
        "INSERT INTO session_table (id, conn_id, share_name, sync_folder, remote_path, "
        "view_id, is_daemon_enable, status) VALUES (1, 1, 'docs', 'home/', '/docs/', 11, "
        "1, 1), (2, 1, 'team', 'home/', '/team/', 12, 0, 1); COMMIT;");
    const std::string root = volume_ + "/@FernboxTandem/";
    ASSERT_EQ(0, system(("mkdir -p " + root + "db " + root + "session/1/db " + root +
                         "session/2/db").c_str()));
    unlink(FilterDb().c_str());
    SqliteShell(FilterDb(), "BEGIN; CREATE TABLE filter_table (sess_id); CREATE TABLE "
                            "filter_range_table (sess_id); INSERT INTO filter_table VALUES "
                            "(1), (2), (3); INSERT INTO filter_range_table VALUES (1), (2), (3);"
                            "COMMIT;");
    std::string events = "BEGIN; CREATE TABLE config_table (key TEXT, value TEXT);"
                         "INSERT INTO config_table VALUES ('sync_id', '7');";
    for (const char* t : {"event_table", "local_filter_table", "server_filter_table",
                          "scan_path_table"}) {
      events += std::string("CREATE TABLE ") + t + " (x); INSERT INTO " + t + " VALUES (1);";
    }
    for (const char* id : {"1", "2"}) {
      unlink(EventDb(id).c_str());
      SqliteShell(EventDb(id), events + "COMMIT;");
    }
    Effects();
  }

  std::string FilterDb() { return volume_ + "/@FernboxTandem/db/filter.sqlite"; }
  std::string EventDb(const std::string& id) {
    return volume_ + "/@FernboxTandem/session/" + id + "/db/event-db.sqlite";
  }
  // Events left and sync position of a session: "1|7" untouched, "0|0" reset.
  std::string Events(const std::string& id) {
    return SqliteShell(EventDb(id),
                       "SELECT count(*), (SELECT value FROM config_table) FROM event_table");
  }
  std::string Sql(const std::string& sql) { return SqliteShell(dir_.File("system.sqlite"), sql); }

  ConnectionEntry Connection() {
    ConnectionEntry c;
    EXPECT_EQ(0, SystemDB::getConnectionEntryByConnID(1, &c));
    return c;
  }
  SessionInfo Session() {
    SessionInfo s;
    EXPECT_EQ(0, SystemDB::getSessionInfoBySessionID(1, &s));
    return s;
  }

  // What happened since the last call: the sync daemon's requests ("action
  // s<session>" or "action c<connection>"; an add_event with its number of
  // keys), the notification identifiers and the ERROR and CRIT lines logged
  // (the ERROR level word left out); each list ", "-joined, the three " / "-joined.
  std::string Effects() {
    std::string commands, notes, errors;
    for (const Json::Value& r : peer_.TakeRequests()) {
      commands += (commands.empty() ? "" : ", ") + r["action"].asString() +
                  (r.isMember("session_id") ? " s" + r["session_id"].asString()
                                            : " c" + r["connection_id"].asString()) +
                  (r["action"] == "add_event" ? "/" + std::to_string(r.size()) : "");
    }
    for (const Json::Value& n :
         TakeJsonLines(dir_.File("var/lib/vesta/notifications.jsonl"), &notified_)) {
      notes += (notes.empty() ? "" : ", ") + n["notify_id"].asString();
    }
    std::istringstream lines(log_.Take());
    // An entry that runs on in the line of the one before it ends as "+".
    const std::regex next_entry(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d \(.*)");
    for (std::string line; std::getline(lines, line);) {
      if (line.rfind("ERROR ", 0) != 0 && line.rfind("CRIT ", 0) != 0) continue;
      errors += (errors.empty() ? "" : ", ") + std::regex_replace(line.substr(line[0] == 'E' ? 6 : 0), next_entry, "+");
    }
    return commands + " / " + notes + " / " + errors;
  }

  TempDir dir_;
  LogCapture log_{dir_, "error_handler=7\n"};
  const std::string volume_ = MakeVestaRoot(dir_);
  SyncDaemonPeer peer_{dir_};
  int notified_ = 0;
};

TEST_F(ErrorHandlerTest, CodesOnlyTheMonitorRaises) {
  const std::string kNoSignature =
      "ProNXQuerySSLSignature: code: -200, reason: channel error while connecting to server., "
      "Failed to pass sign auth.";
  const std::string kUnknown = " / UnknownError / unknown session error code ";
  // Session 1's error|status|is_daemon_enable, the connection's
  // error|status|linked, then the effects.
  const std::string kCases[][2] = {
      {"0", "0|1|1 0|0|1  /  / "},
      {"12", "-11|0|1 0|0|1 remove_session s1 / LocalShareNotMounted / "},
      {"13", "0|1|1 -1|0|1  /  / "},
      {"17", "-14|0|0 0|3|0 remove_session s1, unlink_connection c1" + kUnknown + "17"},
      {"18", "-14|0|0 0|3|0 remove_session s1, unlink_connection c1" + kUnknown + "18"},
      {"22", "0|1|1 -2|2|1 pause c1 / ServerNeedToUpdate / "},
      {"23", "0|1|1 -3|2|1 pause c1 / ClientNeedToUpdate / "},
      {"24", "0|1|1 -4|2|1 pause c1 / ServerNeedToUpdate / "},
      {"25", "0|1|1 -5|2|1 pause c1 / NXChange / "},
      {"26", "0|1|1 -1|0|1  /  / "},
      {"27", "0|1|1 -6|2|1 pause c1 / AuthError / "},
      {"28", "0|1|1 -7|2|1 pause c1 / SSLVerifyFail / " + kNoSignature},
      {"29", "0|1|1 -8|2|1 pause c1 / SSLChange / " + kNoSignature},
      {"30", "0|1|1 0|0|1  / SyncDirectionMismatch / unknown error code 30"},
      {"31", "-14|3|1 0|0|1 pause s1" + kUnknown + "31"},
      {"32", "0|1|1 -14|2|1 pause c1 / UnknownError / unknown connection error code 32"},
      {"37", "-14|3|1 0|0|1 pause s1" + kUnknown + "37"},
      {"38", "0|1|1 0|0|1  / UnknownError / unknown error code 38"},
      {"40", "0|1|1 0|0|1  / UnknownError / unknown error code 40"},
  };
  MonitorDaemon monitor;
  for (const auto& c : kCases) {
    Reset();
    monitor.HandleError(Connection(), Session(), std::stoi(c[0]), nullptr);
    EXPECT_EQ(c[1], Sql("SELECT error, status, is_daemon_enable FROM session_table WHERE id = 1") +
                        " " + Sql("SELECT error, status, linked FROM connection_table") + " " +
                        Effects())
        << c[0];
  }
  // The unlink slot given an error of its own first disables every enabled
  // session of the connection.
  Reset();
  EXPECT_EQ(0, NXClientErrorHandler().UnlinkConnection(Connection(), 25));
  EXPECT_EQ("0|0|0 -5|3|0 remove_session s1, unlink_connection c1 /  / ",
            Sql("SELECT error, status, is_daemon_enable FROM session_table WHERE id = 1") + " " +
                Sql("SELECT error, status, linked FROM connection_table") + " " + Effects());
}

TEST_F(ErrorHandlerTest, ServerChanges) {
  const std::string kResync =
      "remove_session s1, reload_connection c1, add_session s1, add_event s1/4";
  const std::string kChanged = " /  / ErrorHandler::HandleServerVersionChanged: ";
  const struct {
    const char* name;
    int from, to;
    const char *old_restore_id, *new_nx_id;
    int protocol;
    bool resync;             // both sessions' events and filter rows reset
    const char* connection;  // error|status|package_version
    std::string effects;     // logged after "ErrorHandler::HandleServerVersionChanged: "
  } kCases[] = {
      // Builds below 10000 are not served.
      {"3000 to 4000", 3000, 4000, "", "nx1", 70, true, "-2|2|4000",
       kResync + ", pause c1" + kChanged + "Server build number 4000 is too old+"},
      {"3500 to 4200", 3500, 4200, "", "nx1", 70, false, "-2|2|4200",
       "reload_connection c1, reload_session s1, pause c1" + kChanged +
           "Server build number 4200 is too old+"},
      {"10200 to 12500", 10200, 12500, "", "nx1", 70, false, "0|0|12500",
       "reload_connection c1, add_event s1/4, add_event s2/4 /  / "},
      {"12124 to 13000", 12124, 13000, "", "nx1", 70, false, "0|0|13000", "reload_connection c1 /  / "},
      {"restored a to b", 13000, 13000, "a", "nx1", 70, true, "0|0|13000", kResync + " /  / "},
      {"restored '' to b", 13000, 13000, "", "nx1", 70, false, "0|0|13000", "reload_connection c1 /  / "},
      {"another machine", 3000, 4000, "", "nx2", 70, false, "-5|2|3000", "pause c1 /  / "},
      {"protocol 69", 12124, 13000, "", "nx1", 69, false, "-2|2|13000",
       "reload_connection c1, pause c1" + kChanged + "Server protocol version not support or degradation"},
      {"protocol 80", 12124, 13000, "", "nx1", 80, false, "-3|2|13000",
       "reload_connection c1, pause c1" + kChanged + "Client protocol version not support or degradation"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Reset(c.from, c.old_restore_id);
    Sql("UPDATE connection_table SET error = -9, status = 2;"
        "UPDATE session_table SET error = -3, status = 3;");
    const ConnectionEntry old = Connection();
    ConnectionEntry now = old;
    now.package_version = c.to;
    now.restore_id = "b";
    now.nx_id = c.new_nx_id;
    now.protocol_version = c.protocol;
    NXClientErrorHandler(ResyncPause{0}).HandleError(now, Session(), 16, &old);

    EXPECT_EQ(c.effects, Effects());
    EXPECT_EQ(c.connection, Sql("SELECT error, status, package_version FROM connection_table"));
    EXPECT_EQ(c.resync ? "1|0\n3|-3" : "3|-3\n3|-3",
              Sql("SELECT status, error FROM session_table ORDER BY id"));
    EXPECT_EQ(c.resync ? "0|0 0|0" : "1|7 1|7", Events("1") + " " + Events("2"));
    EXPECT_EQ(c.resync ? "3,3" : "1,1,2,2,3,3",
              SqliteShell(FilterDb(), "SELECT group_concat(sess_id) FROM (SELECT sess_id FROM "
                                      "filter_table UNION ALL SELECT sess_id FROM "
                                      "filter_range_table ORDER BY sess_id)"));
  }
}

TEST(ErrorHandlerRules, ProtocolAndBuild) {
  const int kProtocol[][2] = {{69, 2}, {70, 0}, {75, 1}, {79, 1}, {80, 3}, {0, 2}, {-75, 2}};
  for (const auto& c : kProtocol) EXPECT_EQ(c[1], CheckProtocolVersion(c[0])) << c[0];
  EXPECT_TRUE(IsBuildNumberTooOld(9999));
  EXPECT_FALSE(IsBuildNumberTooOld(10000));
}

TEST(ErrorHandlerRules, WhichNameTheCertificateMustCarry) {
  struct Case {
    int conn_mode;
    bool allow_untrust;
    const char* server_name;
    const char* host;  // "-": no check
  } const kCases[] = {
      {0, true, "nas:5000", "-"},
      {1, false, "", "-"},
      {512, false, "nas:5000", "files.example.org"},
      {512 | 256 | 5, false, "nas", "files.example.org"},
      {3, false, "nas.example.org:5000", "nas.example.org"},
      {4, false, "nas:5000", "192.0.2.1"},
      {256 | 3, false, "nas", "-"},
      {256 | 4, false, "nas", "-"},
      {256 | 5, false, "nas", "-"},
      {256 | 32 | 1, false, "nas", "-"},
      {256 | 1, false, "nas", "192.0.2.1"},
  };
  for (const Case& c : kCases) {
    ConnectionEntry e;
    e.conn_mode = c.conn_mode;
    e.ssl_allow_untrust = c.allow_untrust;
    e.server_name = c.server_name;
    e.server_ip = "192.0.2.1";
    e.domain_name = "files.example.org:5001";
    const SslHostCheck check = NXClientErrorHandler::SslHostRule(e);
    EXPECT_EQ(c.host, check.verify ? check.host : "-") << c.conn_mode;
  }
}

}  // namespace
