// The system database against real files, the sqlite3 shell and openssl.
#include "db/system-db.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "db/base64.h"
#include "gtest/gtest.h"
#include "tests/db/db_test_util.h"

namespace {

using DB = SystemDB;

class SystemDBTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, DB::initialize(path_));
    opened_ = log_.Take();
  }
  void TearDown() override { DB::deinitialize(); }

  std::string Sql(const std::string& sql) { return SqliteShell(path_, sql); }
  // Inserts one row of `table` and returns its id.
  uint64_t Insert(const std::string& table, const std::string& columns,
                  const std::string& values) {
    return std::stoull(Sql("INSERT INTO " + table + " (" + columns + ") VALUES (" + values +
                           "); SELECT last_insert_rowid();"));
  }
  uint64_t AddConnection(const std::string& nx_id, int conn_type = 0) {
    return Insert("connection_table", "nx_id, conn_type, server_name",
                  "'" + nx_id + "', " + std::to_string(conn_type) + ", 'server-" + nx_id + "'");
  }
  uint64_t AddSession(uint64_t conn_id, const std::string& sync_folder) {
    return Insert("session_table", "conn_id, view_id, remote_path, sync_folder",
                  std::to_string(conn_id) + ", 7, '/docs/', '" + sync_folder + "'");
  }

  TempDir dir_;
  LogCapture log_{dir_, kDbLevels};
  std::string path_ = dir_.File("system.sqlite");
  std::string opened_;  // what opening logged
};

// The schema's shape (each table and index: its columns, whether it compares
// names without case, whether a row of a key already there replaces it or is
// ignored), then the columns other processes rely on; the seeds in order.
TEST_F(SystemDBTest, SchemaSeedsOpeningAndReopening) {
  const char kSeeds[] = "SELECT key, value FROM system_table ORDER BY rowid;";
  EXPECT_EQ("connection_table|42|1|0|0\nsqlite_sequence|2|0|0|0\nsession_table|28|1|0|0\n"
            "server_view_table|10|1|1|0\nsystem_table|2|0|0|1\nbackup_plan_table|11|0|0|0\n"
            "session_table_name_idx|0|0|0|0\nsession_table_view_idx|0|0|0|0",
            Sql("SELECT m.name, count(p.name), instr(m.sql, 'COLLATE NOCASE') > 0, "
                "instr(m.sql, 'CONFLICT REPLACE') > 0, instr(m.sql, 'CONFLICT IGNORE') > 0 FROM "
                "sqlite_master m LEFT JOIN pragma_table_info(m.name) p WHERE m.sql NOT NULL "
                "GROUP BY m.name ORDER BY m.rowid;"));
  EXPECT_EQ("connection_table|id|INTEGER||1\nconnection_table|user_is_admin|INTEGER|1|0\n"
            "session_table|id|INTEGER||1\nsession_table|ctime|DATATIME|strftime('%s','now')|0\n"
            "session_table|conflict_policy|TEXT|'compare_mtime'|0\n"
            "session_table|rename_conflict|INTEGER|1|0\nsession_table|is_mounted|INTEGER|1|0\n"
            "server_view_table|is_mount|INTEGER|1|0\nsystem_table|key|VARCHAR||1",
            Sql("SELECT m.name, p.name, p.type, p.dflt_value, p.pk FROM sqlite_master m, "
                "pragma_table_info(m.name) p WHERE p.name IN ('id', 'key', 'user_is_admin', "
                "'conflict_policy', 'rename_conflict', 'is_mounted', 'is_mount', 'ctime');"));
  EXPECT_EQ("release_version|31\nsync_temp_file|0\nshow_on_demand_sync_promotion|1\n"
            "enable_advanced_log|0",
            Sql(kSeeds));
  EXPECT_EQ("INFO SystemDB has been initialized with location '" + path_ + "'\n", opened_);

  // A second open while open is a no-op; so is a second close; a failed
  // open leaves it closed.
  const std::string junk = dir_.Write("junk.sqlite", std::string(4096, 'x'));
  log_.ExpectEach({
      {[&] { return DB::initialize(junk); }, 0, "INFO SystemDB has been initialized (no-op)"},
      {[&] { return DB::deinitialize(), DB::deinitialize(), 0; }, 0,
       "INFO SystemDB has been deinitialzed\nINFO SystemDB has been deinitialzed (no-op)"},
      {[&] { return DB::initialize(dir_.File("missing/system.sqlite")); }, -1,
       "ERROR SystemDB: Failed to open database at '" + dir_.File("missing/system.sqlite") +
           "'. [14] unable to open database file"},
      {[&] { return DB::initialize(junk); }, -1,
       "ERROR SystemDB: Failed to initialize database at '" + junk +
           "'. [26] file is not a database\nERROR initialize fail file is not a database"},
  });
  EXPECT_EQ(nullptr, DB::m_db);
  EXPECT_EQ("", DB::m_system_db_path);

  // A file of an older version (a table missing, its own seeds and rows):
  // opening adds what is missing and keeps what is there.
  Sql("DROP TABLE backup_plan_table; DELETE FROM system_table WHERE key != 'release_version';"
      "UPDATE system_table SET value = '25'; INSERT INTO system_table VALUES ('enable_startup', "
      "'1'); INSERT INTO session_table (conn_id, sync_folder) VALUES (4, '/volume1/photo/');");
  ASSERT_EQ(0, DB::initialize(path_));
  EXPECT_EQ("release_version|25\nenable_startup|1\nsync_temp_file|0\n"
            "show_on_demand_sync_promotion|1\nenable_advanced_log|0",
            Sql(kSeeds));
  EXPECT_EQ("1|4|/volume1/photo/\n0", Sql("SELECT id, conn_id, sync_folder FROM session_table;"
                                          "SELECT count(*) FROM backup_plan_table;"));
}

