// "notify": "share_hook": events of the storage server's own shared folders.
// The session that syncs the folder is paused, resumed, reloaded, re-added
// to the sync daemon, has its encryption state stored, or is handed to
// HandleError to be stopped or disabled.  Main thread only; no lock of the
// MonitorDaemon is taken (the database and the sync daemon serialise their
// own work).  The sender has its acknowledgement before any of this runs,
// so failures are only logged.
#include <cstdint>
#include <memory>
#include <string>

#include "db/client-updater-util.h"
#include "db/records.h"
#include "db/system-db.h"
#include "ipc/daemon_ipc.h"
#include "log/log.h"
#include "monitor/monitor-util.h"
#include "monitor/vesta-monitor.h"
#include "sdk/share-service.h"
#include "stream/PObject.h"

using monitor::kComponent;

namespace {

using ull = unsigned long long;

// Monitor error codes of the share events.
constexpr int kShareNonExist = 11;
constexpr int kLocalShareNotMounted = 12;

// Session status of a session the sync daemon runs.
constexpr int kSessionRunning = 1;

// One hook being handled.
struct ShareHook {
  MonitorDaemon* daemon;
  std::string share_name;
  std::string type;
  int64_t result;          // outcome of a transform; 0 = success
  SessionInfo session;     // the session whose sync_folder is share_name
  ConnectionEntry connection;  // read only for rows that need an enabled session
};

// Results of the sync-daemon commands below are ignored: each command logs
// its own failure, and the hook's sender is long gone.
void PauseAndUnwatch(uint64_t session_id) {
  PauseSession(session_id);
  RemoveWatchSession(session_id);
}

void ResumeAndWatch(uint64_t session_id, bool merge_mode) {
  ResumeSession(session_id);
  AddWatchSession(session_id, merge_mode);
}

// Stores the share's encryption state in the session's row, and in the
// record that HandleError and the re-add are given.
bool StoreEncryptionState(ShareHook* hook, bool encrypted, bool mounted) {
  if (SystemDB::setSessionEncryptionState(hook->session.id, encrypted, mounted) != 0) {
    return false;
  }
  hook->session.is_encryption = encrypted;
  hook->session.is_mounted = mounted;
  return true;
}

// Brings a session that was stopped for an unmounted share back into the
// sync daemon: error cleared, status running, added with a resume.
int ReAddSession(const SessionInfo& session) {
  if (!session.is_daemon_enable) return 0;
  if (SystemDB::setSessionErr(session.id, 0) != 0) {
    LOG_ERROR(kComponent, "failed to reset session error (%llu)", static_cast<ull>(session.id));
    return -1;
  }
  if (SystemDB::setSessionStatus(session.id, kSessionRunning) != 0) {
    LOG_ERROR(kComponent, "failed to reset session status (%llu)", static_cast<ull>(session.id));
    return -1;
  }
  GeneralOptions options;
  if (SystemDB::getGeneralOptions(&options) != 0) {
    LOG_ERROR(kComponent, "Fail to get general_options");
    return -1;
  }
  if (AddSession(session, options, true, false) != 0) {
    LOG_ERROR(kComponent, "failed to add daemon session %llu", static_cast<ull>(session.id));
    return -1;
  }
  return 0;
}

// After a successful transform, with the share's encryption state already
// stored: the filter's name limit follows it, and an unmounted share stops
// the session; a mounted one resumes with its filter reloaded.
void CompleteShareTransform(ShareHook* hook, bool mounted) {
  ApplySessionFilterMaxLength(hook->session.id);
  if (!mounted) {
    hook->daemon->HandleError(hook->connection, hook->session, kLocalShareNotMounted, nullptr);
    return;
  }
  ReloadSessionFilter(hook->session.id);
  ResumeAndWatch(hook->session.id, true);
}

int OnPrivilegeChange(ShareHook* hook) {
  LOG_INFO(kComponent, "shared folder '%s' privilege changed", hook->share_name.c_str());
  const SessionInfo& s = hook->session;
  if (!s.is_daemon_enable || !s.is_mounted) return 0;
  if (AddEvent(s.id, "upload", "/", true) != 0) {
    LOG_ERROR(kComponent, "failed to notify daemon (shared folder '%s' changed)",
              hook->share_name.c_str());
    return -1;
  }
  return 0;
}

int OnPreSnapshotRestore(ShareHook* hook) {
  LOG_INFO(kComponent, "pre: share folder '%s' is restored from snaphost",
           hook->share_name.c_str());
  PauseAndUnwatch(hook->session.id);
  return 0;
}

int OnPostSnapshotRestore(ShareHook* hook) {
  LOG_INFO(kComponent, "post: share folder '%s' is restored from snaphost",
           hook->share_name.c_str());
  ResumeAndWatch(hook->session.id, false);
  return 0;
}

int OnPreShareTransform(ShareHook* hook) {
  LOG_INFO(kComponent, "pre: share '%s' is about to be transformed", hook->share_name.c_str());
  PauseAndUnwatch(hook->session.id);
  return 0;
}

int OnPostShareTransform(ShareHook* hook) {
  if (hook->result != 0) {
    // The transform failed: the share is as it was before the "pre" hook.
    ResumeAndWatch(hook->session.id, false);
    return 0;
  }
  std::shared_ptr<SDK::Share> share = SDK::GetShare(hook->share_name);
  if (!share) {
    LOG_ERROR(kComponent, "Open share (%s) failed", hook->share_name.c_str());
    return -1;
  }
  const bool encrypted = share->IsEncryption();
  const bool mounted = share->IsMounted();
  if (!StoreEncryptionState(hook, encrypted, mounted)) {
    LOG_ERROR(kComponent, "Failed to set session %llu enc status (%d,%d)",
              static_cast<ull>(hook->session.id), encrypted, mounted);
    return -1;
  }
  CompleteShareTransform(hook, mounted);
  return 0;
}

int OnEncrypt(ShareHook* hook) {
  LOG_WARNING(kComponent, "disable unmounted enc shared folder '%s' (%s)",
              hook->share_name.c_str(), hook->type.c_str());
  if (!StoreEncryptionState(hook, true, false)) {
    LOG_ERROR(kComponent, "Failed to set session %llu enc status",
              static_cast<ull>(hook->session.id));
    return -1;
  }
  hook->daemon->HandleError(hook->connection, hook->session, kLocalShareNotMounted, nullptr);
  return 0;
}

int OnDecrypt(ShareHook* hook) {
  LOG_WARNING(kComponent, "mounted enc shared folder '%s' (%s)", hook->share_name.c_str(),
              hook->type.c_str());
  if (!StoreEncryptionState(hook, true, true)) {
    LOG_ERROR(kComponent, "Failed to set enc status to session %llu",
              static_cast<ull>(hook->session.id));
    return -1;
  }
  return ReAddSession(hook->session);
}

int OnOtherHook(ShareHook* hook) {
  LOG_WARNING(kComponent, "disable shared folder '%s' (%s)", hook->share_name.c_str(),
              hook->type.c_str());
  hook->daemon->HandleError(hook->connection, hook->session, kShareNonExist, nullptr);
  return 0;
}

// What each hook type does.  A row that needs an enabled session ignores a
// disabled one silently, and reads the session's connection before acting.
struct HookRow {
  const char* type;
  bool needs_enabled;
  int (*action)(ShareHook* hook);  // 0, or -1 when a database or open step failed
};

constexpr HookRow kHookRows[] = {
    {"set_privilege_change", false, OnPrivilegeChange},
    {"pre_snapshot_restore", false, OnPreSnapshotRestore},
    {"post_snapshot_restore", false, OnPostSnapshotRestore},
    {"pre_share_transform", true, OnPreShareTransform},
    {"post_share_transform", true, OnPostShareTransform},
    {"encrypt", true, OnEncrypt},
    {"decrypt", true, OnDecrypt},
};
// Any other type: the share is gone, or in a state the session cannot follow.
constexpr HookRow kOtherHookRow = {"", true, OnOtherHook};

const HookRow& LookupHook(const std::string& type) {
  for (const HookRow& row : kHookRows) {
    if (type == row.type) return row;
  }
  return kOtherHookRow;
}

}  // namespace

int MonitorDaemon::HandleShareHook(const PObject& request, PObject* /*reply*/) {
  ShareHook hook;
  hook.daemon = this;
  hook.share_name = request.Lookup("share_name").AsString();
  hook.type = request.Lookup("type").AsString();
  hook.result = request.Lookup("result").AsInteger();
  LOG_INFO(kComponent, "Received share hook ('%s', '%s')", hook.share_name.c_str(),
           hook.type.c_str());

  const int found = SystemDB::getSessionInfoBySyncFolder(hook.share_name, &hook.session);
  if (found != 1) {
    LOG_WARNING(kComponent, "no such session '%s'", hook.share_name.c_str());
    return found < 0 ? -1 : 0;
  }
  const HookRow& row = LookupHook(hook.type);
  if (row.needs_enabled) {
    if (!hook.session.is_daemon_enable) return 0;
    if (SystemDB::getConnectionEntryByConnID(hook.session.conn_id, &hook.connection) != 0) {
      LOG_ERROR(kComponent, "failed to get connection info of session %llu",
                static_cast<ull>(hook.session.id));
      return -1;
    }
  }
  return row.action(&hook);
}
