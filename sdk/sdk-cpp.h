// The daemon's thin layer over the storage server's own libraries: the one
// lock that every call into them holds, user-list matching, and the sender
// of desktop notifications.  Shared folders are in sdk/share.h and
// sdk/share-service.h, file-system facts in sdk/fslib/fslib.h.
//
// The platform libraries are not known to be thread-safe, so every call
// into them from the message loop, the status thread and the share-listing
// thread runs under SDK::ReentrantMutex.  A thread that already holds it
// (one share operation calling another) re-enters without blocking.
#ifndef VESTA_SDK_SDK_CPP_H_
#define VESTA_SDK_SDK_CPP_H_

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <json/value.h>

#include "platform/klib.h"

namespace SDK {

// The process-wide recursive lock around the platform libraries.  Created
// on first use, destroyed at exit.  Each holder leaves a label naming what
// it is doing, for callbacks that trace the lock.
class ReentrantMutex {
 public:
  using Callback = std::function<void(const std::string& label)>;

  static ReentrantMutex& GetInstance();

  // Takes the lock, or re-enters it when this thread holds it already.
  void Lock(const std::string& label);
  // Leaves one level.  A call from a thread that does not hold the lock, or
  // while nobody holds it, is ignored.
  void Unlock();

  ReentrantMutex() = default;
  ReentrantMutex(const ReentrantMutex&) = delete;
  ReentrantMutex& operator=(const ReentrantMutex&) = delete;

 private:
  std::mutex mutex_;             // held by the owner between Lock and its last Unlock
  std::mutex guard_;             // guards owner_ and count_
  std::thread::id owner_;        // valid while count_ > 0
  int count_ = 0;                // recursion depth of the owner
  std::string label_;            // what the current holder does; owner-only
  std::vector<Callback> after_lock_;      // run once the lock is taken (empty here)
  std::vector<Callback> before_release_;  // run before it is let go (empty here)
};

// Holds the platform lock for one scope.
class ReentrantLock {
 public:
  explicit ReentrantLock(const std::string& label) { ReentrantMutex::GetInstance().Lock(label); }
  ~ReentrantLock() { ReentrantMutex::GetInstance().Unlock(); }
  ReentrantLock(const ReentrantLock&) = delete;
  ReentrantLock& operator=(const ReentrantLock&) = delete;
};

// 0 when `user` is named by `list`, a comma-separated text of user names
// (compared case-insensitively as UTF-8) and "@group" elements (matched
// case-insensitively against `groups`, the user's group names); -1 when
// not, or when an argument is null.
int UserIsInList(const char* user, const KlibSzList* groups, const char* list);

// Sends desktop notifications to the administrators.  Owned by the
// MonitorDaemon; SendNotification may be called from any thread.
class Notifier {
 public:
  Notifier(std::string title, std::string class_name, std::string recipients,
           std::string filter_setting);
  Notifier(const Notifier&) = delete;
  Notifier& operator=(const Notifier&) = delete;

  // `notification` is a JSON object with "notify_id" (text) and optionally
  // "arg_list", an array of {"key": ..., "value": ...}.  0 when sent, -1
  // when the notification is malformed or the platform refuses it.
  int SendNotification(const Json::Value& notification) const;

  const std::string& title() const { return title_; }
  const std::string& class_name() const { return class_name_; }
  const std::string& recipients() const { return recipients_; }
  const std::string& filter_setting() const { return filter_setting_; }

 private:
  std::string title_;           // "" = none
  std::string class_name_;      // desktop application that shows it; "" = none
  std::string recipients_;      // who should see it ("@administrators")
  std::string filter_setting_;  // "" = none
};

}  // namespace SDK

#endif  // VESTA_SDK_SDK_CPP_H_
