// The command client of the sync daemon: every instruction the monitor gives
// to vesta-daemon (add, remove, pause, resume and reload sessions, reload and
// unlink connections, queue events, watch sessions, ask for the status) is
// one PObject map sent over the daemon's UNIX socket, answered by one map.
//
// Every call opens its own connection and closes it before returning, so the
// functions keep no state and may be called from any thread at once (status
// thread, share-listing thread, message loop, error handler).  Failures are
// logged once at ERROR under `default_component` and reported as -1; there
// is no retry.  Waits end with the Channel's time-out, or when the monitor
// stops (IPCSender::m_run_flag).
//
// Reply rules: a reply holding "error" fails (even beside "ack" "ok"; the
// error is logged as its text, or as its JSON rendering when no string); a
// reply whose "ack" is a string other than "ok" fails; anything else,
// including an empty map, succeeds.
#ifndef VESTA_IPC_DAEMON_IPC_H_
#define VESTA_IPC_DAEMON_IPC_H_

#include <cstdint>
#include <string>

#include "db/records.h"

class PObject;

// The sync daemon's command socket; opened through FixedPath().
extern const char kDaemonSocketPath[];

// Sends `request` to the socket at `socket_path` and reads one value into
// `reply` (which holds whatever arrived, also on failure).  0 or -1.
int SendCommand(const std::string& socket_path, const PObject& request, PObject* reply);
// SendCommand to the sync daemon's socket.
int SendDaemonCommand(const PObject& request, PObject* reply);

// Registers `session` with the daemon.  Creates the session's directory
// (mode 0755) first and fails before sending anything when it cannot be a
// directory.  With `three_way_merge` AddThreeWayMergeEvent follows;
// otherwise, with `resume`, a "resume".
int AddSession(const SessionInfo& session, const GeneralOptions& options, bool resume,
               bool three_way_merge);
int RemoveSession(uint64_t session_id);
int PauseSession(uint64_t session_id);
int ResumeSession(uint64_t session_id);
int RemoveWatchSession(uint64_t session_id);
int PauseConnection(uint64_t connection_id);
int UnlinkConnection(uint64_t connection_id);
// The whole status reply ("connection_list" ...) is left in `reply`.
int GetStatus(PObject* reply);
int ReloadConnection(const ConnectionEntry& connection);
int ReloadSessionFilter(uint64_t session_id);
int ReloadSessionConflictPolicy(uint64_t session_id, const std::string& conflict_policy,
                                bool rename_conflict);
int AddEvent(uint64_t session_id, const std::string& type, const std::string& path,
             bool is_dir);
// Queues a three-way merge of the whole session: "add_event" with exactly
// "type" "three_way_merge", "session_id" and "path" "/" (no "is_dir").  The
// one builder of that event: AddSession sends it, and so will
// UpgradeConnection for every session of an upgraded connection.
int AddThreeWayMergeEvent(uint64_t session_id);
int AddWatchSession(uint64_t session_id, bool merge_mode);

// Writes the "reload_connection" keys of `connection` into `map`.  The proxy
// keys describe the storage server's own proxy (GetSystemProxy), never the
// connection's proxy columns; without a system proxy they announce
// use_proxy 1 and use_sys_proxy 1 with empty fields.
void FillConnectionObject(const ConnectionEntry& connection, PObject* map);

// "sync-all", "domain-only", "exec-bit-only" for 0, 1, 2; "" otherwise.
const char* PermModeName(int perm_mode);

#endif  // VESTA_IPC_DAEMON_IPC_H_
