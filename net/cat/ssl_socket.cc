#include "net/cat/ssl_socket.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509v3.h>
#include <strings.h>

#include <algorithm>
#include <climits>

#include "log/log.h"

namespace cat {
namespace {

struct GeneralNamesDeleter {
  void operator()(GENERAL_NAMES* names) const { GENERAL_NAMES_free(names); }
};

bool EqualsIgnoreCase(const std::string& a, const std::string& b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// Empties the TLS error queue, keeping its first entry in the debug log.
void DrainErrors() {
  unsigned long code = ERR_get_error();
  if (code != 0) {
    char text[256];
    ERR_error_string_n(code, text, sizeof(text));
    LOG_DEBUG("channel_debug", "TLS error: %s", text);
  }
  ERR_clear_error();
}

std::string CommonName(X509* cert) {
  char name[256] = {0};
  X509_NAME* subject = X509_get_subject_name(cert);
  if (subject == nullptr ||
      X509_NAME_get_text_by_NID(subject, NID_commonName, name, sizeof(name)) < 0) {
    return std::string();
  }
  return name;
}

}  // namespace

std::string HexText(const unsigned char* data, size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(n * 2);
  for (size_t i = 0; i < n; ++i) {
    out += kDigits[data[i] >> 4];
    out += kDigits[data[i] & 0xf];
  }
  return out;
}

namespace {

int ClampToInt(size_t n) { return static_cast<int>(std::min<size_t>(n, INT_MAX)); }

}  // namespace

bool HostMatches(const std::string& pattern, const std::string& host) {
  if (pattern.empty() || pattern[0] != '*') return EqualsIgnoreCase(pattern, host);
  if (pattern.size() < 2) return false;  // a lone "*"
  const std::string suffix = pattern.substr(std::min<size_t>(2, pattern.size()));
  if (EqualsIgnoreCase(host, suffix)) return true;
  size_t dot = host.find('.');
  return dot != std::string::npos && EqualsIgnoreCase(host.substr(dot + 1), suffix);
}

std::string SignatureText(X509* cert) {
  if (cert == nullptr) return std::string();
  const ASN1_BIT_STRING* signature = nullptr;
  const X509_ALGOR* algorithm = nullptr;
  X509_get0_signature(&signature, &algorithm, cert);
  BioPtr mem(BIO_new(BIO_s_mem()));
  if (signature == nullptr || mem == nullptr ||
      X509_signature_dump(mem.get(), signature, 0) <= 0) {
    return std::string();
  }
  char* data = nullptr;
  long len = BIO_get_mem_data(mem.get(), &data);
  std::string text(data, static_cast<size_t>(len > 0 ? len : 0));
  text.erase(std::remove(text.begin(), text.end(), '\n'), text.end());
  return text;
}

std::string CertificateHash(X509* cert) {
  if (cert == nullptr) return std::string();
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (X509_digest(cert, EVP_sha256(), md, &len) != 1) return std::string();
  return HexText(md, len);
}

SslSocket::~SslSocket() = default;

int SslSocket::Attach(const IOBase& io) {
  Detach();
  if (dynamic_cast<const Socket*>(&io) == nullptr) {
    SetError(kErrSslNotSocket);
    return -1;
  }
  io_ = io.Clone();
  if (ctx_ != nullptr) ssl_.reset(SSL_new(ctx_.get()));
  if (ssl_ == nullptr || SSL_set_fd(ssl_.get(), io_->fd()) != 1) {
    DrainErrors();
    SetError(kErrIO);
  } else {
    SetRole(ssl_.get());
    if (Handshake() == 0) {
      peer_cert_.reset(SSL_get1_peer_certificate(ssl_.get()));
      if (CheckPeer() == 0) return 0;
    }
  }
  // The error stays readable; the connection and the clone go.
  peer_cert_.reset();
  ssl_.reset();
  io_.reset();
  return -1;
}

void SslSocket::Detach() {
  if (ssl_ != nullptr && IsWritable()) {
    ERR_clear_error();
    SSL_shutdown(ssl_.get());  // best effort close_notify; never waits
    ERR_clear_error();
  }
  peer_cert_.reset();
  ssl_.reset();
  BufferedIOBase::Detach();
}

int SslSocket::Handshake() {
  for (;;) {
    if (controller_->IsCancelled()) {
      SetError(kErrCancelled);
      return -1;
    }
    ERR_clear_error();
    int rc = SSL_do_handshake(ssl_.get());
    if (rc == 1) return 0;
    if (!HandleResult(rc)) return -1;
  }
}

int SslSocket::HandleResult(int rc) {
  switch (SSL_get_error(ssl_.get(), rc)) {
    case SSL_ERROR_NONE:
      return 1;
    case SSL_ERROR_WANT_READ:
      return WaitReady(kWaitRead);
    case SSL_ERROR_WANT_WRITE:
      return WaitReady(kWaitWrite);
    case SSL_ERROR_WANT_X509_LOOKUP:
    case SSL_ERROR_WANT_CONNECT:
    case SSL_ERROR_WANT_ACCEPT:
      return 1;
    case SSL_ERROR_SYSCALL:
      if (ERR_peek_error() == 0 && rc == 0) flags_ |= kReadClosed | kWriteClosed;
      DrainErrors();
      SetError(kErrIO);
      return 0;
    case SSL_ERROR_ZERO_RETURN:  // the peer closed the TLS session cleanly
      flags_ |= kReadClosed | kWriteClosed;
      return 0;
    default:
      DrainErrors();
      SetError(kErrIO);
      return 0;
  }
}

ssize_t SslSocket::Read(void* buffer, size_t n) {
  char* out = static_cast<char*>(buffer);
  size_t got = 0;
  while (got < n && IsReadable()) {
    if (controller_->IsCancelled()) {
      SetError(kErrCancelled);
      break;
    }
    size_t quota = controller_->ReadQuota(n - got);
    ERR_clear_error();
    int rc = SSL_read(ssl_.get(), out + got, ClampToInt(quota));
    if (rc > 0) {
      got += static_cast<size_t>(rc);
      controller_->OnRead(static_cast<size_t>(rc));
    } else if (!HandleResult(rc)) {
      break;
    }
  }
  return static_cast<ssize_t>(got);
}

ssize_t SslSocket::Write(const void* buffer, size_t n) {
  const char* data = static_cast<const char*>(buffer);
  size_t done = 0;
  while (done < n && IsWritable()) {
    if (controller_->IsCancelled()) {
      SetError(kErrCancelled);
      break;
    }
    size_t quota = controller_->WriteQuota(n - done);
    ERR_clear_error();
    int rc = SSL_write(ssl_.get(), data + done, ClampToInt(quota));
    if (rc > 0) {
      done += static_cast<size_t>(rc);
      controller_->OnWrite(static_cast<size_t>(rc));
    } else if (!HandleResult(rc)) {
      break;
    }
  }
  return static_cast<ssize_t>(done);
}

int SslSocket::Flush() {
  if (ssl_ == nullptr) return 0;
  BIO* wbio = SSL_get_wbio(ssl_.get());
  return (wbio == nullptr || BIO_flush(wbio) > 0) ? 0 : -1;
}

SslClientSocket::SslClientSocket(const std::string& cipher_list,
                                 const std::string& ca_path) {
  ctx_.reset(SSL_CTX_new(TLS_client_method()));
  if (ctx_ == nullptr ||
      SSL_CTX_set_min_proto_version(ctx_.get(), TLS1_2_VERSION) != 1 ||
      SSL_CTX_set_max_proto_version(ctx_.get(), TLS1_2_VERSION) != 1 ||
      SSL_CTX_set_cipher_list(ctx_.get(), cipher_list.c_str()) != 1) {
    DrainErrors();
    ctx_.reset();  // Attach then fails with kErrIO
    return;
  }
  // A missing bundle is not an error here: the chain then fails to verify.
  SSL_CTX_load_verify_locations(ctx_.get(), ca_path.c_str(), nullptr);
  ERR_clear_error();
  SSL_CTX_set_verify(ctx_.get(), SSL_VERIFY_NONE, nullptr);
}

void SslClientSocket::SetRole(SSL* ssl) { SSL_set_connect_state(ssl); }

bool SslClientSocket::NamesHost(X509* cert) const {
  if (HostMatches(peer_common_name, expected_host)) return true;
  std::unique_ptr<GENERAL_NAMES, GeneralNamesDeleter> names(
      static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(cert, NID_subject_alt_name, nullptr, nullptr)));
  if (names == nullptr) return false;
  for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
    const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), i);
    if (name->type != GEN_DNS) continue;
    const ASN1_IA5STRING* dns = name->d.dNSName;
    std::string text(reinterpret_cast<const char*>(ASN1_STRING_get0_data(dns)),
                     static_cast<size_t>(ASN1_STRING_length(dns)));
    if (HostMatches(text, expected_host)) return true;
  }
  return false;
}