// Writes go to the rows named; the folders are stored with a trailing "/"
// and read without; flags are stored as 1 and 0.
TEST_F(SystemDBTest, SessionRows) {
  uint64_t conn = AddConnection("NX1");
  uint64_t docs = AddSession(conn, "");
  uint64_t root = Insert("session_table", "conn_id, view_id, remote_path",
                         std::to_string(conn) + ", 8, '/'");
  for (int rc : {DB::setSessionStatus(docs, 3), DB::setSessionErr(docs, -7),
                 DB::setConnectionStatus(conn, 2), DB::setConnectionErr(conn, -12),
                 DB::setLinkByConnection(conn, 1), DB::updateUserInfo(conn, 4294967295u, 100, 0),
                 DB::setSessionStatus(999, 1)}) {
    EXPECT_EQ(0, rc);
  }
  int ss = 0, se = 0, cs = 0, ce = 0;
  ASSERT_EQ(0, DB::getSessionStatusAndErr(docs, &ss, &se, &cs, &ce));
  EXPECT_EQ((std::vector<int>{3, -7, 2, -12}), (std::vector<int>{ss, se, cs, ce}));
  EXPECT_EQ("1|4294967295|100|0",
            Sql("SELECT linked, user_uid, user_gid, user_is_admin FROM connection_table"));

  SessionInfo s;
  s.conn_id = conn;
  s.view_id = 7;
  s.remote_path = "/docs";
  s.sync_folder = "/volume1/a";
  s.share_name = "it's";
  s.conflict_policy = "rename";
  s.q9_share_id = "q9";
  s.is_read_only = s.is_daemon_enable = s.ignore_local_remove = s.rename_conflict = true;
  s.with_q9share = s.is_encryption = s.is_mounted = s.sync_temp_file = true;
  s.use_windows_cloud_file_api = s.is_shared_with_me = true;
  s.session_type = 2;
  ASSERT_EQ(0, DB::updateSessionInfo(&s));
  SessionInfo r;
  r.conn_id = conn;
  r.view_id = 8;
  r.remote_path = "/";
  r.sync_folder = "/volume2/b";
  r.rename_conflict = r.is_mounted = false;
  ASSERT_EQ(0, DB::updateSessionInfo(&r));
  EXPECT_EQ((std::vector<uint64_t>{docs, root}), (std::vector<uint64_t>{s.id, r.id}));
  EXPECT_EQ("DEBUG update row id 1\nDEBUG update row id 2\n", log_.Take());
  EXPECT_EQ("/volume1/a/|/docs/|it's|1|1|1|1|1|1|1|1|1|1\n/volume2/b/|/||0|0|0|0|0|0|0|0|0|0",
            Sql("SELECT sync_folder, remote_path, share_name, is_read_only, is_daemon_enable, "
                "ignore_local_remove, rename_conflict, with_q9share, is_encryption, is_mounted, "
                "sync_temp_file, use_windows_cloud_file_api, is_shared_with_me FROM "
                "session_table ORDER BY id;"));
  SessionInfo got;
  ASSERT_EQ(1, DB::getSessionInfoBySyncFolder("/volume1/a", &got));
  EXPECT_EQ(s, got);
  // Not found: 0, and the record is left as the caller passed it.
  EXPECT_EQ(0, DB::getSessionInfoBySyncFolder("/volume9/none", &got));
  EXPECT_EQ(0, DB::getSessionInfoBySessionID(12345, &got));
  EXPECT_EQ(s, got);
  ASSERT_EQ(0, DB::getSessionInfoBySessionID(root, &got));
  EXPECT_EQ(r, got);
  got.remote_path = "/other";
  log_.ExpectEach({{[&] { return DB::updateSessionInfo(&got); }, -1,
                    "ERROR cannnot get id for last update session"}});

  // A folder made only of separators is kept as it is.
  Sql("UPDATE session_table SET sync_folder = 'C:\\data\\/\\', remote_path = '/a/b//' "
      "WHERE id = 1; UPDATE session_table SET sync_folder = '//' WHERE id = 2;");
  std::list<SessionInfo> list(1);
  ASSERT_EQ(0, DB::getSessionListByConnectionID(&list, conn));
  ASSERT_EQ(2u, list.size());
  EXPECT_EQ("C:\\data /a/b //", list.front().sync_folder + " " + list.front().remote_path + " " +
                                    list.back().sync_folder);
  ASSERT_EQ(0, DB::getSessionListByConnectionID(&list, conn + 100));
  EXPECT_TRUE(list.empty());
}

