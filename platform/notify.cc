#include "platform/notify.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include <json/json.h>

#include "log/log.h"
#include "platform/fixed_path.h"
#include "platform/safe_file.h"
#include "platform/scoped_fd.h"

namespace {

constexpr char kNotificationFile[] = "/var/lib/vesta/notifications.jsonl";

// mkdir -p of every directory above `file`.
void MakeParents(const std::string& file) {
  for (size_t slash = file.find('/', 1); slash != std::string::npos;
       slash = file.find('/', slash + 1)) {
    mkdir(file.substr(0, slash).c_str(), 0755);  // EEXIST is the common case
  }
}

std::string ToLine(const char* notify_id, const KlibSzHash* table) {
  Json::Value line(Json::objectValue);
  line["time"] = static_cast<Json::Int64>(std::time(nullptr));
  line["notify_id"] = notify_id;
  Json::Value& entries = line["table"] = Json::Value(Json::objectValue);
  for (const auto& entry : table->entries) entries[entry.first] = entry.second;
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, line) + "\n";
}

}  // namespace

std::string ZephNotificationFilePath() {
  std::string path = FixedPath(kNotificationFile);
  MakeParents(path);
  return path;
}

int ZEPHSysNotifySendNotifiction(const char* notify_id, const KlibSzHash* table) {
  if (notify_id == nullptr || table == nullptr) {
    KLIB_SET_ERR(KLIB_ERR_BAD_PARAMETER);
    return -1;
  }
  const std::string path = ZephNotificationFilePath();
  const std::string line = ToLine(notify_id, table);
  ScopedFd fd(OpenFileNoFollow(path, O_WRONLY | O_APPEND, 0644));
  ssize_t n = -1;
  if (fd.valid()) {
    do {
      n = write(fd.get(), line.data(), line.size());
    } while (n < 0 && errno == EINTR);
  }
  if (n != static_cast<ssize_t>(line.size())) {
    LOG_ERROR("platform", "cannot append notification %s to '%s': %s", notify_id, path.c_str(),
              std::strerror(errno));
    KLIB_SET_ERR(KLIB_ERR_SYSTEM);
    return -1;
  }
  LOG_INFO("platform", "notification %s: %s", notify_id, line.substr(0, line.size() - 1).c_str());
  return 0;
}
