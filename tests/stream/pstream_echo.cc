// A peer for the Python cross-check: listens on a UNIX socket and answers
// every value it decodes with the same value, encoded again.  A value that
// does not decode is answered with {"error": code}.  Received files are
// stored under BINARY_DIR and sent back from there.
//
//   pstream_echo SOCKET_PATH BINARY_DIR
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "net/channel.h"
#include "stream/PObject.h"
#include "stream/stream.h"

namespace {

// A received file range reads "offset = length = bytes stored"; to send the
// same bytes back the range starts at 0.
void RewindFiles(PObject* value) {
  if (value->IsBinary()) value->MutableBinary().offset = 0;
  if (value->IsBinaryEx()) value->MutableBinaryEx().offset = 0;
  if (value->IsArray()) {
    for (PObject& e : value->MutableArray()) RewindFiles(&e);
  }
  if (value->IsMap()) {
    for (auto& m : value->MutableMap()) RewindFiles(&m.second);
  }
}

void Serve(int fd, const std::string& binary_dir) {
  Channel channel;
  if (channel.Open(fd, false) != 0) return;
  PObject value;
  PStream in;
  in.SetBinaryDir(binary_dir);
  in.SetDefaultHashAlgo("sha256");
  const int rc = in.Recv(&channel, &value);
  RewindFiles(&value);
  PObject error;
  error["error"] = rc;
  PStream().Send(&channel, rc == 0 ? value : error);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s SOCKET_PATH BINARY_DIR\n", argv[0]);
    return 2;
  }
  int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  struct sockaddr_un addr = {AF_UNIX, {}};
  snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", argv[1]);
  unlink(argv[1]);
  if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
      listen(listener, 16) != 0) {
    perror("listen");
    return 1;
  }
  for (;;) {
    int fd = accept(listener, nullptr, nullptr);
    if (fd < 0) continue;
    Serve(fd, argv[2]);
  }
}