TEST_F(SystemDBTest, ConnectionRowsMatchOnNxIdAndType) {
  uint64_t first = AddConnection("NX1", 0);
  uint64_t second = AddConnection("NX1", 1);
  Sql("UPDATE connection_table SET hopgate_mode = 'relay', linked = 1, status = 2, error = -3, "
      "username = 'bob', user_uid = 1026, user_gid = 100 WHERE id = 2");
  ConnectionEntry e = SampleConnection();
  ASSERT_EQ(0, DB::updateConnectionEntry(&e, e.proxy, e.tunnel));
  EXPECT_EQ(second, e.id);
  EXPECT_EQ("DEBUG update conn id 2\n", log_.Take());
  EXPECT_EQ("1||server-NX1\n2||o'brien's server",
            Sql("SELECT id, hopgate_mode, server_name FROM connection_table ORDER BY id"));
  ConnectionEntry got;
  got.resolved_address = "stale";
  ASSERT_EQ(0, DB::getConnectionEntryByConnID(second, &got));
  ConnectionEntry want = e;
  want.username = "bob";  // columns the update does not write keep their values
  want.linked = 1;
  want.status = 2;
  want.error = -3;
  want.user_uid = 1026;
  want.user_gid = 100;
  EXPECT_EQ(want, got);  // resolved_address too: reset to ""
  EXPECT_EQ("1|1|1|0|1|1", Sql("SELECT use_ssl, ssl_allow_untrust, use_proxy, use_system_proxy, "
                               "use_tunnel, enable_shared_with_me FROM connection_table WHERE "
                               "id = 2"));
  // The proxy and tunnel given beside the entry are what is stored.
  ProxyInfo other_proxy;
  other_proxy.use_system_proxy = true;
  ASSERT_EQ(0, DB::updateConnectionEntry(&e, other_proxy, TunnelInfo()));
  ASSERT_EQ(0, DB::getConnectionEntryByConnID(second, &got));
  EXPECT_EQ(other_proxy, got.proxy);
  EXPECT_EQ(TunnelInfo(), got.tunnel);

  // No row with that pair: nothing changes.
  const std::string before = Sql("SELECT * FROM connection_table ORDER BY id;");
  e.conn_type = 2;
  log_.ExpectEach({{[&] { return DB::updateConnectionEntry(&e, e.proxy, e.tunnel); }, -1,
                    "ERROR cannnot get id for last update connection"},
                   {[&] { return DB::getConnectionEntryByConnID(777, &got); }, -1,
                    "INFO connection 777 does not exit"}});
  EXPECT_EQ(before, Sql("SELECT * FROM connection_table ORDER BY id;"));

  // NULL texts read as empty, ports keep their low 16 bits; the list has
  // every row, linked or not.
  Sql("UPDATE connection_table SET server_ip = NULL, proxy_port = 70000, tunnel_port = 65537 "
      "WHERE id = 1");
  std::list<ConnectionEntry> all;
  ASSERT_EQ(0, DB::getLinkedConnectionEntryList(&all));
  got = all.front();
  EXPECT_EQ("|4464|1|0|2", got.server_ip + "|" + std::to_string(got.proxy.proxy_port) + "|" +
                               std::to_string(got.tunnel.tunnel_port) + "|" +
                               std::to_string(got.linked) + "|" + std::to_string(all.size()));
  EXPECT_EQ(first, got.id);
}

