#include "sdk/fslib/fslib.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <map>
#include <sstream>
#include <thread>

#include "tests/common/shell.h"
#include "tests/common/temp_dir.h"

namespace {

// statfs magic numbers, typed here from the kernel's list.
constexpr uint32_t kExt4Magic = 0xEF53;
constexpr uint32_t kBtrfsMagic = 0x9123683E;
constexpr uint32_t kEcryptfsMagic = 0xF15F;

// A file system made of named paths, each with a device number and a
// file-system magic.  Paths not added do not exist.
class FakeProbe : public FsProbe {
 public:
  FakeProbe() { Add({"/"}, 1, kExt4Magic); }

  void Add(std::initializer_list<const char*> paths, dev_t dev, uint32_t magic) {
    for (const char* path : paths) nodes_[path] = {dev, magic};
  }

  int Stat(const std::string& path, struct stat* st) const override {
    const Node* node = Find(path);
    if (node == nullptr) return -1;
    *st = {};
    st->st_dev = node->first;
    st->st_mode = S_IFDIR | 0755;
    return 0;
  }
  int StatFs(const std::string& path, struct statfs* st) const override {
    const Node* node = Find(path);
    if (node == nullptr) return -1;
    *st = {};
    // f_type is a signed word, 32-bit on 32-bit targets: the magic's bits.
    st->f_type = static_cast<decltype(st->f_type)>(node->second);
    return 0;
  }

 private:
  using Node = std::pair<dev_t, uint32_t>;  // device and file-system magic
  const Node* Find(const std::string& path) const {
    auto it = nodes_.find(path);
    errno = ENOENT;
    return it == nodes_.end() ? nullptr : &it->second;
  }

  std::map<std::string, Node> nodes_;
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

class FslibTest : public ::testing::Test {
 protected:
  void SetUp() override {
    table_ = dir_.Write("mounts",
                        "/dev/md0 / ext4 rw 0 0\n"
                        "/dev/md2 /volume1 ext4 rw,relatime 0 0\n"
                        "/dev/md3 /volume2 btrfs rw 0 0\n"
                        "/dev/md1 /volume3 ext4 rw 0 0\n"  // hidden by the next line
                        "/dev/md4 /volume3 ext3 rw 0 0\n"
                        "/dev/md5 /volume4 vfat rw 0 0\n"
                        "/volume1/@secret /volume1/secret ecryptfs rw 0 0\n"
                        "/volume2/@vault /volume2/vault ecryptfs rw 0 0\n"
                        "q9remote /volume1/cloud q9fs rw 0 0\n"
                        "/dev/sdq1 /volumeUSB1/usbshare vfat rw 0 0\n"
                        "/dev/sdr1 /volumeUSB2/usb\\040disk ext4 rw 0 0\n"
                        "/dev/md9 /mnt/deep/usb ecryptfs rw 0 0\n");
    probe_.Add({"/volume1", "/volume1/photo", "/volume1/photo/2024"}, 2, kExt4Magic);
    probe_.Add({"/volume2", "/volume2/music"}, 3, kBtrfsMagic);
    probe_.Add({"/volume2/sub", "/volume2/sub/x"}, 30, kBtrfsMagic);  // a subvolume: own device, not in the table
    probe_.Add({"/volume3", "/volume3/docs"}, 4, kExt4Magic);
    probe_.Add({"/volume4"}, 5, 0x4d44);
    probe_.Add({"/volume1/secret", "/volume1/secret/a"}, 6, kEcryptfsMagic);
    probe_.Add({"/volume2/vault"}, 7, kEcryptfsMagic);
    probe_.Add({"/volume1/cloud"}, 8, 0x01021997);
    probe_.Add({"/volumeUSB1", "/volumeUSB2", "/mnt"}, 1, kExt4Magic);
    probe_.Add({"/volumeUSB1/usbshare", "/volumeUSB1/usbshare/f"}, 9, 0x4d44);
    probe_.Add({"/volumeUSB2/usb disk"}, 10, kExt4Magic);
    probe_.Add({"/volume5"}, 11, kExt4Magic);  // mounted, but not in the table
    probe_.Add({"/mnt/deep"}, 12, kExt4Magic);  // its own device, absent from the table
    probe_.Add({"/mnt/deep/usb"}, 13, kEcryptfsMagic);
  }

  int Get(const std::string& path, FileSystemProperty* p) {
    return GetFileSystemPropertyOfPath(path, p, table_, probe_);
  }

