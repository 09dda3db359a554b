// Shared folders read from their files below a fresh VESTA_ROOT, and the
// platform lock their operations hold.
#include "sdk/share.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "platform/dir_reader.h"
#include "platform/holders.h"
#include "sdk/sdk-cpp.h"
#include "sdk/share-service.h"
#include "tests/common/shell.h"
#include "tests/common/temp_dir.h"

namespace {

// Privilege codes, typed here independently.
constexpr int kRO = 1, kRW = 2, kNone = 4, kFull = 8;

// A listing that fails as on a 64-bit directory offset without 64-bit offsets.
struct dirent* FailingReaddir(DIR* /*dir*/) {
  errno = EOVERFLOW;
  return nullptr;
}

// Runs `command` quietly, again for up to 5 s while another program holds
// the account database.
bool Run(const std::string& command) {
  bool ok = false;  // once true, not run again
  WaitFor([&] { return ok = ok || system((command + " >/dev/null 2>&1").c_str()) == 0; }, 5000);
  EXPECT_TRUE(ok) << command;
  return ok;
}

// Real accounts for one test: a group "staff", its owner and a member, an
// outsider, and a member of "administrators", removed in reverse order
// however the test ends.  Another run of the test may share the
// administrators group, hence the lock: on /etc, which stays the same
// directory while the account files are replaced, and is not written.
struct Accounts {
  Accounts() : lock(open("/etc", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    flock(lock, LOCK_EX);
    const std::string add = "useradd -M -N -s /usr/sbin/nologin ";
    made = (getgrnam("administrators") != nullptr ||
            Make("groupadd administrators", "groupdel administrators")) &&
           Make("groupadd " + staff, "groupdel " + staff) &&
           Make(add + "-g " + staff + " " + owner, "userdel " + owner) &&
           Make(add + "-G " + staff + " " + alice, "userdel " + alice) &&
           Make(add + bob, "userdel " + bob) &&
           Make(add + "-G administrators " + boss, "userdel " + boss);
  }
  ~Accounts() {
    for (auto it = undo.rbegin(); it != undo.rend(); ++it) Run(*it);
    close(lock);  // releases the lock
  }
  bool Make(const std::string& command, const std::string& undo_command) {
    if (!Run(command)) return false;
    undo.push_back(undo_command);
    return true;
  }

  const std::string p = "vt" + std::to_string(getpid());
  const std::string staff = p + "staff", owner = p + "own", alice = p + "ali", bob = p + "bob",
                    boss = p + "boss";
  int lock;
  bool made = false;              // every account is there
  std::vector<std::string> undo;  // commands that remove what was made
};

// Share files below a fresh VESTA_ROOT.
class ShareFiles {
 public:
  ShareFiles() {
    setenv("VESTA_ROOT", dir.path().c_str(), 1);
    EXPECT_EQ(0,
              system(("mkdir -p '" + dir.File("etc/vesta/shares") + "' '" + dir.File("data") + "'")
                         .c_str()));
  }
  ~ShareFiles() { unsetenv("VESTA_ROOT"); }

  // Writes share `name` with `path` and further key=value lines.
  void Write(const std::string& name, const std::string& path, const std::string& keys) {
    dir.Write("etc/vesta/shares/" + name + ".conf", "path=" + path + "\n" + keys);
  }

