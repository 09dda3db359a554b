// Stand-ins for the storage server's own C libraries (the KLIB... and
// ZEPH... families), backed by plain files and the machine's own user and
// group database.  Every fixed path below goes through FixedPath().
//
// This header holds the general pieces: the last-error record, the
// key=value file lookup, and the string list and string table that other
// calls fill.  Shares, users, notifications and proxy settings have headers
// of their own beside this one.  README.md describes the files.
//
// Thread-safety: every call may be made from any thread; the error record
// is per thread.  Callers in the daemon still hold SDK::ReentrantMutex
// around them, as they would around the real libraries.
#ifndef VESTA_PLATFORM_KLIB_H_
#define VESTA_PLATFORM_KLIB_H_

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

// Error codes left in the calling thread's error record by a failing call.
enum {
  KLIB_ERR_NONE = 0x0000,
  KLIB_ERR_OUT_OF_MEMORY = 0x0100,
  KLIB_ERR_BUFFER_TOO_SMALL = 0x0200,
  KLIB_ERR_FILE = 0x0900,           // a file cannot be read or is malformed
  KLIB_ERR_BAD_PARAMETER = 0x0D00,
  KLIB_ERR_NO_SUCH_SHARE = 0x1400,
  KLIB_ERR_NO_SUCH_USER = 0x1D00,
  KLIB_ERR_NO_SUCH_KEY = 0x2000,
  KLIB_ERR_BAD_VALUE = 0x2100,      // a key holds a value of the wrong form
  KLIB_ERR_SYSTEM = 0x3000,         // a system call failed; errno kept aside
};

// The calling thread's last error: code, and the stand-in's source file and
// line that set it.  A successful call does not clear it.
int KLIBErrCodeGet();
const char* KLIBErrFileGet();
int KLIBErrLineGet();

// Records an error for the calling thread.  Used by the stand-in's own
// source files through KLIB_SET_ERR.
void KLIBErrSet(int code, const char* file, int line);
#define KLIB_SET_ERR(code) KLIBErrSet((code), __FILE__, __LINE__)

// Reads `key` from a key=value file (a value may be quoted) into `buf` of
// `size` bytes, NUL-terminated.  Returns the value's length, or -1 when the
// file cannot be read, is malformed, has no such key, or the value does not
// fit (`buf` then holds "").  `flags` is reserved and must be 0.
int KLIBCFileGetKeyValue(const char* path, const char* key, char* buf, size_t size, int flags);

// A list of strings filled by the platform (a user's group names).
// Allocated by the call that fills it, freed with KLIBCSzListFree.
struct KlibSzList {
  std::vector<std::string> items;
};
void KLIBCSzListFree(KlibSzList* list);

// A string table of at most `capacity` keys, the argument of a
// notification.  Setting an existing key replaces its value.
struct KlibSzHash {
  size_t capacity = 0;
  std::vector<std::pair<std::string, std::string>> entries;  // insertion order
};
// A table for `capacity` keys, or nullptr (error record set).
KlibSzHash* KLIBCSzHashAlloc(size_t capacity);
// 0, or -1 when the table is full or an argument is null.
int KLIBCSzHashSetValue(KlibSzHash* hash, const char* key, const char* value);
// The value of `key`, or nullptr.
const char* KLIBCSzHashGetValue(const KlibSzHash* hash, const char* key);
void KLIBCSzHashFree(KlibSzHash* hash);

#endif  // VESTA_PLATFORM_KLIB_H_
