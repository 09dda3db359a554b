#include "log/logger.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "log/log.h"
#include "tests/common/log_capture.h"
#include "tests/common/shell.h"
#include "tests/common/small_disk.h"
#include "tests/common/temp_dir.h"

namespace {

// Every stamped write starts with "YYYY-MM-DDTHH:MM:SS ".
constexpr size_t kStampSize = 20;

off_t SizeOf(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

class LoggerTest : public ::testing::Test {
 protected:
  void TearDown() override { Logger::Shutdown(); }
  TempDir dir_;
};

TEST_F(LoggerTest, LevelsPerComponentFromTheLevelFile) {
  LogCapture log(dir_, "# component levels\nstream=7\nquiet = 2\n");
  for (const char* component : {"stream", "monitor_daemon", "quiet"}) {
    LOG_CRIT(component, "%s", component);
    LOG_ERROR(component, "%s", component);
    LOG_WARNING(component, "%s", component);
    LOG_INFO(component, "%s", component);
    LOG_DEBUG(component, "%s", component);
  }
  // An unconfigured component keeps CRIT, ERROR and WARNING.
  EXPECT_EQ(
      "CRIT stream\nERROR stream\nWARNING stream\nINFO stream\nDEBUG stream\n"
      "CRIT monitor_daemon\nERROR monitor_daemon\nWARNING monitor_daemon\nCRIT quiet\n",
      log.Take());

  // Arguments are evaluated only when the message passes.
  int evaluated = 0;
  LOG_DEBUG("monitor_daemon", "%d", ++evaluated);
  LOG_ERROR("monitor_daemon", "%d", ++evaluated);
  EXPECT_EQ(1, evaluated);
}

TEST_F(LoggerTest, StampedLineLayoutAndFailedInit) {
  std::string log = dir_.File("a.log");
  ASSERT_EQ(0, Logger::Init(Logger::kFile, log, "", 50, 1));
  LOG_ERROR("stream", "Error stack: %s", "a.b");
  std::string text = ReadFile(log);
  const std::regex line(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d \( *)" + std::to_string(getpid()) +
                        R"(: *\d{1,5}\) \[ERROR\] logger_test\(\d+\): Error stack: a\.b\n)");
  EXPECT_TRUE(std::regex_match(text, line)) << text;

  // A failed Init keeps the previous output; after Shutdown nothing is on.
  EXPECT_EQ(-1, Logger::Init(Logger::kFile, "", "", 50, 1));
  EXPECT_EQ(-1, Logger::Init(Logger::kFile, dir_.File("missing/dir/x.log"), "", 50, 1));
  LOG_ERROR("c", "still here");
  EXPECT_NE(std::string::npos, ReadFile(log).find("still here"));
  Logger::Shutdown();
  EXPECT_FALSE(Logger::IsLogEnabled(LOG_LEVEL_CRIT, "c"));
}

TEST_F(LoggerTest, RotatesExactlyWhenTheCounterPassesTheLimit) {
  std::string log = dir_.File("r.log");
  // path_0 .. path_48 already hold older rotations.
  for (int i = 0; i <= 48; ++i) dir_.Write("r.log_" + std::to_string(i), "old " + std::to_string(i));
  // The counter starts at the file's size; 30 more bytes reach the limit.
  dir_.Write("r.log", std::string(Logger::kRotateSize - 30, 'x'));
  ASSERT_EQ(0, Logger::Init(Logger::kFile, log, "", 50, 1));

  Logger::Log(LOG_LEVEL_ERROR, "c", "%s", std::string(30 - kStampSize, 'y').c_str());
  EXPECT_EQ(Logger::kRotateSize, SizeOf(log));
  EXPECT_EQ("old 0", ReadFile(log + "_0"));

  Logger::Log(LOG_LEVEL_ERROR, "c", "z");  // byte 5,242,881 and beyond
  EXPECT_EQ(0, SizeOf(log));
  EXPECT_EQ(Logger::kRotateSize + static_cast<off_t>(kStampSize + 1), SizeOf(log + "_0"));
  EXPECT_EQ("old 0", ReadFile(log + "_1"));
  EXPECT_EQ("old 47", ReadFile(log + "_48"));
  EXPECT_EQ(-1, SizeOf(log + "_49"));

  // The counter restarted at 0: the next message goes to the new file.
  Logger::Log(LOG_LEVEL_ERROR, "c", "after");
  EXPECT_EQ(static_cast<off_t>(kStampSize + 5), SizeOf(log));
}

// A log found past 2 GiB rotates at the first line like any log past the limit.
TEST_F(LoggerTest, LogPastTwoGibRotatesAtTheFirstLine) {
  const std::string log = dir_.File("big.log");
  ASSERT_EQ(0, truncate(dir_.Write("big.log", "").c_str(), off_t{3} << 30));
  ASSERT_EQ(0, Logger::Init(Logger::kFile, log, "", 50, 1));
  Logger::Log(LOG_LEVEL_ERROR, "c", "z");
  EXPECT_EQ((off_t{3} << 30) + kStampSize + 1, SizeOf(log + "_0"));
}

// A peer's text in a message (a share name, a server's reason) cannot
// forge or cut a line of the log.
TEST_F(LoggerTest, ControlCharactersOfAMessageAreEscaped) {
  const std::string log = dir_.File("e.log");
  ASSERT_EQ(0, Logger::Init(Logger::kFile, log, "", 50, 1));
  Logger::Log(LOG_LEVEL_ERROR, "c", "hook ('%s')\n", "a\n2024-01-31T23:59:59 forged\r\x01\x7f\tb");
  EXPECT_EQ("hook ('a\\n2024-01-31T23:59:59 forged\\r\\x01\\x7f\tb')\n",
            ReadFile(log).substr(kStampSize));
}

// On a full disk a line is written whole or not at all: the next line never
// runs on from a cut one.
TEST_F(LoggerTest, AFullDiskLeavesNoCutLine) {
  SmallDisk disk(dir_.File("disk"), 64 << 10);
  const std::string log = dir_.File("disk/f.log");
  ASSERT_EQ(0, Logger::Init(Logger::kFile, log, "", 50, 1));
  Logger::Log(LOG_LEVEL_ERROR, "c", "first\n");
  // Every block taken: only the rest of the log's own last block is free.
  const std::string filler = dir_.File("disk/filler");
  {
    std::ofstream out(filler, std::ios::binary);
    const std::string block(4096, 'f');
    for (int i = 0; i < 64 && out; ++i) out.write(block.data(), block.size());
  }
  const std::string first = ReadFile(log);
  Logger::Log(LOG_LEVEL_ERROR, "c", "%s\n", std::string(8192, 'x').c_str());
  EXPECT_EQ(first, ReadFile(log));
  ASSERT_EQ(0, unlink(filler.c_str()));
  Logger::Log(LOG_LEVEL_ERROR, "c", "after\n");
  const std::string text = ReadFile(log);
  EXPECT_EQ(first, text.substr(0, first.size()));
  EXPECT_EQ("after\n", text.substr(first.size() + kStampSize));
}

// Two processes forked after Init write one file through several
// rotations; every line must survive exactly once and whole.
TEST_F(LoggerTest, ProcessesSharingOneFileLoseAndTearNothing) {
  std::string log = dir_.File("shared.log");
  ASSERT_EQ(0, Logger::Init(Logger::kFile, log, "", 50, 2));
  constexpr int kLines = 20000;
  const std::string padding(300, 'p');

  std::vector<pid_t> children;
  for (int writer = 0; writer < 2; ++writer) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      for (int i = 0; i < kLines; ++i) {
        Logger::Log(LOG_LEVEL_ERROR, "c", "line %d %06d %s end\n", writer, i, padding.c_str());
      }
      _exit(0);
    }
    children.push_back(pid);
  }
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }

  std::vector<std::string> files = {log};
  for (int i = 0; SizeOf(log + "_" + std::to_string(i)) >= 0; ++i) files.push_back(log + "_" + std::to_string(i));
  EXPECT_GE(files.size(), 3u) << "expected several rotations";

  std::regex whole(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d line ([01]) (\d{6}) p{300} end)");
  std::set<std::pair<int, int>> seen;
  for (const std::string& f : files) {
    std::istringstream lines(ReadFile(f));
    for (std::string line; std::getline(lines, line);) {  // a torn tail too
      std::smatch m;
      ASSERT_TRUE(std::regex_match(line, m, whole)) << "torn line in " << f << ": " << line.substr(0, 80);
      auto key = std::make_pair(std::stoi(m[1]), std::stoi(m[2]));
      EXPECT_TRUE(seen.insert(key).second) << "duplicate " << key.first << "/" << key.second;
    }
  }
  EXPECT_EQ(2u * kLines, seen.size());
}

