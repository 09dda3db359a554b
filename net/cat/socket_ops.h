// Connecting sockets with a time limit and a cancel flag.
//
// Used by Channel::Open.  A connect in progress is polled for completion in
// 800 ms steps; each empty step counts 800,000 us against the time limit,
// and the caller's cancel flag (non-zero cancels) and run flag (zero
// cancels) are tested before every step, so another thread can abort a
// connect within one step.  Safe to call from any thread.
// Every socket made here is close-on-exec, like those the daemon listens
// and accepts on, so no child process inherits a connection.
#ifndef VESTA_NET_CAT_SOCKET_OPS_H_
#define VESTA_NET_CAT_SOCKET_OPS_H_

#include <stdint.h>

#include <atomic>
#include <memory>
#include <string>

#include "net/cat/io.h"

namespace cat {

constexpr int kConnectPollMillis = 800;
constexpr size_t kUnixPathMax = 107;  // bytes of a path copied into sun_path

// True when `cancel_flag` is set (non-zero) or `run_flag` cleared (zero);
// either may be null.
bool StopAsked(const std::atomic<int>* cancel_flag, const std::atomic<int32_t>* run_flag);

// Connects to the UNIX-domain stream socket at `path` (cut to 107 bytes).
// `timeout` in seconds; 0 = a blocking socket and a blocking connect.
// `cancel_flag` and `run_flag` may be null.  Returns the connected
// descriptor or -1.
int ConnectUnix(const std::string& path, int timeout, const std::atomic<int>* cancel_flag,
                const std::atomic<int32_t>* run_flag = nullptr);

// Resolves `host` and tries each address until one connects.  The socket is
// non-blocking when `timeout` > 0 and stays so.  Returns the descriptor or -1.
int ConnectTcp(const std::string& host, int port, int timeout,
               const std::atomic<int>* cancel_flag,
               const std::atomic<int32_t>* run_flag = nullptr);

// A new TCP socket; with `linger` >= 0, SO_LINGER on with that many seconds.
// Null on failure.
std::unique_ptr<Socket> CreateTcpSocket(bool blocking, int linger);

// Splits a host text into the address to resolve and, when the text carries
// one, a port: "[v6]" or "[v6]:port", a bare IPv6 literal, "a.b.c.d" or
// "a.b.c.d:port"; anything else is a name and passes unchanged.  `port`
// keeps its value unless a port suffix is present.
std::string ParseHostAddress(const std::string& host, int* port);

}  // namespace cat

#endif  // VESTA_NET_CAT_SOCKET_OPS_H_
