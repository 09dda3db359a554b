// Shared by the stand-in's readers of key=value files: how a yes/no key is
// written.  Internal to platform/.
#ifndef VESTA_PLATFORM_FLAGS_H_
#define VESTA_PLATFORM_FLAGS_H_

#include <map>
#include <string>

// 1 for "yes", "true" or "1"; 0 for "no", "false", "0" or an absent key;
// -1 for anything else (error record set to KLIB_ERR_BAD_VALUE, logged).
int KlibFlagOf(const std::map<std::string, std::string>& keys, const std::string& key);

// The value of `key`, or "" when absent.
std::string KlibValueOf(const std::map<std::string, std::string>& keys, const std::string& key);

#endif  // VESTA_PLATFORM_FLAGS_H_
