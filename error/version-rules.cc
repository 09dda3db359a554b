#include "error/version-rules.h"

namespace {

// The oldest server build this client serves.
constexpr int kMinimumServerBuild = 10000;

}  // namespace

int CheckProtocolVersion(int version) {
  if (version / 10 * 10 > kClientProtocolVersion + 9) return kProtocolClientTooOld;
  if (version < kClientProtocolVersion) return kProtocolServerTooOld;
  return version == kClientProtocolVersion ? kProtocolSame : kProtocolCompatible;
}

bool IsBuildNumberTooOld(int build_number) { return build_number < kMinimumServerBuild; }
