// The system database against real files: the schema as the sqlite3 shell
// shows it, every operation with its path and flag rules, the proxy
// password, and several threads and another process at once.
#include "db/system-db.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <map>
#include <thread>

#include "db/base64.h"
#include "gtest/gtest.h"
#include "tests/common/temp_dir.h"
#include "tests/db/db_test_util.h"

namespace {

// One column as it must be declared: name, type with its constraint, and
// the DEFAULT text ("" for none).
struct Column {
  const char* name;
  const char* type;
  const char* dflt;
};

const Column kConnectionTable[] = {
    {"id", "INTEGER PRIMARY KEY AUTOINCREMENT", ""},
    {"conn_mode", "INTEGER", "0"},
    {"server_name", "TEXT", "''"},
    {"server_ip", "TEXT", "''"},
    {"server_port", "INTEGER", "0"},
    {"hopgate_mode", "TEXT", "''"},
    {"username", "TEXT COLLATE NOCASE", "''"},
    {"nx_id", "TEXT", "''"},
    {"session", "TEXT NOT NULL", "''"},
    {"protocol_version", "INTEGER", "0"},
    {"computer_name", "TEXT", "''"},
    {"use_ssl", "INTEGER", "0"},
    {"use_proxy", "INTEGER", "0"},
    {"use_system_proxy", "INTEGER", "0"},
    {"proxy_ip", "TEXT", "''"},
    {"proxy_port", "INTEGER", "0"},
    {"proxy_username", "TEXT", "''"},
    {"proxy_password", "TEXT", "''"},
    {"proxy_domain", "TEXT", "''"},
    {"proxy_host", "TEXT", "''"},
    {"use_tunnel", "INTEGER", "0"},
    {"tunnel_ip", "TEXT", "''"},
    {"tunnel_port", "INTEGER", "0"},
    {"linked", "INTEGER", "0"},
    {"status", "INTEGER", "0"},
    {"error", "INTEGER", "0"},
    {"package_version", "INTEGER", "0"},
    {"major", "INTEGER", "0"},
    {"minor", "INTEGER", "0"},
    {"ssl_allow_untrust", "INTEGER", "0"},
    {"user_uid", "INTEGER", "0"},
    {"user_gid", "INTEGER", "0"},
    {"user_is_admin", "INTEGER", "1"},
    {"ssl_signature", "TEXT", "''"},
    {"private_key_pem", "TEXT", "''"},
    {"public_key_fingerprint", "TEXT", "''"},
    {"restore_id", "TEXT", "''"},
    {"enable_shared_with_me", "INTEGER", "0"},
    {"conn_type", "INTEGER", "0"},
    {"host_name", "TEXT", "''"},
    {"cloud_extension_clsid", "TEXT", "''"},
    {"domain_name", "TEXT", "''"},
};

const Column kSessionTable[] = {
    {"id", "INTEGER PRIMARY KEY AUTOINCREMENT", ""},
    {"conn_id", "INTEGER", "0"},
    {"share_name", "TEXT COLLATE NOCASE", "''"},
    {"remote_path", "TEXT", "''"},
    {"ctime", "DATATIME", "(strftime('%s','now'))"},
    {"view_id", "INTEGER", "0"},
    {"node_id", "INTEGER", "0"},
    {"status", "INTEGER", "0"},
    {"error", "INTEGER", "0"},
    {"share_version", "INTEGER", "0"},
    {"sync_folder", "TEXT", "''"},
    {"perm_mode", "INTEGER", "0"},
    {"is_read_only", "INTEGER", "0"},
    {"is_daemon_enable", "INTEGER", "0"},
    {"sync_direction", "INTEGER", "0"},
    {"ignore_local_remove", "INTEGER", "0"},
    {"conflict_policy", "TEXT", "'compare_mtime'"},
    {"rename_conflict", "INTEGER", "1"},
    {"is_encryption", "INTEGER", "0"},
    {"is_mounted", "INTEGER", "1"},
    {"attribute_check_strength", "INTEGER", "0"},
    {"sync_temp_file", "INTEGER", "0"},
    {"use_windows_cloud_file_api", "INTEGER", "0"},
    {"is_shared_with_me", "INTEGER", "0"},
    {"session_type", "INTEGER", "0"},
    {"with_q9share", "INTEGER", "0"},
    {"q9_share_id", "TEXT", "''"},
    {"q9_hash_key", "TEXT", "''"},
};

const Column kServerViewTable[] = {
    {"view_id", "INTEGER", "0"},
    {"node_id", "INTEGER", "0"},
    {"conn_id", "INTEGER", "0"},
    {"privilege", "INTEGER", "0"},
    {"name", "TEXT COLLATE NOCASE", "''"},
    {"share_version", "INTEGER", "0"},
    {"share_priv_disabled", "INTEGER", "0"},
    {"is_encryption", "INTEGER", "0"},
    {"is_mount", "INTEGER", "1"},
    {"is_q9share", "INTEGER", "0"},
    {"PRIMARY KEY (view_id, conn_id) ON CONFLICT REPLACE", "", ""},
};

const Column kSystemTable[] = {
    {"key", "VARCHAR PRIMARY KEY ON CONFLICT IGNORE", ""},
    {"value", "VARCHAR NOT NULL", ""},
};

const Column kBackupPlanTable[] = {
    {"task_id", "INTEGER", "0"},
    {"last_complete_time", "INTEGER", "0"},
    {"next_update_time", "INTEGER", "0"},
    {"backup_start_time", "TEXT", "'00:00'"},
    {"backup_end_time", "INTEGER", "0"},
    {"backup_status", "INTEGER", "0"},
    {"backup_mode", "INTEGER", "0"},
    {"backup_days", "TEXT", "'1111111'"},
    {"backup_times", "INTEGER", "0"},
    {"backup_period", "INTEGER", "0"},
    {"do_missing_backup", "INTEGER", "0"},
};

std::string Trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \n\t");
  size_t e = s.find_last_not_of(" \n\t");
  return b == std::string::npos ? "" : s.substr(b, e - b + 1);
}

