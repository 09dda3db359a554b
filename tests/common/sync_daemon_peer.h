// The simulated peers of tests/peers (own wire codec) for C++ tests: each
// answers from a script the test may change at any time and records every
// request as it decoded it, both files in a test's directory.
#ifndef VESTA_TESTS_COMMON_SYNC_DAEMON_PEER_H_
#define VESTA_TESTS_COMMON_SYNC_DAEMON_PEER_H_

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
                       dir.File("var/packages/Fernbox/etc/tandem") + "' '" + dir.File("tmp") + "'")
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

// tests/peers/NAME.py with `args`, its script.json, record.jsonl and ready
// file in `dir`; started() tells whether it came up within 10 s, ready()
// is what it wrote to its ready file.
class PeerProcess {
 public:
  PeerProcess(const TempDir& dir, const std::string& name, std::vector<std::string> args)
      : dir_(dir) {
    SetScript("{}");
    args.insert(args.begin(), {"python3", SourcePath("tests/peers/" + name + ".py"), "--script",
                               dir.File("script.json"), "--record", dir.File("record.jsonl"),
                               "--ready", dir.File("ready")});
    process_ = std::make_unique<ChildProcess>(args);
    started_ = WaitFor([&] { return access(dir.File("ready").c_str(), F_OK) == 0; });
  }

  bool started() const { return started_; }
  std::string ready() const { return ReadFile(dir_.File("ready")); }
  void Stop() { process_->Stop(); }

  // The script, read again for every request.
  void SetScript(const std::string& json) { dir_.Write("script.json", json); }

  // The record entries written since the last call.
  std::vector<Json::Value> Take() { return TakeJsonLines(dir_.File("record.jsonl"), &taken_); }

  // The requests received since the last call; one the peer could not
  // decode fails the test.
  std::vector<Json::Value> TakeRequests() {
    std::vector<Json::Value> out;
    for (const Json::Value& entry : Take()) {
      EXPECT_TRUE(entry.isMember("request")) << entry;
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
  const TempDir& dir_;
  std::unique_ptr<ChildProcess> process_;
  bool started_ = false;
  int taken_ = 0;  // record lines already returned
};

// The simulated sync daemon on `root`/tmp/tarn.sock.
class SyncDaemonPeer : public PeerProcess {
 public:
  explicit SyncDaemonPeer(const TempDir& root)
      : PeerProcess(root, "sync_daemon", {"--socket", root.File("tmp/tarn.sock")}) {}
};

#endif  // VESTA_TESTS_COMMON_SYNC_DAEMON_PEER_H_