TEST_F(LoggerTest, AsyncFlushWritesEverythingByShutdown) {
  std::string log = dir_.File("async.log");
  // Asynchronous, flushed every 20 ms.
  ASSERT_EQ(0, Logger::Init({Logger::kFile, log, "", 50, 1, true, 20}));

  Logger::Log(LOG_LEVEL_ERROR, "c", "first\n");
  EXPECT_TRUE(WaitFor([&] { return ReadFile(log).find("first") != std::string::npos; }));

  for (int i = 0; i < 1000; ++i) Logger::Log(LOG_LEVEL_ERROR, "c", "message %d\n", i);
  Logger::Shutdown();
  const std::string text = ReadFile(log);
  EXPECT_EQ(1001, std::count(text.begin(), text.end(), '\n'));
}

// Standard output keeps a buffer of its own through an asynchronous logger
// on it: nothing written after Shutdown lands in the handler's freed buffer.
TEST_F(LoggerTest, StandardOutputOutlivesTheAsyncBuffer) {
  std::string out = dir_.File("stdout");
  fflush(stdout);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    static char own[BUFSIZ];
    stdout = fdopen(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), "w");
    setvbuf(stdout, own, _IOFBF, sizeof(own));
    Logger::Init({Logger::kStdout, "", "", 50, 1, true, 500});
    Logger::Log(LOG_LEVEL_ERROR, "c", "logged\n");
    Logger::Shutdown();
    fputs("after shutdown\n", stdout);
    const bool in_own_buffer = strncmp(own, "after shutdown\n", 15) == 0;
    fflush(stdout);
    _exit(in_own_buffer ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_TRUE(std::regex_match(ReadFile(out), std::regex("\\S+ logged\nafter shutdown\n")))
      << ReadFile(out);
}

