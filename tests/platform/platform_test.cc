// The one way files are written as root, the platform stand-in's key-value
// files, and the machine's own proxy read from its file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "net/conn-finder.h"
#include "platform/klib.h"
#include "platform/safe_file.h"
#include "tests/common/shell.h"
#include "tests/common/temp_dir.h"

namespace {

// The mode bits of what is at `path` (not followed) in octal, "-" when
// nothing is.
std::string ModeOf(const std::string& path) {
  struct stat st;
  char mode[8] = "-";
  if (lstat(path.c_str(), &st) == 0) snprintf(mode, sizeof(mode), "%o", st.st_mode & 07777);
  return mode;
}

// Whatever sits at the name, nothing is written through a link; a file
// made here has exactly the mode asked for, whatever the umask.
TEST(SafeFileTest, LinksRefusedAndModesExact) {
  TempDir dir;
  const std::string target = dir.Write("target", "kept");
  dir.Write("existing", "old");  // mode 0644 under the test's umask
  ASSERT_EQ(0, symlink(target.c_str(), dir.File("link").c_str()));
  ASSERT_EQ(0, symlink(dir.File("absent").c_str(), dir.File("dangling").c_str()));
  ASSERT_EQ(0, mkfifo(dir.File("fifo").c_str(), 0600));
  const struct {
    const char* name;
    int open_errno;          // of OpenFileNoFollow, 0 for a descriptor
    const char* after_open;  // the mode it leaves
    int replace_errno;       // of ReplaceFile
  } kCases[] = {
      {"link", ELOOP, "777", ELOOP},
      {"dangling", ELOOP, "777", ELOOP},
      // Refused without blocking (no reader: ENXIO; with one: EINVAL);
      // replaced by a file.
      {"fifo", ENXIO, "600", 0},
      {"new", 0, "640", 0},
      {"existing", 0, "644", 0},  // keeps its own mode
  };
  const mode_t mask = umask(0777);  // would take every bit away
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const std::string path = dir.File(c.name);
    const int fd = OpenFileNoFollow(path, O_WRONLY | O_APPEND, 0640);
    EXPECT_EQ(c.open_errno, fd < 0 ? errno : 0);
    if (fd >= 0) {
      EXPECT_EQ(1, write(fd, "+", 1));
      close(fd);
    }
    EXPECT_EQ(c.after_open, ModeOf(path));
    EXPECT_EQ(c.replace_errno, ReplaceFile(path, "whole", 0604) != 0 ? errno : 0);
    if (c.replace_errno == 0) {
      EXPECT_EQ("whole", ReadFile(path));
      EXPECT_EQ("604", ModeOf(path));
    }
  }
  umask(mask);
  EXPECT_EQ("kept", ReadFile(target));
  EXPECT_EQ("-", ModeOf(dir.File("absent")));
  EXPECT_EQ("dangling\nexisting\nfifo\nlink\nnew\ntarget\n",
            RunCommand("ls -A '" + dir.path() + "'"));  // no temporary left
}

