#include "sdk/sdk-cpp.h"

#include <locale.h>
#include <wctype.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "log/log.h"
#include "platform/notify.h"
#include "sdk/sdk-impl.h"

namespace SDK {

// ---- ReentrantMutex ----

ReentrantMutex& ReentrantMutex::GetInstance() {
  static ReentrantMutex instance;
  return instance;
}

void ReentrantMutex::Lock(const std::string& label) {
  {
    std::lock_guard<std::mutex> guard(guard_);
    if (count_ > 0 && owner_ == std::this_thread::get_id()) {
      ++count_;
      return;
    }
  }
  mutex_.lock();
  label_ = label;
  for (const Callback& cb : after_lock_) cb(label_);
  std::lock_guard<std::mutex> guard(guard_);
  owner_ = std::this_thread::get_id();
  count_ = 1;
}

void ReentrantMutex::Unlock() {
  std::unique_lock<std::mutex> guard(guard_);
  if (count_ == 0 || owner_ != std::this_thread::get_id()) return;
  if (--count_ > 0) return;
  guard.unlock();
  // Only the owner reaches here, and no other thread can take mutex_ before
  // it is released below, so label_ is still ours.
  for (const Callback& cb : before_release_) cb(label_);
  label_.clear();
  mutex_.unlock();
}

// ---- UserIsInList ----

namespace {

// The next code point of a UTF-8 text; a byte that starts no valid sequence
// stands for itself, shifted out of the Unicode range so that it only ever
// equals the same byte.
uint32_t NextCodePoint(const unsigned char*& p) {
  const unsigned char c = *p;
  int extra = c < 0x80 ? 0 : (c & 0xe0) == 0xc0 ? 1 : (c & 0xf0) == 0xe0 ? 2 : (c & 0xf8) == 0xf0 ? 3 : -1;
  if (extra < 0) {
    ++p;
    return 0x110000u + c;
  }
  uint32_t cp = extra == 0 ? c : c & (0x3f >> extra);
  for (int i = 1; i <= extra; ++i) {
    if ((p[i] & 0xc0) != 0x80) {
      ++p;
      return 0x110000u + c;
    }
    cp = (cp << 6) | (p[i] & 0x3f);
  }
  p += extra + 1;
  return cp;
}

uint32_t FoldCase(uint32_t cp) {
  static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
  if (cp >= 0x110000u) return cp;
  if (utf8 == static_cast<locale_t>(0)) return cp < 0x80 && cp >= 'A' && cp <= 'Z' ? cp + 32 : cp;
  return static_cast<uint32_t>(towlower_l(static_cast<wint_t>(cp), utf8));
}

// `a` equals the `b_len` bytes at `b`, compared as UTF-8 without case.
bool Utf8CaseEqual(const char* a, const char* b, size_t b_len) {
  const unsigned char* pa = reinterpret_cast<const unsigned char*>(a);
  const unsigned char* pb = reinterpret_cast<const unsigned char*>(b);
  const unsigned char* end_b = pb + b_len;
  while (*pa != '\0' && pb < end_b) {
    if (FoldCase(NextCodePoint(pa)) != FoldCase(NextCodePoint(pb))) return false;
  }
  return *pa == '\0' && pb >= end_b;
}

bool ElementMatches(const char* user, const KlibSzList* groups, const char* element, size_t len) {
  if (len > 0 && element[0] == '@') {
    for (const std::string& group : groups->items) {
      if (Utf8CaseEqual(group.c_str(), element + 1, len - 1)) return true;
    }
    return false;
  }
  return Utf8CaseEqual(user, element, len);
}

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};

}  // namespace

int UserIsInList(const char* user, const KlibSzList* groups, const char* list) {
  if (user == nullptr || groups == nullptr || list == nullptr) {
    LOG_WARNING("sdk_debug", "UserIsInList: parameter is null.");
    return -1;
  }
  std::unique_ptr<char, FreeDeleter> copy(strdup(list));
  if (!copy) {
    LOG_WARNING("sdk_debug", "UserIsInList: out of memory when doing strdup.");
    return -1;
  }
  const char* element = copy.get();
  for (;;) {
    const char* comma = std::strchr(element, ',');
    const size_t len = comma != nullptr ? static_cast<size_t>(comma - element) : std::strlen(element);
    if (len > 0 && ElementMatches(user, groups, element, len)) return 0;
    if (comma == nullptr) return -1;
    element = comma + 1;
  }
}

// ---- Notifier ----

Notifier::Notifier(std::string title, std::string class_name, std::string recipients,
                   std::string filter_setting)
    : title_(std::move(title)),
      class_name_(std::move(class_name)),
      recipients_(std::move(recipients)),
      filter_setting_(std::move(filter_setting)) {}

namespace {

constexpr size_t kTableCapacity = 512;

bool IsText(const Json::Value& v) { return v.isString() || v.isIntegral() || v.isDouble() || v.isBool(); }

// Puts the arguments of `arg_list` into `table`; a malformed element is
// logged and left out.
void PutArguments(const Json::Value& arg_list, KlibSzHash* table) {
  if (arg_list.isNull()) return;
  if (!arg_list.isArray()) {
    LOG_WARNING("sdk_cpp_debug", "arg_list is not an array; ignored");
    return;
  }
  for (const Json::Value& arg : arg_list) {
    if (!arg.isObject() || !IsText(arg["key"]) || !IsText(arg["value"])) {
      LOG_WARNING("sdk_cpp_debug", "notification argument without text key and value; ignored");
      continue;
    }
    if (KLIBCSzHashSetValue(table, arg["key"].asString().c_str(), arg["value"].asString().c_str()) != 0) {
      LOG_WARNING("sdk_cpp_debug", "notification argument '%s' does not fit; ignored",
                  arg["key"].asString().c_str());
    }
  }
}

void PutIfSet(KlibSzHash* table, const char* key, const std::string& value) {
  if (!value.empty()) KLIBCSzHashSetValue(table, key, value.c_str());
}

}  // namespace

int Notifier::SendNotification(const Json::Value& notification) const {
  if (!notification.isObject() || !IsText(notification["notify_id"])) {
    LOG_ERROR("sdk_cpp_debug", "invalid argument.");
    return -1;
  }
  SzHash table(KLIBCSzHashAlloc(kTableCapacity));
  if (!table) {
    LOG_ERROR("sdk_cpp_debug", "KLIBCSzHashAlloc: Fail to allocate memory");
    return -1;
  }
  PutArguments(notification["arg_list"], table.get());
  PutIfSet(table.get(), "DESKTOP_NOTIFY_TITLE", title_);
  PutIfSet(table.get(), "DESKTOP_NOTIFY_CLASSNAME", class_name_);
  PutIfSet(table.get(), "FILTER_SETTING", filter_setting_);

  const std::string id = notification["notify_id"].asString();
  ReentrantLock lock("Send");
  if (ZEPHSysNotifySendNotifiction(id.c_str(), table.get()) != 0) {
    LOG_ERROR("sdk_cpp_debug", "ZEPHSysNotifySendNotifiction(%s): Error code %d", id.c_str(),
              KLIBErrCodeGet());
    return -1;
  }
  return 0;
}

}  // namespace SDK
