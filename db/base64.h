// Base64 for the few places that put bytes into text: the stored proxy
// password, the login signature and the signed login message.
//
// The mode picks the alphabet and whether "=" padding is written:
//   kBase64Standard          0  "+/" with padding
//   kBase64StandardNoPad     1  "+/" without padding
//   kBase64UrlSafe           2  "-_" with padding
//   kBase64UrlSafeNoPad      3  "-_" without padding
// Pure functions; safe from any thread.
#ifndef VESTA_DB_BASE64_H_
#define VESTA_DB_BASE64_H_

#include <cstddef>
#include <string>

enum Base64Mode {
  kBase64Standard = 0,
  kBase64StandardNoPad = 1,
  kBase64UrlSafe = 2,
  kBase64UrlSafeNoPad = 3,
};

// The encoder writes into a fixed area of this many characters; longer
// results are refused (a 16384-bit signature still fits).
constexpr size_t kBase64MaxOutput = 3072;

// Encodes `len` bytes of `data` into `out` (replaced).  0 on success; -1 for
// an unknown mode or when the text would exceed kBase64MaxOutput characters
// (`out` is then empty).
int Base64Encode(const void* data, size_t len, int mode, std::string* out);
inline int Base64Encode(const std::string& data, int mode, std::string* out) {
  return Base64Encode(data.data(), data.size(), mode, out);
}

// Decodes `text` written in the mode's alphabet into `out` (replaced).
// Padding is optional in every mode, but when present it must complete the
// last group of four.  0 on success; -1 for an unknown mode, a character
// outside the alphabet, misplaced padding or a dangling single character
// (`out` is then empty).
int Base64Decode(const std::string& text, int mode, std::string* out);

#endif  // VESTA_DB_BASE64_H_
