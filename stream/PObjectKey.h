// PObjectKey: the key of a map member.  Keys of up to 23 bytes -- nearly
// every key the daemon and its peers use -- live inside the 24-byte object;
// a longer one owns a block of its own.  Any byte may occur in a key.
//
// Layout: byte 23 tells the form.  Inline, it holds 23 minus the length, so
// a 23-byte key ends in a zero byte; out of line it holds kHeap, and the
// first two words are the block and the length.  Nothing in a key points
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

  // Becomes the `length` (at most kInlineMax) bytes at `text`, of which 24
  // must be readable: whole words are copied, so that reading the key back
  // soon after costs no stall.  Bytes past the text are left unspecified.
  void AssignShort(const void* text, size_t length) {
    Release();
    uint64_t words[3];
    memcpy(words, text, kSize);
    const uint64_t tail = kInlineMax - length;  // byte 23, set in the word
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    words[2] = (words[2] & 0x00FFFFFFFFFFFFFFull) | (tail << 56);
#else
    words[2] = (words[2] & ~0xFFull) | tail;
#endif
    memcpy(bytes_, words, kSize);
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
    bytes_[0] = 0;
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
  // Both keys inline: word by word, the bytes read as one big-endian number.
  int CompareInline(const PObjectKey& other) const {
    const size_t na = size(), nb = other.size();
    const size_t n = na < nb ? na : nb;
    for (size_t i = 0; i < n; i += 8) {
      uint64_t x, y;
      memcpy(&x, bytes_ + i, 8);
      memcpy(&y, other.bytes_ + i, 8);
      if (x == y) continue;
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
      x = __builtin_bswap64(x);
      y = __builtin_bswap64(y);
#endif
      if (n - i < 8) {  // only the first n - i bytes of this word count
        x >>= 8 * (8 - (n - i));
        y >>= 8 * (8 - (n - i));
        if (x == y) break;
      }
      return x < y ? -1 : 1;
    }
    return na < nb ? -1 : (na > nb ? 1 : 0);
  }

  alignas(8) uint8_t bytes_[kSize];
};

// Bytewise order, a shorter key first on a common prefix.
inline bool operator==(const PObjectKey& a, std::string_view b) { return a.view() == b; }
inline bool operator!=(const PObjectKey& a, std::string_view b) { return a.view() != b; }
inline bool operator==(const PObjectKey& a, const PObjectKey& b) { return a.Compare(b) == 0; }
inline bool operator!=(const PObjectKey& a, const PObjectKey& b) { return a.Compare(b) != 0; }
inline bool operator<(const PObjectKey& a, const PObjectKey& b) { return a.Compare(b) < 0; }

#endif  // VESTA_STREAM_POBJECTKEY_H_
