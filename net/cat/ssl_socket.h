// The buffered stream over TLS: SslClientSocket for connections to remote
// servers, SslServerSocket for the serving side.
//
// Channel upgrades a plain stream by handing its socket over (HandOver):
// Attach then runs the handshake with the same cancel test and idle time-out
// as every other wait.  The client context is TLS 1.2 only, verifies nothing
// during the handshake (SSL_VERIFY_NONE) and makes its checks afterwards,
// in this order: with `verify` off, when `expected_signature` is set, the
// certificate's signature text must equal it and the signature must verify
// under the issuer's key -- the certificate's own when it is self-issued,
// else that of the next certificate the server sent; a leaf whose issuer the
// server did not send is taken on the text alone.  With `verify` on, the
// chain must have verified against the CA bundle and, when `expected_host`
// is set, the common name or a subjectAltName DNS entry must match it.
//
// A TLS stream has no buffer of its own beyond the TLS library's; Flush
// flushes the write BIO.  Used by one thread at a time.
#ifndef VESTA_NET_CAT_SSL_SOCKET_H_
#define VESTA_NET_CAT_SSL_SOCKET_H_

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

#include "net/cat/buffered_io.h"

namespace cat {

struct SslCtxDeleter {
  void operator()(SSL_CTX* ctx) const { SSL_CTX_free(ctx); }
};
struct SslDeleter {
  void operator()(SSL* ssl) const { SSL_free(ssl); }
};
struct X509Deleter {
  void operator()(X509* cert) const { X509_free(cert); }
};
struct BioDeleter {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
using SslCtxPtr = std::unique_ptr<SSL_CTX, SslCtxDeleter>;
using SslPtr = std::unique_ptr<SSL, SslDeleter>;
using X509Ptr = std::unique_ptr<X509, X509Deleter>;
using BioPtr = std::unique_ptr<BIO, BioDeleter>;

// Whether certificate name `pattern` covers `host` (case-insensitive): a
// name without a leading "*" must equal the host; "*" plus at least one
// character covers the host equal to the part after "*." and any host whose
// part after its first "." equals it; a lone "*" covers nothing.
bool HostMatches(const std::string& pattern, const std::string& host);

// The certificate's signature as colon-separated lower-case hex, without
// newlines.  "" on failure.
std::string SignatureText(X509* cert);

// Two lower-case hex digits per byte.
std::string HexText(const unsigned char* data, size_t n);

// SHA-256 of the whole certificate, 64 lower-case hex digits.  "" for null.
std::string CertificateHash(X509* cert);

class SslSocket : public BufferedIOBase {
 public:
  ~SslSocket() override;

  // Takes a clone of the socket in `io` and runs the handshake; -1 with the
  // error set on failure (kErrSslNotSocket when `io` is not a Socket).
  int Attach(const IOBase& io) override;
  void Detach() override;
  ssize_t Read(void* buffer, size_t n) override;
  ssize_t Write(const void* buffer, size_t n) override;
  int Flush() override;

  // The peer's certificate (null before a handshake or when it sent none).
  X509* PeerCertificate() const { return peer_cert_.get(); }

 protected:
  // Sets up `ssl_` for the role; called by Attach before the handshake.
  virtual void SetRole(SSL* ssl) = 0;
  // Checks made after a successful handshake; 0 or -1 with the error set.
  virtual int CheckPeer() { return 0; }
  SSL* ssl() const { return ssl_.get(); }

  SslCtxPtr ctx_;  // null when the context could not be made

 private:
  int Handshake();
  // Maps the result of an SSL call.  1: retry (after waiting where
  // needed), 0: stop (flags and error set as the failure requires).
  int HandleResult(int rc);

  SslPtr ssl_;           // the TLS connection; null while detached
  X509Ptr peer_cert_;    // taken after the handshake
};

class SslClientSocket : public SslSocket {
 public:
  // TLS 1.2 client with `cipher_list`; `ca_path` is loaded as the verify
  // locations (a missing bundle just makes verification fail).
  SslClientSocket(const std::string& cipher_list, const std::string& ca_path);

  bool verify = true;              // check the chain and the host name
  std::string expected_host;       // "" = any host
  std::string expected_signature;  // "" = any signature (verify off)
  std::string peer_common_name;    // filled after the handshake
  long verify_result = X509_V_OK;  // the TLS library's chain verdict

 protected:
  void SetRole(SSL* ssl) override;
  int CheckPeer() override;

 private:
  bool NamesHost(X509* cert) const;
  // Whether the signature of `cert` verifies under its issuer's key (see
  // the top); true when the server did not send the issuer.
  bool SignedByIssuer(X509* cert) const;
};

class SslServerSocket : public SslSocket {
 public:
  // Version-flexible server context without SSLv2/SSLv3, ECDHE on P-256.
  SslServerSocket();

  // Each returns 0, or -1 when the TLS library refuses.
  int SetCipherList(const std::string& cipher_list);
  int SetPrivateKeyFile(const std::string& path);
  int SetCertificateChainFile(const std::string& path);

 protected:
  void SetRole(SSL* ssl) override;
};

}  // namespace cat

#endif  // VESTA_NET_CAT_SSL_SOCKET_H_
