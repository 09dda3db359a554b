// libFuzzer target of the wire decoder.  Every input is decoded twice: from
// a standard stream, and from a Channel on a socket pair with received files
// thrown away (so the binary paths run too).  A value that decodes must
// encode and decode again to the same value and the same bytes.
//
// Built and run by tools/fuzz.sh.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "net/channel.h"
#include "stream/PObject.h"
#include "stream/stream.h"

namespace {

// Values that one trip changes on purpose are not re-encoded: files travel
// only over a Channel, and a key's leading '_' is dropped on the way out.
bool ChangesOnTheWire(const PObject& value) {
  if (value.IsBinary() || value.IsBinaryEx()) return true;
  for (const PObject& e : value.AsArray()) {
    if (ChangesOnTheWire(e)) return true;
  }
  for (const auto& m : value.AsMap()) {
    if (!m.first.empty() && m.first[0] == '_') return true;
    if (ChangesOnTheWire(m.second)) return true;
  }
  return false;
}

// Any other value must decode from its encoding to itself, and encode again
// to the same bytes.
void CheckRoundTrip(const PObject& value) {
  std::ostringstream first;
  PStream writer;
  if (writer.Send(&first, value) != 0) abort();
  PObject again;
  std::istringstream in(first.str());
  PStream reader;
  if (reader.Recv(&in, &again) != 0 || !(again == value)) abort();
  std::ostringstream second;
  if (writer.Send(&second, again) != 0 || first.str() != second.str()) abort();
}

void DecodeFromChannel(const uint8_t* data, size_t size) {
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return;
  // Inputs are small (libFuzzer's -max_len): they fit in the socket buffer.
  size_t done = 0;
  while (done < size) {
    ssize_t n = write(sv[1], data + done, size - done);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  close(sv[1]);
  Channel channel;
  if (channel.Open(sv[0], false) != 0) return;
  PStream stream;
  stream.SetDiscardBinaries(true);
  stream.SetDefaultHashAlgo("sha256");
  PObject value;
  stream.Recv(&channel, &value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  PStream stream;
  PObject value;
  if (stream.Recv(&in, &value) == 0 && !ChangesOnTheWire(value)) CheckRoundTrip(value);
  DecodeFromChannel(data, size);
  return 0;
}
