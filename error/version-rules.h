// The two version rules of a remote server that the whole client follows:
// which protocol versions it can talk to and which builds are too old.
// Pure functions: callable from any thread.
#ifndef VESTA_ERROR_VERSION_RULES_H_
#define VESTA_ERROR_VERSION_RULES_H_

// The protocol version this client speaks.
constexpr int kClientProtocolVersion = 70;

// Results of CheckProtocolVersion.
constexpr int kProtocolSame = 0;
constexpr int kProtocolCompatible = 1;
constexpr int kProtocolServerTooOld = 2;
constexpr int kProtocolClientTooOld = 3;

// How a server speaking protocol `version` stands to this client: servers of
// the client's decade (70 to 79) are accepted, older ones must be updated,
// newer ones need a newer client.
int CheckProtocolVersion(int version);

// True when a server build number is too old to be served (9999 or lower).
bool IsBuildNumberTooOld(int build_number);

#endif  // VESTA_ERROR_VERSION_RULES_H_