TEST_F(SystemDBTest, GeneralOptionsAndServerViews) {
  Sql("INSERT INTO system_table VALUES ('enable_desktop_notification', '1'), ('enable_startup', "
      "'2'), ('enable_iconoverlay', '0'), ('show_tutorial', '1'), ('sync_mode', '3'), "
      "('open_folder', '/volume1/x'), ('machine_uuid', 'm-1'), ('device_uuid', 'd-2'), "
      "('unrelated', 'zzz');");
  GeneralOptions o;
  o.enable_startup = true;
  o.enable_context_menu = true;  // no row: kept
  ASSERT_EQ(0, DB::getGeneralOptions(&o));
  // notification, icon overlay, filtered overlay, context menu, startup,
  // black-white icon, tutorial, sync mode, folder, machine, device
  EXPECT_EQ((GeneralOptions{true, false, false, true, false, false, true, 3, "/volume1/x", "m-1",
                            "d-2"}),
            o);

  // view, node, name, privilege, version, privilege disabled, encrypted, mounted, q9share
  const ServerViewEntry a{1, 11, "it's mine", 3, 9, false, true, true, false};
  const ServerViewEntry b{2, 12, "photo", 0, 0, true, false, false, true};
  ASSERT_EQ(0, DB::replaceServerViews(5, {a, b}));
  ASSERT_EQ(0, DB::replaceServerViews(6, {b}));
  const char kViews[] =
      "SELECT view_id, node_id, conn_id, privilege, name, share_version, share_priv_disabled, "
      "is_encryption, is_mount, is_q9share FROM server_view_table ORDER BY conn_id, view_id;";
  const std::string b6 = "2|12|6|0|photo|0|1|0|0|1";
  EXPECT_EQ("1|11|5|3|it's mine|9|0|1|1|0\n2|12|5|0|photo|0|1|0|0|1\n" + b6, Sql(kViews));
  // The list replaces; an empty list clears only that connection.
  ASSERT_EQ(0, DB::replaceServerViews(5, {b}));
  EXPECT_EQ("2|12|5|0|photo|0|1|0|0|1\n" + b6, Sql(kViews));
  ASSERT_EQ(0, DB::replaceServerViews(5, {}));
  EXPECT_EQ(b6, Sql(kViews));
  // A failing script leaves the views as they were.
  Sql("CREATE TRIGGER no_bad BEFORE INSERT ON server_view_table WHEN NEW.name = 'bad' "
      "BEGIN SELECT RAISE(ABORT, 'refused'); END;");
  EXPECT_EQ(-1, DB::replaceServerViews(6, {{3, 0, "bad", 0, 0, false, false, true, false}}));
  EXPECT_EQ(0u, log_.Take().find("ERROR sqlite3_exec: Failed (19) refused, sql = BEGIN "
                                 "TRANSACTION;DELETE FROM server_view_table WHERE conn_id = 6;"));
  EXPECT_EQ(b6, Sql(kViews));
}

