// The settings-file parser against files written by the test, and the
// service settings in a sandbox under $VESTA_ROOT.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "config/service.h"
#include "config/setting.h"
#include "gtest/gtest.h"
#include "tests/common/temp_dir.h"

namespace {

struct Main {
  int32_t num;
  uint64_t big;
  char* str;
  ConfigStringSet set;
};
struct Other {
  int32_t value;
};
struct Record {
  Main main;
  Other other;
};

const ConfigKey kMainKeys[] = {
    {"num", kConfigInt32, offsetof(Main, num)},
    {"big", kConfigUint64, offsetof(Main, big)},
    {"str", kConfigString, offsetof(Main, str)},
    {"set", kConfigStringSet, offsetof(Main, set)},
    {"set_alias", kConfigStringSet, offsetof(Main, set)},
};
const ConfigKey kOtherKeys[] = {
    {"value", kConfigInt32, offsetof(Other, value)},
};
// The second section's name is exactly 32 characters long.
const char kLongSection[] = "abcdefghij-ABCDEFGHIJ_0123456789";
const ConfigSection kSections[] = {
    {"Main", offsetof(Record, main), kMainKeys, 5},
    {kLongSection, offsetof(Record, other), kOtherKeys, 1},
};
const ConfigSchema kSchema = {kSections, 2};

class ParserTest : public ::testing::Test {
 protected:
  void SetUp() override { memset(&record_, 0, sizeof(record_)); }
  void TearDown() override {
    ConfigStringClear(&record_.main.str);
    ConfigStringSetClear(&record_.main.set);
  }

  int Parse(const std::string& text) {
    TearDown();
    SetUp();
    std::string path = dir_.Write("file.conf", text);
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    int rc = ParseConfigFile(path.c_str(), kSchema, &record_);
    out_ = ::testing::internal::GetCapturedStdout();
    err_ = ::testing::internal::GetCapturedStderr();
    return rc;
  }

  std::vector<std::string> Set() const {
    return {record_.main.set.items, record_.main.set.items + record_.main.set.count};
  }

