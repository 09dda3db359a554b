// Filter files, the filter database clean-up and the maximum name length.
#include <unistd.h>

#include <string>
#include <vector>

#include "db/client-updater-util.h"
#include "db/filter-db-util.h"
#include "db/system-db.h"
#include "gtest/gtest.h"
#include "tests/common/temp_dir.h"
#include "tests/db/db_test_util.h"

namespace {

void Add(ConfigStringSet* set, const std::string& value) {
  ASSERT_EQ(0, ConfigStringSetAppend(set, value.data(), value.size()));
}

void SetString(char** field, const std::string& value) {
  ConfigStringClear(field);
  *field = strdup(value.c_str());
}

std::vector<std::string> Items(const ConfigStringSet& set) {
  return std::vector<std::string>(set.items, set.items + set.count);
}

// Every field of a config, each text with its length before it.
std::string Render(const FilterConfig& c) {
  std::string out = std::to_string(c.version.major) + "." + std::to_string(c.version.minor) + " " +
                    std::to_string(c.common.max_length) + " " + std::to_string(c.common.max_path) +
                    " " + std::to_string(c.file.max_size);
  auto add = [&out](const char* text) {
    out += text ? " " + std::to_string(strlen(text)) + ":" + text : std::string(" <null>");
  };
  for (const char* text : {c.common.black_char, c.file.black_char, c.directory.black_char}) add(text);
  for (const ConfigStringSet* set :
       {&c.common.black_prefix, &c.common.black_suffix, &c.common.black_name,
        &c.common.black_dir_prefix, &c.file.black_prefix, &c.file.black_suffix, &c.file.black_glob,
        &c.file.black_ext, &c.file.black_name, &c.directory.black_name, &c.directory.black_prefix,
        &c.directory.black_suffix, &c.ea.black_ea_name}) {
    out += " |";
    for (const std::string& item : Items(*set)) add(item.c_str());
  }
  return out;
}

class FilterFileTest : public ::testing::Test {
 protected:
  void TearDown() override { SystemDB::deinitialize(); }
  TempDir dir_;
};

TEST_F(FilterFileTest, WrittenTextAndQuoting) {
  FilterFile f;
  f.Lock();
  FilterConfig& c = f.config();
  c.version = {1, 3};
  SetString(&c.common.black_char, "\\/:*?\"<>|");
  for (const char* p : {"a1", "a2", "a3", "a4", "a5"}) Add(&c.common.black_prefix, p);
  Add(&c.common.black_dir_prefix, "@eaDir");
  c.common.max_length = 255;
  for (const char* e : {"e1", "e2", "e3", "e4", "e5", "e6", "e7"}) Add(&c.file.black_ext, e);
  Add(&c.file.black_name, "tab\there $HOME @x `y`");
  Add(&c.file.black_glob, "\x01\x1f\x7f\x80\xff\n\v\f\r");
  c.file.max_size = 1099511627776ull;
  Add(&c.ea.black_ea_name, "user.x");
  f.Unlock();
  ASSERT_EQ(0, f.Write(dir_.File("blacklist.filter")));
  EXPECT_EQ(
      "[Version]\nmajor = 1\nminor = 3\n\n"
      "[Common]\nblack_char = \"\\\\/:*?\\\"<>|\"\n"
      "black_prefix = \"a1\", \"a2\", \"a3\", \"a4\", \"a5\"\n\nblack_dir_prefix = \"\\x40eaDir\"\nmax_length = 255\nmax_path = 0\n\n"
      "[File]\nblack_ext = \"e1\", \"e2\", \"e3\", \"e4\", \"e5\", \n\"e6\", \"e7\"\n"
      "black_name = \"tab\\there \\x24HOME \\x40x \\x60y\\x60\"\n"
      "black_glob = \"\\x01\\x1f\\x7f\\x80\\xff\\n\\v\\f\\x0d\"\nmax_size = 1099511627776\n\n"
      "[Directory]\n\n[EA]\nblack_ea_name = \"user.x\"\n\n",
      ReadFile(dir_.File("blacklist.filter")));

  FilterFile back;
  ASSERT_EQ(0, back.Load(dir_.File("blacklist.filter")));
  EXPECT_EQ(Render(f.config()), Render(back.config()));

  EXPECT_EQ(-1, f.Write(dir_.File("missing/blacklist.filter")));
  // A link planted at the path is refused, never written through.
  const std::string target = dir_.Write("target", "kept");
  ASSERT_EQ(0, symlink(target.c_str(), dir_.File("link.filter").c_str()));
  EXPECT_EQ(-1, f.Write(dir_.File("link.filter")));
  EXPECT_EQ("kept", ReadFile(target));
}

// Every byte value, in texts and in one-byte elements over many lines; an
// escaped text over 4095 bytes is cut at a whole escape.
TEST_F(FilterFileTest, EveryByteValueRoundTrips) {
  FilterFile f;
  FilterConfig& c = f.config();
  c.version.major = 1;
  std::string all;
  for (int b = 1; b < 256; ++b) all += static_cast<char>(b);
  SetString(&c.common.black_char, all);
  for (int b = 1; b < 256; ++b) Add(&c.directory.black_name, std::string(1, static_cast<char>(b)));
  Add(&c.ea.black_ea_name, std::string(1100, '@'));  // 4400 escaped bytes
  Add(&c.ea.black_ea_name, std::string(5000, 'z'));
  ASSERT_EQ(0, f.Write(dir_.File("f")));
  FilterFile back;
  ASSERT_EQ(0, back.Load(dir_.File("f")));
  SetString(&c.ea.black_ea_name.items[0], std::string(1023, '@'));
  SetString(&c.ea.black_ea_name.items[1], std::string(4095, 'z'));
  EXPECT_EQ(Render(f.config()), Render(back.config()));
}

TEST_F(FilterFileTest, CleanUpFilterDatabase) {
  LogCapture log(dir_, kDbLevels);
  const std::string db = dir_.File("filter.sqlite");
  const std::string junk = dir_.Write("junk.sqlite", std::string(4096, 'j'));
  log.ExpectEach({{[&] { return CleanUpFilterDBBySession(db, 3); }, 0, "INFO filter db is not exist"},
                  {[&] { return CleanUpFilterDBBySession(junk, 3); }, 0,
                   "ERROR IsTableExist: sqlite3_prepare_v2: file is not a database (26)\n"
                   "INFO Filter event table does not exist, bail out"}});
  EXPECT_NE(0, access(db.c_str(), F_OK));

  for (const char* t : {"white_list_table", "filter_table", "filter_range_table"}) {
    SqliteShell(db, std::string("CREATE TABLE ") + t + " (sess_id, filter_desc); INSERT INTO " +
                        t + " VALUES (3, 'a'), (3, 'b'), (4, 'a');");
  }
  ASSERT_EQ(0, CleanUpFilterDBBySession(db, 3));
  const char kLeft[] = "SELECT group_concat(sess_id) FROM filter_table; SELECT "
                       "group_concat(sess_id) FROM filter_range_table; SELECT count(*) FROM "
                       "white_list_table;";
  EXPECT_EQ("4\n4\n3", SqliteShell(db, kLeft));
  // Without filter_range_table nothing is deleted.
  SqliteShell(db, "DROP TABLE filter_range_table; INSERT INTO filter_table VALUES (3, 'c');");
  EXPECT_EQ(0, CleanUpFilterDBBySession(db, 3));
  EXPECT_EQ("4,3", SqliteShell(db, "SELECT group_concat(sess_id) FROM filter_table;"));
  SqliteHandle handle;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(db.c_str(), handle.out()));
  EXPECT_FALSE(IsTableExist(handle.get(), "filter_table' OR '1'='1"));
}

