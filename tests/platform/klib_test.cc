#include "platform/klib.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/common/temp_dir.h"

namespace {

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
  const std::string path = dir.Write("service.conf",
                                     "# written by the package\nvolume=/volume1\n"
                                     "label = \"two words\"\nsingle='x y'\n"
                                     "volume2 = /volume2   # trailing comment\n"
                                     "deny_users=x\ndeny_users=\nquoted=\"\"\n"
                                     "rw_users=" + list + ",alice\n");
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
  EXPECT_EQ(-1, KLIBCFileGetKeyValue(path.c_str(), "volume", &buf[0], 8, 1));
  EXPECT_EQ(-1, KLIBCFileGetKeyValue(nullptr, "volume", &buf[0], 8, 0));
}

TEST(KlibFileTest, StringTableHoldsCapacityKeys) {
  KlibSzHash* hash = KLIBCSzHashAlloc(2);
  ASSERT_NE(nullptr, hash);
  EXPECT_EQ(0, KLIBCSzHashSetValue(hash, "a", "1"));
  EXPECT_EQ(0, KLIBCSzHashSetValue(hash, "b", "2"));
  EXPECT_EQ(0, KLIBCSzHashSetValue(hash, "a", "3"));  // replacing needs no room
  EXPECT_EQ(-1, KLIBCSzHashSetValue(hash, "c", "4"));
  EXPECT_STREQ("3", KLIBCSzHashGetValue(hash, "a"));
  EXPECT_EQ(nullptr, KLIBCSzHashGetValue(hash, "c"));
  KLIBCSzHashFree(hash);
}

}  // namespace
