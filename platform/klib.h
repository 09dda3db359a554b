// Stand-ins for the storage server's own C libraries (the KLIB... and
// ZEPH... families), backed by plain files and the machine's own user and
// group database.  Every fixed path below goes through FixedPath().
#ifndef VESTA_PLATFORM_KLIB_H_
#define VESTA_PLATFORM_KLIB_H_

#include <cstddef>

// Reads `key` from a key=value file (a value may be quoted) into `buf` of
// `size` bytes, NUL-terminated.  Returns the value's length, or a negative
// number when the file cannot be read or has no such key.  `flags` is
// reserved and must be 0.
int KLIBCFileGetKeyValue(const char* path, const char* key, char* buf, size_t size, int flags);

#endif  // VESTA_PLATFORM_KLIB_H_