  TempDir dir_;
  Record record_;
  std::string out_, err_;
};

TEST_F(ParserTest, EveryErrorWithItsNameAndLine) {
  const std::string k33(33, 'k');
  const std::string s33 = std::string(kLongSection) + "x";
  const std::string cases[][2] = {
      {"[Main\n", "SECTION_MISSING_RIGHT_BRACKET at line 1"},
      {"[]\n", "SECTION_MISSING_SECTION at line 1"},
      {"[Ma.in]\n", "SECTION_ILLEGAL_CHARACTER at line 1"},
      {"[" + s33 + "]\n", "SECTION_TOO_LONG at line 1"},
      {"[main]\n", "SECTION_UNDEFINED_SECTION at line 1"},
      // The continuation of an unknown set is read as a key line.
      {"[Main]\nbogus = \"a\",\n  \"b\"\n", "KEY_MISSING_KEY at line 3"},
      {"[Main]\nnum 5\n", "KEY_ILLEGAL_CHARACTER at line 2"},
      {"[Main]\n" + k33 + " = 1\n", "KEY_TOO_LONG at line 2"},
      {"[Main]\nnum = +x\n", "VALUE_NUMERIC_MISSING_INTEGER_PART at line 2"},
      {"[Main]\nnum = 5.\n", "VALUE_NUMERIC_MISSING_FRACTIONAL_PART at line 2"},
      {"[Main]\nnum =\n", "VALUE_NUMERIC_MISSING_VALUE at line 2"},
      {"[Main]\nnum = 0123\n", "VALUE_NUMERIC_ILLEGAL_SYNTAX at line 2"},
      {"[Main]\nstr = abc\n", "VALUE_STRING_MISSING_LEFT_QUOTE at line 2"},
      {"[Main]\n\nstr = \"abc\n", "VALUE_STRING_MISSING_RIGHT_QUOTE at line 3"},
      {"[Main]\nstr = \"abc", "VALUE_STRING_MISSING_RIGHT_QUOTE at line 2"},
      {"[Main]\nstr = \"a\\qb\"\n", "VALUE_STRING_ILLEGAL_CHARACTER at line 2"},
      {"[Main]\nstr = \"\\xg0\"\n", "VALUE_STRING_ILLEGAL_CHARACTER at line 2"},
      {"[Main]\nstr = \"\"\n", "VALUE_STRING_EMPTY at line 2"},
      {"[Main]\nset = \"a\" \"b\"\n", "VALUE_SET_MISSING_SEPARATER at line 2"},
      {"[Main]\nstr = \"" + std::string(4097, 'a') + "\"\n", "VALUE_TOO_LONG at line 2"},
      {"[Main]\nstr = \"a\" b\n", "LINE_NOT_ENDED at line 2"},
      {"num = 1\n", "LINE_NOT_EXPECTED at line 1"},
      {"[Main]\nset = \"a\",\nnum = 1\n", "LINE_NOT_EXPECTED at line 3"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(kParseFailed, Parse(c[0])) << c[0];
    EXPECT_EQ("parser: " + c[1] + "\n", err_) << c[0];
  }
  // A string of exactly 4096 bytes passes.
  EXPECT_EQ(kParseOk, Parse("[Main]\nstr = \"" + std::string(4096, 'a') + "\"\n")) << err_;
  EXPECT_EQ(4096u, strlen(record_.main.str));
}

TEST_F(ParserTest, ValuesEscapesSetsAndUnknownKeys) {
  const std::string text =
      "  # leading comment\n"
      "\n"
      "[Main]   # section comment\n"
      "num = -12.5\n"
      "big\t=\t18446744073709551615 # max\n"
      "str = \"first\"\n"
      "str = \"\\a\\b\\f\\n\\r\\t\\v\\'\\\"\\\\\\?\\x41\\x4a\\xfF\\101\\377\\000z\"\n"
      "set = \"a\" , \"b\",   # continues\n"
      "\n"
      "   # a comment between\n"
      "  \"c\",\n"
      "\"d\"\n"
      "set_alias = \"e\"\n"
      "[abcdefghij-ABCDEFGHIJ_0123456789]\n"
      "value = +7\n"
      "[Main]\n"
      "set = \"f\"\n";
  ASSERT_EQ(kParseOk, Parse(text)) << err_;
  EXPECT_EQ(-12, record_.main.num);
  EXPECT_EQ(18446744073709551615ull, record_.main.big);
  EXPECT_EQ(std::string("\a\b\f\n\r\t\v'\"\\?AJ\377A\377"), record_.main.str);
  EXPECT_EQ((std::vector<std::string>{"a", "b", "c", "d", "e", "f"}), Set());
  EXPECT_EQ(7, record_.other.value);
  EXPECT_EQ("", out_ + err_);

  EXPECT_EQ(kParseOk, Parse("[Main]\nnum = 0\nbig = 0.25\n"));

  // Unknown keys are skipped with a warning.
  EXPECT_EQ(kParseUnknownKeys, Parse("[Main]\nbogus = anything \"at all\n num = 3\nother_key=\n"));
  EXPECT_EQ("warning: unknown key (bogus)\nwarning: unknown key (other_key)\n", out_);
  EXPECT_EQ("", err_);
  EXPECT_EQ(3, record_.main.num);
  EXPECT_EQ(kParseUnknownKeys, Parse("[Main]\nvalue = 1\n"));  // a key of another section
}

// The service settings below $VESTA_ROOT.
TEST(ServiceSettingTest, VolumePathsLockAndFailures) {
  TempDir dir;
  setenv("VESTA_ROOT", dir.path().c_str(), 1);
  const std::string etc = "var/packages/Fernbox/etc/tandem/";
  ASSERT_EQ(0, system(("mkdir -p '" + dir.File(etc) + "'").c_str()));
  const std::string config = dir.File(etc + "service.conf"),
                    lock = dir.File(etc + "setting.conf.lock");
  ServiceSetting setting(config);
  std::string v;
  dir.Write(etc + "service.conf", "other=1\n");
  EXPECT_EQ(-1, setting.GetFilterDbPath(&v));  // no volume

  dir.Write(etc + "service.conf", "other=1\nvolume=/volume2\n");
  std::string root, filter, big, db, conf;
  ASSERT_EQ(0, setting.GetSessionRootDir(&root) | setting.GetFilterDbPath(&filter) |
                   setting.GetSessionDir(18446744073709551615ull, &big) |
                   setting.GetSessionDbDir(42, &db) | setting.GetSessionConfDir(42, &conf));
  EXPECT_EQ(
      "/volume2/@FernboxTandem/session /volume2/@FernboxTandem/db/filter.sqlite "
      "/volume2/@FernboxTandem/session/18446744073709551615 "
      "/volume2/@FernboxTandem/session/42/db /volume2/@FernboxTandem/session/42/conf",
      root + " " + filter + " " + big + " " + db + " " + conf);

  // The lock excludes other processes until the object's end.
  const int other = open(lock.c_str(), O_RDWR);
  {
    ServiceSetting again(config);
    ASSERT_EQ(0, again.Lock());
    EXPECT_EQ(-1, flock(other, LOCK_EX | LOCK_NB));
  }
  EXPECT_EQ(0, flock(other, LOCK_EX | LOCK_NB));
  close(other);

  // A link at the lock file's path is never followed: no lock, but the
  // volume is still read.
  ASSERT_EQ(0, unlink(lock.c_str()));
  ASSERT_EQ(0, symlink(dir.Write("target", "kept").c_str(), lock.c_str()));
  ServiceSetting linked(config);
  EXPECT_EQ(-1, linked.Lock());
  ASSERT_EQ(0, linked.GetServiceVolume(&v));
  EXPECT_EQ("/volume2", v);
  unsetenv("VESTA_ROOT");
}

}  // namespace
