#include "log/logger.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>

#include <fstream>
#include <sstream>
#include <string>
#include <thread>

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

TEST_F(LoggerTest, LevelsPerComponentAndLineLayout) {
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
}

TEST_F(LoggerTest, RotatesExactlyWhenTheCounterPassesTheLimit) {
  std::string log = dir_.File("r.log");
  // path_0 .. path_48 already hold older rotations.
  for (int i = 0; i <= 48; ++i)
    dir_.Write("r.log_" + std::to_string(i), "old " + std::to_string(i));
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

  // A log found past 2 GiB rotates at the first line like any log past the limit.
  ASSERT_EQ(0, truncate(log.c_str(), off_t{3} << 30));
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

// True once a flock request on the file `path` waits ("->" in /proc/locks).
bool FlockWaits(const std::string& path) {
  struct stat st = {};
  stat(path.c_str(), &st);
  const std::string inode = ":" + std::to_string(st.st_ino) + " ";
  std::istringstream locks(ReadFile("/proc/locks"));
  for (std::string line; std::getline(locks, line);) {
    if (line.find("-> FLOCK") != std::string::npos && line.find(inode) != std::string::npos) {
      return true;
    }
  }
  return false;
}

// Runs Logger::Log("text") on a thread of its own.
class Writer {
 public:
  explicit Writer(const char* text)
      : thread_([this, text] {
          tid_ = static_cast<pid_t>(syscall(SYS_gettid));
          Logger::Log(LOG_LEVEL_ERROR, "c", "%s\n", text);
        }) {}
  ~Writer() { thread_.join(); }
  // Whether it sleeps on a mutex: its wait channel, not a syscall number,
  // which under an emulator is the host's.
  bool OnAMutex() const {
    return tid_ != 0 && ReadFile("/proc/self/task/" + std::to_string(tid_) + "/wchan")
                                .find("futex") != std::string::npos;
  }

 private:
  std::atomic<pid_t> tid_{0};
  std::thread thread_;
};

// While another process holds the log's lock a writer waits.  One waiting
// for the mutex while the thread holding it finds its stream gone (another process rotated, and the new file cannot be opened)
// must see that under the lock and drop its message, not close the stream a
// second time.
TEST_F(LoggerTest, AWriterBehindAFailedReopenDropsItsMessage) {
  const std::string log = dir_.File("locked.log"), lock = log + ".lock";
  ASSERT_EQ(0, Logger::Init(Logger::kFile, log, "", 50, 2));
  const int other = open(lock.c_str(), O_RDWR);  // as another process would
  ASSERT_EQ(0, flock(other, LOCK_EX));
  {
    Writer holder("first");  // takes the mutex, then waits in flock
    EXPECT_TRUE(WaitFor([&] { return FlockWaits(lock); }));
    Writer waiter("second");  // has seen the stream, waits for the mutex
    EXPECT_TRUE(WaitFor([&] { return waiter.OnAMutex(); }));
    if (fork() == 0) {  // the other process: the rotation counter is shared
      rename(log.c_str(), (log + "_0").c_str());
      mkdir(log.c_str(), 0755);
      ++*Logger::log_rotated_count_shared;
      _exit(0);
    }
    ASSERT_GT(wait(nullptr), 0);
    flock(other, LOCK_UN);
  }
  close(other);
  EXPECT_EQ("", ReadFile(log + "_0"));
}

}  // namespace