  TempDir dir;
};

TEST(PrivilegeTest, EveryRuleOfThePrivilege) {
  const Accounts a;
  ASSERT_TRUE(a.made) << "the test accounts could not be made";
  ShareFiles files;
  auto Dir = [&files](const std::string& name) { return files.dir.File("data/" + name); };
  for (const char* name : {"d770", "d750", "d720", "d755", "d700"}) {
    ASSERT_EQ(0, mkdir(Dir(name).c_str(), 0700));
    ASSERT_EQ(0, chown(Dir(name).c_str(), getpwnam(a.owner.c_str())->pw_uid,
                       getgrnam(a.staff.c_str())->gr_gid));
    ASSERT_EQ(0, chmod(Dir(name).c_str(), std::stoi(name + 1, nullptr, 8)));
  }
  auto upper = [](std::string s) {
    for (char& c : s) c = static_cast<char>(toupper(c));
    return s;
  };
  auto rw = [](const std::string& u) { return "rw_users=" + u + "\n"; };
  const std::string acl = "acl_only=yes\n", ro = "readonly=yes\n";
  const std::string mask1 = "acl_mask=\"" + a.alice + ":0x75," + a.boss + ":0x1\"\n";
  const std::string mask74 = "acl_mask=\"" + upper(a.alice) + ":0x74\"\n" + rw(a.alice);
  const struct {
    const char* dir;
    std::string keys, user;
    int want;
    bool loose = false;     // the privilege of the loose calculation
    bool unlisted = false;  // listing the shares' folder fails
  } kCases[] = {
      // ACL-only shares: the user lists do not count; an administrator
      // whose mask is exactly 0x1 gets nothing, with any real permission
      // full control, or read on a read-only share.
      {"d750", acl + "deny_users=" + a.alice + "\n", a.alice, kRO},
      {"d770", acl, a.owner, kFull},
      {"d700", acl + "acl_mask=\"" + a.boss + ":0x1\"\n", a.boss, kNone},
      {"d755", acl + ro, a.boss, kRO},
      // Administrators on ordinary shares: mask 0x1, or none at all unless
      // the share uses Windows-style ACLs, becomes full, then the lists
      // filter it.
      {"d700", mask1 + rw(a.boss), a.boss, kFull},
      {"d700", mask1 + "ro_users=" + a.boss + "\n", a.boss, kRO},
      {"d700", rw(a.boss), a.boss, kFull},
      {"d700", rw(a.boss) + "windows_acl=yes\n", a.boss, kNone},
      // Ordinary users.
      {"d770", "deny_users=" + a.alice + "\n" + rw(a.alice), a.alice, kNone},
      {"d770", "rw_users=@" + upper(a.staff) + "\n", a.alice, kRW},
      {"d770", "ro_users=" + a.alice + "\n", a.alice, kRO},
      {"d770", "ro_users=" + a.owner + "\n" + rw(a.owner), a.owner, kFull},  // read-write first
      {"d755", "ro_users=" + a.bob + "\n", a.bob, kRO},                      // others' bits
      {"d770", ro + rw(a.owner), a.owner, kRO},  // read-only: read needs every read bit
      {"d720", ro + rw(a.alice), a.alice, kNone},
      {"d700", mask74, a.alice, kRO},  // a mask over the mode, its user in any case
      {"d770", "forbidden=yes\n" + rw(a.owner), a.owner, kNone},
      {"d770", rw(a.owner), "vt-no-such-user", kNone},
      // A locked encrypted share is judged on its lower directory.
      {"d700", "encrypted=yes\nlocked=yes\nencryption_path=" + Dir("d770") + "\n" + rw(a.alice),
       a.alice, kRW},
      // A mask that cannot be read fails the calculation: the mode bits
      // would grant more.
      {"d770", mask74, a.alice, kNone, false, true},
      // The loose calculation: read-write, read or nothing.
      {"d770", "", a.owner, kRW, true},
      {"d700", mask74, a.alice, kRO, true},
      {"d770", "", a.bob, kNone, true},
  };
  for (const auto& c : kCases) {
    files.Write("s", Dir(c.dir), c.keys);
    DirReader::read_entry = c.unlisted ? FailingReaddir : readdir;
    std::shared_ptr<SDK::Share> share = SDK::GetShare("s");
    ASSERT_TRUE(share) << c.keys;
    EXPECT_EQ(c.want, c.loose ? share->GetLoosePrivilege(c.user) : share->GetPrivilege(c.user))
        << c.dir << " " << c.user << ": " << c.keys;
  }
  DirReader::read_entry = readdir;
}

// ---- attributes: no accounts needed ----

class ShareAttributesTest : public ::testing::Test {
 protected:
  std::shared_ptr<SDK::Share> Make(const std::string& path, const std::string& keys,
                                   const std::string& table = kProcMounts) {
    files_.Write("a", path, keys);
    return SDK::GetShare("a", table);
  }

