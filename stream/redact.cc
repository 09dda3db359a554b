#include "stream/redact.h"

namespace {

// Replaces the value of every secret member below `value` by kRedacted.
void Redact(PObject* value) {
  if (value->IsMap()) {
    for (auto& member : value->MutableMap()) {
      if (IsSecretKey(member.first)) {
        member.second = std::string_view(kRedacted);
      } else {
        Redact(&member.second);
      }
    }
  } else if (value->IsArray()) {
    for (PObject& element : value->MutableArray()) Redact(&element);
  }
}

}  // namespace

bool IsSecretKey(std::string_view key) {
  // "signature" is the key login's, inside `pem`; a certificate's signature
  // travels as "ssl_signature" and is public.
  static constexpr std::string_view kSecretKeys[] = {
      "session", "password", "otp", "sharing_token", "signature", "proxy_password",
  };
  for (std::string_view secret : kSecretKeys) {
    if (key == secret) return true;
  }
  return false;
}

std::string ToLogJson(const PObject& value) {
  PObject shown = value;
  Redact(&shown);
  return ToJson(shown);
}
