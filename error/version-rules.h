// The two rules by which the monitor judges a remote server's version: the
// protocol version it speaks against the one this client speaks, and its
// package build number against the oldest build still served.  The status
// monitor applies them to every connection the sync daemon reports; the
// error handler applies them again after upgrading a connection.
//
// Pure functions of their argument: callable from any thread, no lock.
#ifndef VESTA_ERROR_VERSION_RULES_H_
#define VESTA_ERROR_VERSION_RULES_H_

// The protocol version this client speaks.  A server is served when its
// version lies in the same decade (70 to 79).
constexpr int kClientProtocolVersion = 70;
// Builds below this are too old to be served.
constexpr int kMinimumServerBuild = 10000;

// Results of CheckProtocolVersion.
enum ProtocolVersionCheck {
  kProtocolSame = 0,        // the server speaks 70
  kProtocolCompatible = 1,  // 71 to 79
  kServerTooOld = 2,        // 69 or less: the server must be updated
  kClientTooOld = 3,        // 80 or more: this client must be updated
};

// How `server_protocol_version` relates to kClientProtocolVersion.
int CheckProtocolVersion(int server_protocol_version);

// True when `build_number` is below kMinimumServerBuild.
bool IsBuildNumberTooOld(int build_number);

#endif  // VESTA_ERROR_VERSION_RULES_H_