  ShareFiles files_;
};

// Every yes/no answer of a share, one letter each, "-" for no.
std::string Answers(const SDK::Share& s) {
  const bool answers[] = {s.IsEncryption(),
                          s.IsMounted(),
                          s.IsAccessible(),
                          s.IsOnUsb(),
                          s.IsOnSata(),
                          s.IsSyncable(),
                          s.IsInternalUnencrypted(),
                          s.IsGluster(),
                          s.IsForbidden(),
                          s.IsIndexed(),
                          s.IsReadOnly(),
                          s.IsColdStorage(),
                          s.IsSharePrivilegeDisabled(),
                          s.IsShareRecycleBinEnabled(),
                          s.IsShareRecyceAdminOnly(),
                          s.IsReadOnlyByReplica(),
                          s.IsReserved()};
  std::string out;
  for (size_t i = 0; i < sizeof(answers); ++i) out += answers[i] ? "EMAUSYIGFNRCPBODX"[i] : '-';
  return out;
}

TEST_F(ShareAttributesTest, EveryAnswerOfEachKindOfShare) {
  const std::string table =
      files_.dir.Write("mounts",
                       "/dev/md2 /volume1 ext4 rw 0 0\n"
                       "/dev/md2 /volume1/photo/#snapshot/GMT+00-2024 ext4 ro 0 0\n"
                       "/dev/md2 /volume1/photo2#snapshot ext4 ro 0 0\n");
  const struct {
    const char* path;
    const char* keys;
    const char* answers;  // E M A U S Y I G F N R C P B O D X, as in Answers
  } kShares[] = {
      {"/volume1/all",
       "forbidden=yes\nindexed=true\nreadonly=1\ncold_storage=yes\nwindows_acl=yes\n"
       "skip_privilege_check=yes\nrecycle_bin=yes\nrecycle_bin_admin_only=yes\n",
       "-MA---I-FNRCPBO--"},
      // Locked means nothing unencrypted; a malformed value is no.
      {"/volume1/plain", "recycle_bin=sometimes\nlocked=yes\n", "-MA--YI----------"},
      {"/volume1/secret", "encrypted=yes\nlocked=yes\n", "E----Y-----------"},
      {"/volume1/secret", "encrypted=yes\nlocked=no\n", "EMA--Y-----------"},
      {"/volumeUSB1/usbshare", "", "-MAU-------------"},
      {"/volumeSATA1/disk", "gluster=yes\n", "-MA-SY-G---------"},
      // A snapshot mounted below the folder stops it, unless encrypted;
      // however the folder's path is written.
      {"/volume1//photo/.", "", "-MA---I----------"},
      {"/volume1/photo", "encrypted=yes\n", "EMA--Y-----------"},
      {"/volume1/photo2", "", "-MA--YI----------"},  // the snapshot is not below it
      // Read-only set by replication stops it too; registrants are whole names.
      {"/volume1/music", "readonly=yes\nreadonly_registered_by=backup,share_replica_demote\n",
       "-MA---I---R----D-"},
      {"/volume1/music", "readonly=yes\nreadonly_registered_by=dkos\n", "-MA---I---R----D-"},
      {"/volume1/music", "readonly=yes\nreadonly_registered_by=dkos2,share_replica\n",
       "-MA--YI---R------"},
      {"/volume1/music", "readonly_registered_by=dkos\n", "-MA--YI----------"},
  };
  for (const auto& c : kShares) {
    auto s = Make(c.path, c.keys, table);
    ASSERT_TRUE(s) << c.keys;
    EXPECT_EQ(c.answers, Answers(*s)) << c.path << ": " << c.keys;
  }
  auto all = Make("/volume1//all/",
                  "forbidden=yes\nindexed=1\nreadonly=1\ncold_storage=1\nwindows_acl=1\n");
  EXPECT_EQ(0x8 | 0x20 | 0x4000 | 0x20000, all->GetStatusFlags());
  EXPECT_EQ("5 a /volume1/all",
            std::to_string(all->GetVersion()) + " " + all->GetName() + " " + all->GetPath());
  EXPECT_EQ(4, Make("/volume1/plain", "")->GetVersion());

  // Refused: names that are not one file name, missing, malformed or
  // relative share files, malformed flags.
  files_.Write("relative", "volume1/a", "");
  files_.Write("flag", "/volume1/f", "indexed=perhaps\n");
  files_.dir.Write("etc/vesta/shares/broken.conf", "path=/volume1/x\nnot a pair\n");
  for (const char* name : {"../shares/flag", "..", "", "absent", "relative", "flag", "broken"}) {
    EXPECT_EQ(nullptr, SDK::GetShare(name)) << name;
  }
}

// Recycle bin, encryption path and key of a folder written loosely; what
// does not fit its buffer is refused.
TEST_F(ShareAttributesTest, PathsThatFitTheirBuffer) {
  files_.Write("p", "/volume1//photo/",
               "default_key_file=" + files_.dir.Write("short", "abc") + "\n");
  ZephShare* raw = nullptr;
  ASSERT_EQ(0, ZEPHShareGet("p", &raw));
  ShareRecord p(raw);
  char buf[64];
  EXPECT_EQ(-1, ZEPHShareBinPathGet("p", buf, 23));
  EXPECT_EQ(0, ZEPHShareBinPathGet("p", buf, 24));
  EXPECT_STREQ("/volume1/photo/#recycle", buf);
  EXPECT_EQ(-1, KLIBShareEncryptPathGet(p.get(), buf, 15));
  EXPECT_EQ(0, KLIBShareEncryptPathGet(p.get(), buf, 16));
  EXPECT_STREQ("/volume1/@photo", buf);
  EXPECT_EQ(-1, ZEPHShareEncDefaultKeyFileRead("p", buf, 64));  // 3 bytes of 64
}

// The folder is a tmpfs the test mounts (in a mount namespace of its own,
// gone with the process), listed as ext4 by the share's mount table: the
// real stat finds the mount point, the share's table its type and device.
TEST_F(ShareAttributesTest, FileSystemOfTheFolder) {
  const std::string data = files_.dir.File("data");
  ASSERT_EQ(0, unshare(CLONE_NEWNS)) << strerror(errno);
  ASSERT_EQ(0, mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr)) << strerror(errno);
  ASSERT_EQ(0, mount("vesta-test", data.c_str(), "tmpfs", 0, "size=64k")) << strerror(errno);
  ASSERT_EQ(0, mkdir((data + "/sub").c_str(), 0755));
  const std::string table = files_.dir.Write("mounts", "/dev/md7 " + data + " ext4 rw 0 0\n");
  PObject map;
  const int ret = Make(data + "/sub", "", table)->GetFileSystemProperty(&map);
  umount2(data.c_str(), MNT_DETACH);
  ASSERT_EQ(0, ret);
  EXPECT_EQ(R"({"device_path": "/dev/md7", "fs_type": 1, "is_mounted_on_btrfs": 0, "is_usb": 0, )"
            R"("mount_point_path": "D", "share_bin_path": "D", "support_quota": 1, )"
            R"("support_snapshot": 0, "tmp_path": "D/@tmp", "zephtify_path": "D"})",
            std::regex_replace(ToJson(map), std::regex(data), "D"));
}

// The platform lock is re-entered by its holder, deaf to a foreign Unlock
// and held until the last level is given back; a share operation of another
// thread waits for it.
TEST_F(ShareAttributesTest, OperationsWaitForThePlatformLock) {
  auto s = Make("/volume1/photo", "");
  ASSERT_TRUE(s);
  SDK::ReentrantMutex& mutex = SDK::ReentrantMutex::GetInstance();
  mutex.Lock("outer");
  mutex.Lock("inner");
  EXPECT_EQ("/volume1/photo", s->GetPath());  // a third level
  std::thread([&] { mutex.Unlock(); }).join();
  mutex.Unlock();
  std::atomic<pid_t> tid{0};
  std::atomic<bool> done{false};
  std::thread other([&] {
    tid = static_cast<pid_t>(syscall(SYS_gettid));
    s->IsForbidden();
    done = true;
  });
  // Until it gets through or sleeps on a futex (its wait channel: not a
  // syscall number, which under an emulator is the host's).
  EXPECT_TRUE(WaitFor([&] {
    return done || (tid != 0 &&
                    ReadFile("/proc/self/task/" + std::to_string(tid) + "/wchan").find("futex") !=
                        std::string::npos);
  }));
  EXPECT_FALSE(done);
  mutex.Unlock();
  other.join();
  EXPECT_TRUE(done);
}

}  // namespace
