// Runs a shell command from a test and returns what it printed, for the
// real tools the tests compare against (openssl, sqlite3, sha256sum).
#ifndef VESTA_TESTS_COMMON_SHELL_H_
#define VESTA_TESTS_COMMON_SHELL_H_

#include <cstdio>
#include <string>

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

#endif  // VESTA_TESTS_COMMON_SHELL_H_
