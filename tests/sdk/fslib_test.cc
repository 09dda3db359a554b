// Existence and recursive removal as root, which never leaves the tree and
// never takes a failed listing for its end.
#include "sdk/fslib/fslib.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "platform/dir_reader.h"
#include "tests/common/temp_dir.h"

namespace {

// A tree with hidden files and links, one to a directory outside it.
TEST(FslibTest, ExistenceAndRecursiveRemoval) {
  TempDir dir;
  const std::string keep = dir.File("keep"), tree = dir.File("tree");
  for (const char* d : {"keep", "tree", "tree/a", "tree/a/b"}) mkdir(dir.File(d).c_str(), 0755);
  for (const char* f : {"keep/precious", "tree/a/b/.hidden", "tree/a/file"}) dir.Write(f, "x");
  ASSERT_EQ(0, symlink(keep.c_str(), (tree + "/a/link").c_str()));
  ASSERT_EQ(0, symlink("/nowhere", (tree + "/dangling").c_str()));
  EXPECT_FALSE(PathExists(""));
  EXPECT_TRUE(PathExists(tree + "/a/link"));
  EXPECT_FALSE(PathExists(tree + "/dangling"));

  EXPECT_EQ(0, RemovePath(tree));
  EXPECT_FALSE(PathExists(tree));
  EXPECT_TRUE(PathExists(keep + "/precious"));
  EXPECT_EQ(-1, RemovePath(tree));
  EXPECT_EQ(0, RemovePath(keep + "/precious"));
  EXPECT_FALSE(PathExists(keep + "/precious"));

  // A listing that fails part way (as on a 64-bit directory offset without
  // 64-bit offsets) fails the removal: it is never taken for the end.
  DirReader::read_entry = [](DIR*) -> struct dirent* {
    errno = EOVERFLOW;
    return nullptr;
  };
  EXPECT_EQ(-1, RemovePath(keep));
  DirReader::read_entry = readdir;
}

// tree/sub is swapped for a link to `target` while the walk opens it (held
// by a permission event): the walk empties what it opened, never the target.
TEST(FslibTest, RemovalNeverFollowsADirectorySwappedForALink) {
  TempDir dir;
  const std::string target = dir.File("target"), tree = dir.File("tree");
  const std::string sub = tree + "/sub", link = dir.File("link");
  for (const std::string& d : {target, tree, sub}) ASSERT_EQ(0, mkdir(d.c_str(), 0755));
  dir.Write("target/x", "precious");
  dir.Write("tree/sub/x", "doomed");
  ASSERT_EQ(0, symlink(target.c_str(), link.c_str()));
  const int fan = fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_NONBLOCK, O_RDONLY);
  if (fan < 0 ||
      fanotify_mark(fan, FAN_MARK_ADD, FAN_OPEN_PERM | FAN_ONDIR, AT_FDCWD, sub.c_str()) != 0) {
    GTEST_SKIP() << "no fanotify permission events here: " << strerror(errno);
  }
  std::thread walker([&] { RemovePath(tree); });
  struct pollfd pfd = {fan, POLLIN, 0};
  struct fanotify_event_metadata event = {};
  if (poll(&pfd, 1, 60000) == 1 &&
      read(fan, &event, sizeof(event)) == static_cast<ssize_t>(sizeof(event))) {
    EXPECT_EQ(0, renameat2(AT_FDCWD, sub.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE));
    struct fanotify_response allow = {event.fd, FAN_ALLOW};
    EXPECT_EQ(static_cast<ssize_t>(sizeof(allow)), write(fan, &allow, sizeof(allow)));
    close(event.fd);
  } else {
    ADD_FAILURE() << "the walk never opened " << sub;
  }
  walker.join();
  close(fan);
  EXPECT_EQ("precious", ReadFile(target + "/x"));
}

}  // namespace
