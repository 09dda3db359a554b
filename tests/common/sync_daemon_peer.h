// The simulated sync daemon (tests/peers/sync_daemon.py, with its own wire
// codec) for C++ tests: listens on the daemon's socket below a test's
// VESTA_ROOT, answers from a script the test may change at any time and
// records every request as the daemon decoded it.
#ifndef VESTA_TESTS_COMMON_SYNC_DAEMON_PEER_H_
#define VESTA_TESTS_COMMON_SYNC_DAEMON_PEER_H_

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "json/json.h"
#include "tests/common/shell.h"
#include "tests/common/temp_dir.h"

inline Json::Value ParseJson(const std::string& text) {
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors))
      << errors << " in " << text;
  return value;
}

// Makes `dir` the VESTA_ROOT of this process, with a service configuration
// naming `dir`/volume1 as the service volume, its session folder, and tmp/
// for the daemon's socket.  Returns the volume's path.
inline std::string MakeVestaRoot(const TempDir& dir) {
  setenv("VESTA_ROOT", dir.path().c_str(), 1);
  const std::string volume = dir.File("volume1");
  EXPECT_EQ(0, system(("mkdir -p '" + volume + "/@FernboxTandem/session' '" +
                       dir.File("var/packages/Fernbox/etc/tandem") + "' '" + dir.File("tmp") +
                       "'")
                          .c_str()));
  dir.Write("var/packages/Fernbox/etc/tandem/service.conf", "volume=" + volume + "\n");
  return volume;
}

// The JSON lines appended to the file at `path` since the last call with
// the same `seen` (lines already returned).
inline std::vector<Json::Value> TakeJsonLines(const std::string& path, int* seen) {
  std::vector<Json::Value> out;
  std::ifstream in(path);
  std::string line;
  for (int n = 0; std::getline(in, line); ++n) {
    if (n >= *seen) out.push_back(ParseJson(line));
  }
  *seen += static_cast<int>(out.size());
  return out;
}

class SyncDaemonPeer {
 public:
  // Starts the peer on `root`/tmp/tarn.sock, its files beside it in `root`;
  // started() tells whether it came up within 10 s.
  explicit SyncDaemonPeer(const TempDir& root) : root_(root) {
    const std::string ready = root_.File("ready");
    SetScript("{}");
    const char* source = getenv("VESTA_SOURCE_DIR");
    const std::string script =
        std::string(source != nullptr ? source : ".") + "/tests/peers/sync_daemon.py";
    pid_ = fork();
    if (pid_ == 0) {
      execlp("python3", "python3", script.c_str(), "--socket", root_.File("tmp/tarn.sock").c_str(),
             "--record", root_.File("record.jsonl").c_str(), "--script",
             root_.File("script.json").c_str(), "--ready", ready.c_str(), (char*)nullptr);
      _exit(127);
    }
    started_ = WaitFor([&ready] { return access(ready.c_str(), F_OK) == 0; });
  }
  ~SyncDaemonPeer() { Stop(); }
  SyncDaemonPeer(const SyncDaemonPeer&) = delete;
  SyncDaemonPeer& operator=(const SyncDaemonPeer&) = delete;

  bool started() const { return started_; }

  void Stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

  // The script of sync_daemon.py, read again for every request.
  void SetScript(const std::string& json) { root_.Write("script.json", json); }

  // The requests received since the last call.
  std::vector<Json::Value> TakeRequests() {
    std::vector<Json::Value> out;
    for (const Json::Value& entry : TakeJsonLines(root_.File("record.jsonl"), &taken_)) {
      out.push_back(entry["request"]);
    }
    return out;
  }

  // The requests since the last call are `expected` (JSON texts).
  void ExpectRequests(const std::vector<std::string>& expected) {
    std::vector<Json::Value> want;
    for (const std::string& text : expected) want.push_back(ParseJson(text));
    EXPECT_EQ(want, TakeRequests());
  }

 private:
  const TempDir& root_;
  pid_t pid_ = -1;
  bool started_ = false;
  int taken_ = 0;  // record lines already returned
};

#endif  // VESTA_TESTS_COMMON_SYNC_DAEMON_PEER_H_
