// The daemon's configuration file, pid file and allowed uids; detaching,
// signals and removing the pid file are left to the system tests.
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "monitor/daemon.h"
#include "monitor/vesta-monitor.h"
#include "tests/common/temp_dir.h"

namespace {

std::string Values(const MonitorDaemon& d) {
  return d.pid_file + "|" + d.system_db_path + "|" + d.socket_path + "|" + d.log_level_file +
         "|" + std::to_string(d.list_share_period.load()) + "|" +
         std::to_string(d.disconnected_time_threadhold.load()) + "|" +
         std::to_string(d.update_status_period.load());
}

const char kDefaults[] =
    "/var/run/vesta-monitord.pid|/tmp/vesta-system-db.sqlite|/tmp/tarn-monitor.sock|"
    "/volume1/log.debug|300|30|5";

// A file that sets every key; a syntax error anywhere discards all of it.
const char kEveryKey[] =
    "pid_file = /run/x.pid\n"
    "system_db_path=/data/system.sqlite\n"
    "socket_path='/run/monitor socket'\n"
    "log_level_file=\"/etc/levels\"\n"
    "list_share_period = 60 # a minute\n"
    "disconnected_time_threadhold = 45\n"
    "update_status_period = 7\n";

TEST(ConfigFile, ValuesAndSyntaxErrors) {
  struct Case {
    std::string text;  // "-": no file at all
    std::string values;
  };
  std::vector<Case> cases = {
      {"-", kDefaults},
      {kEveryKey, "/run/x.pid|/data/system.sqlite|/run/monitor socket|/etc/levels|60|45|7"},
      {std::string(kEveryKey) +
           "\n   \t\n# list_share_period = 1\n   # indented comment\n"
           "unknown.key-1 = whatever\n"   // an unknown key is ignored
           "pid_file = ''\n"              // replaces the earlier value; empty is ignored
           "socket_path=/run/a#b\n"       // '#' inside a word belongs to it
           "update_status_period=9#x\n"   // and a number stops before it
           "disconnected_time_threadhold = 12\n"
           "log_level_file = \"/with space/and#hash\"   # comment\n"
           "system_db_path=/données/système.sqlite\n",
       "/var/run/vesta-monitord.pid|/données/système.sqlite|/run/a#b|/with space/and#hash|"
       "60|12|9"},
      // Numbers by stream extraction, no range checked.
      {"list_share_period = soon\nupdate_status_period = 15s\n"
       "disconnected_time_threadhold = -3\n",
       "/var/run/vesta-monitord.pid|/tmp/vesta-system-db.sqlite|/tmp/tarn-monitor.sock|"
       "/volume1/log.debug|0|-3|15"},
  };
  const char* const kBadLines[] = {
      "list_share_period =\n",         // "=" and no value
      "list_share_period 60\n",        // no "="
      "pid_file = \"/unterminated\n",  // missing closing quote
      "pid_file = \"/a\tb\"\n",        // control character inside quotes
      "pid_file = /a b\n",             // a second word after the value
  };
  for (const char* bad : kBadLines) {
    cases.push_back({std::string(kEveryKey) + bad, kDefaults});
    cases.push_back({bad + std::string(kEveryKey), kDefaults});
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 80));
    TempDir dir;
    MonitorDaemon d;
    // Only a missing or a refused file leaves every default.
    EXPECT_EQ(c.values == kDefaults ? -1 : 0,
              d.LoadConfig(c.text == "-" ? dir.File("absent.conf") : dir.Write("c.conf", c.text)));
    EXPECT_EQ(c.values, Values(d));
  }
}

TEST(PidFile, WrittenAndRead) {
  TempDir dir;
  const std::string path = dir.File("d.pid");
  const mode_t mask = umask(077);
  const int written = Daemon::WritePidFile(path);
  umask(mask);
  ASSERT_EQ(0, written);
  struct stat st;
  ASSERT_EQ(0, stat(path.c_str(), &st));
  EXPECT_EQ(0644u, st.st_mode & 0777);
  EXPECT_EQ(std::to_string(getpid()) + "\n", ReadFile(path));
  pid_t pid = 0;
  ASSERT_EQ(1, Daemon::IsRunning(path, &pid));
  EXPECT_EQ(getpid(), pid);
  EXPECT_EQ(-1, Daemon::WritePidFile(dir.File("no/such/dir.pid")));
  // A link at the path, even one planted after the start's own check, is
  // refused and its target left as it was.
  const std::string target = dir.Write("target", "kept");
  ASSERT_EQ(0, symlink(target.c_str(), dir.File("link.pid").c_str()));
  EXPECT_EQ(-1, Daemon::WritePidFile(dir.File("link.pid")));
  EXPECT_EQ("kept", ReadFile(target));
  // Signal 0 to 0, -1 or minus a group id reaches live processes: no pid.
  // (A pid of a process that has ended: the system test's stale pid file.)
  for (const std::string& text :
       {std::string("not a pid\n"), std::string(), std::string("0\n"), std::string("-1\n"),
        "-" + std::to_string(getpgrp()) + "\n"}) {
    EXPECT_EQ(0, Daemon::IsRunning(dir.Write("t.pid", text), &pid)) << text;
  }
}

// socket_allowed_uids: anything but decimal uids separated by commas is
// refused whole, so that a list meant to restrict never serves everyone.
TEST(AllowedUids, ListsAndRefusals) {
  const struct {
    const char* text;
    int result;
    std::vector<uint32_t> uids;
  } kCases[] = {
      {"", 0, {}},  // every local user
      {"0", 0, {0}},
      {" 0 ,\t1000", 0, {0, 1000}},
      {"4294967295", -1, {}},  // (uid_t)-1 is nobody
      {"99999999999", -1, {}},
      {"0,", -1, {}},
      {"0,,1", -1, {}},
      {"0;1000", -1, {}},
      {"-1", -1, {}},
      {"root", -1, {}},
  };
  for (const auto& c : kCases) {
    std::vector<uint32_t> uids = {7};
    EXPECT_EQ(c.result, MonitorDaemon::ParseAllowedUids(c.text, &uids)) << c.text;
    EXPECT_EQ(c.uids, uids) << c.text;
  }
}

}  // namespace
