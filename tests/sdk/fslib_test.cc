#include "sdk/fslib/fslib.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <map>
#include <sstream>
#include <thread>

#include "tests/common/temp_dir.h"

namespace {

// statfs magic numbers, typed here from the kernel's list.
constexpr uint32_t kExt4Magic = 0xEF53;
constexpr uint32_t kBtrfsMagic = 0x9123683E;
constexpr uint32_t kEcryptfsMagic = 0xF15F;

// A file system made of named paths, each with a device number and a
// file-system magic; paths not added do not exist.
struct FakeProbe : FsProbe {
  void Add(std::initializer_list<const char*> paths, dev_t dev, uint32_t magic) {
    for (const char* path : paths) nodes[path] = {dev, magic};
  }
  int Stat(const std::string& path, struct stat* st) const override {
    struct statfs fs;
    if (StatFs(path, &fs) != 0) return -1;
    *st = {};
    st->st_dev = nodes.at(path).first;
    return 0;
  }
  int StatFs(const std::string& path, struct statfs* st) const override {
    auto it = nodes.find(path);
    errno = ENOENT;
    if (it == nodes.end()) return -1;
    *st = {};
    // f_type is a signed word, 32-bit on 32-bit targets: the magic's bits.
    st->f_type = static_cast<decltype(st->f_type)>(it->second.second);
    return 0;
  }

