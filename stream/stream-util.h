// What the pieces of PStream share (stream.cc: the frame and the encoder,
// stream_read.cc: the decoder, stream_binary.cc: files both ways): the log
// component and small helpers.  Included by those three files only.
#ifndef VESTA_STREAM_STREAM_UTIL_H_
#define VESTA_STREAM_STREAM_UTIL_H_

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace stream_util {

constexpr char kComponent[] = "stream";

// The first piece of a string or buffer body read past the window; later
// pieces grow with what has arrived, so memory follows the bytes received,
// not the length announced.
constexpr size_t kFirstPiece = 4096;

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
