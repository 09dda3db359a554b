// NXClientErrorHandler: the actions of ErrorHandler for a connection between
// two storage servers.  Each writes the session's or the connection's error
// and status into the system database (as the stored error values below,
// not as the codes) and tells the sync daemon; the upgrade of a connection
// whose server changed and the refresh of a certificate signature also ask
// the remote server (net/proto-ui.h) and reset the sessions' own databases.
//
// Built on the stack for one error by MonitorDaemon::HandleError, on the
// thread that called it; takes no lock of its own (each database operation
// holds the database's mutex, each daemon command is an exchange of its
// own).  Lines go to `error_handler`.
#ifndef VESTA_ERROR_NX_ERROR_HANDLER_H_
#define VESTA_ERROR_NX_ERROR_HANDLER_H_

#include <cstdint>
#include <list>
#include <string>

#include "db/records.h"
#include "error/error-handler.h"

// Stored session status and connection status values written here.
enum {
  kSessionStopped = 0,
  kSessionRestarted = 1,  // handed to the sync daemon again after a re-sync
  kSessionPaused = 3,
};
enum {
  kConnectionConnected = 0,
  kConnectionPaused = 2,
  kConnectionUnlinked = 3,
};

// The wait of a re-synchronisation between taking a connection's sessions
// out of the sync daemon and resetting their databases, which gives the
// daemon time to let go of them.  The upgrade goes on after it in every
// case: a stopping daemon only cuts it short, by the SIGTERM that wakes the
// thread.
struct ResyncPause {
  int seconds = 3;

  // Sleeps `seconds`, less when a signal arrives meanwhile.
  void Wait() const;
};

// Whether a TLS switch checks the server certificate's chain and name, and
// the name it must carry.
struct SslHostCheck {
  bool verify = false;
  std::string host;  // "" when not verifying
};

class NXClientErrorHandler : public ErrorHandler {
 public:
  // Bits of ConnectionEntry::conn_mode read here.
  static constexpr int kModeProxy = 1 << 4;          // uses its proxy settings
  static constexpr int kModeTunnel = 1 << 5;         // uses its tunnel settings
  static constexpr int kModeRelay = 1 << 8;          // reached through a relay
  static constexpr int kModeByDomainName = 1 << 9;   // addressed by domain_name
  static constexpr int kModeAddressKindMask = 0xF;   // the kind of address
  // Seconds a remote server has to answer.
  static constexpr int kServerTimeout = 60;

  explicit NXClientErrorHandler(ResyncPause pause = ResyncPause()) : pause_(pause) {}

  int HandleReadOnly(const SessionInfo& session) override;
  int PauseConnection(const ConnectionEntry& connection, int code) override;
  int SetConnectionError(const ConnectionEntry& connection, int code) override;
  int UpdateSslSignature(const ConnectionEntry& connection) override;
  int UnlinkConnection(const ConnectionEntry& connection, int code) override;
  int UpgradeConnection(uint64_t conn_id, const ConnectionEntry& old_connection,
                        const ConnectionEntry& new_connection) override;
  int PauseSession(const SessionInfo& session, int code) override;
  int DisableSession(const SessionInfo& session, int code) override;
  int StopSession(const SessionInfo& session, int code) override;

  // The stored session error of `code` (0, -1 to -11); -14 with an ERROR
  // line for a code that has none.
  static int ToSessionError(int code);
  // The stored connection error of `code` (0, -1 to -13); -14 with an ERROR
  // line for a code that has none.  Code 14 is judged by
  // VerifyDaemonVersionError instead wherever an error is stored.
  static int ToConnectionError(int code);
  // Code 14, "the server needs an update": asks the server (without TLS)
  // for its build.  -2 when it is too old, -4 when it is not or the server
  // could not be asked.
  static int VerifyDaemonVersionError(const ConnectionEntry& connection);
  // How many sessions of connection `conn_id` are enabled in the sync
  // daemon; -1 when they could not be read.
  static int CountEnabledSessions(uint64_t conn_id);

  // Asks the server of `connection` for its certificate signature, checking
  // the certificate as the connection's settings say (SslHostRule) and
  // expecting its stored signature (any when ""), and stores the answer in
  // connection->ssl_signature.  `proxy` and `tunnel` are handed to the
  // client when the connection uses them.  0, or -1 with the record
  // untouched.
  static int ProNXQuerySSLSignature(ConnectionEntry* connection, const ProxyInfo& proxy,
                                    const TunnelInfo& tunnel);
  // Which certificate name the TLS check of `connection` expects, if any.
  static SslHostCheck SslHostRule(const ConnectionEntry& connection);

 private:
  // The sessions' filter rows, events and sync position cleared, so that
  // the sync daemon synchronises them from the start.
  void ResetSessionDatabases(const std::list<SessionInfo>& sessions);
  // The enabled, mounted sessions handed back to the sync daemon, each
  // with a three-way merge.
  void AddSessionsAgain(const std::list<SessionInfo>& sessions, const GeneralOptions& options);

  ResyncPause pause_;  // the re-synchronisation's wait
};

#endif  // VESTA_ERROR_NX_ERROR_HANDLER_H_