  std::map<std::string, std::pair<dev_t, uint32_t>> nodes{{"/", {1, kExt4Magic}}};
};

// A property on one line: type, flags, then the five paths, the device quoted.
std::string Describe(const FileSystemProperty& p) {
  std::ostringstream out;
  out << p.fs_type << (p.support_quota ? " quota" : "") << (p.support_snapshot ? " snapshot" : "")
      << (p.is_usb ? " usb" : "") << (p.is_mounted_on_btrfs ? " on-btrfs" : "") << " | "
      << p.tmp_path << " " << p.zephtify_path << " " << p.share_bin_path << " "
      << p.mount_point_path << " '" << p.device_path << "'";
  return out.str();
}

// Each kind of volume; -1 where the folder cannot be synced, the result
// left untouched.
TEST(FslibTest, EachKindOfVolume) {
  TempDir dir;
  FakeProbe probe;
  const std::string table = dir.Write("mounts",
                                      "/dev/md0 / ext4 rw 0 0\n"
                                      "/dev/md2 /volume1 ext4 rw,relatime 0 0\n"
                                      "/dev/md3 /volume2 btrfs rw 0 0\n"
                                      "/dev/md1 /volume3 ext4 rw 0 0\n"  // hidden by the next line
                                      "/dev/md4 /volume3 ext3 rw 0 0\n"
                                      "/dev/md5 /volume4 vfat rw 0 0\n"
                                      "/volume1/@secret /volume1/secret ecryptfs rw 0 0\n"
                                      "/volume2/@vault /volume2/vault ecryptfs rw 0 0\n"
                                      "q9remote /volume1/cloud q9fs rw 0 0\n"
                                      "/dev/sdr1 /volumeUSB2/usb\\040disk ext4 rw 0 0\n"
                                      "/dev/md9 /mnt/deep/usb ecryptfs rw 0 0\n");
  probe.Add({"/volume1", "/volume1/photo", "/volume1/photo/2024"}, 2, kExt4Magic);
  probe.Add({"/volume2", "/volume2/music"}, 3, kBtrfsMagic);
  probe.Add({"/volume2/sub", "/volume2/sub/x"}, 30,
            kBtrfsMagic);  // a subvolume: own device, not in the table
  probe.Add({"/volume3", "/volume3/docs"}, 4, kExt4Magic);
  probe.Add({"/volume4"}, 5, 0x4d44);
  probe.Add({"/volume1/secret", "/volume1/secret/a"}, 6, kEcryptfsMagic);
  probe.Add({"/volume2/vault"}, 7, kEcryptfsMagic);
  probe.Add({"/volume1/cloud"}, 8, 0x01021997);
  probe.Add({"/volumeUSB2", "/mnt"}, 1, kExt4Magic);
  probe.Add({"/volumeUSB2/usb disk"}, 10, kExt4Magic);
  probe.Add({"/volume5"}, 11, kExt4Magic);   // mounted, but not in the table
  probe.Add({"/mnt/deep"}, 12, kExt4Magic);  // its own device, absent from the table
  probe.Add({"/mnt/deep/usb"}, 13, kEcryptfsMagic);
  const char* kRows[][2] = {
      {"/volume1/photo/2024", "1 quota | /volume1/@tmp /volume1 /volume1 /volume1 '/dev/md2'"},
      {"/volume3/docs/", "4 quota | /volume3/@tmp /volume3 /volume3 /volume3 '/dev/md4'"},
      {"/volume2/music", "2 snapshot | /volume2/@tmp /volume2 /volume2 /volume2 '/dev/md3'"},
      {"/volume1/secret/a",
       "3 quota | /volume1/secret/@eaDir/@tmp /volume1/secret /volume1 /volume1/secret '/dev/md2'"},
      {"/volume2/vault",
       "3 quota on-btrfs | /volume2/vault/@eaDir/@tmp /volume2/vault /volume2 "
       "/volume2/vault '/volume2/@vault'"},
      {"/volume1/cloud", "5 | /volume1/cloud/@eaDir /volume1/cloud /volume1 /volume1/cloud ''"},
      {"/volumeUSB2/usb disk",
       "1 usb | /volumeUSB2/usb disk/@tmp /volumeUSB2/usb disk "
       "/volumeUSB2/usb disk/@sharebin /volumeUSB2/usb disk ''"},
      {"/volume2/./music/../sub//x",
       "2 quota snapshot | /volume2/@tmp /volume2 /volume2 /volume2/sub ''"},
      {"/volume4", "-1 untouched"},       // vfat, not on a USB disk
      {"/volume5", "-1 untouched"},       // its own device, absent from the table, not btrfs
      {"/volume9/none", "-1 untouched"},  // does not exist
      {"/mnt/deep/usb", "-1 untouched"},  // ecryptfs whose lower volume has no table entry
  };
  for (const auto& row : kRows) {
    FileSystemProperty got;
    got.tmp_path = "untouched";
    const int ret = GetFileSystemPropertyOfPath(row[0], &got, table, probe);
    EXPECT_EQ(row[1], ret == 0 ? Describe(got) : std::to_string(ret) + " " + got.tmp_path)
        << row[0];
  }
  FileSystemProperty got;
  EXPECT_EQ(-1, GetFileSystemPropertyOfPath("/volume1", &got, dir.File("no-such-table"), probe));
}

TEST(FslibTest, ExistenceAndRecursiveRemoval) {
  TempDir dir_;
  EXPECT_FALSE(PathExists(""));
  EXPECT_TRUE(PathExists(dir_.path()));
  EXPECT_FALSE(PathExists(dir_.File("absent")));

  // A tree with a link to a directory outside it, which must survive.
  const std::string keep = dir_.File("keep"), tree = dir_.File("tree");
  ASSERT_EQ(0, system(("cd '" + dir_.path() +
                       "' && mkdir -p keep tree/a/b && touch keep/precious "
                       "tree/a/b/.hidden tree/a/file && ln -s '" +
                       keep +
                       "' tree/a/link && ln -s "
                       "/nowhere tree/dangling")
                          .c_str()));
  EXPECT_FALSE(PathExists(tree + "/dangling"));

  EXPECT_EQ(0, RemovePath(tree));
  EXPECT_FALSE(PathExists(tree));
  EXPECT_TRUE(PathExists(keep + "/precious"));
  EXPECT_EQ(-1, RemovePath(tree));

  const std::string file = dir_.Write("single", "y");
  EXPECT_EQ(0, RemovePath(file));
  EXPECT_FALSE(PathExists(file));
}

// tree/sub is swapped for a link to `target` while the walk opens it (held
// by a permission event): the walk empties what it opened, never the target.
TEST(FslibTest, RemovalNeverFollowsADirectorySwappedForALink) {
  TempDir dir_;
  const std::string target = dir_.File("target"), tree = dir_.File("tree");
  const std::string sub = tree + "/sub", link = dir_.File("link");
  for (const std::string& d : {target, tree, sub}) ASSERT_EQ(0, mkdir(d.c_str(), 0755));
  dir_.Write("target/x", "precious");
  dir_.Write("tree/sub/x", "doomed");
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