// The stored password against OpenSSL's own command line.  Blowfish's key
// schedule repeats the key over its 72 bytes, so the 4-byte key 5c3a9e71
// and the 16-byte key made of it four times are the same key.
TEST_F(SystemDBTest, ProxyPasswordRoundTripAndCipherBytes) {
  for (const std::string& plain : {std::string(), std::string("p"), std::string("12345678"),
                                   std::string(100, '!'), std::string("ab\0cd", 5)}) {
    std::string stored, back, raw;
    ASSERT_EQ(0, DB::EncodeProxyPassword(plain, &stored));
    ASSERT_EQ(0, DB::DecodeProxyPassword(stored, &back));
    EXPECT_EQ(plain.substr(0, plain.find('\0')), back);  // cut at the first NUL
    ASSERT_EQ(0, Base64Decode(stored, kBase64Standard, &raw));
    EXPECT_EQ(plain.size(), raw.size());  // CFB keeps the length
    EXPECT_TRUE(plain.empty() ? stored.empty() : plain != raw);
  }
  uint64_t conn = AddConnection("NX9");
  ConnectionEntry e;
  e.nx_id = "NX9";
  e.proxy.proxy_password = "S3cret-proxy!";
  ASSERT_EQ(0, DB::updateConnectionEntry(&e, e.proxy, e.tunnel));
  int status = 0;
  const std::string expected = RunCommand(
      "printf '%s' 'S3cret-proxy!' | openssl enc -bf-cfb -provider legacy -provider default "
      "-K 5c3a9e715c3a9e715c3a9e715c3a9e71 -iv 0000000000000000 -nosalt | base64",
      &status);
  ASSERT_EQ(0, status);
  EXPECT_EQ(expected, Sql("SELECT proxy_password FROM connection_table") + "\n");
  ConnectionEntry got;
  ASSERT_EQ(0, DB::getConnectionEntryByConnID(conn, &got));
  EXPECT_EQ("S3cret-proxy!", got.proxy.proxy_password);
}