// Splits a column list at the commas outside parentheses and quotes.
std::vector<std::string> SplitDefinitions(const std::string& body) {
  std::vector<std::string> parts;
  std::string cur;
  int depth = 0;
  bool quoted = false;
  for (char c : body) {
    if (c == '\'') quoted = !quoted;
    if (!quoted && c == '(') ++depth;
    if (!quoted && c == ')') --depth;
    if (!quoted && depth == 0 && c == ',') {
      parts.push_back(Trim(cur));
      cur.clear();
    } else {
      cur += c;
    }
  }
  parts.push_back(Trim(cur));
  return parts;
}

// The column definitions of `table` as the .schema output declares them.
std::vector<std::string> DeclaredColumns(const std::string& schema, const std::string& table) {
  std::string head = "CREATE TABLE " + table + " (";
  size_t at = schema.find(head);
  if (at == std::string::npos) return {};
  size_t begin = at + head.size();
  size_t end = schema.find(");", begin);
  return SplitDefinitions(schema.substr(begin, end - begin));
}

template <size_t N>
void ExpectColumns(const std::string& schema, const std::string& table,
                   const Column (&expected)[N]) {
  std::vector<std::string> got = DeclaredColumns(schema, table);
  ASSERT_EQ(N, got.size()) << table;
  for (size_t i = 0; i < N; ++i) {
    std::string want = expected[i].name;
    if (*expected[i].type) want += std::string(" ") + expected[i].type;
    if (*expected[i].dflt) want += std::string(" DEFAULT ") + expected[i].dflt;
    EXPECT_EQ(want, got[i]) << table << " column " << i + 1;
  }
}

class SystemDBTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = dir_.File("system.sqlite");
    ASSERT_EQ(0, SystemDB::initialize(path_));
  }
  void TearDown() override { SystemDB::deinitialize(); }

  // Inserts a connection and returns its id.
  uint64_t AddConnection(const std::string& nx_id, int conn_type) {
    DirectDb db(path_);
    db.Exec("INSERT INTO connection_table (nx_id, conn_type, server_name) VALUES ('" + nx_id +
            "', " + std::to_string(conn_type) + ", 'server-" + nx_id + "');");
    return std::stoull(db.Value("SELECT max(id) FROM connection_table;"));
  }

  uint64_t AddSession(uint64_t conn_id, uint64_t view_id, const std::string& remote_path,
                      const std::string& sync_folder) {
    DirectDb db(path_);
    db.Exec("INSERT INTO session_table (conn_id, view_id, remote_path, sync_folder) VALUES (" +
            std::to_string(conn_id) + ", " + std::to_string(view_id) + ", '" + remote_path +
            "', '" + sync_folder + "');");
    return std::stoull(db.Value("SELECT max(id) FROM session_table;"));
  }

  TempDir dir_;
  LogCapture log_{dir_};
  std::string path_;
};

TEST_F(SystemDBTest, SchemaAsTheShellShowsIt) {
  int status = 0;
  std::string schema = RunCommand("sqlite3 " + ShellQuote(path_) + " .schema", &status);
  ASSERT_EQ(0, status);
  ExpectColumns(schema, "connection_table", kConnectionTable);
  ExpectColumns(schema, "session_table", kSessionTable);
  ExpectColumns(schema, "server_view_table", kServerViewTable);
  ExpectColumns(schema, "system_table", kSystemTable);
  ExpectColumns(schema, "backup_plan_table", kBackupPlanTable);
  EXPECT_NE(std::string::npos,
            schema.find("CREATE INDEX session_table_name_idx ON session_table(share_name);"));
  EXPECT_NE(std::string::npos,
            schema.find("CREATE INDEX session_table_view_idx ON session_table(view_id);"));
  // Tables in creation order.
  EXPECT_LT(schema.find("connection_table ("), schema.find("session_table ("));
  EXPECT_LT(schema.find("session_table ("), schema.find("server_view_table ("));
  EXPECT_LT(schema.find("server_view_table ("), schema.find("system_table ("));
  EXPECT_LT(schema.find("system_table ("), schema.find("backup_plan_table ("));

  std::string seeds = RunCommand("sqlite3 " + ShellQuote(path_) +
                                 " 'SELECT key, value FROM system_table ORDER BY rowid;'");
  EXPECT_EQ("release_version|31\nsync_temp_file|0\nshow_on_demand_sync_promotion|1\n"
            "enable_advanced_log|0\n",
            seeds);
  EXPECT_TRUE(log_.Contains("SystemDB has been initialized with location '" + path_ + "'"));

  // A second open while open is a no-op; a reopen of the file changes nothing.
  sqlite3* handle = SystemDB::m_db;
  EXPECT_EQ(0, SystemDB::initialize(dir_.File("other.sqlite")));
  EXPECT_EQ(handle, SystemDB::m_db);
  EXPECT_EQ(path_, SystemDB::m_system_db_path);
  EXPECT_TRUE(log_.Contains("SystemDB has been initialized (no-op)"));
  struct stat st;
  EXPECT_NE(0, stat(dir_.File("other.sqlite").c_str(), &st));
  SystemDB::deinitialize();
  EXPECT_EQ(nullptr, SystemDB::m_db);
  EXPECT_EQ("", SystemDB::m_system_db_path);
  SystemDB::deinitialize();
  EXPECT_TRUE(log_.Contains("SystemDB has been deinitialzed (no-op)"));
  ASSERT_EQ(0, SystemDB::initialize(path_));
  EXPECT_EQ(schema, RunCommand("sqlite3 " + ShellQuote(path_) + " .schema"));
  EXPECT_EQ(seeds, RunCommand("sqlite3 " + ShellQuote(path_) +
                              " 'SELECT key, value FROM system_table ORDER BY rowid;'"));
}