  TempDir dir_;
  std::string table_;
  FakeProbe probe_;
};

TEST_F(FslibTest, EachKindOfVolume) {
  const char* kRows[][2] = {
      {"/volume1/photo/2024", "1 quota | /volume1/@tmp /volume1 /volume1 /volume1 '/dev/md2'"},
      {"/volume3/docs/", "4 quota | /volume3/@tmp /volume3 /volume3 /volume3 '/dev/md4'"},
      {"/volume2/music", "2 snapshot | /volume2/@tmp /volume2 /volume2 /volume2 '/dev/md3'"},
      {"/volume1/secret/a",
       "3 quota | /volume1/secret/@eaDir/@tmp /volume1/secret /volume1 /volume1/secret '/dev/md2'"},
      {"/volume2/vault", "3 quota on-btrfs | /volume2/vault/@eaDir/@tmp /volume2/vault /volume2 "
                         "/volume2/vault '/volume2/@vault'"},
      {"/volume1/cloud", "5 | /volume1/cloud/@eaDir /volume1/cloud /volume1 /volume1/cloud ''"},
      {"/volumeUSB1/usbshare/f", "0 usb | /volumeUSB1/usbshare/@tmp /volumeUSB1/usbshare "
                                 "/volumeUSB1/usbshare/@sharebin /volumeUSB1/usbshare ''"},
      {"/volumeUSB2/usb disk", "1 usb | /volumeUSB2/usb disk/@tmp /volumeUSB2/usb disk "
                               "/volumeUSB2/usb disk/@sharebin /volumeUSB2/usb disk ''"},
      {"/volume2/sub/x", "2 quota snapshot | /volume2/@tmp /volume2 /volume2 /volume2/sub ''"},
      {"/volume2/./music/../sub//x",
       "2 quota snapshot | /volume2/@tmp /volume2 /volume2 /volume2/sub ''"},
  };
  for (const auto& row : kRows) {
    FileSystemProperty got;
    EXPECT_EQ(0, Get(row[0], &got)) << row[0];
    EXPECT_EQ(row[1], Describe(got)) << row[0];
  }
}

TEST_F(FslibTest, UnsyncableVolumesFail) {
  FileSystemProperty untouched;
  untouched.fs_type = 9;
  untouched.tmp_path = "t";
  const char* paths[] = {
      "/volume4",        // vfat, not on a USB disk
      "/volume5",        // its own device, absent from the table, not btrfs
      "/volume9/none",   // does not exist
      "/mnt/deep/usb",   // ecryptfs whose lower volume has no table entry
  };
  for (const char* path : paths) {
    FileSystemProperty got = untouched;
    EXPECT_EQ(-1, Get(path, &got)) << path;
    EXPECT_EQ(untouched, got) << path;
  }
  FileSystemProperty got;
  EXPECT_EQ(-1, GetFileSystemPropertyOfPath("/volume1", &got, dir_.File("no-such-table"), probe_));
  EXPECT_FALSE(IsOnBtrfs("/volume9", probe_));
}

// This machine's root, against its own /proc/mounts read by awk.
TEST_F(FslibTest, ThisMachinesRoot) {
  std::istringstream root(
      RunCommand("awk '$2 == \"/\" {t = $3; d = $1} END {print t, d}' /proc/mounts"));
  std::string type, device;
  root >> type >> device;
  FileSystemProperty got;
  const int ret = GetFileSystemPropertyOfPath("/", &got);
  if (type == "ext4" || type == "ext3" || type == "btrfs") {
    ASSERT_EQ(0, ret);
    EXPECT_EQ(type == "ext4" ? 1 : type == "ext3" ? 4 : 2, got.fs_type);
    EXPECT_EQ("/ /@tmp " + device,
              got.mount_point_path + " " + got.tmp_path + " " + got.device_path);
  } else if (type != "ecryptfs" && type != "q9fs") {
    EXPECT_EQ(-1, ret) << "root is " << type;
  }
}

TEST_F(FslibTest, MapFormKeysAndRoundTrip) {
  FileSystemProperty p;
  ASSERT_EQ(0, Get("/volume2/vault", &p));
  PObject map;
  ASSERT_EQ(0, p.Serialize(&map));
  EXPECT_EQ(
      R"({"device_path": "/volume2/@vault", "fs_type": 3, "is_mounted_on_btrfs": 1, "is_usb": 0, )"
      R"("mount_point_path": "/volume2/vault", "share_bin_path": "/volume2", "support_quota": 1, )"
      R"("support_snapshot": 0, "tmp_path": "/volume2/vault/@eaDir/@tmp", )"
      R"("zephtify_path": "/volume2/vault"})",
      ToJson(map));

  FileSystemProperty back;
  ASSERT_EQ(0, back.Deserialize(map));
  EXPECT_EQ(p, back);
  EXPECT_EQ(-1, back.Deserialize(PObject("not a map")));
  EXPECT_EQ(p, back);
  PObject partial;
  partial["tmp_path"] = "/x";
  ASSERT_EQ(0, back.Deserialize(partial));
  EXPECT_EQ("0 | /x    ''", Describe(back));
}

TEST_F(FslibTest, ExistenceAndRecursiveRemoval) {
  EXPECT_FALSE(PathExists(""));
  EXPECT_TRUE(PathExists(dir_.path()));
  EXPECT_FALSE(PathExists(dir_.File("absent")));

  // A tree with a link to a directory outside it, which must survive.
  const std::string keep = dir_.File("keep"), tree = dir_.File("tree");
  ASSERT_EQ(0, system(("cd '" + dir_.path() + "' && mkdir -p keep tree/a/b && touch keep/precious "
                       "tree/a/b/.hidden tree/a/file && ln -s '" + keep + "' tree/a/link && ln -s "
                       "/nowhere tree/dangling").c_str()));
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
TEST_F(FslibTest, RemovalNeverFollowsADirectorySwappedForALink) {
  const std::string target = dir_.File("target"), tree = dir_.File("tree");
  const std::string sub = tree + "/sub", link = dir_.File("link");
  for (const std::string& d : {target, tree, sub}) ASSERT_EQ(0, mkdir(d.c_str(), 0755));
  dir_.Write("target/x", "precious");
  dir_.Write("tree/sub/x", "doomed");
  ASSERT_EQ(0, symlink(target.c_str(), link.c_str()));
  const int fan = fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_NONBLOCK, O_RDONLY);
  if (fan < 0 || fanotify_mark(fan, FAN_MARK_ADD, FAN_OPEN_PERM | FAN_ONDIR, AT_FDCWD,
                               sub.c_str()) != 0) {
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
