// The platform stand-in's key-value files and string table, the machine's
// own proxy read from its file, and the one way files are written as root.
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

std::string Lookup(const std::string& path, const char* key, size_t size = 256) {
  char buf[256];
  int n = KLIBCFileGetKeyValue(path.c_str(), key, buf, size, 0);
  if (n < 0) return "<" + std::to_string(KLIBErrCodeGet()) + ">";
  EXPECT_EQ(static_cast<size_t>(n), std::string(buf).size());
  return buf;
}

// The stand-in's files, unlike the daemon's own, take "key=" as unset and
// read long lines whole.
TEST(KlibFileTest, ValuesUnsetKeysAndRefusals) {
  TempDir dir;
  const std::string list(9000, 'u');
  const std::string path =
      dir.Write("service.conf",
                "# written by the package\nvolume=/volume1\nlabel = \"two words\"\n"
                "single='x y'\nvolume2 = /volume2   # trailing comment\n"
                "deny_users=x\ndeny_users=\nquoted=\"\"\nrw_users=" +
                    list + ",alice\n");
  const std::string broken = dir.Write("broken.conf", "volume=/volume1\nthis line is wrong\n");
  auto error = [](int code) { return "<" + std::to_string(code) + ">"; };
  const struct {
    std::string path;
    const char* key;
    size_t size;
    std::string want;
  } kCases[] = {
      {path, "volume", 256, "/volume1"},
      {path, "label", 256, "two words"},
      {path, "single", 256, "x y"},
      {path, "volume2", 256, "/volume2"},
      {path, "missing", 256, error(KLIB_ERR_NO_SUCH_KEY)},
      {path, "deny_users", 256, error(KLIB_ERR_NO_SUCH_KEY)},
      {path, "quoted", 256, error(KLIB_ERR_NO_SUCH_KEY)},
      {dir.File("absent"), "volume", 256, error(KLIB_ERR_FILE)},
      {broken, "volume", 256, error(KLIB_ERR_FILE)},
      {path, "volume", 8, error(KLIB_ERR_BUFFER_TOO_SMALL)},  // 9 bytes with its NUL
      {path, "volume", 9, "/volume1"},
  };
  for (const auto& c : kCases) EXPECT_EQ(c.want, Lookup(c.path, c.key, c.size)) << c.key;
  std::string buf(list.size() + 16, '\0');
  EXPECT_EQ(9006, KLIBCFileGetKeyValue(path.c_str(), "rw_users", &buf[0], buf.size(), 0));
}

// The machine's own proxy from its proxy file: every field GetSystemProxy
// sets or clears, from a record that starts with every field set.
TEST(ConnFinderTest, SystemProxyFromItsFile) {
  TempDir dir;
  setenv("VESTA_ROOT", dir.path().c_str(), 1);
  ASSERT_EQ(0, system(("mkdir -p '" + dir.File("etc/vesta") + "'").c_str()));
  // A host name of the test's own, in a namespace gone with the process.
  ASSERT_EQ(0, unshare(CLONE_NEWUTS)) << strerror(errno);
  ASSERT_EQ(0, sethostname("nas-under-test", 14));
  const std::string auth =
      "enabled=yes\nhost=proxy.corp\nport=8080\nauth_enabled=yes\npassword='s3 cret'\n";
  const struct {
    std::string file;  // "": no proxy file
    int result;
    const char* want;  // use_proxy use_system_proxy ip:port domain|user|password|host
  } kCases[] = {
      {"enabled=yes\nhost=10.0.0.1\nport=3128\nusername=alice\npassword=pw\n", 0,
       "10 10.0.0.1:3128 |||"},
      // Authentication asked for but without a password: still the address only.
      {"enabled=yes\nhost=10.0.0.1\nport=3128\nauth_enabled=yes\nusername=alice\n", 0,
       "10 10.0.0.1:3128 |||"},
      {auth + "username=\"CORP\\alice\"\n", 0,
       "10 proxy.corp:8080 CORP|alice|s3 cret|nas-under-test"},
      {auth + "username=CORP/alice\n", 0, "10 proxy.corp:8080 CORP|alice|s3 cret|nas-under-test"},
      {auth + "username=alice\n", 0, "10 proxy.corp:8080 |alice|s3 cret|nas-under-test"},
      // The last backslash; a "/" before it.
      {auth + "username=\"A\\B\\carol\"\n", 0,
       "10 proxy.corp:8080 A\\B|carol|s3 cret|nas-under-test"},
      {auth + "username=\"x/y\\z\"\n", 0, "10 proxy.corp:8080 x|y\\z|s3 cret|nas-under-test"},
      // No proxy: the record is cleared.
      {"enabled=yes\nhost=10.0.0.1\n", -1, "00 :0 |||"},  // no port
      {"enabled=no\nhost=10.0.0.1\nport=3128\n", -1, "00 :0 |||"},
      {"enabled=yes\nhost=\"\"\nport=3128\n", -1, "00 :0 |||"},
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