// Whether a flock on the file `lock` waits now (a blocked request, "->" in
// /proc/locks), whether thread `tid` of this process sleeps on a futex (a
// mutex; its wait channel), and how many times it has gone to sleep so far.
// None reads a syscall number, which under an emulator is the host's.
struct TaskState {
  bool in_flock;
  bool in_futex;
  int64_t sleeps;
};
TaskState StateOf(pid_t tid, const std::string& lock) {
  struct stat st = {};
  stat(lock.c_str(), &st);
  const std::string inode = ":" + std::to_string(st.st_ino) + " ";
  std::istringstream locks(ReadFile("/proc/locks"));
  bool waiting = false;
  for (std::string line; std::getline(locks, line);) {
    waiting |= line.find("-> FLOCK") != std::string::npos && line.find(inode) != std::string::npos;
  }
  const std::string task = "/proc/self/task/" + std::to_string(tid) + "/";
  const std::string status = ReadFile(task + "status");
  const size_t at = status.find("\nvoluntary_ctxt_switches:");
  return {waiting, ReadFile(task + "wchan").find("futex") != std::string::npos,
          at == std::string::npos ? -1 : atoll(status.c_str() + at + 25)};
}

// Runs Logger::Log("text") on a thread of its own, which says its id.
class Writer {
 public:
  Writer(const char* text, std::string lock)
      : lock_(std::move(lock)),
        thread_([this, text] {
          tid_ = static_cast<pid_t>(syscall(SYS_gettid));
          Logger::Log(LOG_LEVEL_ERROR, "c", "%s\n", text);
        }) {}
  ~Writer() { thread_.join(); }
  TaskState State() const { return tid_ != 0 ? StateOf(tid_, lock_) : TaskState{false, false, 0}; }

 private:
  std::string lock_;  // the log's lock file
  std::atomic<pid_t> tid_{0};
  std::thread thread_;
};