// The maximum name length follows the encryption state of the session's
// shared folder; a file already right keeps its own text.
TEST_F(FilterFileTest, MaxLengthFollowsTheEncryptionState) {
  LogCapture log(dir_, kDbLevels);
  ASSERT_EQ(0, SystemDB::initialize(dir_.File("system.sqlite")));
  SqliteShell(dir_.File("system.sqlite"),
              "INSERT INTO session_table (id, is_encryption) VALUES (1, 1), (2, 0);");
  const struct {
    uint64_t session;
    uint64_t before, after;
  } kCases[] = {{1, 0, 143}, {1, 255, 255}, {2, 0, 0}, {2, 143, 0}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::to_string(c.session) + " " + std::to_string(c.before));
    const std::string path = dir_.Write("f", "[Version]\nmajor = 1\nminor = 1\n[Common]\n"
                                             "max_length = " + std::to_string(c.before) +
                                             "\n[EA]\nblack_ea_name = \"k\"\n");
    const std::string text = ReadFile(path);
    ASSERT_EQ(0, SetSessionFilterMaxLength(c.session, path));
    FilterFile f;
    ASSERT_EQ(0, f.Load(path));
    EXPECT_EQ(c.after, f.config().common.max_length);
    EXPECT_EQ((std::vector<std::string>{"k"}), Items(f.config().ea.black_ea_name));
    EXPECT_EQ(c.before == c.after, text == ReadFile(path));
  }
  log.Take();
  const std::string broken = dir_.Write("broken", "[Common]\nmax_length = x\n");
  log.ExpectEach({{[&] { return SetSessionFilterMaxLength(1, broken); }, -1,
                   "ERROR Failed to Load Filter."}});
  EXPECT_EQ("[Common]\nmax_length = x\n", ReadFile(broken));
  // The session's own file (found through the service configuration) is the
  // share hooks' system test.
}

}  // namespace