TEST_F(SystemDBTest, OlderDatabaseKeepsItsRowsAndSeeds) {
  SystemDB::deinitialize();
  std::string old_path = dir_.File("old.sqlite");
  {
    DirectDb db(old_path);
    db.Exec(
        "CREATE TABLE system_table (key VARCHAR PRIMARY KEY ON CONFLICT IGNORE, value VARCHAR "
        "NOT NULL);"
        "INSERT INTO system_table VALUES ('release_version', '25'), ('enable_startup', '1');"
        "CREATE TABLE session_table (id INTEGER PRIMARY KEY AUTOINCREMENT, conn_id INTEGER "
        "DEFAULT 0, share_name TEXT COLLATE NOCASE DEFAULT '', remote_path TEXT DEFAULT '', "
        "ctime DATATIME DEFAULT (strftime('%s','now')), view_id INTEGER DEFAULT 0, node_id "
        "INTEGER DEFAULT 0, status INTEGER DEFAULT 0, error INTEGER DEFAULT 0, share_version "
        "INTEGER DEFAULT 0, sync_folder TEXT DEFAULT '', perm_mode INTEGER DEFAULT 0, "
        "is_read_only INTEGER DEFAULT 0, is_daemon_enable INTEGER DEFAULT 0, sync_direction "
        "INTEGER DEFAULT 0, ignore_local_remove INTEGER DEFAULT 0, conflict_policy TEXT DEFAULT "
        "'compare_mtime', rename_conflict INTEGER DEFAULT 1, is_encryption INTEGER DEFAULT 0, "
        "is_mounted INTEGER DEFAULT 1, attribute_check_strength INTEGER DEFAULT 0, "
        "sync_temp_file INTEGER DEFAULT 0, use_windows_cloud_file_api INTEGER DEFAULT 0, "
        "is_shared_with_me INTEGER DEFAULT 0, session_type INTEGER DEFAULT 0, with_q9share "
        "INTEGER DEFAULT 0, q9_share_id TEXT DEFAULT '', q9_hash_key TEXT DEFAULT '');"
        "INSERT INTO session_table (conn_id, share_name, sync_folder, remote_path, status) "
        "VALUES (4, 'photo', '/volume1/photo/', '/', 3);");
  }
  ASSERT_EQ(0, SystemDB::initialize(old_path));
  DirectDb db(old_path);
  EXPECT_EQ((std::vector<std::string>{"release_version|25", "enable_startup|1",
                                      "sync_temp_file|0", "show_on_demand_sync_promotion|1",
                                      "enable_advanced_log|0"}),
            db.Rows("SELECT key, value FROM system_table ORDER BY rowid;"));
  EXPECT_EQ((std::vector<std::string>{"1|4|photo|/volume1/photo/|/|3"}),
            db.Rows("SELECT id, conn_id, share_name, sync_folder, remote_path, status FROM "
                    "session_table;"));
  EXPECT_EQ("0", db.Value("SELECT count(*) FROM backup_plan_table;"));
  SessionInfo s;
  ASSERT_EQ(1, SystemDB::getSessionInfoBySyncFolder("/volume1/photo", &s));
  EXPECT_EQ("/", s.remote_path);
}

TEST(SystemDBOpenTest, FailureLeavesItClosed) {
  TempDir dir;
  LogCapture log(dir);
  EXPECT_EQ(-1, SystemDB::initialize(dir.File("missing/dir/system.sqlite")));
  EXPECT_EQ(nullptr, SystemDB::m_db);
  EXPECT_TRUE(log.Contains("SystemDB: Failed to open database at '" +
                           dir.File("missing/dir/system.sqlite") + "'. [14]"));
  // A file that is not a database fails in the schema script.
  std::string junk = dir.Write("junk.sqlite", std::string(4096, 'x'));
  EXPECT_EQ(-1, SystemDB::initialize(junk));
  EXPECT_EQ(nullptr, SystemDB::m_db);
  EXPECT_TRUE(log.Contains("SystemDB: Failed to initialize database at '" + junk + "'. [26]"));
  EXPECT_TRUE(log.Contains("initialize fail "));
}