// A signal that ends the wait for another process's lock (the daemon's
// handlers do not restart system calls) does not let the message through.
TEST_F(LoggerTest, SignalDuringTheLockWaitKeepsWaiting) {
  std::string log = dir_.File("locked.log");
  ASSERT_EQ(0, Logger::Init(Logger::kFile, log, "", 50, 2));
  int other = open((log + ".lock").c_str(), O_RDWR);  // as another process would
  ASSERT_EQ(0, flock(other, LOCK_EX));
  struct sigaction handler = {}, saved;
  handler.sa_handler = [](int) {};  // no SA_RESTART
  sigaction(SIGUSR2, &handler, &saved);
  std::atomic<pid_t> tid{0};
  std::atomic<bool> returned{false};
  std::thread writer([&] {
    tid = static_cast<pid_t>(syscall(SYS_gettid));
    Logger::Log(LOG_LEVEL_ERROR, "c", "written\n");
    returned = true;
  });
  EXPECT_TRUE(WaitFor([&] { return StateOf(tid, log + ".lock").in_flock; }));
  const int64_t sleeps = StateOf(tid, log + ".lock").sleeps;
  pthread_kill(writer.native_handle(), SIGUSR2);
  // Woken by the signal, the writer either writes at once or waits again.
  EXPECT_TRUE(WaitFor([&] {
    const TaskState now = StateOf(tid, log + ".lock");
    return returned || (now.in_flock && now.sleeps > sleeps);
  }));
  EXPECT_FALSE(returned);
  EXPECT_EQ("", ReadFile(log));
  flock(other, LOCK_UN);
  writer.join();
  EXPECT_NE(std::string::npos, ReadFile(log).find("written"));
  sigaction(SIGUSR2, &saved, nullptr);
  close(other);
}

// Links planted at the log's names are refused or moved, never written
// through: at the path before Init; at the path when another process has
// rotated (the reopen); at the numbered names when this process rotates.
TEST_F(LoggerTest, PlantedLinksAreNeverWrittenThrough) {
  const std::string victim = dir_.Write("victim", "kept");
  const std::string log = dir_.File("l.log");
  ASSERT_EQ(0, symlink(victim.c_str(), log.c_str()));
  EXPECT_EQ(-1, Logger::Init(Logger::kFile, log, "", 3, 2));
  ASSERT_EQ(0, unlink(log.c_str()));

  dir_.Write("l.log", std::string(Logger::kRotateSize, 'x'));
  ASSERT_EQ(0, Logger::Init(Logger::kFile, log, "", 3, 2));
  for (const char* slot : {"l.log_0", "l.log_1"}) {
    ASSERT_EQ(0, symlink(victim.c_str(), dir_.File(slot).c_str()));
  }
  Logger::Log(LOG_LEVEL_ERROR, "c", "rotates\n");
  EXPECT_EQ(0, SizeOf(log));  // a new regular file
  EXPECT_EQ(std::string::npos, ReadFile(log + "_0").find("kept"));

  // Another process rotated, and a link took the file's place.
  ASSERT_EQ(0, rename(log.c_str(), (log + "_0").c_str()));
  ASSERT_EQ(0, symlink(victim.c_str(), log.c_str()));
  ++*Logger::log_rotated_count_shared;
  Logger::Log(LOG_LEVEL_ERROR, "c", "dropped\n");
  EXPECT_EQ("kept", ReadFile(victim));
}

// A writer that waits for the lock while the thread holding it finds its
// stream gone (another process rotated, and the new file cannot be opened)
// must see that under the lock and drop its message, not close the stream
// a second time.
TEST_F(LoggerTest, AWaitingWriterSurvivesAFailedReopen) {
  const std::string log = dir_.File("race.log");
  ASSERT_EQ(0, Logger::Init(Logger::kFile, log, "", 50, 2));
  int other = open((log + ".lock").c_str(), O_RDWR);  // as another process would
  ASSERT_EQ(0, flock(other, LOCK_EX));
  {
    Writer holder("first", log + ".lock");  // takes the mutex, then waits in flock
    EXPECT_TRUE(WaitFor([&] { return holder.State().in_flock; }));
    Writer waiter("second", log + ".lock");  // has seen the stream, waits for the mutex
    EXPECT_TRUE(WaitFor([&] { return waiter.State().in_futex; }));
    // The other process, in a process of its own as the counter is shared.
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      rename(log.c_str(), (log + "_0").c_str());
      mkdir(log.c_str(), 0755);
      ++*Logger::log_rotated_count_shared;
      _exit(0);
    }
    ASSERT_EQ(pid, waitpid(pid, nullptr, 0));
    flock(other, LOCK_UN);
  }
  close(other);
  EXPECT_EQ("", ReadFile(log + "_0"));
}

}  // namespace