// The signature text alone is public: anyone can copy it into a
// certificate of their own key.  So it must also be the issuer's signature
// over this certificate.
bool SslClientSocket::SignedByIssuer(X509* cert) const {
  EVP_PKEY* issuer_key = nullptr;
  if (X509_NAME_cmp(X509_get_issuer_name(cert), X509_get_subject_name(cert)) == 0) {
    issuer_key = X509_get0_pubkey(cert);
  } else {
    // The server's chain starts with the leaf; its issuer, when sent, comes next.
    STACK_OF(X509)* chain = SSL_get_peer_cert_chain(ssl());
    if (chain == nullptr || sk_X509_num(chain) < 2) return true;  // by the text alone
    issuer_key = X509_get0_pubkey(sk_X509_value(chain, 1));
  }
  const bool verified = issuer_key != nullptr && X509_verify(cert, issuer_key) == 1;
  ERR_clear_error();
  return verified;
}

int SslClientSocket::CheckPeer() {
  X509* cert = PeerCertificate();
  if (cert == nullptr) {
    SetError(kErrIO);
    return -1;
  }
  peer_common_name = CommonName(cert);
  verify_result = SSL_get_verify_result(ssl());
  if (!verify) {
    if (!expected_signature.empty() &&
        (SignatureText(cert) != expected_signature || !SignedByIssuer(cert))) {
      SetError(kErrSslSignature);
      return -1;
    }
    return 0;
  }
  if (verify_result != X509_V_OK) {
    LOG_DEBUG("channel_debug", "certificate verification: %s",
              X509_verify_cert_error_string(verify_result));
    SetError(kErrSslVerify);
    return -1;
  }
  if (!expected_host.empty() && !NamesHost(cert)) {
    SetError(kErrSslHost);
    return -1;
  }
  return 0;
}

