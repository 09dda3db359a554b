// Stand-in for the storage server's desktop-notification service.  Each
// notification becomes one JSON line appended to
// FixedPath("/var/lib/vesta/notifications.jsonl"):
//   {"notify_id":"...","table":{"KEY":"value",...},"time":1700000000}
// (time in seconds since the epoch) and is logged at INFO.  One write per
// line, on a descriptor opened for appending, so lines from several threads
// or processes never interleave.
#ifndef VESTA_PLATFORM_NOTIFY_H_
#define VESTA_PLATFORM_NOTIFY_H_

#include <string>

#include "platform/klib.h"

// The notifications file, with its directory created when missing.
std::string ZephNotificationFilePath();

// Sends notification `notify_id` with its string table.  0, or -1 when an
// argument is null or the line cannot be written.
int ZEPHSysNotifySendNotifiction(const char* notify_id, const KlibSzHash* table);

#endif  // VESTA_PLATFORM_NOTIFY_H_
