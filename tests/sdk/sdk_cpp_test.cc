#include "sdk/sdk-cpp.h"

#include <gtest/gtest.h>
#include <json/json.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "tests/common/sync_daemon_peer.h"

namespace {

// Two levels taken, a foreign Unlock ignored, one level given back: the
// lock is still held until the last Unlock.
TEST(ReentrantMutexTest, ReentersAndIgnoresForeignUnlocks) {
  SDK::ReentrantMutex mutex;
  mutex.Unlock();  // nobody holds it: nothing happens
  mutex.Lock("outer");
  mutex.Lock("inner");  // would deadlock if not re-entrant
  std::thread([&] { mutex.Unlock(); }).join();
  mutex.Unlock();
  std::atomic<bool> taken{false};
  std::thread other([&] {
    mutex.Lock("other");
    taken = true;
    mutex.Unlock();
  });
  // Long enough for the other thread to take a free lock; no wait can
  // prove that it cannot.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(taken);
  mutex.Unlock();
  other.join();
  EXPECT_TRUE(taken);
}

TEST(UserIsInListTest, UsersAndGroups) {
  KlibSzList groups;
  groups.items = {"users", "STAFF", "Développeurs"};
  const struct {
    const char* user;
    const char* list;
    int want;
  } cases[] = {
      {"alice", "alice", 0},
      {"alice", "bob,Alice", 0},
      {"alice", "bob,alice2,ali", -1},
      {"alice", "", -1},
      {"alice", ",,alice,", 0},
      {"alice", "@staff", 0},          // group name in capitals in the user's list
      {"alice", "@sta", -1},
      {"alice", "@", -1},
      {"alice", "@développeurs", 0},   // UTF-8 group, other case
      {"alice", "@alice", -1},         // a group, not the user
      {"ÉLODIE", "élodie", 0},         // UTF-8 user names without case
      {"Łukasz", "bob,łUKASZ", 0},
      {"Straße", "STRASSE", -1},       // no multi-character folding
      {"\xff" "x", "\xff" "X", 0},     // stray bytes compare as themselves
      {"\xff" "x", "\xfe" "x", -1},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.want, SDK::UserIsInList(c.user, &groups, c.list)) << c.user << " in " << c.list;
  }
  EXPECT_EQ(-1, SDK::UserIsInList(nullptr, &groups, "alice"));
  EXPECT_EQ(-1, SDK::UserIsInList("alice", nullptr, "alice"));
  EXPECT_EQ(-1, SDK::UserIsInList("alice", &groups, nullptr));
}

TEST(NotifierTest, OneJsonLinePerNotification) {
  TempDir dir;
  setenv("VESTA_ROOT", dir.path().c_str(), 1);
  SDK::Notifier notifier("app:app_name", "ZEPH.ZUI.FernboxTandem.Instance", "@administrators", "");
  SDK::Notifier filtered("", "", "@administrators", "mute");  // empty texts are not passed on
  const Json::Value plain = ParseJson(R"({"notify_id": "fernboxtandem_ConnLost"})");
  EXPECT_EQ(0, notifier.SendNotification(ParseJson(
                   R"({"notify_id": "fernboxtandem_DiskFull", "arg_list": [)"
                   R"({"key": "%CAPACITY%", "value": "2GB"}, "not an argument"]})")));
  EXPECT_EQ(0, notifier.SendNotification(plain));
  EXPECT_EQ(0, filtered.SendNotification(plain));
  // Without a notify_id: refused, nothing written.
  EXPECT_EQ(-1, notifier.SendNotification(Json::Value(Json::objectValue)));
  EXPECT_EQ(-1, notifier.SendNotification(Json::Value("fernboxtandem_DiskFull")));
  int seen = 0;
  std::vector<Json::Value> lines =
      TakeJsonLines(dir.File("var/lib/vesta/notifications.jsonl"), &seen);
  for (Json::Value& line : lines) {
    EXPECT_TRUE(line["time"].isIntegral());
    line.removeMember("time");
  }
  const std::string app = R"("DESKTOP_NOTIFY_TITLE": "app:app_name", )"
                          R"("DESKTOP_NOTIFY_CLASSNAME": "ZEPH.ZUI.FernboxTandem.Instance")";
  const Json::Value want = ParseJson(
      R"([{"notify_id": "fernboxtandem_DiskFull", "table": {"%CAPACITY%": "2GB", )" + app + "}}, " +
      R"({"notify_id": "fernboxtandem_ConnLost", "table": {)" + app + "}}, " +
      R"({"notify_id": "fernboxtandem_ConnLost", "table": {"FILTER_SETTING": "mute"}}])");
  EXPECT_EQ(std::vector<Json::Value>(want.begin(), want.end()), lines);

  // A link planted at the file's path is refused, never appended through.
  const std::string victim = dir.Write("victim", "kept");
  const std::string file = dir.File("var/lib/vesta/notifications.jsonl");
  ASSERT_EQ(0, unlink(file.c_str()));
  ASSERT_EQ(0, symlink(victim.c_str(), file.c_str()));
  EXPECT_EQ(-1, notifier.SendNotification(plain));
  EXPECT_EQ("kept", ReadFile(victim));
  unsetenv("VESTA_ROOT");
}

}  // namespace
