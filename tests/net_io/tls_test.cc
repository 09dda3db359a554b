// TLS against real peers: `openssl s_server` answers the client side,
// `openssl s_client` drives the server side.  Certificates are made by
// make_certs.sh with the openssl tool; expected signature texts and hashes
// come from `openssl x509`, never from the code under test.
//
// The certificates and the servers are shared by the suite (made once in
// SetUpTestSuite, in a fresh temporary directory that TearDownTestSuite
// removes together with the server processes).
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "gtest/gtest.h"
#include "net/cat/socket_ops.h"
#include "net/cat/ssl_socket.h"
#include "net/channel.h"
#include "tests/common/temp_dir.h"
#include "tests/net_io/net_io_test_util.h"

namespace {

const bool kSigpipeIgnored = net_io_test::IgnoreSigpipe();

using net_io_test::ChildProcess;

// An `openssl s_server -rev` on 127.0.0.1 with one certificate: it answers
// each line with the line reversed.
struct TlsServer {
  TlsServer(const std::string& dir, const std::string& name)
      : port(net_io_test::FreePort()),
        process({"openssl", "s_server", "-accept", "127.0.0.1:" + std::to_string(port), "-cert",
                 dir + "/" + name + ".crt", "-key", dir + "/" + name + ".key", "-rev"}) {
    ready = net_io_test::WaitForPort(port);
  }
  int port;
  ChildProcess process;
  bool ready = false;
};

class TlsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new TempDir();
    certs_ok_ = net_io_test::MakeCerts(dir_->path());
    for (const char* name : {"server", "wild", "cnonly", "self"}) {
      servers_[name] = new TlsServer(dir_->path(), name);
    }
  }
  static void TearDownTestSuite() {
    for (auto& s : servers_) delete s.second;  // kills and reaps the server
    servers_.clear();
    delete dir_;
    dir_ = nullptr;
  }

  void SetUp() override {
    ASSERT_TRUE(certs_ok_);
    for (auto& s : servers_) ASSERT_TRUE(s.second->ready) << s.first;
    Channel::SetCAPath(Cert("ca.crt"));
  }

  static std::string Cert(const std::string& file) { return dir_->File(file); }

  // Opens `ch` to the server with certificate `name` and converts it.
  static int ConnectTls(Channel* ch, const std::string& name) {
    if (ch->Open("127.0.0.1", servers_[name]->port) != 0) return -1000;
    return ch->ConvertToSSLChannel(false);
  }

  static std::string SignatureOf(const std::string& cert) {
    return net_io_test::CertSignature(Cert(cert));
  }
  static std::string FingerprintOf(const std::string& cert) {
    return net_io_test::CertFingerprint(Cert(cert));
  }

  static TempDir* dir_;
  static bool certs_ok_;
  static std::map<std::string, TlsServer*> servers_;
};

TempDir* TlsTest::dir_ = nullptr;
bool TlsTest::certs_ok_ = false;
std::map<std::string, TlsServer*> TlsTest::servers_;

TEST_F(TlsTest, VerifiedChainAndHostNames) {
  struct Case {
    const char* server;
    const char* host;  // "" = no host check
    int result;
  };
  const Case cases[] = {
      {"server", "server.test", 0},      {"server", "alt.example.org", 0},
      {"server", "ALT.example.ORG", 0},  {"server", "", 0},
      {"server", "wrong.test", -24},     {"server", "127.0.0.1", -24},  // IP entries are not names
      {"wild", "a.wild.test", 0},        {"wild", "wild.test", 0},
      {"wild", "a.b.wild.test", -24},    {"cnonly", "cn-only.test", 0},
      {"cnonly", "other.test", -24},     {"self", "", -24},  // not signed by the CA
  };
  for (const Case& c : cases) {
    Channel ch;
    ch.SetTrustBySignature(false);
    ch.SetExpectedHost(c.host);
    EXPECT_EQ(ConnectTls(&ch, c.server), c.result) << c.server << " / " << c.host;
    EXPECT_EQ(ch.IsSSL(), c.result == 0);
  }

  // A bundle that does not hold the CA, and no bundle at all.  (Each
  // channel is closed before the next: the server serves one at a time.)
  for (const char* bundle : {"self.crt", "no-such-bundle.crt"}) {
    Channel::SetCAPath(Cert(bundle));
    Channel ch;
    ch.SetTrustBySignature(false);
    EXPECT_EQ(ConnectTls(&ch, "server"), -24) << bundle;
  }
}