// A stored password this process cannot decode (no cipher, or no base64) is
// written back as stored, never as ''; a new one that cannot be encrypted is
// refused.  The test runs once more in a child whose OPENSSL_MODULES names an
// empty folder, so that the cipher's provider cannot load there.
TEST_F(SystemDBTest, UndecodablePasswordsAreKeptAsStored) {
  const bool no_cipher = getenv("VESTA_TEST_NO_CIPHER") != nullptr;
  if (!no_cipher) {
    char self[4096] = {0};
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof(self) - 1), 0);
    int status = -1;
    const std::string out = RunCommand(
        "VESTA_TEST_NO_CIPHER=1 OPENSSL_MODULES='" + dir_.File("none") + "' " +
            VESTA_TEST_EMULATOR " '" + self +
            "' --gtest_filter=SystemDBTest.UndecodablePasswordsAreKeptAsStored 2>&1",
        &status);
    EXPECT_EQ(0, status) << out;
  } else {
    EXPECT_NE(std::string::npos, opened_.find("CRIT cannot load OpenSSL's legacy provider"));
  }
  // Stored; a new password, or "" to write back what was read; read with the cipher.
  const char* const kRows[][3] = {{"38hCNFVDAOZ67OwZLg==", "", "S3cret-proxy!"},
                                  {"not base64!", "", ""},
                                  {"38hCNFVDAOZ67OwZLg==", "changed", "S3cret-proxy!"}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(std::string(row[0]) + " " + row[1]);
    Sql("DELETE FROM connection_table;");
    const uint64_t conn = AddConnection("NX7");
    Sql(std::string("UPDATE connection_table SET proxy_password = '") + row[0] + "';");
    ConnectionEntry e;
    ASSERT_EQ(0, DB::getConnectionEntryByConnID(conn, &e));
    EXPECT_EQ(no_cipher ? "" : row[2], e.proxy.proxy_password);
    if (*row[1]) e.proxy.proxy_password = row[1];
    const bool refused = no_cipher && *row[1];
    EXPECT_EQ(refused ? -1 : 0, DB::updateConnectionEntry(&e, e.proxy, e.tunnel));
    std::string stored = row[0];
    if (*row[1] && !refused) DB::EncodeProxyPassword(row[1], &stored);
    EXPECT_EQ(stored, Sql("SELECT proxy_password FROM connection_table"));
  }
}

// Another process holds the write lock: a write waiting on it gives up once
// the run flag clears (a stop is never held up) or past the busy time-out
// (five minutes; shortened on the handle), fails logged, and the handle
// stays usable.  A wait within the time-out is the failing-database system
// test's row.
TEST_F(SystemDBTest, AWriteBlockedByAnotherProcessEndsWithAStopOrTheTimeOut) {
  static std::atomic<int32_t> run{1};
  DB::deinitialize();
  DB::m_run_flag = &run;  // as the daemon does: handed over before the database opens
  ASSERT_EQ(0, DB::initialize(path_));
  const uint64_t conn = AddConnection("NX1");
  const std::string locked = dir_.File("locked"), held = dir_.Write("held", "");
  const std::string script = dir_.Write(
      "hold.sql", "BEGIN EXCLUSIVE;\nUPDATE connection_table SET status = 7;\n.shell touch '" +
                      locked + "'\n.shell while [ -e '" + held +
                      "' ]; do sleep 0.1; done\nCOMMIT;\n");
  std::thread holder([&] { RunCommand("sqlite3 '" + path_ + "' < '" + script + "'"); });
  EXPECT_TRUE(WaitFor([&] { return access(locked.c_str(), F_OK) == 0; }, 30000));
  log_.Take();
  for (const bool stop : {true, false}) {
    SCOPED_TRACE(stop ? "stop" : "time-out");
    if (!stop) sqlite3_busy_timeout(DB::m_db, 100);
    std::future<int> write =
        std::async(std::launch::async, [&] { return DB::setConnectionErr(conn, -6); });
    if (stop) run = 0;
    ASSERT_EQ(std::future_status::ready, write.wait_for(std::chrono::seconds(60)));
    EXPECT_EQ(-1, write.get());
    EXPECT_EQ("ERROR setConnectionErr fail ret = 5 database is locked\n", log_.Take());
  }
  unlink(held.c_str());
  holder.join();
  run = 1;
  DB::m_run_flag = nullptr;
  EXPECT_EQ(0, DB::setConnectionErr(conn, -6));
  EXPECT_EQ("7|-6", Sql("SELECT status, error FROM connection_table;"));  // theirs, then ours
}

}  // namespace
