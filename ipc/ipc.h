// The local socket transport: UNIX-domain stream sockets between the
// monitor and the other processes of the package.
//
// IPCServer is the listening end: the monitor's main thread listens on its
// socket path once, then waits (3 s at a time, so the run flag is seen) and
// accepts, and closes at the end.  IPCSender is the connecting end: each
// command to the sync daemon makes one sender, connects, writes one request,
// reads one reply and destroys it.
//
// One connection carries one exchange: the client writes one value, the
// server reads it, writes one value back and closes.  Values are PObjects
// encoded by PStream (stream/stream.h), which also delimits them; nothing
// here adds framing.
//
// Threads: a server belongs to the main thread; a sender to the thread that
// made it.  Nothing here takes a lock; the senders of all threads share only
// the run flag and the end of a stop's exchanges, both atomic.  Server
// failures are logged at ERROR under `ipc`; the sender logs nothing and
// leaves that to its caller.
#ifndef VESTA_IPC_IPC_H_
#define VESTA_IPC_IPC_H_

#include <stdint.h>

#include <atomic>
#include <string>

#include "net/channel.h"

class PObject;

class IPCServer {
 public:
  IPCServer() = default;
  // Calls Close().
  ~IPCServer();
  IPCServer(const IPCServer&) = delete;
  IPCServer& operator=(const IPCServer&) = delete;

  // Replaces any file at `path` with a socket that every user may connect
  // to, and listens.  The socket file is made with mode 0666 by bind itself
  // (the process's umask is changed for that call: Listen must run before
  // any other thread may create a file).  A path longer than 107 bytes is bound under its first
  // 107 bytes.  0, or -1 when already listening (the existing socket is left
  // alone), for an empty path, or when a socket call fails (nothing is left
  // behind).
  int Listen(const std::string& path, int backlog);
  // 1 when a connection waits to be accepted; 0 after the wait time-out
  // (3 s), on a poll error or interruption, or when not listening.
  int WaitForConnection();
  // The new connection's blocking descriptor, owned by the caller; -1 on
  // failure or when not listening.
  int Accept();
  // Stops listening and removes the socket file the socket itself reports.
  // Harmless when not listening.
  void Close();

  // Length of one WaitForConnection (microseconds count in whole
  // milliseconds).
  void SetWaitTimeout(int32_t seconds, int32_t microseconds) {
    wait_seconds_ = seconds;
    wait_microseconds_ = microseconds;
  }
  bool IsListening() const { return fd_ >= 0; }

 private:
  int32_t wait_seconds_ = 3;       // one wait for a connection, seconds
  int32_t wait_microseconds_ = 0;  // added to the seconds
  int fd_ = -1;                    // listening descriptor; -1 while idle
  std::string path_;               // path given to Listen while listening
};

class IPCSender {
 public:
  IPCSender();
  // Disconnects.
  virtual ~IPCSender();
  IPCSender(const IPCSender&) = delete;
  IPCSender& operator=(const IPCSender&) = delete;

  // Writes `request`; with `wait`, then reads the reply through Receive (so a
  // subclass may replace that step).  0 or -1.
  virtual int SendRequest(const PObject& request, bool wait, PObject* reply);
  // Writes one value.  0 or -1.
  virtual int Send(const PObject& request);
  // Reads one value into `reply` (files are refused: no reply carries one).
  // 0 or -1.
  virtual int Receive(PObject* reply);

  // Connects to the UNIX socket at `path`.  0 or -1.
  int Connect(const std::string& path);
  // Closes the connection; harmless when not connected.
  void Disconnect();

  // How long a stopping daemon's exchanges may still take: the work it
  // hands the sync daemon while it stops (an upgrade gives back the sessions
  // it took) is done in milliseconds by a live peer, and a silent one
  // cannot hold up the stop.
  static constexpr uint64_t kStopGraceSeconds = 1;
  // The process's run flag, or null (never stopping); set before any
  // sender connects.  An exchange begun while it reads 1 ends, as failed,
  // when it clears; one begun after it cleared must end within
  // kStopGraceSeconds of the first such exchange.
  static const std::atomic<int32_t>* m_run_flag;

 private:
  static std::atomic<uint64_t> m_stop_deadline_us;  // 0 until the first exchange of a stop

  Channel channel_;  // the connection; closed while not connected
};

#endif  // VESTA_IPC_IPC_H_
