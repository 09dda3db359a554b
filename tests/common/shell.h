// The real tools the tests compare against (openssl, sqlite3, sha256sum) and
// the peers they talk to, run from a test, a wait with a deadline and a
// thread's state.
#ifndef VESTA_TESTS_COMMON_SHELL_H_
#define VESTA_TESTS_COMMON_SHELL_H_

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "gtest/gtest.h"

// Returns the command's standard output; sets `status` to pclose's result.
inline std::string RunCommand(const std::string& command, int* status = nullptr) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (p == nullptr) return out;
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof(buf), p)) > 0;) out.append(buf, n);
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

// The state letter of thread `tid` of this process ('S' while it sleeps: in
// a pause, on a mutex); '?' when it has none.
inline char ThreadState(pid_t tid) {
  std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t end = stat.rfind(')');
  return end != std::string::npos && end + 2 < stat.size() ? stat[end + 2] : '?';
}

// A file of the source tree, by its path from the root.
inline std::string SourcePath(const std::string& relative) {
  const char* root = getenv("VESTA_SOURCE_DIR");
  return std::string(root != nullptr ? root : ".") + "/" + relative;
}

// A child process running `argv`, output to /dev/null, stopped by SIGTERM
// and reaped when the object goes.
class ChildProcess {
 public:
  explicit ChildProcess(const std::vector<std::string>& argv) {
    if ((pid_ = fork()) != 0) return;
    dup2(open("/dev/null", O_RDWR), 0);
    dup2(0, 1);
    dup2(0, 2);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  ~ChildProcess() { Stop(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  void Stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
};

#endif  // VESTA_TESTS_COMMON_SHELL_H_