TEST_F(SystemDBTest, StatusErrorLinkUserAndFlagWrites) {
  uint64_t conn = AddConnection("NX1", 0);
  uint64_t sess = AddSession(conn, 7, "/docs/", "/volume1/docs/");
  EXPECT_EQ(0, SystemDB::setSessionStatus(sess, 3));
  EXPECT_EQ(0, SystemDB::setSessionErr(sess, -7));
  EXPECT_EQ(0, SystemDB::setConnectionStatus(conn, 2));
  EXPECT_EQ(0, SystemDB::setConnectionErr(conn, -12));
  int ss = 0, se = 0, cs = 0, ce = 0;
  ASSERT_EQ(0, SystemDB::getSessionStatusAndErr(sess, &ss, &se, &cs, &ce));
  EXPECT_EQ(3, ss);
  EXPECT_EQ(-7, se);
  EXPECT_EQ(2, cs);
  EXPECT_EQ(-12, ce);
  int err = 0;
  ASSERT_EQ(0, SystemDB::getSessionErr(sess, &err));
  EXPECT_EQ(-7, err);
  ASSERT_EQ(0, SystemDB::getConnectionErr(conn, &err));
  EXPECT_EQ(-12, err);

  // Missing rows: reads fail, writes succeed and change nothing.
  EXPECT_EQ(-1, SystemDB::getSessionStatusAndErr(999, &ss, &se, &cs, &ce));
  EXPECT_TRUE(log_.Contains("cannnot get getSessionStatusAndErr 999"));
  EXPECT_EQ(-1, SystemDB::getSessionErr(999, &err));
  EXPECT_TRUE(log_.Contains("[WARNING]"));
  EXPECT_TRUE(log_.Contains("cannnot get error code for session 999"));
  EXPECT_EQ(-1, SystemDB::getConnectionErr(999, &err));
  EXPECT_EQ(0, SystemDB::setSessionStatus(999, 1));
  EXPECT_EQ(0, SystemDB::setConnectionErr(999, 1));
  // A session whose connection has no row has no combined status.
  uint64_t orphan = AddSession(555, 1, "/x/", "/volume1/x/");
  EXPECT_EQ(-1, SystemDB::getSessionStatusAndErr(orphan, &ss, &se, &cs, &ce));

  EXPECT_EQ(0, SystemDB::setLinkByConnection(conn, 1));
  EXPECT_EQ(0, SystemDB::updateUserInfo(conn, 4294967295u, 100, false));
  ConnectionEntry e;
  ASSERT_EQ(0, SystemDB::getConnectionEntryByConnID(conn, &e));
  EXPECT_EQ(1, e.linked);
  EXPECT_EQ(4294967295u, e.user_uid);
  EXPECT_EQ(100u, e.user_gid);
  EXPECT_FALSE(e.user_is_admin);

  SessionInfo s;
  EXPECT_EQ(0, SystemDB::setSessionReadOnly(sess));
  ASSERT_EQ(0, SystemDB::getSessionInfoBySessionID(sess, &s));
  EXPECT_TRUE(s.is_read_only);
  EXPECT_EQ(0, SystemDB::clearSessionReadOnly(sess));
  EXPECT_EQ(0, SystemDB::setSessionEncryptionState(sess, true, false));
  ASSERT_EQ(0, SystemDB::getSessionInfoBySessionID(sess, &s));
  EXPECT_FALSE(s.is_read_only);
  EXPECT_TRUE(s.is_encryption);
  EXPECT_FALSE(s.is_mounted);
  DirectDb db(path_);
  EXPECT_EQ("1|0", db.Rows("SELECT is_encryption, is_mounted FROM session_table WHERE id = " +
                           std::to_string(sess))[0]);

  // A write that SQLite refuses fails with its own message and SQLite's code.
  db.Exec("CREATE TRIGGER s BEFORE UPDATE ON session_table BEGIN SELECT RAISE(ABORT, 'frozen'); "
          "END; CREATE TRIGGER c BEFORE UPDATE ON connection_table BEGIN SELECT "
          "RAISE(ABORT, 'frozen'); END;");
  const std::string flags = "sqlite3_exec failed: ret = 19 [frozen]";
  const std::pair<std::function<int()>, std::string> kRefused[] = {
      {[&] { return SystemDB::setSessionStatus(sess, 0); }, "setSessionStatus fail ret = 19 frozen"},
      {[&] { return SystemDB::setConnectionStatus(conn, 0); },
       "setConnectionStatus fail ret = 19 frozen"},
      {[&] { return SystemDB::setSessionErr(sess, 0); }, "setSessionErr fail ret = 19 frozen"},
      {[&] { return SystemDB::setConnectionErr(conn, 0); }, "setConnectionErr fail ret = 19 frozen"},
      {[&] { return SystemDB::setLinkByConnection(conn, 0); },
       "setLinkByConnection fail ret = 19 frozen"},
      {[&] { return SystemDB::updateUserInfo(conn, 1, 1, true); },
       "update user info of #" + std::to_string(conn) + " failed (19)"},
      {[&] { return SystemDB::setSessionReadOnly(sess); }, flags},
      {[&] { return SystemDB::clearSessionReadOnly(sess); }, flags},
      {[&] { return SystemDB::setSessionEncryptionState(sess, false, true); }, flags},
  };
  for (const auto& refused : kRefused) {
    const size_t logged = log_.Text().size();
    EXPECT_EQ(-1, refused.first()) << refused.second;
    EXPECT_NE(std::string::npos, log_.Text().find(refused.second, logged)) << refused.second;
  }
}

