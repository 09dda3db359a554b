// Secrets kept out of the log.  A request to a remote server carries a
// login (session token, password, one-time password, sharing token, the
// signature of a key login) and a command to the sync daemon carries the
// connection's session and proxy password.  Their values are never logged:
// a value goes to the log only as ToLogJson's text, and PStream's wire dump
// prints kRedacted in their place.  IsSecretKey is the one place that names
// them.  Both functions are pure and may be called from any thread.
#ifndef VESTA_STREAM_REDACT_H_
#define VESTA_STREAM_REDACT_H_

#include <string>
#include <string_view>

#include "stream/PObject.h"

// What the log shows instead of a secret.
constexpr char kRedacted[] = "***";

// Whether the value of a map member named `key` is a secret, at any depth.
bool IsSecretKey(std::string_view key);

// ToJson of `value` with the value of every secret member shown as
// kRedacted; the keys stay, so the line still tells what was sent.
std::string ToLogJson(const PObject& value);

#endif  // VESTA_STREAM_REDACT_H_
