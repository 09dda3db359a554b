#include "sdk/sdk-cpp.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "log/log.h"
#include "platform/notify.h"
#include "platform/utf8_case.h"
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