TEST_F(SystemDBTest, SessionPathsAndFlags) {
  uint64_t conn = AddConnection("NX1", 0);
  uint64_t docs = AddSession(conn, 7, "/docs/", "");
  uint64_t root = AddSession(conn, 8, "/", "");

  SessionInfo s;
  s.conn_id = conn;
  s.view_id = 7;
  s.remote_path = "/docs";
  s.sync_folder = "/volume1/a";
  s.share_name = "it's";
  s.conflict_policy = "rename";
  s.is_encryption = true;
  s.sync_temp_file = true;
  s.session_type = 2;
  s.node_id = 99;  // not written: node_id is not one of the updated columns
  ASSERT_EQ(0, SystemDB::updateSessionInfo(&s));
  EXPECT_EQ(docs, s.id);
  SessionInfo r;
  r.conn_id = conn;
  r.view_id = 8;
  r.remote_path = "/";
  r.sync_folder = "/volume2/b";
  ASSERT_EQ(0, SystemDB::updateSessionInfo(&r));
  EXPECT_EQ(root, r.id);
  EXPECT_TRUE(log_.Contains("update row id " + std::to_string(root)));

  DirectDb db(path_);
  EXPECT_EQ((std::vector<std::string>{"/volume1/a/|/docs/|it's", "/volume2/b/|/|"}),
            db.Rows("SELECT sync_folder, remote_path, share_name FROM session_table ORDER BY "
                    "id;"));

  SessionInfo got;
  ASSERT_EQ(1, SystemDB::getSessionInfoBySyncFolder("/volume1/a", &got));
  s.node_id = 0;
  EXPECT_EQ(s, got);
  ASSERT_EQ(0, SystemDB::getSessionInfoBySessionID(root, &got));
  EXPECT_EQ("/", got.remote_path);
  EXPECT_EQ("/volume2/b", got.sync_folder);

  // Not found: 0, and the record is left as the caller passed it.
  SessionInfo untouched;
  untouched.share_name = "keep";
  EXPECT_EQ(0, SystemDB::getSessionInfoBySyncFolder("/volume9/none", &untouched));
  EXPECT_EQ(0, SystemDB::getSessionInfoBySessionID(12345, &untouched));
  EXPECT_EQ("keep", untouched.share_name);
  EXPECT_EQ(0u, untouched.id);

  // No row for (view_id, conn_id, remote_path).
  SessionInfo missing = s;
  missing.remote_path = "/other";
  EXPECT_EQ(-1, SystemDB::updateSessionInfo(&missing));
  EXPECT_TRUE(log_.Contains("cannnot get id for last update session"));

  // Flags: five are true for any non-zero value, five only for 1.
  db.Exec("UPDATE session_table SET is_read_only = 2, is_daemon_enable = -1, "
          "ignore_local_remove = 5, rename_conflict = 2, with_q9share = 3, is_encryption = 2, "
          "is_mounted = 2, sync_temp_file = -1, use_windows_cloud_file_api = 2, "
          "is_shared_with_me = 7, sync_folder = 'C:\\data\\/\\', remote_path = '/a/b//' "
          "WHERE id = " + std::to_string(docs));
  ASSERT_EQ(0, SystemDB::getSessionInfoBySessionID(docs, &got));
  EXPECT_TRUE(got.is_read_only);
  EXPECT_TRUE(got.is_daemon_enable);
  EXPECT_TRUE(got.ignore_local_remove);
  EXPECT_TRUE(got.rename_conflict);
  EXPECT_TRUE(got.with_q9share);
  EXPECT_FALSE(got.is_encryption);
  EXPECT_FALSE(got.is_mounted);
  EXPECT_FALSE(got.sync_temp_file);
  EXPECT_FALSE(got.use_windows_cloud_file_api);
  EXPECT_FALSE(got.is_shared_with_me);
  EXPECT_EQ("C:\\data", got.sync_folder);
  EXPECT_EQ("/a/b", got.remote_path);
  // A folder made only of separators is kept as it is.
  db.Exec("UPDATE session_table SET sync_folder = '//' WHERE id = " + std::to_string(docs));
  ASSERT_EQ(0, SystemDB::getSessionInfoBySessionID(docs, &got));
  EXPECT_EQ("//", got.sync_folder);

  std::list<SessionInfo> list;
  list.emplace_back();
  ASSERT_EQ(0, SystemDB::getSessionListByConnectionID(&list, conn));
  ASSERT_EQ(2u, list.size());
  EXPECT_EQ(docs, list.front().id);
  EXPECT_EQ(root, list.back().id);
  ASSERT_EQ(0, SystemDB::getSessionListByConnectionID(&list, conn + 100));
  EXPECT_TRUE(list.empty());
}

