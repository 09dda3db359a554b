// What the daemon allows a remote server beyond what the request protocol
// itself says.  A server that keeps within these sees no difference; one
// that does not has its request fail with a logged error and nothing
// stored.  README.md lists them under "Limits".
#ifndef VESTA_NET_NET_LIMITS_H_
#define VESTA_NET_NET_LIMITS_H_

#include <stddef.h>

// One exchange -- connect, TLS switch, request and every reply read,
// keep-alives included -- ends within this many times the client's
// time-out, however the server trickles its bytes.
constexpr int kExchangeDeadlineFactor = 2;

// The memory one decoded reply may take (each element at its in-memory
// size).  The largest reply, a user's view list, takes under 1 KiB per
// shared folder: the cap holds some 20,000 of them.
constexpr size_t kReplySizeCap = 16u << 20;  // bytes

#endif  // VESTA_NET_NET_LIMITS_H_
