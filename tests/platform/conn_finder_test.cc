#include "net/conn-finder.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include "tests/common/temp_dir.h"

namespace {

// The machine's own proxy from its proxy file: every field GetSystemProxy
// sets or clears, from a record that starts with every field set.
TEST(ConnFinderTest, SystemProxyFromItsFile) {
  TempDir dir;
  setenv("VESTA_ROOT", dir.path().c_str(), 1);
  ASSERT_EQ(0, system(("mkdir -p '" + dir.File("etc/vesta") + "'").c_str()));
  char host[512] = "";
  gethostname(host, sizeof(host) - 1);
  const std::string auth = "enabled=yes\nhost=proxy.corp\nport=8080\nauth_enabled=yes\npassword='s3 cret'\n";
  const struct {
    std::string file;  // "": no proxy file
    int result;
    const char* want;  // use_proxy use_system_proxy ip:port domain|user|password|host
  } kCases[] = {
      {"enabled=yes\nhost=10.0.0.1\nport=3128\nusername=alice\npassword=pw\n", 0, "10 10.0.0.1:3128 |||"},
      // Authentication asked for but without a password: still the address only.
      {"enabled=yes\nhost=10.0.0.1\nport=3128\nauth_enabled=yes\nusername=alice\n", 0, "10 10.0.0.1:3128 |||"},
      {auth + "username=\"CORP\\alice\"\n", 0, "10 proxy.corp:8080 CORP|alice|s3 cret|HOST"},
      {auth + "username=CORP/alice\n", 0, "10 proxy.corp:8080 CORP|alice|s3 cret|HOST"},
      {auth + "username=alice\n", 0, "10 proxy.corp:8080 |alice|s3 cret|HOST"},
      {auth + "username=\"A\\B\\carol\"\n", 0, "10 proxy.corp:8080 A\\B|carol|s3 cret|HOST"},  // the last backslash
      {auth + "username=\"A\\B/carol\"\n", 0, "10 proxy.corp:8080 A\\B|carol|s3 cret|HOST"},   // "/" first
      {auth + "username=\"x/y\\z\"\n", 0, "10 proxy.corp:8080 x|y\\z|s3 cret|HOST"},  // "/" before a backslash
      {auth + "username=CORP/\n", 0, "10 proxy.corp:8080 CORP||s3 cret|HOST"},
      // No proxy: the record is cleared.
      {"enabled=yes\nhost=10.0.0.1\n", -1, "00 :0 |||"},  // no port
      {"enabled=no\nhost=10.0.0.1\nport=3128\n", -1, "00 :0 |||"},
      {"host=10.0.0.1\nport=3128\n", -1, "00 :0 |||"},  // enabled missing
      {"enabled=yes\nhost=\"\"\nport=3128\n", -1, "00 :0 |||"},
      {"enabled=perhaps\nhost=10.0.0.1\nport=3128\n", -1, "00 :0 |||"},
      {"", -1, "00 :0 |||"},
      // Settings that cannot be read leave the record alone.
      {"enabled yes\n", -1, "11 stale:1 stale|stale|stale|stale"},
  };
  for (const auto& c : kCases) {
    dir.Write("etc/vesta/proxy.conf", c.file);
    if (c.file.empty()) unlink(dir.File("etc/vesta/proxy.conf").c_str());
    ProxyInfo p{true, true, "stale", 1, "stale", "stale", "stale", "stale"};
    EXPECT_EQ(c.result, GetSystemProxy(&p)) << c.file;
    const std::string got = std::to_string(p.use_proxy) + std::to_string(p.use_system_proxy) + " " +
                            p.proxy_ip + ":" + std::to_string(p.proxy_port) + " " + p.proxy_domain +
                            "|" + p.proxy_username + "|" + p.proxy_password + "|" +
                            (p.proxy_host == host ? "HOST" : p.proxy_host);
    EXPECT_EQ(c.want, got) << c.file;
  }
  unsetenv("VESTA_ROOT");
}

}  // namespace
