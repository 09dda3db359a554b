// The Channel over loopback: the client side of TLS against openssl s_server
// (the daemon is never a TLS server; expected signatures from openssl x509),
// and the cancel flag.  Files, full disks and peers gone mid-file are
// PStream's to test (tests/stream), idle and deadline waits the buffered
// stream's (buffered_io_test.cc).
#include <unistd.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "net/channel.h"
#include "tests/common/temp_dir.h"
#include "tests/net_io/net_io_test_util.h"

namespace {

// An `openssl s_server -rev` on 127.0.0.1: it answers each line reversed.
// `name` is a certificate, or "certificate+issuer" to send the issuer's too.
struct TlsServer {
  TlsServer(const std::string& dir, const std::string& name)
      : port(net_io_test::FreePort()),
        process(Command(dir, name)),
        ready(net_io_test::WaitForPort(port)) {}
  std::vector<std::string> Command(const std::string& dir, const std::string& name) const {
    const std::string cert = dir + "/" + name.substr(0, name.find('+'));
    std::vector<std::string> command = {
        "openssl", "s_server",    "-accept", "127.0.0.1:" + std::to_string(port),
        "-cert",   cert + ".crt", "-key",    cert + ".key",
        "-rev"};
    const size_t plus = name.find('+');
    if (plus != std::string::npos) {
      command.insert(command.end(), {"-cert_chain", dir + "/" + name.substr(plus + 1) + ".crt"});
    }
    return command;
  }
  int port;
  ChildProcess process;
  bool ready;
};

// The chain checked against the CA bundle and the host names (the common
// name when there is no subjectAltName), or trust by the signature text.
TEST(TlsTest, ChainHostOrSignatureChecks) {
  TempDir dir;
  ASSERT_TRUE(net_io_test::MakeCerts(dir.path()));
  std::map<std::string, std::unique_ptr<TlsServer>> servers;
  for (const char* name : {"server", "cnonly", "self", "server+ca", "forged", "forged+ca"}) {
    servers[name] = std::make_unique<TlsServer>(dir.path(), name);
    ASSERT_TRUE(servers[name]->ready) << name;
  }
  // Opens `ch` to the server with certificate `name` and converts it.
  auto connect_tls = [&](Channel* ch, const std::string& name) {
    return ch->Open("127.0.0.1", servers[name]->port) == 0 ? ch->ConvertToSSLChannel(false) : -1000;
  };
  Channel::SetCAPath(dir.File("ca.crt"));
  const struct {
    const char* server;
    bool by_signature;
    const char* host;       // "" = no host check
    const char* signature;  // of this certificate; "" = none expected
    int result;
  } kCases[] = {
      {"server", false, "server.test", "", 0},
      {"server", false, "alt.example.org", "", 0},
      {"server", false, "", "", 0},
      {"server", false, "wrong.test", "", -24},
      {"server", false, "127.0.0.1", "", -24},  // IP entries are not names
      {"cnonly", false, "cn-only.test", "", 0},
      {"cnonly", false, "other.test", "", -24},
      {"self", false, "", "", -24},                       // not signed by the CA
      {"self", true, "", "", 0},                          // anything goes, even self-signed
      {"self", true, "not-checked.test", "self.crt", 0},  // names count only when verifying
      {"self", true, "", "server.crt", -25},
      // The signature must also be the issuer's over this certificate;
      // without the issuer at hand its text alone decides.
      {"server+ca", true, "", "server.crt", 0},
      {"forged+ca", true, "", "server.crt", -25},
      {"forged", true, "", "server.crt", 0},
  };
  for (const auto& c : kCases) {
    Channel ch;
    ch.SetTrustBySignature(c.by_signature);
    ch.SetExpectedHost(c.host);
    ch.SetExpectedSignature(*c.signature ? net_io_test::CertSignature(dir.File(c.signature)) : "");
    EXPECT_EQ(c.result, connect_tls(&ch, c.server)) << c.server << " / " << c.host;
    EXPECT_EQ(c.result == 0, ch.IsSSL());
    if (c.result != 0) continue;
    EXPECT_EQ(0, ch.ConvertToSSLChannel(false));  // already TLS: nothing changes
  }
  Channel::SetCAPath(dir.File("no-such-bundle.crt"));  // no bundle trusts nothing
  Channel ch;
  ch.SetTrustBySignature(false);
  EXPECT_EQ(-24, connect_tls(&ch, "server"));
}

}  // namespace
