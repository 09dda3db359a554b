#include <gtest/gtest.h>
#include <json/json.h>
#include <stdlib.h>
#include <unistd.h>

#include "sdk/sdk-cpp.h"
#include "tests/common/sync_daemon_peer.h"

namespace {

TEST(NotifierTest, OneJsonLinePerNotification) {
  TempDir dir;
  setenv("VESTA_ROOT", dir.path().c_str(), 1);
  SDK::Notifier notifier("app:app_name", "ZEPH.ZUI.FernboxTandem.Instance", "@administrators", "");
  const Json::Value plain = ParseJson(R"({"notify_id": "fernboxtandem_ConnLost"})");
  EXPECT_EQ(0, notifier.SendNotification(
                   ParseJson(R"({"notify_id": "fernboxtandem_DiskFull", "arg_list": [)"
                             R"({"key": "%CAPACITY%", "value": "2GB"}, "not an argument"]})")));
  // Without a notify_id: refused, nothing written.
  EXPECT_EQ(-1, notifier.SendNotification(Json::Value(Json::objectValue)));
  const std::string file = dir.File("var/lib/vesta/notifications.jsonl");
  int seen = 0;
  std::vector<Json::Value> lines = TakeJsonLines(file, &seen);
  for (Json::Value& line : lines) {
    EXPECT_TRUE(line["time"].isIntegral());
    line.removeMember("time");
  }
  const Json::Value want =
      ParseJson(R"([{"notify_id": "fernboxtandem_DiskFull", "table": {"%CAPACITY%": "2GB", )"
                R"("DESKTOP_NOTIFY_TITLE": "app:app_name", )"
                R"("DESKTOP_NOTIFY_CLASSNAME": "ZEPH.ZUI.FernboxTandem.Instance"}}])");
  EXPECT_EQ(std::vector<Json::Value>(want.begin(), want.end()), lines);

  // A link planted at the file's path is refused, never appended through.
  const std::string victim = dir.Write("victim", "kept");
  ASSERT_EQ(0, unlink(file.c_str()));
  ASSERT_EQ(0, symlink(victim.c_str(), file.c_str()));
  EXPECT_EQ(-1, notifier.SendNotification(plain));
  EXPECT_EQ("kept", ReadFile(victim));
  unsetenv("VESTA_ROOT");
}

}  // namespace
