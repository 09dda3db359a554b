// libFuzzer target of the wire decoder (tools/fuzz.sh): each input decoded
// from a standard stream, and from a Channel with files discarded under a
// size cap, or stored into fresh, resumed and binary_ex targets.  A decoded
// value must trip again to the same value and bytes; the bytes before a
// resumed offset, and a binary_ex target's file, survive.
#include <dirent.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
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

// Decodes the input arriving on a Channel through `stream` into `value`.
void DecodeFromChannel(const uint8_t* data, size_t size, PStream* stream, PObject* value) {
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return;
  // Inputs are small (libFuzzer's -max_len): they fit in the socket buffer.
  if (write(sv[1], data, size) != static_cast<ssize_t>(size)) abort();
  close(sv[1]);
  Channel channel;
  if (channel.Open(sv[0], false) != 0) return;
  stream->Recv(&channel, value);
}

// Received files land here and nowhere else (tools/fuzz.sh names it);
// emptied after every input.  Files may not grow past kFileLimit, so an
// announced length never reserves real disk space.
constexpr rlim_t kFileLimit = 1 << 20;

const std::string& Scratch() {
  static const std::string dir = [] {
    const char* named = getenv("PSTREAM_FUZZ_DIR");
    std::string path = named != nullptr ? named : "pstream-fuzz-files";
    mkdir(path.c_str(), 0755);
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit{kFileLimit, kFileLimit};
    setrlimit(RLIMIT_FSIZE, &limit);
    return path;
  }();
  return dir;
}

void EmptyScratch() {
  DIR* d = opendir(Scratch().c_str());
  if (d == nullptr) abort();
  while (struct dirent* e = readdir(d)) {
    std::string name = e->d_name;
    if (name != "." && name != "..") unlink((Scratch() + "/" + name).c_str());
  }
  closedir(d);
}

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void DecodeBinaries(const uint8_t* data, size_t size) {
  const std::string kept = Scratch() + "/kept";
  const std::string before = "kept bytes";
  const PObject::binary_ex_type ex{kept, before.size(), before.size(), "", "", ""};
  const PObject targets[] = {
      PObject(),
      PObject(PObject::binary_type{before.size(), before.size(), kept}),
      PObject(ex),
  };
  for (const PObject& target : targets) {
    std::ofstream(kept, std::ios::binary | std::ios::trunc) << before;
    PStream stream;
    stream.SetBinaryDir(Scratch());
    stream.SetDefaultHashAlgo("sha256");
    PObject value(target);
    DecodeFromChannel(data, size, &stream, &value);
    const std::string now = ReadAll(kept);
    if (target.IsBinaryEx() ? now != before : now.compare(0, before.size(), before) != 0) abort();
    EmptyScratch();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  PStream stream;
  PObject value;
  if (stream.Recv(&in, &value) == 0 && !ChangesOnTheWire(value)) CheckRoundTrip(value);

  PStream discarding;
  discarding.SetDiscardBinaries(true);
  discarding.SetDefaultHashAlgo("sha256");
  discarding.SetSizeCap(size * 8);
  PObject discarded;
  DecodeFromChannel(data, size, &discarding, &discarded);
  DecodeBinaries(data, size);
  return 0;
}
