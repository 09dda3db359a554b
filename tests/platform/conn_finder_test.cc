#include "net/conn-finder.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/common/temp_dir.h"

namespace {

class ConnFinderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("VESTA_ROOT", dir_.path().c_str(), 1);
    mkdir(dir_.File("etc").c_str(), 0755);
    mkdir(dir_.File("etc/vesta").c_str(), 0755);
    char host[512] = "";
    gethostname(host, sizeof(host) - 1);
    host_ = host;
  }
  void TearDown() override { unsetenv("VESTA_ROOT"); }

  void WriteProxy(const std::string& text) { dir_.Write("etc/vesta/proxy.conf", text); }

  // A record with every field set, to see what GetSystemProxy clears.
  static ProxyInfo Dirty() {
    ProxyInfo p;
    p.use_proxy = true;
    p.use_system_proxy = true;
    p.proxy_ip = "stale";
    p.proxy_port = 1;
    p.proxy_username = p.proxy_password = p.proxy_domain = p.proxy_host = "stale";
    return p;
  }

  TempDir dir_;
  std::string host_;
};

TEST_F(ConnFinderTest, AddressWithoutAuthentication) {
  WriteProxy("enabled=yes\nhost=10.0.0.1\nport=3128\nusername=alice\npassword=pw\n");
  ProxyInfo p = Dirty();
  ASSERT_EQ(0, GetSystemProxy(&p));
  ProxyInfo want;
  want.use_proxy = true;
  want.proxy_ip = "10.0.0.1";
  want.proxy_port = 3128;
  EXPECT_EQ(want, p);

  // Authentication asked for but without a password: still the address only.
  WriteProxy("enabled=yes\nhost=10.0.0.1\nport=3128\nauth_enabled=yes\nusername=alice\n");
  p = Dirty();
  ASSERT_EQ(0, GetSystemProxy(&p));
  EXPECT_EQ(want, p);
}

TEST_F(ConnFinderTest, UserNameSplits) {
  struct Case {
    const char* written;  // as the proxy file holds it
    const char* domain;
    const char* user;
  };
  const Case cases[] = {
      {"\"CORP\\alice\"", "CORP", "alice"},
      {"CORP/alice", "CORP", "alice"},
      {"alice", "", "alice"},
      {"\"A\\B\\carol\"", "A\\B", "carol"},     // the last backslash
      {"\"A\\B/carol\"", "A\\B", "carol"},       // "/" first
      {"\"x/y\\z\"", "x", "y\\z"},               // "/" wins over a later backslash
      {"CORP/", "CORP", ""},
  };
  for (const Case& c : cases) {
    WriteProxy("enabled=yes\nhost=proxy.corp\nport=8080\nauth_enabled=yes\npassword='s3 cret'\n"
               "username=" + std::string(c.written) + "\n");
    ProxyInfo p = Dirty();
    ASSERT_EQ(0, GetSystemProxy(&p)) << c.written;
    ProxyInfo want;
    want.use_proxy = true;
    want.proxy_ip = "proxy.corp";
    want.proxy_port = 8080;
    want.proxy_username = c.user;
    want.proxy_password = "s3 cret";
    want.proxy_domain = c.domain;
    want.proxy_host = host_;
    EXPECT_EQ(want, p) << c.written;
  }
}

TEST_F(ConnFinderTest, NoProxy) {
  const char* files[] = {
      "enabled=yes\nhost=10.0.0.1\n",                  // no port
      "enabled=no\nhost=10.0.0.1\nport=3128\n",        // not enabled
      "host=10.0.0.1\nport=3128\n",                    // enabled missing
      "enabled=yes\nhost=\"\"\nport=3128\n",           // empty host
      "enabled=perhaps\nhost=10.0.0.1\nport=3128\n",   // malformed flag
  };
  for (const char* text : files) {
    WriteProxy(text);
    ProxyInfo p = Dirty();
    EXPECT_EQ(-1, GetSystemProxy(&p)) << text;
    EXPECT_EQ(ProxyInfo(), p) << text;
  }
  unlink(dir_.File("etc/vesta/proxy.conf").c_str());
  ProxyInfo p = Dirty();
  EXPECT_EQ(-1, GetSystemProxy(&p));
  EXPECT_EQ(ProxyInfo(), p);

  // Settings that cannot be read leave the record alone.
  WriteProxy("enabled yes\n");
  p = Dirty();
  EXPECT_EQ(-1, GetSystemProxy(&p));
  EXPECT_EQ(Dirty(), p);
}

}  // namespace
