// Helpers of the encoding tests: byte strings from hex, encoding and
// decoding through standard streams and through a Channel on a socket pair,
// and a log file to read the messages back from.
#ifndef VESTA_TESTS_STREAM_STREAM_TEST_UTIL_H_
#define VESTA_TESTS_STREAM_STREAM_TEST_UTIL_H_

#include <sys/socket.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include "log/logger.h"
#include "net/channel.h"
#include "stream/PObject.h"
#include "stream/stream.h"
#include "tests/common/temp_dir.h"

// "42 10 00 01 61" -> the bytes; blanks are ignored.
inline std::string Hex(const std::string& text) {
  std::string out;
  int high = -1;
  for (char c : text) {
    int v;
    if (c >= '0' && c <= '9') {
      v = c - '0';
    } else if (c >= 'a' && c <= 'f') {
      v = c - 'a' + 10;
    } else if (c >= 'A' && c <= 'F') {
      v = c - 'A' + 10;
    } else {
      continue;
    }
    if (high < 0) {
      high = v;
    } else {
      out.push_back(static_cast<char>(high << 4 | v));
      high = -1;
    }
  }
  return out;
}

// The hex digits of `bytes`, blank-separated, for failure messages.
inline std::string ToHex(const std::string& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) {
    if (!out.empty()) out.push_back(' ');
    out.push_back(kDigits[c >> 4]);
    out.push_back(kDigits[c & 15]);
  }
  return out;
}

// A string value's wire form: tag, 16-bit length, bytes.
inline std::string WireString(const std::string& text) {
  std::string out = Hex("10");
  out.push_back(static_cast<char>(text.size() >> 8));
  out.push_back(static_cast<char>(text.size()));
  return out + text;
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

// Reads everything from `fd` until the peer closes.
inline std::string ReadAll(int fd) {
  std::string out;
  char block[65536];
  for (;;) {
    ssize_t n = read(fd, block, sizeof(block));
    if (n <= 0) break;
    out.append(block, static_cast<size_t>(n));
  }
  return out;
}

inline bool WriteAll(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Encodes through a Channel on one end of a socket pair and returns what the
// other end received.  For values that fit in the socket buffers.
inline int EncodeThroughChannel(const PObject& value, std::string* bytes) {
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return -100;
  int rc;
  {
    Channel channel;
    if (channel.Open(sv[0], false) != 0) return -101;
    PStream stream;
    rc = stream.Send(&channel, value);
  }
  *bytes = ReadAll(sv[1]);
  close(sv[1]);
  return rc;
}

// Decodes `bytes` arriving on a Channel whose peer then closes.
inline int DecodeThroughChannel(const std::string& bytes, PObject* value,
                                PStream* stream = nullptr) {
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return -100;
  bool written = WriteAll(sv[1], bytes);
  close(sv[1]);
  if (!written) {
    close(sv[0]);
    return -102;
  }
  Channel channel;
  if (channel.Open(sv[0], false) != 0) return -101;
  PStream local;
  return (stream != nullptr ? stream : &local)->Recv(&channel, value);
}

// Sends the logger's output to a file below `dir` for the life of the object.
class LogCapture {
 public:
  explicit LogCapture(const TempDir& dir, int stream_level = LOG_LEVEL_WARNING)
      : path_(dir.File("test.log")) {
    Logger::Init(Logger::kFile, path_, "", 2, 0);
    Logger::log_level["stream"] = stream_level;
  }
  ~LogCapture() {
    Logger::Shutdown();
    Logger::log_level.erase("stream");
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::string Text() const {
    fflush(Logger::log_fp);
    return ReadFile(path_);
  }
  // The texts after the "(pid:tid) [LEVEL] file(line): " prefix, one a line.
  std::string Messages() const {
    std::istringstream in(Text());
    std::string line, out;
    while (std::getline(in, line)) {
      size_t cut = line.find("): ");
      out += (cut == std::string::npos ? line : line.substr(cut + 3)) + "\n";
    }
    return out;
  }

 private:
  std::string path_;
};

#endif  // VESTA_TESTS_STREAM_STREAM_TEST_UTIL_H_
