#include "sdk/sdk-cpp.h"

#include <gtest/gtest.h>
#include <json/json.h>
#include <stdlib.h>

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
  struct Case {
    const char* user;
    const char* list;
    int want;
  };
  const Case cases[] = {
      {"alice", "alice", 0},
      {"alice", "bob,Alice", 0},
      {"alice", "bob,alice2,ali", -1},
      {"alice", "", -1},
      {"alice", ",,alice,", 0},
      {"alice", "@staff", 0},          // group name in capitals in the user's list
      {"alice", "bob,@Staff,carol", 0},
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
  for (const Case& c : cases) {
    EXPECT_EQ(c.want, SDK::UserIsInList(c.user, &groups, c.list)) << c.user << " in " << c.list;
  }
  EXPECT_EQ(-1, SDK::UserIsInList(nullptr, &groups, "alice"));
  EXPECT_EQ(-1, SDK::UserIsInList("alice", nullptr, "alice"));
  EXPECT_EQ(-1, SDK::UserIsInList("alice", &groups, nullptr));
}

TEST(NotifierTest, OneJsonLinePerNotification) {
  TempDir dir;
  setenv("VESTA_ROOT", dir.path().c_str(), 1);
  const std::string path = dir.File("var/lib/vesta/notifications.jsonl");
  int seen = 0;
  SDK::Notifier notifier("app:app_name", "ZEPH.ZUI.FernboxTandem.Instance", "@administrators", "");
  Json::Value n(Json::objectValue);
  n["notify_id"] = "fernboxtandem_DiskFull";
  Json::Value arg(Json::objectValue);
  arg["key"] = "%CAPACITY%";
  arg["value"] = "2GB";
  n["arg_list"].append(arg);
  n["arg_list"].append("not an argument");  // dropped
  ASSERT_EQ(0, notifier.SendNotification(n));

  Json::Value plain(Json::objectValue);
  plain["notify_id"] = "fernboxtandem_ConnLost";
  ASSERT_EQ(0, notifier.SendNotification(plain));

  std::vector<Json::Value> lines = TakeJsonLines(path, &seen);
  ASSERT_EQ(2u, lines.size());
  const Json::Value& first = lines[0];
  EXPECT_EQ("fernboxtandem_DiskFull", first["notify_id"].asString());
  EXPECT_TRUE(first["time"].isIntegral());
  const Json::Value& table = first["table"];
  EXPECT_EQ(3u, table.size());
  EXPECT_EQ("2GB", table["%CAPACITY%"].asString());
  EXPECT_EQ("app:app_name", table["DESKTOP_NOTIFY_TITLE"].asString());
  EXPECT_EQ("ZEPH.ZUI.FernboxTandem.Instance", table["DESKTOP_NOTIFY_CLASSNAME"].asString());
  EXPECT_FALSE(table.isMember("FILTER_SETTING"));  // empty: not passed on
  EXPECT_EQ("fernboxtandem_ConnLost", lines[1]["notify_id"].asString());

  // A filter setting travels; no notify_id is refused and writes nothing.
  SDK::Notifier filtered("", "", "@administrators", "mute");
  ASSERT_EQ(0, filtered.SendNotification(plain));
  EXPECT_EQ(-1, notifier.SendNotification(Json::Value(Json::objectValue)));
  EXPECT_EQ(-1, notifier.SendNotification(Json::Value("fernboxtandem_DiskFull")));
  lines = TakeJsonLines(path, &seen);
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ("mute", lines[0]["table"]["FILTER_SETTING"].asString());
  EXPECT_FALSE(lines[0]["table"].isMember("DESKTOP_NOTIFY_TITLE"));
  unsetenv("VESTA_ROOT");
}

}  // namespace
