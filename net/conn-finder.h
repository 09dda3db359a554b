// How the storage server itself reaches the outside world: the proxy set in
// its own network settings.  The sync-daemon command client describes each
// connection to the sync daemon with it.  Any thread; holds no lock of its
// own (the platform's proxy calls keep no shared state).
#ifndef VESTA_NET_CONN_FINDER_H_
#define VESTA_NET_CONN_FINDER_H_

#include "db/records.h"

// Fills `proxy` from the system proxy settings: the address when a proxy is
// enabled, and the user name (split into domain and user at the last "/"
// or else the last backslash), password and this machine's host name when
// it also needs authentication.  0 when a proxy is configured and was read;
// -1 when none is enabled or the settings cannot be read (`proxy` is then
// cleared, unless the settings could not be opened at all).
int GetSystemProxy(ProxyInfo* proxy);

#endif  // VESTA_NET_CONN_FINDER_H_