// Below the channel the two verification failures stay apart.
TEST_F(TlsTest, ClientSocketTellsChainFromHostFailures) {
  struct Case {
    const char* server;
    const char* host;
    int error;
    long verify_result;
    const char* common_name;
  };
  const Case cases[] = {
      {"self", "", cat::kErrSslVerify, X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, "self.test"},
      {"server", "nope.test", cat::kErrSslHost, X509_V_OK, "server.test"},
      {"wild", "x.wild.test", 0, X509_V_OK, "*.wild.test"},
  };
  for (const Case& c : cases) {
    cat::Socket sock(cat::ConnectTcp("127.0.0.1", servers_[c.server]->port, 5, nullptr));
    ASSERT_TRUE(sock.valid());
    cat::BufferedIO plain;
    plain.Attach(sock);
    cat::SslClientSocket tls(Channel::kClientCipherList, Cert("ca.crt"));
    tls.expected_host = c.host;
    EXPECT_EQ(plain.HandOver(&tls), c.error == 0 ? 0 : -1) << c.server;
    EXPECT_EQ(tls.GetError(), c.error) << c.server;
    EXPECT_EQ(tls.verify_result, c.verify_result) << c.server;
    EXPECT_EQ(tls.peer_common_name, c.common_name) << c.server;
    tls.Detach();
    sock.Close();
  }
}

TEST_F(TlsTest, TrustBySignature) {
  const std::string signature = SignatureOf("self.crt");
  ASSERT_FALSE(signature.empty());
  {
    Channel ch;  // no expected signature: anything goes, even self-signed
    EXPECT_EQ(ConnectTls(&ch, "self"), 0);
  }
  {
    Channel ch;
    ch.SetExpectedSignature(signature);
    ch.SetExpectedHost("not-checked.test");  // names are checked only when verifying
    EXPECT_EQ(ConnectTls(&ch, "self"), 0);
  }
  {
    Channel ch;
    ch.SetExpectedSignature(SignatureOf("server.crt"));
    EXPECT_EQ(ConnectTls(&ch, "self"), -25);
    EXPECT_FALSE(ch.IsSSL());
  }
}

TEST_F(TlsTest, SignatureTextHashAndDataOverTheClient) {
  Channel ch;
  ch.SetTrustBySignature(false);
  ch.SetExpectedHost("server.test");
  ASSERT_EQ(ConnectTls(&ch, "server"), 0);
  ASSERT_TRUE(ch.IsSSL());
  std::string signature;
  EXPECT_EQ(ch.GetSslSignature(&signature), 0);
  EXPECT_EQ(signature, SignatureOf("server.crt"));
  EXPECT_EQ(signature.find('\n'), std::string::npos);
  EXPECT_EQ(ch.GetSslSignatureHash(), FingerprintOf("server.crt"));
  EXPECT_EQ(ch.GetSslSignatureHash().size(), 64u);

  EXPECT_EQ(ch.ConvertToSSLChannel(false), 0);  // already TLS: nothing changes
  EXPECT_TRUE(ch.IsSSL());

  ASSERT_EQ(ch.Write("hello tls\n", 10), 0);
  ASSERT_EQ(ch.Flush(0), 0);
  char buf[10];
  ASSERT_EQ(ch.Read(buf, 10), 0);
  EXPECT_EQ(std::string(buf, 10), "slt olleh\n");
  EXPECT_EQ(ch.Close(), 0);
  EXPECT_EQ(ch.GetSslSignatureHash(), "");
}

TEST_F(TlsTest, ServerSideAnswersOpensslClient) {
  Channel::m_cert_path = Cert("server.crt");
  Channel::m_key_path = Cert("server.key");
  Channel::m_server_cipher_list = "ECDHE-RSA-AES128-GCM-SHA256";

  net_io_test::Listener listener;
  const std::string input = dir_->Write("client-in", "ping\n");
  const std::string output = dir_->File("client-out");
  ChildProcess client({"openssl", "s_client", "-connect",
                       "127.0.0.1:" + std::to_string(listener.port()), "-tls1_2", "-quiet"},
                      input, output);
  Channel ch;
  ch.SetTimeout(10);
  ASSERT_EQ(ch.Open(listener.Accept(), true), 0);
  ASSERT_EQ(ch.ConvertToSSLChannel(true), 0);
  char buf[5];
  ASSERT_EQ(ch.Read(buf, 5), 0);
  EXPECT_EQ(std::string(buf, 5), "ping\n");
  ASSERT_EQ(ch.Write("pong\n", 5), 0);
  ASSERT_EQ(ch.Flush(0), 0);
  ch.Close();
  EXPECT_EQ(client.Wait(10), 0);
  EXPECT_NE(ReadFile(output).find("pong"), std::string::npos);

  // A cipher list the TLS library refuses fails the conversion.
  Channel::m_server_cipher_list = "NO-SUCH-CIPHER";
  ChildProcess refused({"openssl", "s_client", "-connect",
                        "127.0.0.1:" + std::to_string(listener.port()), "-quiet"});
  Channel other;
  ASSERT_EQ(other.Open(listener.Accept(), true), 0);
  EXPECT_EQ(other.ConvertToSSLChannel(true), -2);
  EXPECT_FALSE(other.IsSSL());
  Channel::m_server_cipher_list.clear();
  Channel::m_cert_path.clear();
  Channel::m_key_path.clear();
}

}  // namespace
