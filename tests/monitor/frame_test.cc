#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "log/key_value_file.h"
#include "monitor/daemon.h"
#include "monitor/vesta-monitor.h"
#include "tests/common/temp_dir.h"

namespace {

// A file that sets every key; each syntax case below adds one line to it,
// so "the whole file was discarded" shows as every default kept.
const char kEveryKey[] =
    "pid_file = /run/x.pid\n"
    "system_db_path=/data/system.sqlite\n"
    "socket_path='/run/monitor socket'\n"
    "log_level_file=\"/etc/levels\"\n"
    "list_share_period = 60 # a minute\n"
    "disconnected_time_threadhold = 45\n"
    "update_status_period = 7\n";

void ExpectDefaults(const MonitorDaemon& d) {
  EXPECT_EQ("/var/run/vesta-monitord.pid", d.pid_file);
  EXPECT_EQ("/tmp/vesta-system-db.sqlite", d.system_db_path);
  EXPECT_EQ("/tmp/tarn-monitor.sock", d.socket_path);
  EXPECT_EQ("/volume1/log.debug", d.log_level_file);
  EXPECT_EQ("/etc/ssl/certs/ca-certificates.crt", d.ca_path);
  EXPECT_EQ(300, d.list_share_period.load());
  EXPECT_EQ(30, d.disconnected_time_threadhold.load());
  EXPECT_EQ(5, d.update_status_period.load());
  EXPECT_EQ(0, d.fast_monitor_since.load());
}

void ExpectEveryKeySet(const MonitorDaemon& d) {
  EXPECT_EQ("/run/x.pid", d.pid_file);
  EXPECT_EQ("/data/system.sqlite", d.system_db_path);
  EXPECT_EQ("/run/monitor socket", d.socket_path);
  EXPECT_EQ("/etc/levels", d.log_level_file);
  EXPECT_EQ(60, d.list_share_period.load());
  EXPECT_EQ(45, d.disconnected_time_threadhold.load());
  EXPECT_EQ(7, d.update_status_period.load());
}

TEST(ConfigFile, EveryKeyAndTheDefaults) {
  TempDir dir;
  MonitorDaemon untouched;
  ExpectDefaults(untouched);

  MonitorDaemon d;
  EXPECT_EQ(0, d.LoadConfig(dir.Write("ok.conf", kEveryKey)));
  ExpectEveryKeySet(d);

  MonitorDaemon missing;
  EXPECT_EQ(-1, missing.LoadConfig(dir.File("absent.conf")));
  ExpectDefaults(missing);
}

TEST(ConfigFile, OneSyntaxErrorDiscardsTheWholeFile) {
  const char* bad_lines[] = {
      "list_share_period =\n",             // "=" and no value
      "list_share_period =   \t \n",       // only blanks after "="
      "list_share_period 60\n",            // no "="
      "list share_period = 60\n",          // blank inside the key
      "list_share_period! = 60\n",         // a character no key has
      "= 60\n",                            // no key at all
      "pid_file = \"/unterminated\n",      // missing closing quote
      "pid_file = '/mixed\"\n",            // the other quote does not close
      "pid_file = \"/a\tb\"\n",            // control character inside quotes
      "pid_file = /a b\n",                 // a second word after the value
      "pid_file = \"/a\" trailing\n",      // text after a quoted value
      "pid_file = /a\tb\n",                // tab, then more text
  };
  for (const char* bad : bad_lines) {
    TempDir dir;
    MonitorDaemon d;
    std::string text = std::string(kEveryKey) + bad;
    EXPECT_EQ(-1, d.LoadConfig(dir.Write("bad.conf", text))) << bad;
    ExpectDefaults(d);
    // The error may stand anywhere in the file.
    MonitorDaemon first;
    EXPECT_EQ(-1, first.LoadConfig(dir.Write("first.conf", std::string(bad) + kEveryKey))) << bad;
    ExpectDefaults(first);
  }
}

TEST(ConfigFile, LinesThatAreNotErrors) {
  TempDir dir;
  std::string text = std::string(kEveryKey) +
                     "\n"
                     "   \t\n"
                     "# list_share_period = 1\n"
                     "   # indented comment\n"
                     "unknown.key-1 = whatever\n"          // unknown keys are ignored
                     "pid_file = ''\n"  // replaces the earlier value, and empty is ignored
                     "update_status_period=9#comment\n"    // '#' is part of an unquoted value
                     "disconnected_time_threadhold = 12\n"  // a later key replaces
                     "log_level_file = \"/with space/and#hash\"   # comment\n"
                     "system_db_path=/données/système.sqlite\n";
  MonitorDaemon d;
  ASSERT_EQ(0, d.LoadConfig(dir.Write("ok.conf", text)));
  EXPECT_EQ("/var/run/vesta-monitord.pid", d.pid_file);
  EXPECT_EQ(9, d.update_status_period.load()) << "stream extraction stops at '#'";
  EXPECT_EQ(12, d.disconnected_time_threadhold.load());
  EXPECT_EQ("/with space/and#hash", d.log_level_file);
  EXPECT_EQ("/données/système.sqlite", d.system_db_path);

  std::map<std::string, std::string> raw;
  ASSERT_EQ(0, ReadKeyValueFile(dir.File("ok.conf"), &raw));
  EXPECT_EQ("whatever", raw["unknown.key-1"]);
  EXPECT_EQ("9#comment", raw["update_status_period"]);
}

TEST(ConfigFile, NumbersByStreamExtraction) {
  TempDir dir;
  MonitorDaemon d;
  ASSERT_EQ(0, d.LoadConfig(dir.Write("n.conf",
                                      "list_share_period = soon\n"
                                      "update_status_period = 15s\n"
                                      "disconnected_time_threadhold = -3\n")));
  EXPECT_EQ(0, d.list_share_period.load());
  EXPECT_EQ(15, d.update_status_period.load());
  EXPECT_EQ(-3, d.disconnected_time_threadhold.load()) << "no range is checked";
}

TEST(ConfigFile, LinesLongerThanTheBufferArriveInPieces) {
  TempDir dir;
  // 8191 bytes of a comment fill the first read; the rest of that line is
  // then parsed as a line of its own.
  std::string line = "#" + std::string(8190, 'c') + "pid_file=/tail.pid\n";
  MonitorDaemon d;
  ASSERT_EQ(0, d.LoadConfig(dir.Write("long.conf", line)));
  EXPECT_EQ("/tail.pid", d.pid_file);
}

TEST(PidFile, WrittenWithItsModeAndReadBack) {
  TempDir dir;
  umask(077);
  std::string path = dir.File("d.pid");
  ASSERT_EQ(0, Daemon::WritePidFile(path));
  struct stat st;
  ASSERT_EQ(0, stat(path.c_str(), &st));
  EXPECT_EQ(0644u, st.st_mode & 0777);
  EXPECT_EQ(std::to_string(getpid()) + "\n", ReadFile(path));

  pid_t pid = 0;
  EXPECT_EQ(1, Daemon::IsRunning(path, &pid));
  EXPECT_EQ(getpid(), pid);
  // A live instance refuses the start before anything is detached.
  EXPECT_EQ(-1, Daemon::Daemonize(path));

  Daemon::RemovePidFile(path);
  EXPECT_NE(0, access(path.c_str(), F_OK));
  EXPECT_EQ(0, Daemon::IsRunning(path, &pid));
  EXPECT_EQ(-1, Daemon::WritePidFile(dir.File("no/such/dir.pid")));
}

TEST(PidFile, StaleOrUnreadablePidIsNotRunning) {
  TempDir dir;
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(0);
  ASSERT_EQ(child, waitpid(child, nullptr, 0));  // reaped: the pid is free

  pid_t pid = 0;
  std::string stale = dir.Write("stale.pid", std::to_string(child) + "\n");
  // Signal 0 to 0, -1 or minus a group id reaches live processes: no pid.
  const std::vector<std::string> texts = {ReadFile(stale), "not a pid\n", "", "0\n", "-1\n",
                                          "-" + std::to_string(getpgrp()) + "\n"};
  for (const std::string& text : texts) {
    EXPECT_EQ(0, Daemon::IsRunning(dir.Write("t.pid", text), &pid)) << text;
  }

  // The stale file is overwritten by the next start.
  ASSERT_EQ(0, Daemon::WritePidFile(stale));
  EXPECT_EQ(std::to_string(getpid()) + "\n", ReadFile(stale));
}

TEST(Signals, HandlersChangeOnlyTheirWord) {
  ASSERT_EQ(0, Daemon::SetSignalHandler(SIGUSR1, Daemon::increaseLogLevel));
  ASSERT_EQ(0, Daemon::SetSignalHandler(SIGUSR2, Daemon::decreateLogLevel));
  ASSERT_EQ(0, Daemon::SetSignalHandler(SIGTERM, Daemon::stop));

  Daemon::log_level = 0;
  raise(SIGUSR2);
  EXPECT_EQ(0, Daemon::log_level.load()) << "never below 0";
  raise(SIGUSR1);
  raise(SIGUSR1);
  EXPECT_EQ(2, Daemon::log_level.load());
  raise(SIGUSR2);
  EXPECT_EQ(1, Daemon::log_level.load());
  Daemon::log_level = 1000;
  raise(SIGUSR1);
  EXPECT_EQ(1001, Daemon::log_level.load()) << "no upper bound";

  Daemon::daemon_run = 1;
  raise(SIGTERM);
  EXPECT_EQ(0, Daemon::daemon_run.load());
  EXPECT_EQ(1001, Daemon::log_level.load());

  EXPECT_EQ(0, Daemon::IgnoreSignal(SIGTERM));
  raise(SIGTERM);  // ignored: the test goes on
  EXPECT_EQ(-1, Daemon::IgnoreSignal(SIGKILL));

  Daemon::daemon_run = 1;
  Daemon::log_level = 3;
  signal(SIGUSR1, SIG_DFL);
  signal(SIGUSR2, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
}

}  // namespace