ConnectionEntry FullEntry(const std::string& nx_id, int conn_type) {
  ConnectionEntry e;
  e.conn_mode = 5;
  e.server_name = "o'brien's server";
  e.server_ip = "10.0.0.7";
  e.server_port = 6690;
  e.username = "";  // not written by the update
  e.nx_id = nx_id;
  e.session = "sess-token";
  e.private_key_pem = "-----BEGIN KEY-----\nabc\n";
  e.public_key_fingerprint = "fp";
  e.restore_id = "r1";
  e.host_name = "host";
  e.computer_name = "pc";
  e.ssl_signature = "sig";
  e.cloud_extension_clsid = "{clsid}";
  e.domain_name = "example.test";
  e.protocol_version = 70;
  e.major = 7;
  e.minor = 2;
  e.package_version = 10234;
  e.use_ssl = true;
  e.ssl_allow_untrust = true;
  e.enable_shared_with_me = true;
  e.conn_type = conn_type;
  e.proxy.use_proxy = true;
  e.proxy.proxy_ip = "10.1.1.1";
  e.proxy.proxy_port = 3128;
  e.proxy.proxy_username = "alice";
  e.proxy.proxy_password = "pa'ss word";
  e.proxy.proxy_domain = "CORP";
  e.proxy.proxy_host = "nas";
  e.tunnel.use_tunnel = true;
  e.tunnel.tunnel_ip = "10.2.2.2";
  e.tunnel.tunnel_port = 65535;
  return e;
}

TEST_F(SystemDBTest, ConnectionEntriesMatchOnNxIdAndType) {
  uint64_t first = AddConnection("NX1", 0);
  uint64_t second = AddConnection("NX1", 1);
  DirectDb db(path_);
  db.Exec("UPDATE connection_table SET hopgate_mode = 'relay', linked = 1, status = 2, "
          "error = -3, username = 'bob', user_uid = 1026 WHERE id = " + std::to_string(second));

  ConnectionEntry e = FullEntry("NX1", 1);
  ASSERT_EQ(0, SystemDB::updateConnectionEntry(&e, e.proxy, e.tunnel));
  EXPECT_EQ(second, e.id);
  EXPECT_TRUE(log_.Contains("update conn id " + std::to_string(second)));
  EXPECT_EQ("", db.Value("SELECT hopgate_mode FROM connection_table WHERE id = " +
                         std::to_string(second)));
  EXPECT_EQ("server-NX1", db.Value("SELECT server_name FROM connection_table WHERE id = " +
                                   std::to_string(first)));

  ConnectionEntry got;
  got.resolved_address = "stale";
  ASSERT_EQ(0, SystemDB::getConnectionEntryByConnID(second, &got));
  ConnectionEntry want = e;
  want.username = "bob";  // columns the update does not write keep their values
  want.linked = 1;
  want.status = 2;
  want.error = -3;
  want.user_uid = 1026;
  EXPECT_EQ(want, got);
  EXPECT_EQ("", got.resolved_address);

  // The proxy and tunnel given beside the entry are what is stored.
  ProxyInfo other_proxy;
  other_proxy.use_system_proxy = true;
  TunnelInfo other_tunnel;
  ASSERT_EQ(0, SystemDB::updateConnectionEntry(&e, other_proxy, other_tunnel));
  ASSERT_EQ(0, SystemDB::getConnectionEntryByConnID(second, &got));
  EXPECT_EQ(other_proxy, got.proxy);
  EXPECT_EQ(other_tunnel, got.tunnel);
  EXPECT_EQ("", db.Value("SELECT proxy_password FROM connection_table WHERE id = " +
                         std::to_string(second)));

  // No row with that pair: nothing changes.
  std::vector<std::string> before = db.Rows("SELECT * FROM connection_table ORDER BY id;");
  ConnectionEntry stray = FullEntry("NX1", 2);
  EXPECT_EQ(-1, SystemDB::updateConnectionEntry(&stray, stray.proxy, stray.tunnel));
  EXPECT_TRUE(log_.Contains("cannnot get id for last update connection"));
  EXPECT_EQ(before, db.Rows("SELECT * FROM connection_table ORDER BY id;"));

  // Row reading: NULL texts become empty, ports keep their low 16 bits.
  db.Exec("UPDATE connection_table SET server_ip = NULL, proxy_port = 70000, tunnel_port = "
          "65537, proxy_password = 'not base64!' WHERE id = " + std::to_string(first));
  ASSERT_EQ(0, SystemDB::getConnectionEntryByConnID(first, &got));
  EXPECT_EQ("", got.server_ip);
  EXPECT_EQ(70000 & 0xFFFF, got.proxy.proxy_port);
  EXPECT_EQ(1, got.tunnel.tunnel_port);
  EXPECT_EQ("", got.proxy.proxy_password);

  EXPECT_EQ(-1, SystemDB::getConnectionEntryByConnID(777, &got));
  EXPECT_TRUE(log_.Contains("connection 777 does not exit"));

  // The list has every row, linked or not.
  std::list<ConnectionEntry> all;
  ASSERT_EQ(0, SystemDB::getLinkedConnectionEntryList(&all));
  ASSERT_EQ(2u, all.size());
  EXPECT_EQ(first, all.front().id);
  EXPECT_EQ(0, all.front().linked);
  EXPECT_EQ(second, all.back().id);
}

