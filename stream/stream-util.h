// What the pieces of PStream share (stream.cc: the frame and the encoder,
// stream_read.cc and stream_read_containers.cc: the decoder,
// stream_binary.cc: files both ways): the log component, the memory costs
// charged against the size cap and small helpers.  Included by those files
// only.
#ifndef VESTA_STREAM_STREAM_UTIL_H_
#define VESTA_STREAM_STREAM_UTIL_H_

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "stream/PObject.h"

namespace stream_util {

constexpr char kComponent[] = "stream";

// The first piece of a buffer body read past the window when no size cap
// is set; later pieces grow with what has arrived, so memory follows the
// bytes received, not the length announced.
constexpr size_t kFirstPiece = 4096;

// Memory charged against the size cap, in 64-bit arithmetic whatever the
// width of size_t: a length announced near 4 GiB must not wrap to a small
// charge.  A block of `bytes` is charged as the C allocator holds it: with
// its header, rounded up to 16 bytes, at least four words.  That is glibc's
// chunk on 64-bit targets and bounds it on 32-bit ones; a block big enough
// to be mapped on its own also fills its last page, under 1/32 more.
inline uint64_t BlockCost(uint64_t bytes) {
  constexpr uint64_t kHeader = sizeof(size_t), kAlign = 16, kSmallest = 4 * sizeof(size_t);
  return std::max(kSmallest, (bytes + kHeader + kAlign - 1) / kAlign * kAlign);
}
// A std::string's own block: none while its text fits the string's inline
// room.
inline uint64_t StdStringCost(uint64_t length) {
  static const size_t inline_room = std::string().capacity();
  return length > inline_room ? BlockCost(length + 1) : 0;
}
// A string value: its block, when it does not sit in the slot.
inline uint64_t StringCost(std::string_view text) {
  const size_t block = PObject::StringBlockSize(text);
  return block > 0 ? BlockCost(block) : 0;
}
// A map member: its tree node (three links and a colour beside the key and
// the value) and its key's block.
inline uint64_t MemberCost(uint64_t key_length) {
  return BlockCost(4 * sizeof(void*) + sizeof(PObject::map_type::value_type)) +
         StdStringCost(key_length);
}
// The block of `n` array elements.
inline uint64_t ElementsCost(uint64_t n) { return BlockCost(n * sizeof(PObject)); }

inline unsigned long long ULL(uint64_t v) { return static_cast<unsigned long long>(v); }

// Names the digest of the one binary inside a binary_ex, and clears it on
// every path out.  A null slot does nothing.
class HashAlgoScope {
 public:
  HashAlgoScope(std::string* slot, const std::string& algo) : slot_(slot) {
    if (slot_ != nullptr) *slot_ = algo;
  }
  ~HashAlgoScope() {
    if (slot_ != nullptr) slot_->clear();
  }
  HashAlgoScope(const HashAlgoScope&) = delete;
  HashAlgoScope& operator=(const HashAlgoScope&) = delete;

 private:
  std::string* slot_;
};

}  // namespace stream_util

#endif  // VESTA_STREAM_STREAM_UTIL_H_
