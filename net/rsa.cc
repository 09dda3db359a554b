#include "net/rsa.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <vector>

#include "db/base64.h"
#include "log/log.h"
#include "net/cat/ssl_socket.h"

namespace {

const char kComponent[] = "cryptocpp_debug";

struct PkeyCtxDeleter {
  void operator()(EVP_PKEY_CTX* ctx) const { EVP_PKEY_CTX_free(ctx); }
};
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, PkeyCtxDeleter>;

// Refuses every pass phrase request, so an encrypted key fails at once
// instead of prompting on a terminal.
int NoPassphrase(char* /*buf*/, int /*size*/, int /*rwflag*/, void* /*user*/) { return -1; }

// The first queued OpenSSL error and its text; the rest of the thread's
// queue is dropped so it cannot be blamed on a later call.
unsigned long TakeError(std::string* text) {
  unsigned long code = ERR_get_error();
  char buf[256];
  ERR_error_string_n(code, buf, sizeof(buf));
  *text = buf;
  ERR_clear_error();
  return code;
}

}  // namespace

RsaKey RsaKey::FromPem(const std::string& pem) {
  RsaKey key;
  cat::BioPtr bio(BIO_new_mem_buf(pem.c_str(), -1));
  if (bio == nullptr) {
    LOG_ERROR(kComponent, "Failed to create bio.");
    return key;
  }
  EVP_PKEY* raw = PEM_read_bio_PrivateKey(bio.get(), nullptr, NoPassphrase, nullptr);
  if (raw != nullptr && EVP_PKEY_get_base_id(raw) != EVP_PKEY_RSA) {
    EVP_PKEY_free(raw);
    raw = nullptr;
    ERR_raise(ERR_LIB_EVP, EVP_R_EXPECTING_AN_RSA_KEY);
  }
  if (raw == nullptr) {
    std::string reason;
    unsigned long code = TakeError(&reason);
    LOG_ERROR(kComponent, "Failed to read rsa private key. (code: %lu, reason: '%s')", code,
              reason.c_str());
    return key;
  }
  key.key_.reset(raw);
  return key;
}

int RsaKey::Sign(const std::string& message, std::string* signature) const {
  if (!IsValid()) {
    LOG_ERROR(kComponent, "Rsa key is not valid.");
    return -1;
  }
  std::vector<unsigned char> sig(static_cast<size_t>(EVP_PKEY_get_size(key_.get())), 0);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digest_len = 0;
  size_t sig_len = sig.size();
  PkeyCtxPtr ctx(EVP_PKEY_CTX_new(key_.get(), nullptr));
  // Equivalent of RSA_sign(NID_md5, ...): PKCS #1 v1.5 padding around the
  // MD5 DigestInfo of the message digest.
  bool ok = EVP_Digest(message.data(), message.size(), digest, &digest_len, EVP_md5(),
                       nullptr) == 1 &&
            ctx != nullptr && EVP_PKEY_sign_init(ctx.get()) == 1 &&
            EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) == 1 &&
            EVP_PKEY_CTX_set_signature_md(ctx.get(), EVP_md5()) == 1 &&
            EVP_PKEY_sign(ctx.get(), sig.data(), &sig_len, digest, digest_len) == 1;
  if (!ok) {
    std::string reason;
    unsigned long code = TakeError(&reason);
    LOG_ERROR(kComponent, "Failed to sign message digest. (code: %lu, reason: '%s')", code,
              reason.c_str());
    return -1;
  }
  std::string text;
  if (Base64Encode(sig.data(), sig_len, kBase64Standard, &text) != 0) {
    LOG_ERROR(kComponent, "Failed to encode base64.");
    return -1;
  }
  *signature = std::move(text);
  return 0;
}
