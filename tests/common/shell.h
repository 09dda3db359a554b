// The real tools the tests compare against (openssl, sqlite3, sha256sum),
// run from a test, and a wait with a deadline.
#ifndef VESTA_TESTS_COMMON_SHELL_H_
#define VESTA_TESTS_COMMON_SHELL_H_

#include <unistd.h>

#include <cstdio>
#include <string>

#include "gtest/gtest.h"

// Returns the command's standard output; sets `status` to pclose's result.
inline std::string RunCommand(const std::string& command, int* status = nullptr) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (p == nullptr) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), p)) > 0) out.append(buf, n);
  int rc = pclose(p);
  if (status != nullptr) *status = rc;
  return out;
}

// What the sqlite3 shell prints for `sql` on the database file `path` (one
// line per row, columns joined by "|"), without the last newline.
inline std::string SqliteShell(const std::string& path, const std::string& sql) {
  std::string command = "sqlite3 -cmd '.timeout 10000' '" + path + "' '";
  for (char c : sql) command += c == '\'' ? std::string("'\\''") : std::string(1, c);
  int status = -1;
  std::string out = RunCommand(command + "' 2>&1", &status);
  EXPECT_EQ(0, status) << sql << ": " << out;
  if (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

// Asks `pred` every 10 ms until it holds or `limit_ms` have passed; returns
// its last answer.
template <typename Pred>
bool WaitFor(Pred pred, int limit_ms = 10000) {
  for (int waited = 0; waited < limit_ms && !pred(); waited += 10) usleep(10000);
  return pred();
}

#endif  // VESTA_TESTS_COMMON_SHELL_H_
