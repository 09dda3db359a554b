// ConnectionUpdater on an event database with the sync daemon's tables.
#include "db/connection-updater.h"

#include <unistd.h>

#include <string>

#include "gtest/gtest.h"
#include "tests/common/temp_dir.h"
#include "tests/db/db_test_util.h"

namespace {

class ConnectionUpdaterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, system(("mkdir -p '" + dir_.path() + "/db/sign'").c_str()));
    std::string sql = "CREATE TABLE config_table (key TEXT PRIMARY KEY, value TEXT);"
                      "INSERT INTO config_table VALUES ('sync_id', '1234'), ('version', '5');";
    for (const char* t : {"event_table", "local_filter_table", "server_filter_table",
                          "scan_path_table", "other_table"}) {
      sql += std::string("CREATE TABLE ") + t + " (x INTEGER); INSERT INTO " + t + " VALUES (1), (2);";
    }
    SqliteShell(path_, sql);
  }

  std::string Tree() {
    return RunCommand("cd '" + dir_.File("db/sign") + "' && find . -mindepth 1 | cut -c3- | LC_ALL=C sort");
  }

  TempDir dir_;
  LogCapture log_{dir_, kDbLevels};
  std::string path_ = dir_.File("db/event-db.sqlite");
};

TEST_F(ConnectionUpdaterTest, OpenClearSyncIdAndRemoveSignatures) {
  ConnectionUpdater closed;
  const std::string missing = dir_.File("db/missing.sqlite");
  log_.ExpectEach({
      {[&] { return closed.ClearEvents(); }, -1, "ERROR database is not opened"},
      {[&] { return closed.Open(missing); }, -1,
       "ERROR sess db path '" + missing + "' does not exist"},
  });
  EXPECT_NE(0, access(missing.c_str(), F_OK));
  EXPECT_EQ(nullptr, closed.db());

  ConnectionUpdater u;
  ASSERT_EQ(0, u.Open(path_));

  const std::string kCounts =
      "SELECT (SELECT count(*) FROM event_table), (SELECT count(*) FROM local_filter_table), "
      "(SELECT count(*) FROM server_filter_table), (SELECT count(*) FROM other_table);";
  // One transaction: a failing delete leaves every table as it was.
  SqliteShell(path_, "DROP TABLE scan_path_table;");
  EXPECT_EQ(-1, u.ClearEvents());
  EXPECT_NE(std::string::npos, log_.Take().find("sqlite3_exec: [1] no such table: scan_path_table"));
  EXPECT_EQ("2|2|2|2", SqliteShell(path_, kCounts));
  SqliteShell(path_, "CREATE TABLE scan_path_table (x INTEGER); INSERT INTO scan_path_table VALUES (1);");

  ASSERT_EQ(0, u.ClearEvents());
  EXPECT_EQ("0|0|0|2\n0", SqliteShell(path_, kCounts + "SELECT count(*) FROM scan_path_table;"));

  ASSERT_EQ(0, u.SetSyncId(18446744073709551615ull));
  EXPECT_EQ("sync_id|18446744073709551615\nversion|5",
            SqliteShell(path_, "SELECT key, value FROM config_table ORDER BY key;"));

  // Each node's file sits below one folder per higher byte; a folder of a
  // shorter path and anything below it goes with the node.
  EXPECT_EQ("ff/ff/ff/ff/ff/ff/ff/.ff", SignatureRelativePath(~0ull));
  ASSERT_EQ(0, system(("cd '" + dir_.File("db/sign") + "' && mkdir -p 12/ab/.56/deep/er "
                       "12/ab/.56/..x 01 && touch .34 .35 12/.34 12/.35 12/ab/.56/file "
                       "12/ab/.56/deep/er/file 12/ab/.57 .0a 01/.00").c_str()));
  // Called over rows, the way the daemon's tables call it; absent nodes and
  // a text argument are no error either.
  SqliteShell(path_,
              "CREATE TABLE nodes (node); INSERT INTO nodes VALUES (52), (4660), "
              "(1223510), (0), (999999), ('x'), (10), (256);");
  std::string results;
  ASSERT_EQ(SQLITE_OK, sqlite3_exec(
                           u.db(), "SELECT group_concat(quote(remove_signature(node))) FROM nodes;",
                           [](void* out, int, char** v, char**) {
                             *static_cast<std::string*>(out) = v[0];
                             return 0;
                           },
                           &results, nullptr));
  EXPECT_EQ("0,0,0,0,0,0,0,0", results);
  EXPECT_EQ(".35\n01\n12\n12/.35\n12/ab\n12/ab/.57\n", Tree());
}

}  // namespace
