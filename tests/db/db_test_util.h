// Helpers of the database tests: a log captured in a file, checked line by
// line, the sqlite3 shell on a database file and a direct SQLite connection,
// beside the code under test.
#ifndef VESTA_TESTS_DB_DB_TEST_UTIL_H_
#define VESTA_TESTS_DB_DB_TEST_UTIL_H_

#include <sqlite3.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "log/logger.h"
#include "tests/common/shell.h"
#include "tests/common/temp_dir.h"

// Sends every message of the database components to a file in `dir`.
class LogCapture {
 public:
  explicit LogCapture(const TempDir& dir) : path_(dir.File("test.log")) {
    std::string levels = dir.Write(
        "levels",
        "system_db_debug=7\nfilter_db_util_debug=7\nclient_debug=7\n"
        "connection_updater=7\nclient_updater_util=7\n");
    EXPECT_EQ(0, Logger::Init(Logger::kFile, path_, levels, 50, 1));
  }
  ~LogCapture() { Logger::Shutdown(); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::string Text() const { return ReadFile(path_); }
  bool Contains(const std::string& needle) const {
    return Text().find(needle) != std::string::npos;
  }
  // Whether a line written after byte `since` has `level` ("ERROR") and,
  // after its source position, exactly `text`; with `last`, it must be the
  // last line written.
  bool HasLine(const std::string& level, const std::string& text, size_t since = 0,
               bool last = false) const {
    std::istringstream lines(Text().substr(since));
    const std::string tail = "): " + text;
    bool found = false;
    for (std::string line; std::getline(lines, line);) {
      found = line.find(" [" + level + "] ") != std::string::npos && line.size() >= tail.size() &&
              line.compare(line.size() - tail.size(), tail.size(), tail) == 0;
      if (found && !last) return true;
    }
    return found;
  }

  // One call with its result and the line it must log last.
  struct Outcome {
    std::function<int()> call;
    int result;
    const char* level;
    std::string line;
  };
  void ExpectEach(const std::vector<Outcome>& outcomes) const {
    for (const Outcome& o : outcomes) {
      const size_t since = Text().size();
      EXPECT_EQ(o.result, o.call()) << o.line;
      EXPECT_TRUE(HasLine(o.level, o.line, since, true)) << o.level << " " << o.line;
    }
  }

 private:
  std::string path_;
};

inline std::string ShellQuote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

// Runs `sql` with the sqlite3 shell on the database file at `path` and
// returns what it printed: one line per row, columns joined by "|".
inline std::string Sql(const std::string& path, const std::string& sql) {
  int status = 0;
  std::string out = RunCommand("sqlite3 -cmd '.timeout 10000' " + ShellQuote(path) + " " +
                                   ShellQuote(sql) + " 2>&1",
                               &status);
  EXPECT_EQ(0, status) << sql << ": " << out;
  return out;
}

// A connection of the test's own to a database file.
class DirectDb {
 public:
  explicit DirectDb(const std::string& path) {
    EXPECT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &db_));
    sqlite3_busy_timeout(db_, 10000);
  }
  ~DirectDb() { sqlite3_close(db_); }
  DirectDb(const DirectDb&) = delete;
  DirectDb& operator=(const DirectDb&) = delete;

  void Exec(const std::string& sql) {
    char* error = nullptr;
    int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error);
    EXPECT_EQ(SQLITE_OK, rc) << sql << ": " << (error ? error : "");
    sqlite3_free(error);
  }

  // Rows of `sql`, each as its columns joined by "|" (NULL as "<null>").
  std::vector<std::string> Rows(const std::string& sql) {
    std::vector<std::string> rows;
    sqlite3_stmt* stmt = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr)) << sql;
    while (stmt != nullptr && sqlite3_step(stmt) == SQLITE_ROW) {
      std::string row;
      for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
        if (i > 0) row += "|";
        const unsigned char* t = sqlite3_column_text(stmt, i);
        row += t ? reinterpret_cast<const char*>(t) : "<null>";
      }
      rows.push_back(row);
    }
    sqlite3_finalize(stmt);
    return rows;
  }

  // The first column of the first row of `sql`, or "<none>".
  std::string Value(const std::string& sql) {
    std::vector<std::string> rows = Rows(sql);
    return rows.empty() ? "<none>" : rows[0].substr(0, rows[0].find('|'));
  }

 private:
  sqlite3* db_ = nullptr;
};

#endif  // VESTA_TESTS_DB_DB_TEST_UTIL_H_
