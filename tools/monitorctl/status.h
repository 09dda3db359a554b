// vesta-monitorctl status: prints every connection of the system database
// with its sessions, their status and error values each with its words.
//
// The database is opened read-only (SQLite's mode=ro): nothing is written,
// no schema is created and no journal is touched, so it is safe while the
// daemon, the sync daemon and the user interface use the file.  Both tables
// are read in one read transaction, so the picture is consistent.  A reader
// waits at most kStatusBusyTimeoutMs while another process commits.
#ifndef VESTA_TOOLS_MONITORCTL_STATUS_H_
#define VESTA_TOOLS_MONITORCTL_STATUS_H_

#include <string>

constexpr int kStatusBusyTimeoutMs = 10000;

// Prints the state stored in the database at `db_path` (taken as written)
// to standard output: one or more lines per connection, or with `json` one
// JSON object per connection holding its sessions.  Returns the exit
// status: 0 printed, 1 the database could not be read (said on standard
// error).
int PrintStoredStatus(const std::string& db_path, bool json);

#endif  // VESTA_TOOLS_MONITORCTL_STATUS_H_
