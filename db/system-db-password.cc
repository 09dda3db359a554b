// The stored form of the proxy password: Blowfish CFB-64, then base64.
#include "db/system-db.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <memory>
#include <string>

#include "db/base64.h"

namespace {

// The Blowfish key of the stored proxy password.  The user-interface back
// end encrypts with the same four bytes.
const unsigned char kProxyPasswordKey[4] = {0x5c, 0x3a, 0x9e, 0x71};

// Blowfish lives in OpenSSL's legacy provider; a library context of our own
// holds it (with the default provider) so the rest of the process keeps the
// default set-up.  Created once, kept for the process's life; null when
// either provider could not be loaded.
OSSL_LIB_CTX* CipherContext() {
  static OSSL_LIB_CTX* const ctx = [] {
    OSSL_LIB_CTX* c = OSSL_LIB_CTX_new();
    if (c != nullptr && (OSSL_PROVIDER_load(c, "legacy") == nullptr ||
                         OSSL_PROVIDER_load(c, "default") == nullptr)) {
      OSSL_LIB_CTX_free(c);
      c = nullptr;
    }
    // A failed load leaves its errors queued on this thread, where a later
    // TLS call would take them for its own.
    ERR_clear_error();
    return c;
  }();
  return ctx;
}

struct CipherFree {
  void operator()(EVP_CIPHER* c) const { EVP_CIPHER_free(c); }
};
struct CipherCtxFree {
  void operator()(EVP_CIPHER_CTX* c) const { EVP_CIPHER_CTX_free(c); }
};

// Blowfish CFB-64 over `in` with the password key and a zero vector;
// `encrypt` picks the direction.  The output has the input's length.
int ProxyPasswordCipher(const std::string& in, bool encrypt, std::string* out) {
  out->clear();
  OSSL_LIB_CTX* lib = CipherContext();
  if (lib == nullptr) return -1;
  std::unique_ptr<EVP_CIPHER, CipherFree> cipher(EVP_CIPHER_fetch(lib, "BF-CFB", nullptr));
  std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree> ctx(EVP_CIPHER_CTX_new());
  if (!cipher || !ctx) return -1;
  const int enc = encrypt ? 1 : 0;
  const unsigned char iv[8] = {0};
  if (EVP_CipherInit_ex2(ctx.get(), cipher.get(), nullptr, nullptr, enc, nullptr) != 1 ||
      EVP_CIPHER_CTX_set_key_length(ctx.get(), sizeof(kProxyPasswordKey)) != 1 ||
      EVP_CipherInit_ex2(ctx.get(), nullptr, kProxyPasswordKey, iv, enc, nullptr) != 1) {
    return -1;
  }
  std::string buffer(in.size() + EVP_MAX_BLOCK_LENGTH, '\0');
  unsigned char* dst = reinterpret_cast<unsigned char*>(&buffer[0]);
  int len = 0, tail = 0;
  if (EVP_CipherUpdate(ctx.get(), dst, &len, reinterpret_cast<const unsigned char*>(in.data()),
                       static_cast<int>(in.size())) != 1 ||
      EVP_CipherFinal_ex(ctx.get(), dst + len, &tail) != 1) {
    return -1;
  }
  buffer.resize(static_cast<size_t>(len + tail));
  out->swap(buffer);
  return 0;
}

}  // namespace

bool SystemDB::ProxyPasswordCipherLoaded() { return CipherContext() != nullptr; }

int SystemDB::EncodeProxyPassword(const std::string& plain, std::string* stored) {
  stored->clear();
  if (plain.empty()) return 0;
  std::string cipher_text;
  if (ProxyPasswordCipher(plain, true, &cipher_text) != 0) return -1;
  return Base64Encode(cipher_text, kBase64Standard, stored);
}

int SystemDB::DecodeProxyPassword(const std::string& stored, std::string* plain) {
  plain->clear();
  // Most rows hold no password; the cipher's set-up costs more than a row.
  if (stored.empty()) return 0;
  std::string cipher_text;
  if (Base64Decode(stored, kBase64Standard, &cipher_text) != 0) return -1;
  if (ProxyPasswordCipher(cipher_text, false, plain) != 0) return -1;
  size_t nul = plain->find('\0');
  if (nul != std::string::npos) plain->resize(nul);
  return 0;
}
