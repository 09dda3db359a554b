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

TEST(KlibFileTest, ReadsPlainAndQuotedValues) {
  TempDir dir;
  std::string path = dir.Write("service.conf",
                               "# written by the package\n"
                               "volume=/volume1\n"
                               "label = \"two words\"\n"
                               "single='x y'\n"
                               "volume2 = /volume2   # trailing comment\n");
  EXPECT_EQ("/volume1", Lookup(path, "volume"));
  EXPECT_EQ("two words", Lookup(path, "label"));
  EXPECT_EQ("x y", Lookup(path, "single"));
  EXPECT_EQ("/volume2", Lookup(path, "volume2"));
  EXPECT_EQ("<" + std::to_string(KLIB_ERR_NO_SUCH_KEY) + ">", Lookup(path, "missing"));
  EXPECT_EQ("<" + std::to_string(KLIB_ERR_FILE) + ">", Lookup(dir.File("absent"), "volume"));
  // "/volume1" needs 9 bytes with its NUL.
  EXPECT_EQ("<" + std::to_string(KLIB_ERR_BUFFER_TOO_SMALL) + ">", Lookup(path, "volume", 8));
  EXPECT_EQ("/volume1", Lookup(path, "volume", 9));

  std::string broken = dir.Write("broken.conf", "volume=/volume1\nthis line is wrong\n");
  EXPECT_EQ("<" + std::to_string(KLIB_ERR_FILE) + ">", Lookup(broken, "volume"));

  char buf[8];
  EXPECT_EQ(-1, KLIBCFileGetKeyValue(path.c_str(), "volume", buf, sizeof(buf), 1));
  EXPECT_EQ(-1, KLIBCFileGetKeyValue(nullptr, "volume", buf, sizeof(buf), 0));
}

// The stand-in's files, unlike the daemon's own, take "key=" as unset and
// read long lines whole.
TEST(KlibFileTest, EmptyValuesUnsetAndLongLinesStayWhole) {
  TempDir dir;
  const std::string list(9000, 'u');
  std::string path = dir.Write("share.conf", "deny_users=x\ndeny_users=\nquoted=\"\"\n"
                                              "rw_users=" + list + ",alice\nvolume=/volume1\n");
  const std::string no_key = "<" + std::to_string(KLIB_ERR_NO_SUCH_KEY) + ">";
  EXPECT_EQ(no_key, Lookup(path, "deny_users"));
  EXPECT_EQ(no_key, Lookup(path, "quoted"));
  EXPECT_EQ("/volume1", Lookup(path, "volume"));
  std::string buf(list.size() + 16, '\0');
  EXPECT_EQ(9006, KLIBCFileGetKeyValue(path.c_str(), "rw_users", &buf[0], buf.size(), 0));
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