TEST_F(SystemDBTest, GeneralOptions) {
  DirectDb db(path_);
  db.Exec("INSERT INTO system_table VALUES ('enable_desktop_notification', '1'), "
          "('enable_startup', '2'), ('enable_iconoverlay', '0'), ('show_tutorial', '1'), "
          "('sync_mode', '3'), ('open_folder', '/volume1/x'), ('machine_uuid', 'm-1'), "
          "('device_uuid', 'd-2'), ('unrelated', 'zzz');");
  GeneralOptions o;
  o.enable_startup = true;
  o.enable_context_menu = true;  // no row: kept
  ASSERT_EQ(0, SystemDB::getGeneralOptions(&o));
  GeneralOptions want;
  want.enable_desktop_notification = true;
  want.enable_startup = false;
  want.enable_context_menu = true;
  want.show_tutorial = true;
  want.sync_mode = 3;
  want.open_folder = "/volume1/x";
  want.machine_uuid = "m-1";
  want.device_uuid = "d-2";
  EXPECT_EQ(want, o);
}

TEST_F(SystemDBTest, ReplaceServerViews) {
  ServerViewEntry a;
  a.view_id = 1;
  a.node_id = 11;
  a.name = "it's mine";
  a.privilege = 3;
  a.share_version = 9;
  a.is_encryption = true;
  ServerViewEntry b;
  b.view_id = 2;
  b.node_id = 12;
  b.name = "photo";
  b.share_priv_disabled = true;
  b.is_mount = false;
  b.is_q9share = true;
  ASSERT_EQ(0, SystemDB::replaceServerViews(5, {a, b}));
  ASSERT_EQ(0, SystemDB::replaceServerViews(6, {b}));
  DirectDb db(path_);
  const char* kViews =
      "SELECT view_id, node_id, conn_id, privilege, name, share_version, share_priv_disabled, "
      "is_encryption, is_mount, is_q9share FROM server_view_table ORDER BY conn_id, view_id;";
  EXPECT_EQ((std::vector<std::string>{"1|11|5|3|it's mine|9|0|1|1|0", "2|12|5|0|photo|0|1|0|0|1",
                                      "2|12|6|0|photo|0|1|0|0|1"}),
            db.Rows(kViews));
  // The list replaces; an empty list clears only that connection.
  ASSERT_EQ(0, SystemDB::replaceServerViews(5, {b}));
  EXPECT_EQ(2u, db.Rows(kViews).size());
  ASSERT_EQ(0, SystemDB::replaceServerViews(5, {}));
  EXPECT_EQ((std::vector<std::string>{"2|12|6|0|photo|0|1|0|0|1"}), db.Rows(kViews));

  // A failing script leaves the views as they were and the handle usable.
  db.Exec("CREATE TRIGGER no_photo BEFORE INSERT ON server_view_table WHEN NEW.name = 'bad' "
          "BEGIN SELECT RAISE(ABORT, 'refused'); END;");
  ServerViewEntry bad;
  bad.view_id = 3;
  bad.name = "bad";
  EXPECT_EQ(-1, SystemDB::replaceServerViews(6, {bad}));
  EXPECT_TRUE(log_.Contains("sqlite3_exec: Failed (19) refused, sql = BEGIN TRANSACTION;"));
  EXPECT_EQ((std::vector<std::string>{"2|12|6|0|photo|0|1|0|0|1"}), db.Rows(kViews));
  EXPECT_EQ(0, SystemDB::replaceServerViews(7, {a}));
  EXPECT_EQ(2u, db.Rows(kViews).size());
}

std::string HexOf(const std::string& bytes) {
  static const char kHex[] = "0123456789abcdef";
  std::string hex;
  for (unsigned char c : bytes) {
    hex += kHex[c >> 4];
    hex += kHex[c & 15];
  }
  return hex;
}

TEST_F(SystemDBTest, ProxyPasswordRoundTripAndCipherBytes) {
  for (size_t len : {0, 1, 7, 8, 9, 100}) {
    std::string plain;
    for (size_t i = 0; i < len; ++i) plain += static_cast<char>('!' + (i * 7) % 90);
    std::string stored, back;
    ASSERT_EQ(0, SystemDB::EncodeProxyPassword(plain, &stored)) << len;
    ASSERT_EQ(0, SystemDB::DecodeProxyPassword(stored, &back)) << len;
    EXPECT_EQ(plain, back) << len;
    std::string raw;
    ASSERT_EQ(0, Base64Decode(stored, kBase64Standard, &raw));
    EXPECT_EQ(len, raw.size());  // CFB keeps the length
    if (len == 0) {
      EXPECT_EQ("", stored);
    } else {
      EXPECT_NE(plain, raw);
    }
  }
  // The stored text is cut at its first NUL when read.
  std::string stored, back;
  ASSERT_EQ(0, SystemDB::EncodeProxyPassword(std::string("ab\0cd", 5), &stored));
  ASSERT_EQ(0, SystemDB::DecodeProxyPassword(stored, &back));
  EXPECT_EQ("ab", back);

  // Through the table, then against OpenSSL's own command line.  Blowfish's
  // key schedule repeats the key over its 72 bytes, so the 4-byte key
  // 5c3a9e71 and the 16-byte key made of it four times are the same key.
  uint64_t conn = AddConnection("NX9", 0);
  ConnectionEntry e = FullEntry("NX9", 0);
  e.proxy.proxy_password = "S3cret-proxy!";
  ASSERT_EQ(0, SystemDB::updateConnectionEntry(&e, e.proxy, e.tunnel));
  DirectDb db(path_);
  std::string column =
      db.Value("SELECT proxy_password FROM connection_table WHERE id = " + std::to_string(conn));
  int status = 0;
  std::string expected = RunCommand(
      "printf '%s' 'S3cret-proxy!' | openssl enc -bf-cfb -provider legacy -provider default "
      "-K 5c3a9e715c3a9e715c3a9e715c3a9e71 -iv 0000000000000000 -nosalt | od -An -tx1 | "
      "tr -d ' \\n'",
      &status);
  ASSERT_EQ(0, status);
  std::string raw;
  ASSERT_EQ(0, Base64Decode(column, kBase64Standard, &raw));
  EXPECT_EQ(expected, HexOf(raw));
  ConnectionEntry got;
  ASSERT_EQ(0, SystemDB::getConnectionEntryByConnID(conn, &got));
  EXPECT_EQ("S3cret-proxy!", got.proxy.proxy_password);
}