SslServerSocket::SslServerSocket() {
  ctx_.reset(SSL_CTX_new(TLS_server_method()));
  if (ctx_ == nullptr) {
    DrainErrors();
    return;
  }
  SSL_CTX_set_options(ctx_.get(), SSL_OP_NO_SSLv2 | SSL_OP_NO_SSLv3);
  int groups[] = {NID_X9_62_prime256v1};
  if (SSL_CTX_set1_groups(ctx_.get(), groups, 1) != 1) DrainErrors();
}

void SslServerSocket::SetRole(SSL* ssl) { SSL_set_accept_state(ssl); }

int SslServerSocket::SetCipherList(const std::string& cipher_list) {
  if (ctx_ == nullptr || SSL_CTX_set_cipher_list(ctx_.get(), cipher_list.c_str()) != 1) {
    DrainErrors();
    return -1;
  }
  return 0;
}

int SslServerSocket::SetPrivateKeyFile(const std::string& path) {
  if (ctx_ == nullptr ||
      SSL_CTX_use_PrivateKey_file(ctx_.get(), path.c_str(), SSL_FILETYPE_PEM) != 1) {
    DrainErrors();
    return -1;
  }
  return 0;
}

int SslServerSocket::SetCertificateChainFile(const std::string& path) {
  if (ctx_ == nullptr || SSL_CTX_use_certificate_chain_file(ctx_.get(), path.c_str()) != 1) {
    DrainErrors();
    return -1;
  }
  return 0;
}

}  // namespace cat
