// Shared folders read from their files below a fresh VESTA_ROOT.
#include "sdk/share.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/dir_reader.h"
#include "platform/holders.h"
#include "platform/users.h"
#include "sdk/sdk-cpp.h"
#include "sdk/share-service.h"
#include "tests/common/temp_dir.h"

namespace {

// Privilege codes, typed here independently.
constexpr int kRO = 1, kRW = 2, kNone = 4, kFull = 8;

// A listing that fails as on a 64-bit directory offset without 64-bit offsets.
struct dirent* FailingReaddir(DIR* /*dir*/) {
  errno = EOVERFLOW;
  return nullptr;
}

// Retries for up to 5 s while another process holds the account database.
bool Run(const std::string& command) {
  for (int attempt = 0; attempt < 50; ++attempt) {
    if (std::system((command + " >/dev/null 2>&1").c_str()) == 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ADD_FAILURE() << "failed: " << command;
  return false;
}

// Real accounts for one test: a group "staff", its owner and a member, an
// outsider, and a member of "administrators" (shared by every test process,
// hence the flock).  Removed in reverse order however the test ended.
class Accounts {
 public:
  Accounts() {
    lock_fd_ = open("/tmp/vesta-sdk-accounts.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lock_fd_ >= 0) flock(lock_fd_, LOCK_EX);
    const std::string p = "vt" + std::to_string(getpid()), add = "useradd -M -N -s /usr/sbin/nologin ";
    staff = p + "staff", owner = p + "own", alice = p + "ali", bob = p + "bob", boss = p + "boss";
    made = (getgrnam("administrators") != nullptr ||
            Make("groupadd administrators", "groupdel administrators")) &&
           Make("groupadd " + staff, "groupdel " + staff) &&
           Make(add + "-g " + staff + " " + owner, "userdel " + owner) &&
           Make(add + "-G " + staff + " " + alice, "userdel " + alice) &&
           Make(add + bob, "userdel " + bob) &&
           Make(add + "-G administrators " + boss, "userdel " + boss);
    if (made) owner_uid = getpwnam(owner.c_str())->pw_uid, staff_gid = getgrnam(staff.c_str())->gr_gid;
  }
  ~Accounts() {
    for (auto undo = undo_.rbegin(); undo != undo_.rend(); ++undo) Run(*undo);
    if (lock_fd_ >= 0) close(lock_fd_);  // releases the flock
  }
  Accounts(const Accounts&) = delete;
  Accounts& operator=(const Accounts&) = delete;

  bool made = false;  // every account is there
  std::string staff, owner, alice, bob, boss;
  uid_t owner_uid = 0;
  gid_t staff_gid = 0;

 private:
  bool Make(const std::string& command, const std::string& undo) {
    if (!Run(command)) return false;
    undo_.push_back(undo);
    return true;
  }

  std::vector<std::string> undo_;  // commands that remove what was made
  int lock_fd_ = -1;
};

// Share files below a fresh VESTA_ROOT.
class ShareFiles {
 public:
  ShareFiles() {
    setenv("VESTA_ROOT", dir.path().c_str(), 1);
    EXPECT_EQ(0, system(("mkdir -p '" + dir.File("etc/vesta/shares") + "' '" + dir.File("data") + "'").c_str()));
  }
  ~ShareFiles() { unsetenv("VESTA_ROOT"); }

  // Writes share `name` with `path` and further key=value lines.
  void Write(const std::string& name, const std::string& path, const std::string& keys) {
    dir.Write("etc/vesta/shares/" + name + ".conf", "path=" + path + "\n" + keys);
  }

  TempDir dir;
};

TEST(PrivilegeTest, EveryRuleOfThePrivilegeAndGroups) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root: the test makes real users and groups";
  const Accounts a;  // removed when the test ends, however it ends
  ASSERT_TRUE(a.made) << "the test accounts could not be made";
  ShareFiles files;
  auto Dir = [&files](const std::string& name) { return files.dir.File("data/" + name); };
  for (const char* name : {"d770", "d750", "d720", "d755", "d700"}) {
    ASSERT_EQ(0, mkdir(Dir(name).c_str(), 0700));
    ASSERT_EQ(0, chown(Dir(name).c_str(), a.owner_uid, a.staff_gid));
    ASSERT_EQ(0, chmod(Dir(name).c_str(), std::stoi(name + 1, nullptr, 8)));
  }
  const std::string acl = "acl_only=yes\n", ro = "readonly=yes\n";
  auto rw = [](const std::string& u) { return "rw_users=" + u + "\n"; };
  std::string upper_staff = a.staff;
  for (char& c : upper_staff) c = static_cast<char>(toupper(c));
  std::string upper_alice = a.alice;
  for (char& c : upper_alice) c = static_cast<char>(toupper(c));
  const std::string mask1 = "acl_mask=\"" + a.alice + ":0x75," + a.boss + ":0x1\"\n";
  const std::string enc = "encrypted=yes\n" + rw(a.alice) + "encryption_path=" + Dir("d770") + "\n";
  const struct {
    const char* dir;
    std::string keys, user;
    int want;
    bool loose = false;     // the privilege of the loose calculation
    bool unlisted = false;  // listing the shares' folder fails
  } kCases[] = {
      // ACL-only shares: the user lists do not count.
      {"d750", acl + "deny_users=" + a.alice + "\n", a.alice, kRO},
      {"d770", acl, a.alice, kRW},
      {"d770", acl, a.owner, kFull},
      {"d770", acl + rw(a.bob), a.bob, kNone},
      {"d720", acl, a.alice, kRW},  // write alone
      // An administrator whose mask is exactly 0x1 gets nothing, while any
      // real permission gives full control, or read on a read-only share.
      {"d700", acl + "acl_mask=\"" + a.boss + ":0x1\"\n", a.boss, kNone},
      {"d755", acl, a.boss, kFull},
      {"d755", acl + ro, a.boss, kRO},
      {"d720", acl + ro, a.alice, kNone},
      // Administrators on ordinary shares: mask 0x1 becomes full, then the
      // lists filter it.
      {"d700", mask1 + rw(a.boss), a.boss, kFull},
      {"d700", mask1 + "ro_users=" + a.boss + "\n", a.boss, kRO},
      {"d700", mask1, a.boss, kNone},
      // No permission at all: full unless the share uses Windows-style ACLs.
      {"d700", rw(a.boss) + "windows_acl=no\n", a.boss, kFull},
      {"d700", rw(a.boss) + "windows_acl=yes\n", a.boss, kNone},
      // Some permission: full, filtered by a group element.
      {"d755", "rw_users=@ADMINISTRATORS\n", a.boss, kFull},
      {"d755", "rw_users=@administrators\ndeny_users=" + a.boss + "\n", a.boss, kNone},
      {"d700", ro + rw(a.boss), a.boss, kRO},  // read-only: read for those in a list
      {"d700", ro, a.boss, kNone},
      // Ordinary users on ordinary shares.
      {"d700", rw(a.bob), a.bob, kNone},  // no permission
      {"d770", "deny_users=" + a.alice + "\n" + rw(a.alice), a.alice, kNone},
      {"d770", "rw_users=@" + upper_staff + "\n", a.alice, kRW},
      {"d770", "ro_users=" + a.alice + "\n", a.alice, kRO},
      {"d770", rw(a.bob), a.alice, kNone},  // in no list
      {"d770", rw(a.owner), a.owner, kFull},
      {"d770", "ro_users=" + a.owner + "\n" + rw(a.owner), a.owner, kFull},  // read-write first
      {"d720", rw(a.alice), a.alice, kRW},  // write alone
      {"d750", rw(a.alice), a.alice, kRO},  // read alone
      {"d755", "ro_users=" + a.bob + "\n", a.bob, kRO},  // others' bits
      {"d770", ro + rw(a.owner), a.owner, kRO},  // read-only: read needs every read bit
      {"d720", ro + rw(a.alice), a.alice, kNone},
      {"d700", "acl_mask=\"" + a.alice + ":0x1ff\"\n" + rw(a.alice), a.alice, kRW},  // mask over mode
      // Forbidden, malformed, unknown users, missing folders.
      {"d770", "forbidden=yes\n" + rw(a.owner), a.owner, kNone},
      {"d770", "acl_only=maybe\n", a.owner, kNone},
      {"d770", rw(a.owner), "vt-no-such-user", kNone},
      {"missing", rw(a.owner), a.owner, kNone},
      // A locked encrypted share is judged on its lower directory.
      {"d700", enc + "locked=yes\n", a.alice, kRW},
      {"d700", enc + "locked=no\n", a.alice, kNone},
      {"d700", "encrypted=yes\nlocked=yes\nencryption_path=" + Dir("gone") + "\n" + rw(a.alice), a.alice, kNone},
      // Every read bit (0x74) is read, for both; the mask's user matches in any case.
      {"d700", "acl_mask=\"" + upper_alice + ":0x74\"\n" + rw(a.alice), a.alice, kRO},
      {"d700", "acl_mask=\"" + upper_alice + ":0x74\"\n" + rw(a.alice), a.alice, kRO, true},
      // A mask that cannot be read fails the calculation: the mode bits
      // would grant more.
      {"d770", "acl_mask=\"" + a.alice + ":0x74\"\n" + rw(a.alice), a.alice, kNone, false, true},
      {"d770", "", a.alice, kRW, true},
      {"d770", "", a.owner, kRW, true},
      {"d750", "", a.alice, kRO, true},
      {"d770", "", a.owner, kRW, true},
      {"d770", "", a.bob, kNone, true},
      {"d770", "forbidden=yes\n", a.owner, kNone, true},
      {"d770", "", "vt-no-such-user", kNone, true},
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

  KlibSzList* groups = nullptr;
  ASSERT_EQ(0, KLIBGroupInfoListGet(a.alice.c_str(), &groups));
  EXPECT_NE(groups->items.end(), std::find(groups->items.begin(), groups->items.end(), a.staff));
  KLIBCSzListFree(groups);
  EXPECT_EQ(1, KLIBGroupIsAdminGroupMem(a.boss.c_str()));
  EXPECT_EQ(0, KLIBGroupIsAdminGroupMem(a.alice.c_str()));
  EXPECT_EQ(-1, KLIBGroupIsAdminGroupMem("vt-no-such-user"));
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

TEST_F(ShareAttributesTest, LookupFailures) {
  for (const char* name : {"absent", "../../etc/passwd", ""}) EXPECT_EQ(nullptr, SDK::GetShare(name));
  for (const char* text : {"uuid=1\n", "path=/volume1/a\nindexed=perhaps\n", "path=relative/a\n",
                           "path=/volume1/a\nnot a pair\n"}) {
    files_.dir.Write("etc/vesta/shares/x.conf", text);
    EXPECT_EQ(nullptr, SDK::GetShare("x")) << text;
  }
  // A share without a record answers no, -1 or "" to everything.
  SDK::Share empty(nullptr);
  std::string text;
  EXPECT_EQ((std::vector<int>{0, 0, 0, 0, -1, -1, -1, -1, -1, 0}),
            (std::vector<int>{empty.IsValid(), empty.IsAccessible(), empty.IsMounted(),
                              empty.IsSyncable(), empty.GetStatusFlags(), empty.GetVersion(),
                              empty.GetPrivilege("root"), empty.GetUuid(&text),
                              empty.GetBinPath(&text), empty.GetUniqueKey(&text)}));
  EXPECT_EQ("", empty.GetName() + empty.GetPath());
}

// Every yes/no answer of a share, one letter each, "-" for no.
std::string Answers(const SDK::Share& s) {
  const bool answers[] = {s.IsEncryption(), s.IsMounted(), s.IsAccessible(), s.IsOnUsb(),
                          s.IsOnSata(), s.IsSyncable(), s.IsInternalUnencrypted(), s.IsGluster(),
                          s.IsForbidden(), s.IsIndexed(), s.IsReadOnly(), s.IsColdStorage(),
                          s.IsSharePrivilegeDisabled(), s.IsShareRecycleBinEnabled(),
                          s.IsShareRecyceAdminOnly(), s.IsReadOnlyByReplica(), s.IsReserved()};
  std::string out;
  for (size_t i = 0; i < sizeof(answers); ++i) out += answers[i] ? "EMAUSYIGFNRCPBODX"[i] : '-';
  return out;
}

TEST_F(ShareAttributesTest, EveryAnswerOfEachKindOfShare) {
  const std::string table = files_.dir.Write(
      "mounts",
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
      {"/volumeSATA1/disk", "", "-MA-SY-----------"},
      {"/volume1/g", "gluster=yes\n", "-MA--Y-G---------"},
      // A snapshot mounted below the folder stops it, unless encrypted.
      {"/volume1/photo", "", "-MA---I----------"},
      {"/volume1/photo", "encrypted=yes\n", "EMA--Y-----------"},
      {"/volume1/photo2", "", "-MA--YI----------"},  // the snapshot is not below it
      {"/volume1/music", "forbidden=yes\n", "-MA---I-F--------"},
      // Read-only set by replication stops it too.
      {"/volume1/music", "readonly=yes\nreadonly_registered_by=backup,share_replica_demote\n",
       "-MA---I---R----D-"},
      {"/volume1/music", "readonly=yes\nreadonly_registered_by=dkos\n", "-MA---I---R----D-"},
      {"/volume1/music", "readonly=yes\nreadonly_registered_by=backup\n", "-MA--YI---R------"},
      {"/volume1/music", "readonly_registered_by=dkos\n", "-MA--YI----------"},
  };
  for (const auto& c : kShares) {
    auto s = Make(c.path, c.keys, table);
    ASSERT_TRUE(s) << c.keys;
    EXPECT_EQ(c.answers, Answers(*s)) << c.path << ": " << c.keys;
  }
  auto all = Make("/volume1/all", "forbidden=yes\nindexed=1\nreadonly=1\ncold_storage=1\nwindows_acl=1\n");
  EXPECT_EQ(0x8 | 0x20 | 0x4000 | 0x20000, all->GetStatusFlags());
  EXPECT_EQ(5, all->GetVersion());
  EXPECT_EQ("a", all->GetName());
  auto plain = Make("/volume1/plain", "");
  EXPECT_EQ(0, plain->GetStatusFlags());
  EXPECT_EQ(4, plain->GetVersion());

  // However its path is written: same path, encryption path and snapshot search.
  for (const char* path : {"/volume1/photo", "/volume1/photo/", "/volume1//photo/."}) {
    auto s = Make(path, "", table);
    EXPECT_EQ("/volume1/photo", s->GetPath()) << path;
    EXPECT_FALSE(s->IsSyncable()) << path;
    ZephShare* raw = nullptr;
    char enc[64] = "";
    ASSERT_EQ(0, ZEPHShareGet("a", &raw));
    EXPECT_EQ(0, KLIBShareEncryptPathGet(raw, enc, sizeof(enc)));
    ZEPHShareFree(raw);
    EXPECT_STREQ("/volume1/@photo", enc) << path;
  }
  auto replica = Make("/volume1/music", "readonly_registered_by=backup,share_replica_demote\n");
  EXPECT_TRUE(replica->IsShareReadOnlyRegisteredBy("backup"));
  EXPECT_FALSE(replica->IsShareReadOnlyRegisteredBy("share_replica"));
}

TEST_F(ShareAttributesTest, PathsUuidAndKey) {
  const std::string key64(64, 'k');
  const std::string key = "default_key_file=" + files_.dir.Write("key", key64 + "trailing") + "\n";
  const std::string short_key = "default_key_file=" + files_.dir.Write("short", "abc") + "\n";
  // GetBinPath, GetUuid, GetUniqueKey, each as "result:text"; a call that
  // finds nothing leaves the text ("-") alone.
  const struct {
    std::string keys, want;
  } kCases[] = {
      {"uuid=1f0e-77\nencrypted=yes\n" + key, "0:/volume1/photo/#recycle 0:1f0e-77 1:" + key64},
      {"recycle_bin_path=/volume1/@bins/photo\n" + key, "0:/volume1/@bins/photo -1:- 0:-"},
      {"encrypted=yes\n" + short_key, "0:/volume1/photo/#recycle -1:- 0:-"},
  };
  for (const auto& c : kCases) {
    auto s = Make("/volume1/photo", c.keys);
    ASSERT_TRUE(s) << c.keys;
    std::string got;
    for (auto get : {&SDK::Share::GetBinPath, &SDK::Share::GetUuid, &SDK::Share::GetUniqueKey}) {
      std::string text = "-";
      got += std::to_string(((*s).*get)(&text)) + ":" + text + " ";
    }
    EXPECT_EQ(c.want + " ", got) << c.keys;
  }

  // The map form of the folder's file system is its property's.
  const std::string real = files_.dir.File("data");
  auto local = Make(real, "");
  FileSystemProperty direct, via_share;
  const int ret = GetFileSystemPropertyOfPath(real, &direct);
  EXPECT_EQ(ret, local->GetFileSystemProperty(&via_share));
  EXPECT_EQ(direct, via_share);
  PObject map;
  EXPECT_EQ(ret, local->GetFileSystemProperty(&map));
  if (ret == 0) {
    EXPECT_EQ(direct.mount_point_path, map.Lookup("mount_point_path").AsString());
  }
}

// The platform calls' refusals, each with its own error code.
TEST_F(ShareAttributesTest, PlatformCallsFailWithTheirCode) {
  files_.Write("p", "/volume1/photo", "default_key_file=" + files_.dir.Write("short", "abc") + "\n");
  files_.Write("deep", "/volume1/a/b", "");
  files_.Write("gone", "/volume1/g", "default_key_file=" + files_.dir.File("gone") + "\n");
  files_.Write("relative", "volume1/a", "");
  files_.dir.Write("etc/vesta/shares/broken.conf", "path=/volume1/x\nnot a pair\n");
  ZephShare* raw = nullptr;
  ASSERT_EQ(0, ZEPHShareGet("p", &raw));
  ShareRecord p(raw);
  ASSERT_EQ(0, ZEPHShareGet("deep", &raw));
  ShareRecord deep(raw);
  char buf[64];
  const struct {
    std::function<int()> call;
    int code;
  } kCalls[] = {
      {[&] { return ZEPHShareGet("p", nullptr); }, KLIB_ERR_BAD_PARAMETER},
      {[&] { return ZEPHShareGet("../p", &raw); }, KLIB_ERR_BAD_PARAMETER},
      {[&] { return ZEPHShareGet(".", &raw); }, KLIB_ERR_BAD_PARAMETER},
      {[&] { return ZEPHShareGet("..", &raw); }, KLIB_ERR_BAD_PARAMETER},
      {[&] { return ZEPHShareGet("absent", &raw); }, KLIB_ERR_NO_SUCH_SHARE},
      {[&] { return ZEPHShareGet("broken", &raw); }, KLIB_ERR_FILE},
      {[&] { return ZEPHShareGet("relative", &raw); }, KLIB_ERR_BAD_VALUE},
      {[&] { return KLIBIsGlusterShare(nullptr); }, KLIB_ERR_BAD_PARAMETER},
      {[&] { return KLIBShareEncryptPathGet(nullptr, buf, 64); }, KLIB_ERR_BAD_PARAMETER},
      {[&] { return KLIBShareEncryptPathGet(p.get(), nullptr, 64); }, KLIB_ERR_BAD_PARAMETER},
      {[&] { return KLIBShareEncryptPathGet(p.get(), buf, 15); }, KLIB_ERR_BUFFER_TOO_SMALL},
      {[&] { return KLIBShareEncryptPathGet(deep.get(), buf, 64); }, KLIB_ERR_NO_SUCH_KEY},
      {[&] { return ZEPHShareAttrReadOnlyIsRegBy("p", nullptr); }, KLIB_ERR_BAD_PARAMETER},
      {[&] { return ZEPHShareAttrReadOnlyIsRegBy("absent", "x"); }, KLIB_ERR_NO_SUCH_SHARE},
      {[&] { return ZEPHShareBinPathGet("absent", buf, 64); }, KLIB_ERR_NO_SUCH_SHARE},
      {[&] { return ZEPHShareBinPathGet("p", buf, 23); }, KLIB_ERR_BUFFER_TOO_SMALL},
      {[&] { return ZEPHShareUuidGet("absent", buf, 64); }, KLIB_ERR_NO_SUCH_SHARE},
      {[&] { return ZEPHShareUuidGet("p", buf, 64); }, KLIB_ERR_NO_SUCH_KEY},
      {[&] { return ZEPHShareEncDefaultKeyFileRead("p", nullptr, 64); }, KLIB_ERR_BAD_PARAMETER},
      {[&] { return ZEPHShareEncDefaultKeyFileRead("absent", buf, 64); }, KLIB_ERR_NO_SUCH_SHARE},
      {[&] { return ZEPHShareEncDefaultKeyFileRead("relative", buf, 64); }, KLIB_ERR_BAD_VALUE},
      {[&] { return ZEPHShareEncDefaultKeyFileRead("p", buf, 64); }, KLIB_ERR_FILE},  // too short
      {[&] { return ZEPHShareEncDefaultKeyFileRead("deep", buf, 64); }, KLIB_ERR_NO_SUCH_KEY},
      {[&] { return ZEPHShareEncDefaultKeyFileRead("gone", buf, 64); }, KLIB_ERR_FILE},  // missing
      {[&] { return ZEPHShareUserPrivCalc("root", "absent"); }, KLIB_ERR_NO_SUCH_SHARE},
  };
  for (size_t i = 0; i < sizeof(kCalls) / sizeof(kCalls[0]); ++i) {
    KLIB_SET_ERR(KLIB_ERR_NONE);
    EXPECT_EQ(-1, kCalls[i].call()) << "call " << i;
    EXPECT_EQ(kCalls[i].code, KLIBErrCodeGet()) << "call " << i;
  }
  EXPECT_EQ(0, KLIBShareEncryptPathGet(p.get(), buf, 16));
  EXPECT_STREQ("/volume1/@photo", buf);
}

TEST_F(ShareAttributesTest, OperationsWaitForThePlatformLock) {
  auto s = Make("/volume1/photo", "");
  ASSERT_TRUE(s);
  SDK::ReentrantMutex::GetInstance().Lock("test");
  EXPECT_EQ("/volume1/photo", s->GetPath());  // the holder re-enters
  std::atomic<bool> done{false};
  std::thread other([&] {
    s->IsForbidden();
    done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(done);
  SDK::ReentrantMutex::GetInstance().Unlock();
  other.join();
  EXPECT_TRUE(done);
}

}  // namespace
