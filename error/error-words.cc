#include "error/error-words.h"

#include <cstddef>

namespace {

struct ValueWords {
  int value;
  const char* words;
};

// Each error value beside the notification posted for the codes stored as
// it.  Session values -7, -12 and -13 are never stored by this program.
constexpr ValueWords kSessionErrorWords[] = {
    {0, "no error"},
    {-1, "shared folder could not be enabled"},      // ShareFailEnable
    {-2, "no write permission on the shared folder"},  // ShareNoWritePerm
    {-3, "quota full"},                              // QuotaFull
    {-4, "disk full"},                               // fernboxtandem_DiskFull
    {-5, "local disk full"},                         // LocalDiskFull
    {-6, "shared folder does not exist"},            // ShareNonExist
    {-8, "remote shared folder not mounted"},        // RemoteShareNotMounted
    {-9, "sync direction mismatch"},                 // SyncDirectionMismatch
    {-10, "remote shared folder quota full"},        // RemoteShareQuotaFull
    {-11, "local shared folder not mounted"},        // LocalShareNotMounted
    {-14, "unknown error"},                          // UnknownError
};

constexpr ValueWords kConnectionErrorWords[] = {
    {0, "no error"},
    {-1, "unknown error"},                      // UnknownError
    {-2, "server needs update"},                // ServerNeedToUpdate
    {-3, "client needs update"},                // ClientNeedToUpdate
    {-4, "server needs update"},                // ServerNeedToUpdate
    {-5, "server identity changed"},            // NXChange
    {-6, "authentication failed"},              // AuthError
    {-7, "certificate verification failed"},    // SSLVerifyFail
    {-8, "certificate changed"},                // SSLChange
    {-9, "address not allowed"},                // IPNotAllowed
    {-10, "user disabled"},                     // UserKOSDisable
    {-11, "user has no application privilege"},  // UserNoAppPriv
    {-12, "user information unavailable"},      // UserInfoUnavail
    {-13, "user not allowed"},                  // fernboxtandem_UserNotAllowed
    {-14, "unknown error"},                     // UnknownError
};

// Session status 1 is what a resumed or re-added session is given.
constexpr ValueWords kSessionStatusWords[] = {
    {0, "stopped"},
    {1, "running"},
    {3, "paused"},
};

constexpr ValueWords kConnectionStatusWords[] = {
    {0, "connected"},
    {1, "connecting"},
    {2, "paused"},
    {3, "unlinked"},
};

struct Table {
  const ValueWords* rows;
  size_t size;
};

template <size_t N>
constexpr Table TableOf(const ValueWords (&rows)[N]) {
  return Table{rows, N};
}

Table ColumnTable(StoredColumn column) {
  switch (column) {
    case StoredColumn::kSessionError: return TableOf(kSessionErrorWords);
    case StoredColumn::kConnectionError: return TableOf(kConnectionErrorWords);
    case StoredColumn::kSessionStatus: return TableOf(kSessionStatusWords);
    case StoredColumn::kConnectionStatus: return TableOf(kConnectionStatusWords);
  }
  return Table{nullptr, 0};
}

}  // namespace

const char* StoredValueWords(StoredColumn column, int value) {
  const Table table = ColumnTable(column);
  for (size_t i = 0; i < table.size; ++i) {
    if (table.rows[i].value == value) return table.rows[i].words;
  }
  return "unknown";
}
