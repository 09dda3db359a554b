// ErrorHandler: turns one monitor error code (1 to 39; 0 means none) into
// the action it calls for on a session or a connection: disable, stop or
// pause a session, switch it to read-only, pause a connection or only store
// its error, refresh its certificate signature, or handle a changed server
// version.  The actions themselves are the virtual operations below; a
// subclass carries them out for one kind of connection (NXClientErrorHandler
// in error/nx-error-handler.h).
//
// MonitorDaemon::HandleError is the one caller: it builds a handler on the
// stack for each error, calls HandleError once and drops it.  A handler runs
// on whichever thread called that (the main thread for daemon notifications
// and share events, the status thread, which holds the monitor's
// state_mutex meanwhile), takes no lock of its own and keeps no state
// between calls.  The records it is given are read, never kept.
//
// Every line goes to the component `error_handler`.
#ifndef VESTA_ERROR_ERROR_HANDLER_H_
#define VESTA_ERROR_ERROR_HANDLER_H_

#include <cstdint>

#include "db/records.h"

// The log component of the error handling.
extern const char kErrorHandlerComponent[];

class ErrorHandler {
 public:
  ErrorHandler() = default;
  ErrorHandler(const ErrorHandler&) = delete;
  ErrorHandler& operator=(const ErrorHandler&) = delete;
  virtual ~ErrorHandler();

  // The actions, in their slot order.  Each returns 0, or -1 at its first
  // failing step; what earlier steps stored stays stored.
  // Code 4: the session's folder may only be read.
  virtual int HandleReadOnly(const SessionInfo& session) = 0;
  // Stores the connection's error for `code`, pauses it and tells the sync
  // daemon.  Its sessions are left as they are.
  virtual int PauseConnection(const ConnectionEntry& connection, int code) = 0;
  // Runs after PauseConnection for code 32; does nothing here.
  virtual int PostPauseConnection(const ConnectionEntry& connection, int code);
  // Stores the connection's error for `code`; the status is not touched.
  virtual int SetConnectionError(const ConnectionEntry& connection, int code) = 0;
  // Stores the certificate signature the server now shows and reloads the
  // connection in the sync daemon; -1 when the server could not be asked.
  virtual int UpdateSslSignature(const ConnectionEntry& connection) = 0;
  // Unlinks the connection: stored error and status, link flag, its enabled
  // sessions disabled unless `code` is 0, and the sync daemon told.
  virtual int UnlinkConnection(const ConnectionEntry& connection, int code) = 0;
  // Stores `new_connection` as connection `conn_id` after its server
  // changed from `old_connection`, with whatever re-synchronisation, reload
  // or merge the change of build calls for.
  virtual int UpgradeConnection(uint64_t conn_id, const ConnectionEntry& old_connection,
                                const ConnectionEntry& new_connection) = 0;
  // Stores the session's error for `code` and pauses it in the sync daemon.
  virtual int PauseSession(const SessionInfo& session, int code) = 0;
  // Stores the session's error, stops it and takes it out of the sync daemon
  // for good; unlinks its connection when no enabled session is left.
  virtual int DisableSession(const SessionInfo& session, int code) = 0;
  // Stores the session's error, stops it and takes it out of the sync
  // daemon until its folder comes back.
  virtual int StopSession(const SessionInfo& session, int code) = 0;

  // Carries out the action of `code` for `connection` and `session` (which
  // may be empty: id 0).  `old_connection` is the connection as stored
  // before its server changed, given only with codes 16 and 36 by the
  // status monitor; nullptr otherwise.  Always 0.
  int HandleError(const ConnectionEntry& connection, const SessionInfo& session, int code,
                  const ConnectionEntry* old_connection);

  // The server of a connection changed from `old_connection` to
  // `new_connection` (codes 16 and 36): another machine pauses the
  // connection; otherwise the connection is upgraded first and then paused
  // when the new server's version is not served.  Always 0.
  int HandleServerVersionChanged(const ConnectionEntry& old_connection,
                                 const SessionInfo& session,
                                 const ConnectionEntry& new_connection);
};

#endif  // VESTA_ERROR_ERROR_HANDLER_H_
