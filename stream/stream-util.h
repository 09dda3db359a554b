// What the pieces of PStream share (stream.cc: the frame and the encoder,
// stream_read.cc and stream_read_containers.cc: the decoder,
// stream_binary.cc: files both ways): the log component, the memory costs
// counted against the size cap and small helpers.  Included by those files
// only.
#ifndef VESTA_STREAM_STREAM_UTIL_H_
#define VESTA_STREAM_STREAM_UTIL_H_

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "stream/PObject.h"

namespace stream_util {

constexpr char kComponent[] = "stream";

// The first piece of a string or buffer body read past the window; later
// pieces grow with what has arrived, so memory follows the bytes received,
// not the length announced.
constexpr size_t kFirstPiece = 4096;

// Memory footprints counted against the size cap.  Every allocation is
// counted with the allocator's own overhead.
constexpr size_t kAllocOverhead = 16;
// An array: the vector object, and the block of its elements.
constexpr size_t kArrayCost = sizeof(PObject::array_type) + 2 * kAllocOverhead;
// A map: its header, in one block with its members.
constexpr size_t kMapCost = sizeof(PObject::map_type) + kAllocOverhead;
// A member: its key and value in the map's block; a key too long to sit in
// the member has a block of its own.
inline size_t MemberCost(size_t key_length) {
  return sizeof(PObjectMember) +
         (key_length > PObjectKey::kInlineMax ? key_length + kAllocOverhead : 0);
}
// A string value too long for the slot: one block with its length, its
// text and a terminating zero.
inline size_t LongStringCost(size_t length) {
  return length > PObject::kInlineStringMax ? sizeof(size_t) + length + 1 + kAllocOverhead : 0;
}

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
