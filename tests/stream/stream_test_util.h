// Helpers of the encoding tests: bytes from hex, values through standard
// streams and through a Channel on a socket pair.
#ifndef VESTA_TESTS_STREAM_STREAM_TEST_UTIL_H_
#define VESTA_TESTS_STREAM_STREAM_TEST_UTIL_H_

#include <sys/socket.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include "net/channel.h"
#include "stream/PObject.h"
#include "stream/stream.h"
#include "tests/common/log_capture.h"
#include "tests/common/shell.h"

// "42 10 00 01 61" -> the bytes.
inline std::string Hex(const std::string& text) {
  std::istringstream in(text);
  std::string out;
  for (std::string byte; in >> byte;)
    out.push_back(static_cast<char>(std::stoi(byte, nullptr, 16)));
  return out;
}

// A string value's wire form: tag, 16-bit length, bytes.
inline std::string WireString(const std::string& text) {
  return Hex("10") + static_cast<char>(text.size() >> 8) + static_cast<char>(text.size()) + text;
}

inline int EncodeToString(const PObject& value, std::string* bytes, PStream* stream = nullptr) {
  PStream local;
  std::ostringstream out;
  int rc = (stream != nullptr ? stream : &local)->Send(&out, value);
  *bytes = out.str();
  return rc;
}

inline int DecodeFromString(const std::string& bytes, PObject* value, PStream* stream = nullptr) {
  PStream local;
  std::istringstream in(bytes);
  return (stream != nullptr ? stream : &local)->Recv(&in, value);
}

// Decodes `bytes` arriving on a Channel whose peer then closes.  For inputs
// that fit in the socket buffers.
inline int DecodeThroughChannel(const std::string& bytes, PObject* value,
                                PStream* stream = nullptr) {
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return -100;
  bool written = write(sv[1], bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  close(sv[1]);
  Channel channel;
  channel.Open(sv[0], false);
  if (!written) return -102;
  PStream local;
  return (stream != nullptr ? stream : &local)->Recv(&channel, value);
}

#endif  // VESTA_TESTS_STREAM_STREAM_TEST_UTIL_H_
