// Shared folders read from their files below a fresh VESTA_ROOT, and the
// platform lock their operations hold.
#include "sdk/share.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "platform/dir_reader.h"
#include "platform/users.h"
#include "sdk/sdk-cpp.h"
#include "sdk/share-service.h"
#include "tests/common/temp_dir.h"

namespace {

// A listing that fails as on a 64-bit directory offset without 64-bit offsets.
struct dirent* FailingReaddir(DIR* /*dir*/) {
  errno = EOVERFLOW;
  return nullptr;
}

// Share files below a fresh VESTA_ROOT.
class ShareTest : public ::testing::Test {
 protected:
  ShareTest() {
    setenv("VESTA_ROOT", dir_.path().c_str(), 1);
    EXPECT_EQ(0, system(("mkdir -p '" + dir_.File("etc/vesta/shares") + "'").c_str()));
  }
  ~ShareTest() override { unsetenv("VESTA_ROOT"); }

  // Writes share `name` with `path` and further key=value lines.
  void Write(const std::string& name, const std::string& path, const std::string& keys) {
    dir_.Write("etc/vesta/shares/" + name + ".conf", "path=" + path + "\n" + keys);
  }
  std::shared_ptr<SDK::Share> Make(const std::string& path, const std::string& keys) {
    Write("a", path, keys);
    return SDK::GetShare("a");
  }

  TempDir dir_;
};

// What the daemon asks of a share: its path, and whether it is encrypted
// and mounted (its key entered).
TEST_F(ShareTest, PathEncryptionAndMount) {
  const struct {
    const char* path;
    const char* keys;
    const char* want;  // path, then E for encrypted and M for mounted, "-" for no
  } kShares[] = {
      {"/volume1/photo", "", "/volume1/photo -M"},
      {"/volume1//photo/.", "locked=yes\n", "/volume1/photo -M"},  // locked means nothing here
      {"/volume1/secret", "encrypted=yes\nlocked=yes\n", "/volume1/secret E-"},
      {"/volume1/secret", "encrypted=yes\nlocked=no\n", "/volume1/secret EM"},
      // Unreadable: neither encrypted nor mounted.
      {"/volume1/secret", "encrypted=perhaps\nlocked=no\n", "/volume1/secret --"},
  };
  for (const auto& c : kShares) {
    auto s = Make(c.path, c.keys);
    ASSERT_TRUE(s && s->IsValid()) << c.keys;
    EXPECT_EQ(c.want,
              s->GetPath() + " " + (s->IsEncryption() ? "E" : "-") + (s->IsMounted() ? "M" : "-"))
        << c.path << ": " << c.keys;
  }
  // Refused: names that are not one file name, missing, malformed or
  // relative share files, malformed flags.
  Write("relative", "volume1/a", "");
  Write("flag", "/volume1/f", "indexed=perhaps\n");
  dir_.Write("etc/vesta/shares/broken.conf", "path=/volume1/x\nnot a pair\n");
  for (const char* name : {"../shares/flag", "..", "", "absent", "relative", "flag", "broken"}) {
    EXPECT_EQ(nullptr, SDK::GetShare(name)) << name;
  }
}

// A mask named by a share for a user is that user's permission on the
// folder, whatever its mode bits; a listing of the shares that fails (as
// on a 64-bit directory offset without 64-bit offsets) fails the
// calculation rather than let the mode bits grant more.
TEST_F(ShareTest, AclMaskOfAShareThatCannotBeListed) {
  const std::string data = dir_.path();
  Write("a", data, "acl_mask=\"ROOT:0x74\"\n");
  uint32_t mask = 0;
  EXPECT_EQ(0, ZEPHACLPermCalc(data.c_str(), "root", &mask));
  EXPECT_EQ(0x74u, mask);
  DirReader::read_entry = FailingReaddir;
  EXPECT_EQ(-1, ZEPHACLPermCalc(data.c_str(), "root", &mask));
  DirReader::read_entry = readdir;
}

}  // namespace
