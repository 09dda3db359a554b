// RsaKey: the client's RSA private key for the key-based login to a remote
// server.  The login proves possession of the key by signing a short message
// (see ProtoUI's authentication); this class loads the key from its PEM text
// and produces the signature text the server checks.
//
// The signature is PKCS #1 v1.5 over the MD5 digest of the message (the
// MD5 DigestInfo inside), base64 in the standard alphabet with "=" padding
// and no line breaks.  It is deterministic: the same message and key always
// give the same text.  A 2048-bit key gives 256 bytes, 344 characters.
//
// Log lines use the component "cryptocpp_debug".  An RsaKey is a value
// owned by one thread; different keys may be used on different threads.
#ifndef VESTA_NET_RSA_H_
#define VESTA_NET_RSA_H_

#include <openssl/evp.h>

#include <memory>
#include <string>

class RsaKey {
 public:
  // Loads an unencrypted PEM RSA private key (PKCS #1 "RSA PRIVATE KEY" or
  // PKCS #8 "PRIVATE KEY").  An empty key on any failure (logged): empty or
  // malformed text, a key of another algorithm, or a key protected by a pass
  // phrase (none is ever supplied, and nothing prompts for one).
  static RsaKey FromPem(const std::string& pem);

  RsaKey() = default;
  RsaKey(RsaKey&&) noexcept = default;             // the source becomes empty
  RsaKey& operator=(RsaKey&&) noexcept = default;
  RsaKey(const RsaKey&) = delete;
  RsaKey& operator=(const RsaKey&) = delete;

  // True when a key is held.
  bool IsValid() const { return key_ != nullptr; }

  // Signs `message` (any bytes) and sets `signature` to the base64 text.
  // 0, or -1 when no key is held or signing fails (logged; `signature` is
  // then left as it was).
  int Sign(const std::string& message, std::string* signature) const;

 private:
  struct KeyDeleter {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  };

  std::unique_ptr<EVP_PKEY, KeyDeleter> key_;  // null = empty key
};

#endif  // VESTA_NET_RSA_H_
