// ConnectionUpdater on an event database made here with the tables the
// sync daemon creates, and remove_signature on a signature tree.
#include "db/connection-updater.h"

#include <sys/stat.h>

#include <string>

#include "gtest/gtest.h"
#include "tests/common/temp_dir.h"
#include "tests/db/db_test_util.h"

namespace {

class ConnectionUpdaterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, system(("mkdir -p '" + dir_.path() + "/db/sign'").c_str()));
    path_ = dir_.File("db/event-db.sqlite");
    DirectDb db(path_);
    for (const char* t : {"event_table", "local_filter_table", "server_filter_table",
                          "scan_path_table", "other_table"}) {
      db.Exec(std::string("CREATE TABLE ") + t + " (x INTEGER); INSERT INTO " + t +
              " VALUES (1), (2);");
    }
    db.Exec("CREATE TABLE config_table (key TEXT PRIMARY KEY, value TEXT);"
            "INSERT INTO config_table VALUES ('sync_id', '1234'), ('version', '5');");
  }

  bool Exists(const std::string& relative) {
    struct stat st;
    return lstat(dir_.File("db/sign/" + relative).c_str(), &st) == 0;
  }
  void Touch(const std::string& relative) { dir_.Write("db/sign/" + relative, "sig"); }
  void MakeDir(const std::string& relative) {
    ASSERT_EQ(0, system(("mkdir -p '" + dir_.File("db/sign/" + relative) + "'").c_str()));
  }

  TempDir dir_;
  LogCapture log_{dir_};
  std::string path_;
};

TEST_F(ConnectionUpdaterTest, OpenClearAndSyncId) {
  ConnectionUpdater closed;
  EXPECT_EQ(-1, closed.ClearEvents());
  EXPECT_EQ(-1, closed.SetSyncId(0));
  EXPECT_TRUE(log_.Contains("database is not opened"));
  EXPECT_EQ(-1, closed.Open(dir_.File("db/missing.sqlite")));
  EXPECT_TRUE(log_.Contains("sess db path '" + dir_.File("db/missing.sqlite") +
                            "' does not exist"));
  struct stat st;
  EXPECT_NE(0, stat(dir_.File("db/missing.sqlite").c_str(), &st));
  EXPECT_EQ(nullptr, closed.db());

  ConnectionUpdater u;
  ASSERT_EQ(0, u.Open(path_));
  EXPECT_EQ(dir_.path() + "/db/sign", u.signature_dir());
  sqlite3* first = u.db();
  EXPECT_EQ(0, u.Open(dir_.File("db/other.sqlite")));
  EXPECT_TRUE(log_.Contains("database is already opened"));
  EXPECT_EQ(first, u.db());

  DirectDb db(path_);
  // One transaction: a failing delete leaves every table as it was.
  db.Exec("DROP TABLE scan_path_table;");
  EXPECT_EQ(-1, u.ClearEvents());
  EXPECT_TRUE(log_.Contains("sqlite3_exec: [1] no such table: scan_path_table"));
  EXPECT_EQ("2", db.Value("SELECT count(*) FROM event_table;"));
  EXPECT_EQ("2", db.Value("SELECT count(*) FROM server_filter_table;"));
  db.Exec("CREATE TABLE scan_path_table (x INTEGER); INSERT INTO scan_path_table VALUES (1);");

  ASSERT_EQ(0, u.ClearEvents());
  for (const char* t :
       {"event_table", "local_filter_table", "server_filter_table", "scan_path_table"}) {
    EXPECT_EQ("0", db.Value(std::string("SELECT count(*) FROM ") + t)) << t;
  }
  EXPECT_EQ("2", db.Value("SELECT count(*) FROM other_table;"));

  ASSERT_EQ(0, u.SetSyncId(0));
  EXPECT_EQ((std::vector<std::string>{"sync_id|0", "version|5"}),
            db.Rows("SELECT key, value FROM config_table ORDER BY key;"));
  ASSERT_EQ(0, u.SetSyncId(18446744073709551615ull));
  EXPECT_EQ("18446744073709551615",
            db.Value("SELECT value FROM config_table WHERE key = 'sync_id';"));
}

TEST_F(ConnectionUpdaterTest, RemoveSignature) {
  // Typed here: node, its path below the signature directory.
  const struct {
    uint64_t node;
    const char* path;
  } kPaths[] = {
      {0, ""},
      {0x34, ".34"},
      {0x1234, "12/.34"},
      {0x12ab56, "12/ab/.56"},
      {0x100, "01/.00"},
      {0x0102030405060708ull, "01/02/03/04/05/06/07/.08"},
      {0xffffffffffffffffull, "ff/ff/ff/ff/ff/ff/ff/.ff"},
  };
  for (const auto& p : kPaths) EXPECT_EQ(p.path, SignatureRelativePath(p.node)) << p.node;

  Touch(".34");
  Touch(".35");
  MakeDir("12");
  Touch("12/.34");
  Touch("12/.35");
  MakeDir("12/ab/.56/deep/er");
  Touch("12/ab/.56/file");
  Touch("12/ab/.56/deep/er/file");
  Touch("12/ab/.57");
  MakeDir("12/ab/.56/..x");

  ConnectionUpdater u;
  ASSERT_EQ(0, u.Open(path_));
  DirectDb check(path_);
  sqlite3_stmt* stmt = nullptr;
  ASSERT_EQ(SQLITE_OK,
            sqlite3_prepare_v2(u.db(),
                               "SELECT remove_signature(52), remove_signature(4660), "
                               "remove_signature(1223510), remove_signature(0), "
                               "remove_signature(999999), remove_signature('x')",
                               -1, &stmt, nullptr));
  ASSERT_EQ(SQLITE_ROW, sqlite3_step(stmt));
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(SQLITE_INTEGER, sqlite3_column_type(stmt, i));
    EXPECT_EQ(0, sqlite3_column_int(stmt, i)) << i;
  }
  sqlite3_finalize(stmt);

  EXPECT_FALSE(Exists(".34"));
  EXPECT_FALSE(Exists("12/.34"));
  EXPECT_FALSE(Exists("12/ab/.56"));
  EXPECT_TRUE(Exists(".35"));
  EXPECT_TRUE(Exists("12/.35"));
  EXPECT_TRUE(Exists("12/ab/.57"));
  EXPECT_TRUE(Exists("12/ab"));
  EXPECT_TRUE(Exists(""));

  // Used from a statement over rows, the way the daemon's tables call it.
  Touch(".0a");
  MakeDir("01");
  Touch("01/.00");
  ASSERT_TRUE(Exists("01/.00"));
  check.Exec("CREATE TABLE nodes (node INTEGER); INSERT INTO nodes VALUES (10), (256);");
  ASSERT_EQ(SQLITE_OK, sqlite3_exec(u.db(), "SELECT remove_signature(node) FROM nodes;",
                                    nullptr, nullptr, nullptr));
  EXPECT_FALSE(Exists(".0a"));
  EXPECT_FALSE(Exists("01/.00"));
  EXPECT_TRUE(Exists("01"));
}

}  // namespace
