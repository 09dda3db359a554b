// The service settings in a sandbox under $VESTA_ROOT.
#include "config/setting.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "gtest/gtest.h"
#include "platform/fixed_path.h"
#include "tests/common/temp_dir.h"

namespace {

class ServiceSettingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("VESTA_ROOT", dir_.path().c_str(), 1);
    etc_ = dir_.path() + "/var/packages/Fernbox/etc/tandem";
    ASSERT_EQ(0, system(("mkdir -p '" + etc_ + "'").c_str()));
    config_ = FixedPath(kServiceConfigPath);
    lock_ = etc_ + "/setting.conf.lock";
  }
  void TearDown() override { unsetenv("VESTA_ROOT"); }

  TempDir dir_;
  std::string etc_, config_, lock_;
};

TEST_F(ServiceSettingTest, VolumeAndPaths) {
  EXPECT_EQ(etc_ + "/service.conf", config_);
  dir_.Write("var/packages/Fernbox/etc/tandem/service.conf", "other=1\nvolume=/volume2\n");
  mode_t old_mask = umask(077);  // the lock file's mode does not depend on it
  ServiceSetting setting(config_);
  std::string v;
  ASSERT_EQ(0, setting.GetServiceVolume(&v));
  umask(old_mask);
  EXPECT_EQ("/volume2", v);
  struct stat st;
  ASSERT_EQ(0, stat(lock_.c_str(), &st));
  EXPECT_EQ(0644u, st.st_mode & 0777);

  std::string root, filter, big, db, conf;
  ASSERT_EQ(0, setting.GetSessionRootDir(&root) | setting.GetFilterDbPath(&filter) |
                   setting.GetSessionDir(18446744073709551615ull, &big) |
                   setting.GetSessionDbDir(42, &db) | setting.GetSessionConfDir(42, &conf));
  EXPECT_EQ("/volume2/@FernboxTandem/session /volume2/@FernboxTandem/db/filter.sqlite "
            "/volume2/@FernboxTandem/session/18446744073709551615 "
            "/volume2/@FernboxTandem/session/42/db /volume2/@FernboxTandem/session/42/conf",
            root + " " + filter + " " + big + " " + db + " " + conf);
}

TEST_F(ServiceSettingTest, LockIsExclusiveAcrossDescriptors) {
  ServiceSetting setting(config_);
  ASSERT_EQ(0, setting.Lock());
  int other = open(lock_.c_str(), O_RDWR);
  ASSERT_GE(other, 0);
  EXPECT_EQ(-1, flock(other, LOCK_EX | LOCK_NB));
  EXPECT_EQ(EWOULDBLOCK, errno);
  setting.Unlock();
  EXPECT_EQ(0, flock(other, LOCK_EX | LOCK_NB));
  flock(other, LOCK_UN);
  // Locked again, and released by destruction.
  {
    ServiceSetting again(config_);
    ASSERT_EQ(0, again.Lock());
    EXPECT_EQ(-1, flock(other, LOCK_EX | LOCK_NB));
  }
  EXPECT_EQ(0, flock(other, LOCK_EX | LOCK_NB));
  close(other);
}

TEST_F(ServiceSettingTest, Failures) {
  ServiceSetting setting(config_);
  std::string v = "unchanged";
  // A missing configuration fails before the lock file is made.
  EXPECT_EQ(-1, setting.GetServiceVolume(&v));
  EXPECT_NE(0, access(lock_.c_str(), F_OK));
  EXPECT_EQ(-1, setting.GetSessionDir(1, &v));
  EXPECT_EQ(-1, setting.GetFilterDbPath(&v));
  EXPECT_EQ("unchanged", v);

  // No volume key.
  dir_.Write("var/packages/Fernbox/etc/tandem/service.conf", "other=1\n");
  EXPECT_EQ(-1, setting.GetServiceVolume(&v));
  EXPECT_EQ(-1, setting.GetSessionConfDir(1, &v));

  // A lock file that cannot be made still lets the volume be read: the
  // configuration here lives outside the (missing) lock directory.
  std::string conf = dir_.Write("elsewhere.conf", "volume=/volume3\n");
  ASSERT_EQ(0, system(("rm -rf '" + dir_.path() + "/var'").c_str()));
  ServiceSetting no_lock(conf);
  EXPECT_EQ(-1, no_lock.Lock());
  ASSERT_EQ(0, no_lock.GetServiceVolume(&v));
  EXPECT_EQ("/volume3", v);
}

}  // namespace
