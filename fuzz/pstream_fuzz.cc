// libFuzzer target of the wire decoder (tools/fuzz.sh): each input decoded
// from a standard stream, where a decoded value must trip again to the same
// value and bytes, and from a Channel as the daemon decodes every request
// and reply (files refused, under a size cap).
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
    if ((!m.first.empty() && m.first[0] == '_') || ChangesOnTheWire(m.second)) return true;
  }
  return false;
}

// Any other value must decode from its encoding to itself, and encode again
// to the same bytes.
void CheckRoundTrip(const PObject& value) {
  std::ostringstream first, second;
  if (PStream().Send(&first, value) != 0) abort();
  PObject again;
  std::istringstream in(first.str());
  if (PStream().Recv(&in, &again) != 0 || !(again == value)) abort();
  if (PStream().Send(&second, again) != 0 || first.str() != second.str()) abort();
}

// Decodes the input arriving on a Channel through `stream`.
void DecodeFromChannel(const uint8_t* data, size_t size, PStream* stream) {
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return;
  // Inputs are small (libFuzzer's -max_len): they fit in the socket buffer.
  if (write(sv[1], data, size) != static_cast<ssize_t>(size)) abort();
  close(sv[1]);
  Channel channel;
  PObject value;
  if (channel.Open(sv[0], false) == 0) stream->Recv(&channel, &value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  PObject value;
  if (PStream().Recv(&in, &value) == 0 && !ChangesOnTheWire(value)) CheckRoundTrip(value);

  PStream guarded;
  guarded.SetRefuseBinaries(true);
  guarded.SetSizeCap(size * 8);
  DecodeFromChannel(data, size, &guarded);
  return 0;
}
