#include "db/base64.h"

#include <cassert>
#include <cstdint>

namespace {

const char kStandardAlphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const char kUrlSafeAlphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

bool ValidMode(int mode) { return mode >= kBase64Standard && mode <= kBase64UrlSafeNoPad; }

const char* AlphabetOf(int mode) {
  return (mode == kBase64UrlSafe || mode == kBase64UrlSafeNoPad) ? kUrlSafeAlphabet
                                                                 : kStandardAlphabet;
}

bool PadsIn(int mode) { return mode == kBase64Standard || mode == kBase64UrlSafe; }

// Value of one character in the alphabet, or -1.
int ValueOf(const char* alphabet, char c) {
  for (int i = 0; i < 64; ++i) {
    if (alphabet[i] == c) return i;
  }
  return -1;
}

size_t EncodedLength(size_t len, bool pad) {
  size_t full = len / 3 * 4;
  size_t rest = len % 3;
  if (rest == 0) return full;
  return full + (pad ? 4 : rest + 1);
}

}  // namespace

int Base64Encode(const void* data, size_t len, int mode, std::string* out) {
  out->clear();
  if (!ValidMode(mode)) return -1;
  const bool pad = PadsIn(mode);
  if (len > kBase64MaxOutput || EncodedLength(len, pad) > kBase64MaxOutput) return -1;
  const char* alphabet = AlphabetOf(mode);
  const uint8_t* in = static_cast<const uint8_t*>(data);
  out->reserve(EncodedLength(len, pad));
  size_t i = 0;
  for (; i + 3 <= len; i += 3) {
    uint32_t group = (uint32_t{in[i]} << 16) | (uint32_t{in[i + 1]} << 8) | in[i + 2];
    out->push_back(alphabet[(group >> 18) & 63]);
    out->push_back(alphabet[(group >> 12) & 63]);
    out->push_back(alphabet[(group >> 6) & 63]);
    out->push_back(alphabet[group & 63]);
  }
  size_t rest = len - i;
  if (rest > 0) {
    uint32_t group = uint32_t{in[i]} << 16;
    if (rest == 2) group |= uint32_t{in[i + 1]} << 8;
    out->push_back(alphabet[(group >> 18) & 63]);
    out->push_back(alphabet[(group >> 12) & 63]);
    if (rest == 2) out->push_back(alphabet[(group >> 6) & 63]);
    if (pad) out->append(3 - rest, '=');
  }
  assert(out->size() == EncodedLength(len, pad));
  return 0;
}

int Base64Decode(const std::string& text, int mode, std::string* out) {
  out->clear();
  if (!ValidMode(mode)) return -1;
  const char* alphabet = AlphabetOf(mode);
  size_t body = text.size();
  while (body > 0 && text[body - 1] == '=') --body;
  size_t padding = text.size() - body;
  // Padding, when written, fills the last group of four exactly.
  if (padding > 0 && (padding > 2 || text.size() % 4 != 0)) return -1;
  if (body % 4 == 1) return -1;

  uint32_t bits = 0;
  int bit_count = 0;
  for (size_t i = 0; i < body; ++i) {
    int v = ValueOf(alphabet, text[i]);
    if (v < 0) {
      out->clear();
      return -1;
    }
    bits = (bits << 6) | static_cast<uint32_t>(v);
    bit_count += 6;
    if (bit_count >= 8) {
      bit_count -= 8;
      out->push_back(static_cast<char>((bits >> bit_count) & 0xFF));
    }
  }
  return 0;
}
