// The log capture and sample records of the database tests.
#ifndef VESTA_TESTS_DB_DB_TEST_UTIL_H_
#define VESTA_TESTS_DB_DB_TEST_UTIL_H_

#include <algorithm>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "db/system-db.h"
#include "gtest/gtest.h"
#include "log/logger.h"
#include "tests/common/shell.h"
#include "tests/common/temp_dir.h"

// Sends every message of the components in `levels` (a level file) to a
// file in `dir`.
class LogCapture {
 public:
  explicit LogCapture(const TempDir& dir,
                      const std::string& levels = "system_db_debug=7\nfilter_db_util_debug=7\n"
                                                  "client_debug=7\nconnection_updater=7\n"
                                                  "client_updater_util=7\n")
      : path_(dir.File("test.log")) {
    EXPECT_EQ(0, Logger::Init(Logger::kFile, path_, dir.Write("levels", levels), 50, 1));
  }
  ~LogCapture() { Logger::Shutdown(); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // The lines written since the last call, each as "LEVEL text\n" (the
  // stamp, ids and source position cut).
  std::string Take() {
    const std::string text = ReadFile(path_);
    const std::string out = Lines(text.substr(taken_));
    taken_ = text.size();
    return out;
  }
  // Whether `line` ("LEVEL text") was written since the last Take().
  bool Logged(const std::string& line) const {
    return ("\n" + Lines(ReadFile(path_).substr(taken_))).find("\n" + line + "\n") !=
           std::string::npos;
  }

  // One call with its result and the last lines it must write.
  struct Outcome {
    std::function<int()> call;
    int result;
    std::string line;
  };
  void ExpectEach(const std::vector<Outcome>& outcomes) {
    for (const Outcome& o : outcomes) {
      Take();
      EXPECT_EQ(o.result, o.call()) << o.line;
      const std::string lines = "\n" + Take(), tail = "\n" + o.line + "\n";
      EXPECT_EQ(tail, lines.substr(lines.size() - std::min(lines.size(), tail.size())));
    }
  }

 private:
  static std::string Lines(const std::string& text) {
    std::istringstream lines(text);
    std::string out;
    for (std::string line; std::getline(lines, line);) {
      const size_t level = line.find(") [") + 3;
      out += line.substr(level, line.find(']', level) - level) + " " +
             line.substr(line.find("): ", level) + 3) + "\n";
    }
    return out;
  }

  std::string path_;
  size_t taken_ = 0;  // bytes of the log already returned by Take()
};

// A connection with a value of its own in every field the update writes
// (username is not one of them).
inline ConnectionEntry SampleConnection() {
  ConnectionEntry e;
  e.conn_mode = 5;
  e.server_name = "o'brien's server";
  e.server_ip = "10.0.0.7";
  e.server_port = 6690;
  e.nx_id = "NX1";
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
  e.conn_type = 1;
  e.proxy = {true, false, "10.1.1.1", 3128, "alice", "pa'ss word", "CORP", "nas"};
  e.tunnel = {true, "10.2.2.2", 65535};
  return e;
}

#endif  // VESTA_TESTS_DB_DB_TEST_UTIL_H_
