// PObjectKey: the key of a map member.  Keys of up to 23 bytes -- nearly
// every key the daemon and its peers use -- live inside the 24-byte object;
// a longer one owns a block of its own.  Any byte may occur in a key.
//
// Layout: byte 23 tells the form.  Inline, it holds 23 minus the length, so
// a 23-byte key ends in a zero byte, and the text is padded with zero bytes
// up to byte 22; out of line it holds kHeap, and the first two words are the
// block and the length.  Nothing in a key points
// into the key itself, so its bytes may be moved as they stand.
#ifndef VESTA_STREAM_POBJECTKEY_H_
#define VESTA_STREAM_POBJECTKEY_H_

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <string_view>

class PObjectKey {
 public:
  // Longest key held inside the object.
  static constexpr size_t kInlineMax = 23;

  PObjectKey() noexcept { SetEmpty(); }
  explicit PObjectKey(std::string_view text) { Init(text); }
  PObjectKey(const PObjectKey& other) { Init(other.view()); }
  PObjectKey(PObjectKey&& other) noexcept {
    memcpy(bytes_, other.bytes_, kSize);
    other.SetEmpty();
  }
  PObjectKey& operator=(const PObjectKey& other) {
    if (this != &other) *this = PObjectKey(other);
    return *this;
  }
  PObjectKey& operator=(PObjectKey&& other) noexcept {
    if (this != &other) {
      Release();
      memcpy(bytes_, other.bytes_, kSize);
      other.SetEmpty();
    }
    return *this;
  }
  ~PObjectKey() { Release(); }

  std::string_view view() const {
    if (IsInline()) return std::string_view(reinterpret_cast<const char*>(bytes_), size());
    return std::string_view(HeapText(), size());
  }
  operator std::string_view() const { return view(); }  // NOLINT: reads like a string
  operator std::string() const { return std::string(view()); }  // NOLINT: idem
  std::string str() const { return std::string(view()); }

  const char* data() const { return view().data(); }
  size_t size() const {
    if (IsInline()) return kInlineMax - bytes_[kLast];
    size_t n;
    memcpy(&n, bytes_ + sizeof(char*), sizeof(n));
    return n;
  }
  bool empty() const { return size() == 0; }
  char operator[](size_t i) const { return view()[i]; }

  // True when the key sits inside the object (tests and diagnostics).
  bool IsInline() const { return bytes_[kLast] <= kInlineMax; }

  // The `length` (at most kInlineMax) bytes at `text`, of which 24 must be
  // readable: whole words are copied, so that reading the key back soon
  // after costs no stall.
  struct FromPadded {};
  PObjectKey(FromPadded, const void* text, size_t length) { SetShort(text, length); }
  void AssignShort(const void* text, size_t length) {
    Release();
    SetShort(text, length);
  }

  // <0, 0 or >0 as this key sorts before, with or after `other`.
  int Compare(const PObjectKey& other) const {
    if (IsInline() && other.IsInline()) return CompareInline(other);
    return view().compare(other.view());
  }

 private:
  static constexpr size_t kSize = 24;
  static constexpr size_t kLast = kSize - 1;
  static constexpr uint8_t kHeap = 0xFF;

  void SetEmpty() {
    memset(bytes_, 0, kLast);
    bytes_[kLast] = kInlineMax;
  }
  const char* HeapText() const {
    const char* p;
    memcpy(&p, bytes_, sizeof(p));
    return p;
  }
  void Init(std::string_view text);
  void Release() {
    if (!IsInline()) ReleaseHeap();
  }
  void ReleaseHeap();
  void SetShort(const void* text, size_t length) {
    // kTextBytes + 24 - length: `length` bytes 0xFF, then zeros.
    uint64_t words[3], masks[3];
    memcpy(words, text, kSize);
    memcpy(masks, kTextBytes + kSize - length, kSize);
    for (size_t i = 0; i < 3; ++i) words[i] &= masks[i];
    const uint64_t form = kInlineMax - length;  // byte 23
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    words[2] |= form << 56;
#else
    words[2] |= form;
#endif
    memcpy(bytes_, words, kSize);
  }
  // Both keys inline: the text is padded with zero bytes up to byte 22, so
  // the words read as big-endian numbers order the keys, and equal words
  // leave it to the lengths.
  int CompareInline(const PObjectKey& other) const {
    for (size_t i = 0; i < kSize; i += 8) {
      uint64_t x, y;
      memcpy(&x, bytes_ + i, 8);
      memcpy(&y, other.bytes_ + i, 8);
      if (i == 16) {  // leave the form byte out
        uint64_t text;
        memcpy(&text, kTextBytes + 1 + 16, 8);  // bytes 16 to 22
        x &= text;
        y &= text;
      }
      if (x == y) continue;
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
      x = __builtin_bswap64(x);
      y = __builtin_bswap64(y);
#endif
      return x < y ? -1 : 1;
    }
    const size_t na = size(), nb = other.size();
    return na < nb ? -1 : (na > nb ? 1 : 0);
  }

  // 24 bytes 0xFF, then 24 zero bytes: masks of the text bytes of a key.
  static const uint8_t kTextBytes[2 * kSize];

  alignas(8) uint8_t bytes_[kSize];
};

// Bytewise order, a shorter key first on a common prefix.
inline bool operator==(const PObjectKey& a, std::string_view b) { return a.view() == b; }
inline bool operator!=(const PObjectKey& a, std::string_view b) { return a.view() != b; }
inline bool operator==(const PObjectKey& a, const PObjectKey& b) { return a.Compare(b) == 0; }
inline bool operator!=(const PObjectKey& a, const PObjectKey& b) { return a.Compare(b) != 0; }
inline bool operator<(const PObjectKey& a, const PObjectKey& b) { return a.Compare(b) < 0; }

#endif  // VESTA_STREAM_POBJECTKEY_H_
