// Comparing user and group names as the storage server does: UTF-8 text
// without regard to case.  Used by the share user lists (SDK::UserIsInList)
// and the stand-in's "acl_mask" lists.  Thread-safe.
#ifndef VESTA_PLATFORM_UTF8_CASE_H_
#define VESTA_PLATFORM_UTF8_CASE_H_

#include <cstddef>

// `a` (NUL-terminated) equals the `b_len` bytes at `b`, compared code point
// by code point after folding case.  A byte that starts no valid UTF-8
// sequence equals only the same byte.
bool Utf8CaseEqual(const char* a, const char* b, size_t b_len);

#endif  // VESTA_PLATFORM_UTF8_CASE_H_