TEST_F(SystemDBTest, FourThreadsOfMixedOperations) {
  // The test needs the operations to interleave, not the disk to be durable.
  ASSERT_EQ(SQLITE_OK, sqlite3_exec(SystemDB::m_db, "PRAGMA synchronous = OFF;", nullptr,
                                    nullptr, nullptr));
  constexpr int kThreads = 4;
  constexpr int kOperations = 10000;
  uint64_t conn[kThreads], sess[kThreads];
  for (int t = 0; t < kThreads; ++t) {
    conn[t] = AddConnection("T" + std::to_string(t), 0);
    sess[t] = AddSession(conn[t], 1, "/r" + std::to_string(t) + "/",
                         "/volume1/t" + std::to_string(t) + "/");
  }
  std::atomic<int> failures{0};
  auto worker = [&](int t) {
    for (int i = 0; i < kOperations; ++i) {
      int rc = 0;
      switch (i % 8) {
        case 0: rc = SystemDB::setSessionStatus(sess[t], i); break;
        case 1: rc = SystemDB::setConnectionErr(conn[t], -i); break;
        case 2: {
          int ss, se, cs, ce;
          rc = SystemDB::getSessionStatusAndErr(sess[t], &ss, &se, &cs, &ce);
          if (rc == 0 && (ss != i - 2 || ce != -(i - 1))) rc = -1;
          break;
        }
        case 3: {
          ServerViewEntry v;
          v.view_id = static_cast<uint64_t>(i);
          v.name = "v";
          rc = SystemDB::replaceServerViews(conn[t], {v, v});
          break;
        }
        case 4: {
          SessionInfo s;
          rc = SystemDB::getSessionInfoBySyncFolder("/volume1/t" + std::to_string(t), &s);
          rc = (rc == 1 && s.id == sess[t]) ? 0 : -1;
          break;
        }
        case 5: {
          std::list<ConnectionEntry> all;
          rc = SystemDB::getLinkedConnectionEntryList(&all);
          if (rc == 0 && all.size() != kThreads) rc = -1;
          break;
        }
        case 6: rc = SystemDB::setSessionEncryptionState(sess[t], i % 16 == 6, true); break;
        default: {
          GeneralOptions o;
          rc = SystemDB::getGeneralOptions(&o);
          break;
        }
      }
      if (rc != 0) ++failures;
    }
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(worker, t);
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(0, failures.load());

  DirectDb db(path_);
  for (int t = 0; t < kThreads; ++t) {
    int ss, se, cs, ce;
    ASSERT_EQ(0, SystemDB::getSessionStatusAndErr(sess[t], &ss, &se, &cs, &ce));
    EXPECT_EQ(kOperations - 8, ss);
    EXPECT_EQ(-(kOperations - 7), ce);
    EXPECT_EQ("1", db.Value("SELECT count(*) FROM server_view_table WHERE conn_id = " +
                            std::to_string(conn[t])));
  }
  EXPECT_EQ("4", db.Value("SELECT count(*) FROM server_view_table;"));
  EXPECT_EQ("ok", db.Value("PRAGMA integrity_check;"));
}

TEST_F(SystemDBTest, WriteWaitsForAnotherProcessHoldingTheLock) {
  uint64_t conn = AddConnection("NX1", 0);
  uint64_t sess = AddSession(conn, 1, "/r/", "/volume1/r/");
  std::string marker = dir_.File("locked");
  // The shell takes the write lock, writes, announces it holds the lock,
  // keeps it two seconds and commits.
  std::string script = dir_.Write(
      "hold.sql", "BEGIN EXCLUSIVE;\nUPDATE session_table SET status = 5, error = -1;\n"
                  ".shell touch " + ShellQuote(marker) + "\n.shell sleep 2\nCOMMIT;\n");
  std::thread holder([&] {
    RunCommand("sqlite3 " + ShellQuote(path_) + " < " + ShellQuote(script));
  });
  struct stat st;
  for (int i = 0; i < 3000 && stat(marker.c_str(), &st) != 0; ++i) usleep(10000);  // 30 s
  EXPECT_EQ(0, stat(marker.c_str(), &st)) << "the shell never took the lock";
  // The lock is held now: our write must wait for the commit, then land.
  EXPECT_EQ(0, SystemDB::setSessionStatus(sess, 7));
  holder.join();
  int ss, se, cs, ce;
  ASSERT_EQ(0, SystemDB::getSessionStatusAndErr(sess, &ss, &se, &cs, &ce));
  EXPECT_EQ(7, ss);   // ours, after the other process's 5
  EXPECT_EQ(-1, se);  // the other process's write is there too
}

}  // namespace
