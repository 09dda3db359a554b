#include "platform/utf8_case.h"

#include <locale.h>
#include <wctype.h>

#include <cstdint>

namespace {

// The next code point of a UTF-8 text; a byte that starts no valid sequence
// stands for itself, shifted out of the Unicode range so that it only ever
// equals the same byte.
uint32_t NextCodePoint(const unsigned char*& p) {
  const unsigned char c = *p;
  int extra = c < 0x80 ? 0 : (c & 0xe0) == 0xc0 ? 1 : (c & 0xf0) == 0xe0 ? 2 : (c & 0xf8) == 0xf0 ? 3 : -1;
  if (extra < 0) {
    ++p;
    return 0x110000u + c;
  }
  uint32_t cp = extra == 0 ? c : c & (0x3f >> extra);
  for (int i = 1; i <= extra; ++i) {
    if ((p[i] & 0xc0) != 0x80) {
      ++p;
      return 0x110000u + c;
    }
    cp = (cp << 6) | (p[i] & 0x3f);
  }
  p += extra + 1;
  return cp;
}

uint32_t FoldCase(uint32_t cp) {
  static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
  if (cp >= 0x110000u) return cp;
  if (utf8 == static_cast<locale_t>(0)) return cp < 0x80 && cp >= 'A' && cp <= 'Z' ? cp + 32 : cp;
  return static_cast<uint32_t>(towlower_l(static_cast<wint_t>(cp), utf8));
}

}  // namespace

bool Utf8CaseEqual(const char* a, const char* b, size_t b_len) {
  const unsigned char* pa = reinterpret_cast<const unsigned char*>(a);
  const unsigned char* pb = reinterpret_cast<const unsigned char*>(b);
  const unsigned char* end_b = pb + b_len;
  while (*pa != '\0' && pb < end_b) {
    if (FoldCase(NextCodePoint(pa)) != FoldCase(NextCodePoint(pb))) return false;
  }
  return *pa == '\0' && pb >= end_b;
}