// A replacement that fails half-way (here: the file size limit) is reported
// and leaves the old file whole, with no temporary beside it.
TEST(SafeFileTest, FailedReplacementKeepsTheOldFile) {
  TempDir dir;
  const std::string path = dir.Write("file", "old text");
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit = {16, 16};
    setrlimit(RLIMIT_FSIZE, &limit);
    _exit(ReplaceFile(path, std::string(64, 'n'), 0644) == -1 && errno == EFBIG ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ(0, status) << "the failed replacement was not reported";
  EXPECT_EQ("old text", ReadFile(path));
  EXPECT_EQ("file\n", RunCommand("ls -A '" + dir.path() + "'"));
}

// The stand-in's files, unlike the daemon's own, take "key=" as unset and
// read long lines whole.
TEST(KlibFileTest, ValuesUnsetKeysAndRefusals) {
  TempDir dir;
  const std::string path =
      dir.Write("service.conf",
                "# written by the package\nvolume=/volume1\nlabel = 'two words'  # note\n"
                "deny_users=x\ndeny_users=\nrw_users=" +
                    std::string(9000, 'u') + "\n");
  const std::string broken = dir.Write("broken.conf", "volume=/volume1\nthis line is wrong\n");
  const struct {
    std::string path;
    const char* key;
    size_t size;
    std::string want;  // the value, or <error code>
  } kCases[] = {
      {path, "volume", 9, "/volume1"},
      {path, "volume", 8, "<" + std::to_string(KLIB_ERR_BUFFER_TOO_SMALL) + ">"},  // and its NUL
      {path, "label", 16, "two words"},
      {path, "rw_users", 9001, std::string(9000, 'u')},
      {path, "missing", 16, "<" + std::to_string(KLIB_ERR_NO_SUCH_KEY) + ">"},
      {path, "deny_users", 16, "<" + std::to_string(KLIB_ERR_NO_SUCH_KEY) + ">"},
      {dir.File("absent"), "volume", 16, "<" + std::to_string(KLIB_ERR_FILE) + ">"},
      {broken, "volume", 16, "<" + std::to_string(KLIB_ERR_FILE) + ">"},
  };
  for (const auto& c : kCases) {
    std::string buf(c.size, '\0');
    const int n = KLIBCFileGetKeyValue(c.path.c_str(), c.key, &buf[0], c.size, 0);
    std::string got = buf.c_str();  // up to its NUL
    if (n < 0) {
      got = "<" + std::to_string(KLIBErrCodeGet()) + ">";
    } else if (static_cast<size_t>(n) != got.size()) {
      got += " of length " + std::to_string(n);
    }
    EXPECT_EQ(c.want, got) << c.key;
  }
}

// The machine's own proxy from its proxy file: every field GetSystemProxy
// sets or clears, from a record that starts with every field set.
TEST(ConnFinderTest, SystemProxyFromItsFile) {
  TempDir dir;
  setenv("VESTA_ROOT", dir.path().c_str(), 1);
  ASSERT_EQ(0, system(("mkdir -p '" + dir.File("etc/vesta") + "'").c_str()));
  // A host name of the test's own, in a namespace gone with the process.
  ASSERT_EQ(0, unshare(CLONE_NEWUTS)) << strerror(errno);
  ASSERT_EQ(0, sethostname("nas", 3));
  const std::string auth =
      "enabled=yes\nhost=proxy.corp\nport=8080\nauth_enabled=yes\npassword=pw\n";
  const struct {
    std::string file;  // "": no proxy file
    int result;
    const char* want;  // use_proxy use_system_proxy ip:port domain|user|password|host
  } kCases[] = {
      // Authentication asked for but without a password: the address only.
      {"enabled=yes\nhost=10.0.0.1\nport=3128\nauth_enabled=yes\nusername=alice\n", 0,
       "10 10.0.0.1:3128 |||"},
      {auth + "username=\"CORP\\alice\"\n", 0, "10 proxy.corp:8080 CORP|alice|pw|nas"},
      // The last backslash; a "/" before it.
      {auth + "username=\"A\\B\\carol\"\n", 0, "10 proxy.corp:8080 A\\B|carol|pw|nas"},
      {auth + "username=\"x/y\\z\"\n", 0, "10 proxy.corp:8080 x|y\\z|pw|nas"},
      // No proxy: the record is cleared.
      {"enabled=yes\nhost=10.0.0.1\n", -1, "00 :0 |||"},  // no port
      {"", -1, "00 :0 |||"},
      // Settings that cannot be read leave the record alone.
      {"enabled yes\n", -1, "11 stale:1 stale|stale|stale|stale"},
  };
  for (const auto& c : kCases) {
    dir.Write("etc/vesta/proxy.conf", c.file);
    if (c.file.empty()) unlink(dir.File("etc/vesta/proxy.conf").c_str());
    ProxyInfo p{true, true, "stale", 1, "stale", "stale", "stale", "stale", ""};
    EXPECT_EQ(c.result, GetSystemProxy(&p)) << c.file;
    const std::string got = std::to_string(p.use_proxy) + std::to_string(p.use_system_proxy) + " " +
                            p.proxy_ip + ":" + std::to_string(p.proxy_port) + " " + p.proxy_domain +
                            "|" + p.proxy_username + "|" + p.proxy_password + "|" + p.proxy_host;
    EXPECT_EQ(c.want, got) << c.file;
  }
  unsetenv("VESTA_ROOT");
}

}  // namespace
