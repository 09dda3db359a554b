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
#include <chrono>
#include <string>
#include <thread>

#include "platform/users.h"
#include "sdk/sdk-cpp.h"
#include "sdk/share-service.h"
#include "tests/common/temp_dir.h"

namespace {

// Privilege codes, typed here independently.
constexpr int kRO = 1, kRW = 2, kNone = 4, kFull = 8;

// Runs a shell command, retrying while another process holds the account
// database's lock.
bool Run(const std::string& command) {
  for (int attempt = 0; attempt < 50; ++attempt) {
    if (std::system((command + " >/dev/null 2>&1").c_str()) == 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ADD_FAILURE() << "failed: " << command;
  return false;
}

bool GroupExists(const std::string& name) { return getgrnam(name.c_str()) != nullptr; }

// Real accounts for one test process: a group "staff", its owner and a
// member, an outsider, and a member of "administrators".  Test processes of
// this file run one at a time (an flock), because "administrators" is
// shared by all of them.
class Accounts {
 public:
  Accounts() {
    lock_fd_ = open("/tmp/vesta-sdk-accounts.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lock_fd_ >= 0) flock(lock_fd_, LOCK_EX);
    const std::string p = "vt" + std::to_string(getpid());
    staff = p + "staff";
    owner = p + "own";
    alice = p + "ali";
    bob = p + "bob";
    boss = p + "boss";
    created_admin_group_ = !GroupExists("administrators");
    if (created_admin_group_) Run("groupadd administrators");
    Run("groupadd " + staff);
    Run("useradd -M -N -s /usr/sbin/nologin -g " + staff + " " + owner);
    Run("useradd -M -N -s /usr/sbin/nologin -G " + staff + " " + alice);
    Run("useradd -M -N -s /usr/sbin/nologin " + bob);
    Run("useradd -M -N -s /usr/sbin/nologin -G administrators " + boss);
    struct passwd* pw = getpwnam(owner.c_str());
    struct group* gr = getgrnam(staff.c_str());
    owner_uid = pw != nullptr ? pw->pw_uid : 0;
    staff_gid = gr != nullptr ? gr->gr_gid : 0;
  }

  ~Accounts() {
    for (const std::string* user : {&owner, &alice, &bob, &boss}) Run("userdel " + *user);
    Run("groupdel " + staff);
    if (created_admin_group_) Run("groupdel administrators");
    if (lock_fd_ >= 0) close(lock_fd_);  // releases the flock
  }

  Accounts(const Accounts&) = delete;
  Accounts& operator=(const Accounts&) = delete;

  std::string staff, owner, alice, bob, boss;
  uid_t owner_uid = 0;
  gid_t staff_gid = 0;

 private:
  bool created_admin_group_ = false;
  int lock_fd_ = -1;
};

// Share files below a fresh VESTA_ROOT.
class ShareFiles {
 public:
  ShareFiles() {
    setenv("VESTA_ROOT", dir.path().c_str(), 1);
    mkdir(dir.File("etc").c_str(), 0755);
    mkdir(dir.File("etc/vesta").c_str(), 0755);
    mkdir(dir.File("etc/vesta/shares").c_str(), 0755);
    mkdir(dir.File("data").c_str(), 0755);
  }
  ~ShareFiles() { unsetenv("VESTA_ROOT"); }

  // Writes share `name` with `path` and further key=value lines.
  void Write(const std::string& name, const std::string& path, const std::string& keys) {
    dir.Write("etc/vesta/shares/" + name + ".conf", "path=" + path + "\n" + keys);
  }

  // A directory below the root, with `mode`, owned by `uid`:`gid`.
  std::string Dir(const std::string& name, mode_t mode, uid_t uid, gid_t gid) {
    const std::string path = dir.File("data/" + name);
    mkdir(path.c_str(), 0700);
    EXPECT_EQ(0, chown(path.c_str(), uid, gid));
    EXPECT_EQ(0, chmod(path.c_str(), mode));
    return path;
  }

  TempDir dir;
};

class PrivilegeTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { accounts_ = new Accounts; }
  static void TearDownTestSuite() {
    delete accounts_;
    accounts_ = nullptr;
  }

  void SetUp() override {
    const Accounts& a = *accounts_;
    d770_ = files_.Dir("d770", 0770, a.owner_uid, a.staff_gid);
    d750_ = files_.Dir("d750", 0750, a.owner_uid, a.staff_gid);
    d720_ = files_.Dir("d720", 0720, a.owner_uid, a.staff_gid);
    d755_ = files_.Dir("d755", 0755, a.owner_uid, a.staff_gid);
    d700_ = files_.Dir("d700", 0700, a.owner_uid, a.staff_gid);
  }

  // The privilege of `user` on a share of `dir` described by `keys`.
  int Priv(const std::string& dir, const std::string& keys, const std::string& user) {
    files_.Write("s", dir, keys);
    std::shared_ptr<SDK::Share> share = SDK::GetShare("s");
    if (!share) return -100;
    return share->GetPrivilege(user);
  }

  static Accounts* accounts_;
  ShareFiles files_;
  std::string d770_, d750_, d720_, d755_, d700_;
};

Accounts* PrivilegeTest::accounts_ = nullptr;

TEST_F(PrivilegeTest, AclOnlyShares) {
  const Accounts& a = *accounts_;
  const std::string acl = "acl_only=yes\n";
  // The user lists do not count on an ACL-only share.
  EXPECT_EQ(kRO, Priv(d750_, acl + "deny_users=" + a.alice + "\n", a.alice));
  EXPECT_EQ(kRW, Priv(d770_, acl, a.alice));
  EXPECT_EQ(kFull, Priv(d770_, acl, a.owner));
  EXPECT_EQ(kNone, Priv(d770_, acl + "rw_users=" + a.bob + "\n", a.bob));
  EXPECT_EQ(kRW, Priv(d720_, acl, a.alice));  // write alone
  // An administrator whose mask is exactly 0x1 gets nothing ...
  EXPECT_EQ(kNone, Priv(d700_, acl + "acl_mask=\"" + a.boss + ":0x1\"\n", a.boss));
  // ... while any real permission gives full control, or read on a
  // read-only share.
  EXPECT_EQ(kFull, Priv(d755_, acl, a.boss));
  EXPECT_EQ(kRO, Priv(d755_, acl + "readonly=yes\n", a.boss));
  EXPECT_EQ(kNone, Priv(d720_, acl + "readonly=yes\n", a.alice));
}

TEST_F(PrivilegeTest, AdministratorsOnOrdinaryShares) {
  const Accounts& a = *accounts_;
  const std::string mask1 = "acl_mask=\"" + a.alice + ":0x75," + a.boss + ":0x1\"\n";
  // Mask 0x1 becomes full, then the lists filter it.
  EXPECT_EQ(kFull, Priv(d700_, mask1 + "rw_users=" + a.boss + "\n", a.boss));
  EXPECT_EQ(kRO, Priv(d700_, mask1 + "ro_users=" + a.boss + "\n", a.boss));
  EXPECT_EQ(kNone, Priv(d700_, mask1, a.boss));
  // No permission at all: full unless the share uses Windows-style ACLs.
  EXPECT_EQ(kFull, Priv(d700_, "rw_users=" + a.boss + "\nwindows_acl=no\n", a.boss));
  EXPECT_EQ(kNone, Priv(d700_, "rw_users=" + a.boss + "\nwindows_acl=yes\n", a.boss));
  // Some permission: full, filtered by a group element.
  EXPECT_EQ(kFull, Priv(d755_, "rw_users=@ADMINISTRATORS\n", a.boss));
  EXPECT_EQ(kNone, Priv(d755_, "rw_users=@administrators\ndeny_users=" + a.boss + "\n", a.boss));
  // A read-only share: read for those in a list, nothing for the rest.
  EXPECT_EQ(kRO, Priv(d700_, "readonly=yes\nrw_users=" + a.boss + "\n", a.boss));
  EXPECT_EQ(kNone, Priv(d700_, "readonly=yes\n", a.boss));
}

TEST_F(PrivilegeTest, UserListsOnOrdinaryShares) {
  const Accounts& a = *accounts_;
  std::string upper_staff = a.staff;
  for (char& c : upper_staff) c = static_cast<char>(toupper(c));
  EXPECT_EQ(kNone, Priv(d700_, "rw_users=" + a.bob + "\n", a.bob));  // no permission
  EXPECT_EQ(kNone, Priv(d770_, "deny_users=" + a.alice + "\nrw_users=" + a.alice + "\n", a.alice));
  EXPECT_EQ(kRW, Priv(d770_, "rw_users=@" + upper_staff + "\n", a.alice));
  EXPECT_EQ(kRO, Priv(d770_, "ro_users=" + a.alice + "\n", a.alice));
  EXPECT_EQ(kNone, Priv(d770_, "rw_users=" + a.bob + "\n", a.alice));  // in no list
  EXPECT_EQ(kFull, Priv(d770_, "rw_users=" + a.owner + "\n", a.owner));
  // The read-write list is asked before the read-only list.
  EXPECT_EQ(kFull, Priv(d770_, "ro_users=" + a.owner + "\nrw_users=" + a.owner + "\n", a.owner));
  EXPECT_EQ(kRW, Priv(d720_, "rw_users=" + a.alice + "\n", a.alice));   // write alone
  EXPECT_EQ(kRO, Priv(d750_, "rw_users=" + a.alice + "\n", a.alice));   // read alone
  EXPECT_EQ(kRO, Priv(d755_, "ro_users=" + a.bob + "\n", a.bob));       // others' bits
  // Read-only share: read needs every read bit.
  EXPECT_EQ(kRO, Priv(d770_, "readonly=yes\nrw_users=" + a.owner + "\n", a.owner));
  EXPECT_EQ(kNone, Priv(d720_, "readonly=yes\nrw_users=" + a.alice + "\n", a.alice));
  // An explicit mask replaces the mode bits.
  EXPECT_EQ(kRW, Priv(d700_, "acl_mask=\"" + a.alice + ":0x1ff\"\nrw_users=" + a.alice + "\n",
                      a.alice));
}

TEST_F(PrivilegeTest, ForbiddenEncryptedAndFailingShares) {
  const Accounts& a = *accounts_;
  EXPECT_EQ(kNone, Priv(d770_, "forbidden=yes\nrw_users=" + a.owner + "\n", a.owner));
  EXPECT_EQ(kNone, Priv(d770_, "acl_only=maybe\n", a.owner));
  EXPECT_EQ(kNone, Priv(d770_, "rw_users=" + a.owner + "\n", "vt-no-such-user"));
  EXPECT_EQ(kNone, Priv(files_.dir.File("data/missing"), "rw_users=" + a.owner + "\n", a.owner));
  // A locked encrypted share is judged on its lower directory.
  const std::string enc = "encrypted=yes\nrw_users=" + a.alice + "\nencryption_path=" + d770_ + "\n";
  EXPECT_EQ(kRW, Priv(d700_, enc + "locked=yes\n", a.alice));
  EXPECT_EQ(kNone, Priv(d700_, enc + "locked=no\n", a.alice));
  EXPECT_EQ(kNone, Priv(d700_, "encrypted=yes\nlocked=yes\nencryption_path=" +
                                   files_.dir.File("data/gone") + "\nrw_users=" + a.alice + "\n",
                        a.alice));
}

TEST_F(PrivilegeTest, LoosePrivilegeAndGroups) {
  const Accounts& a = *accounts_;
  files_.Write("s", d770_, "");
  files_.Write("t", d750_, "");
  files_.Write("f", d770_, "forbidden=yes\n");
  std::string upper_alice = a.alice;
  for (char& c : upper_alice) c = static_cast<char>(toupper(c));
  // Every read bit (0x74) is read, for both calculations; the mask's user
  // name matches without regard to case.
  files_.Write("m", d700_, "acl_mask=\"" + upper_alice + ":0x74\"\nrw_users=" + a.alice + "\n");
  std::shared_ptr<SDK::Share> s = SDK::GetShare("s");
  std::shared_ptr<SDK::Share> t = SDK::GetShare("t");
  std::shared_ptr<SDK::Share> f = SDK::GetShare("f");
  std::shared_ptr<SDK::Share> m = SDK::GetShare("m");
  ASSERT_TRUE(s && t && f && m);
  EXPECT_EQ(kRO, m->GetLoosePrivilege(a.alice));
  EXPECT_EQ(kRO, m->GetPrivilege(a.alice));
  EXPECT_EQ(kRW, s->GetLoosePrivilege(a.alice));
  EXPECT_EQ(kRW, s->GetLoosePrivilege(a.owner));
  EXPECT_EQ(kRO, t->GetLoosePrivilege(a.alice));
  EXPECT_EQ(kNone, s->GetLoosePrivilege(a.bob));
  EXPECT_EQ(kNone, f->GetLoosePrivilege(a.owner));
  EXPECT_EQ(kNone, s->GetLoosePrivilege("vt-no-such-user"));

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
  EXPECT_EQ(nullptr, SDK::GetShare("absent"));
  EXPECT_EQ(nullptr, SDK::GetShare("../../etc/passwd"));
  EXPECT_EQ(nullptr, SDK::GetShare(""));
  files_.dir.Write("etc/vesta/shares/nopath.conf", "uuid=1\n");
  EXPECT_EQ(nullptr, SDK::GetShare("nopath"));
  EXPECT_EQ(nullptr, Make("/volume1/a", "indexed=perhaps\n"));
  EXPECT_EQ(nullptr, Make("relative/a", ""));
  files_.dir.Write("etc/vesta/shares/bad.conf", "path=/volume1/a\nnot a pair\n");
  EXPECT_EQ(nullptr, SDK::GetShare("bad"));

  SDK::Share empty(nullptr);
  EXPECT_FALSE(empty.IsValid());
  EXPECT_FALSE(empty.IsAccessible());
  EXPECT_FALSE(empty.IsMounted());
  EXPECT_FALSE(empty.IsSyncable());
  EXPECT_EQ(-1, empty.GetStatusFlags());
  EXPECT_EQ(-1, empty.GetVersion());
  EXPECT_EQ(-1, empty.GetPrivilege("root"));
  EXPECT_EQ("", empty.GetName());
  EXPECT_EQ("", empty.GetPath());
  std::string text;
  EXPECT_EQ(-1, empty.GetUuid(&text));
  EXPECT_EQ(-1, empty.GetBinPath(&text));
  EXPECT_EQ(0, empty.GetUniqueKey(&text));
}

TEST_F(ShareAttributesTest, StatusWordAndFlags) {
  auto s = Make("/volume1/all",
                "forbidden=yes\nindexed=true\nreadonly=1\ncold_storage=yes\nwindows_acl=yes\n"
                "skip_privilege_check=yes\nrecycle_bin=yes\nrecycle_bin_admin_only=yes\n");
  ASSERT_TRUE(s);
  EXPECT_EQ(0x8 | 0x20 | 0x4000 | 0x20000, s->GetStatusFlags());
  EXPECT_TRUE(s->IsForbidden() && s->IsIndexed() && s->IsReadOnly() && s->IsColdStorage());
  EXPECT_TRUE(s->IsSharePrivilegeDisabled() && s->IsShareRecycleBinEnabled() &&
              s->IsShareRecyceAdminOnly());
  EXPECT_FALSE(s->IsReserved());
  EXPECT_EQ(5, s->GetVersion());
  EXPECT_EQ("a", s->GetName());
  EXPECT_EQ("/volume1/all", s->GetPath());

  auto plain = Make("/volume1/plain", "recycle_bin=sometimes\n");
  ASSERT_TRUE(plain);
  EXPECT_EQ(0, plain->GetStatusFlags());
  EXPECT_FALSE(plain->IsForbidden() || plain->IsIndexed() || plain->IsReadOnly() ||
               plain->IsColdStorage() || plain->IsSharePrivilegeDisabled());
  EXPECT_FALSE(plain->IsShareRecycleBinEnabled());  // malformed: logged, false
  EXPECT_EQ(4, plain->GetVersion());
}

TEST_F(ShareAttributesTest, EncryptionAndPlacement) {
  auto locked = Make("/volume1/secret", "encrypted=yes\nlocked=yes\n");
  auto open = Make("/volume1/secret", "encrypted=yes\nlocked=no\n");
  auto plain = Make("/volume1/plain", "locked=yes\n");  // locked means nothing unencrypted
  auto usb = Make("/volumeUSB1/usbshare", "");
  auto sata = Make("/volumeSATA1/disk", "");
  auto gluster = Make("/volume1/g", "gluster=yes\n");
  ASSERT_TRUE(locked && open && plain && usb && sata && gluster);

  EXPECT_TRUE(locked->IsEncryption());
  EXPECT_FALSE(locked->IsMounted());
  EXPECT_FALSE(locked->IsAccessible());
  EXPECT_TRUE(open->IsMounted() && open->IsAccessible());
  EXPECT_FALSE(plain->IsEncryption());
  EXPECT_TRUE(plain->IsMounted() && plain->IsAccessible());

  EXPECT_TRUE(usb->IsOnUsb() && !usb->IsOnSata());
  EXPECT_TRUE(sata->IsOnSata() && !sata->IsOnUsb());
  EXPECT_FALSE(usb->IsSyncable());
  EXPECT_TRUE(sata->IsSyncable());
  EXPECT_TRUE(plain->IsInternalUnencrypted());
  EXPECT_FALSE(open->IsInternalUnencrypted());
  EXPECT_FALSE(usb->IsInternalUnencrypted());
  EXPECT_FALSE(sata->IsInternalUnencrypted());
  EXPECT_FALSE(gluster->IsInternalUnencrypted());
  EXPECT_TRUE(gluster->IsGluster());
}

TEST_F(ShareAttributesTest, SyncableShares) {
  const std::string table = files_.dir.Write(
      "mounts",
      "/dev/md2 /volume1 ext4 rw 0 0\n"
      "/dev/md2 /volume1/photo/#snapshot/GMT+00-2024 ext4 ro 0 0\n"
      "/dev/md2 /volume1/photo2#snapshot ext4 ro 0 0\n");
  // One folder, however its path is written: same path, same encryption
  // path, same snapshot search.
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
  EXPECT_TRUE(Make("/volume1/photo", "encrypted=yes\n", table)->IsSyncable());
  EXPECT_TRUE(Make("/volume1/photo2", "", table)->IsSyncable());  // not below the path
  EXPECT_FALSE(Make("/volume1/music", "forbidden=yes\n", table)->IsSyncable());

  auto replica = Make("/volume1/music", "readonly=yes\nreadonly_registered_by=backup,share_replica_demote\n");
  EXPECT_TRUE(replica->IsReadOnlyByReplica());
  EXPECT_FALSE(replica->IsSyncable());
  EXPECT_TRUE(replica->IsShareReadOnlyRegisteredBy("backup"));
  EXPECT_FALSE(replica->IsShareReadOnlyRegisteredBy("share_replica"));
  EXPECT_TRUE(Make("/volume1/music", "readonly=yes\nreadonly_registered_by=dkos\n")->IsReadOnlyByReplica());
  auto other = Make("/volume1/music", "readonly=yes\nreadonly_registered_by=backup\n");
  EXPECT_FALSE(other->IsReadOnlyByReplica());
  EXPECT_TRUE(other->IsSyncable());
  EXPECT_FALSE(Make("/volume1/music", "readonly_registered_by=dkos\n")->IsReadOnlyByReplica());
}

TEST_F(ShareAttributesTest, PathsUuidAndKey) {
  const std::string key64(64, 'k');
  const std::string key_file = files_.dir.Write("key", key64 + "trailing");
  const std::string short_key = files_.dir.Write("short", "abc");
  std::string text;

  auto s = Make("/volume1/photo", "uuid=1f0e-77\nencrypted=yes\ndefault_key_file=" + key_file + "\n");
  ASSERT_TRUE(s);
  EXPECT_EQ(0, s->GetBinPath(&text));
  EXPECT_EQ("/volume1/photo/#recycle", text);
  EXPECT_EQ(0, s->GetUuid(&text));
  EXPECT_EQ("1f0e-77", text);
  EXPECT_EQ(1, s->GetUniqueKey(&text));
  EXPECT_EQ(key64, text);

  auto bare = Make("/volume1/photo", "recycle_bin_path=/volume1/@bins/photo\ndefault_key_file=" + key_file + "\n");
  EXPECT_EQ(0, bare->GetBinPath(&text));
  EXPECT_EQ("/volume1/@bins/photo", text);
  text = "unchanged";
  EXPECT_EQ(-1, bare->GetUuid(&text));
  EXPECT_EQ(0, bare->GetUniqueKey(&text));  // not encrypted
  EXPECT_EQ("unchanged", text);
  EXPECT_EQ(0, Make("/volume1/photo", "encrypted=yes\ndefault_key_file=" + short_key + "\n")->GetUniqueKey(&text));

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
