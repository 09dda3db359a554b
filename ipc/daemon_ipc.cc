#include "ipc/daemon_ipc.h"

#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "config/setting.h"
#include "config/service.h"
#include "ipc/ipc.h"
#include "log/log.h"
#include "net/conn-finder.h"
#include "platform/fixed_path.h"
#include "sdk/share-service.h"
#include "sdk/share.h"
#include "stream/PObject.h"
#include "stream/redact.h"

const char kDaemonSocketPath[] = "/tmp/tarn.sock";

namespace {

const char kComponent[] = "default_component";

// Flags travel as the integers 0 and 1.
int64_t Flag(bool value) { return value ? 1 : 0; }

bool HasMember(const PObject& map, const char* key) {
  return map.IsMap() && map.AsMap().count(key) != 0;
}

// A command whose only argument is one id under `id_key`.
int SendIdCommand(const char* action, const char* id_key, uint64_t id) {
  PObject request, reply;
  request["action"] = std::string(action);
  request[id_key] = static_cast<int64_t>(id);
  return SendDaemonCommand(request, &reply);
}

// The local path of the shared folder behind `sync_folder`: "home" stands
// for itself, any other name is looked up on the storage server.
int ResolveSyncFolder(const std::string& sync_folder, std::string* path) {
  if (sync_folder == "home") {
    *path = sync_folder;
    return 0;
  }
  std::shared_ptr<SDK::Share> share = SDK::GetShare(sync_folder);
  if (!share || !share->IsValid()) {
    LOG_ERROR(kComponent, "get share path fail[%s]", sync_folder.c_str());
    return -1;
  }
  *path = share->GetPath();
  return 0;
}

int BuildAddSessionObject(const SessionInfo& s, const GeneralOptions& options,
                          PObject* request) {
  std::string config_path;
  {
    ServiceSetting setting(FixedPath(kServiceConfigPath));
    if (setting.GetSessionDir(s.id, &config_path) != 0) return -1;
  }
  std::string sync_folder;
  if (ResolveSyncFolder(s.sync_folder, &sync_folder) != 0) return -1;

  PObject& r = *request;
  r["action"] = std::string("add_session");
  r["sync_mode"] = static_cast<int64_t>(options.sync_mode);
  r["session_id"] = static_cast<int64_t>(s.id);
  r["connection_id"] = static_cast<int64_t>(s.conn_id);
  r["view_id"] = static_cast<int64_t>(s.view_id);
  r["node_id"] = static_cast<int64_t>(s.node_id);
  r["sync_folder"] = sync_folder;
  r["config_path"] = config_path;
  r["perm_mode"] = std::string(PermModeName(s.perm_mode));
  r["share_name"] = s.share_name;
  r["sync_direction"] = static_cast<int64_t>(s.sync_direction);
  r["ignore_local_remove"] = Flag(s.ignore_local_remove);
  r["conflict_policy"] = s.conflict_policy;
  r["rename_conflict"] = Flag(s.rename_conflict);
  r["attribute_check_strength"] = static_cast<int64_t>(s.attribute_check_strength);
  r["with_q9share"] = Flag(s.with_q9share);
  return 0;
}

// Creates the session directory when nothing is at `path`; 0 when a
// directory is there afterwards.
int EnsureDirectory(const std::string& path) {
  if (access(path.c_str(), F_OK) != 0) mkdir(path.c_str(), 0755);
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return -1;
  return 0;
}

}  // namespace

const char* PermModeName(int perm_mode) {
  static const char* const kNames[] = {"sync-all", "domain-only", "exec-bit-only"};
  if (perm_mode < 0 || perm_mode >= static_cast<int>(sizeof(kNames) / sizeof(kNames[0]))) {
    return "";
  }
  return kNames[perm_mode];
}

int SendCommand(const std::string& socket_path, const PObject& request, PObject* reply) {
  // The sender disconnects in its destructor, on every way out.
  IPCSender sender;
  int rc = sender.Connect(socket_path);
  if (rc != 0) {
    LOG_ERROR(kComponent, "open domain socket fail[code=%d, path=%s]", rc, socket_path.c_str());
    return -1;
  }
  const std::string action = request.Lookup("action").AsString();
  if (sender.Send(request) != 0) {
    LOG_ERROR(kComponent, "send ipc command fail[action=%s]", action.c_str());
    return -1;
  }
  if (sender.Receive(reply) != 0) {
    LOG_ERROR(kComponent, "receive ipc command fail[action=%s]", action.c_str());
    return -1;
  }
  if (HasMember(*reply, "error")) {
    const PObject& error = reply->Lookup("error");
    const std::string text = error.IsString() ? error.AsString() : ToLogJson(error);
    LOG_ERROR(kComponent, "ipc response error[action=%s, error=%s]", action.c_str(), text.c_str());
    return -1;
  }
  if (HasMember(*reply, "ack")) {
    const std::string ack = reply->Lookup("ack").AsString();
    if (ack != "ok") {
      LOG_ERROR(kComponent, "ipc ack not ok[ack=%s]", ack.c_str());
      return -1;
    }
  }
  return 0;
}

int SendDaemonCommand(const PObject& request, PObject* reply) {
  return SendCommand(FixedPath(kDaemonSocketPath), request, reply);
}

int AddSession(const SessionInfo& session, const GeneralOptions& options, bool resume,
               bool three_way_merge) {
  PObject request, reply;
  if (BuildAddSessionObject(session, options, &request) != 0) {
    LOG_ERROR(kComponent, "prepare PObject for adding session fail");
    return -1;
  }
  if (EnsureDirectory(request.Lookup("config_path").AsString()) != 0) {
    LOG_ERROR(kComponent, "create session folder fail");
    return -1;
  }
  const unsigned long long id = session.id;
  const std::string share_name = request.Lookup("share_name").AsString();
  if (SendDaemonCommand(request, &reply) != 0) {
    LOG_ERROR(kComponent, "add session to daemon fail[id=%llu,path=%s]", id, share_name.c_str());
    return -1;
  }
  if (three_way_merge) {
    int rc = AddThreeWayMergeEvent(session.id);
    if (rc != 0) {
      LOG_ERROR(kComponent, "add three way merge event to daemon fail[id=%llu,path=%s]", id,
                share_name.c_str());
    }
    return rc;
  }
  if (resume) {
    int rc = ResumeSession(session.id);
    if (rc != 0) {
      LOG_ERROR(kComponent, "resume session to daemon fail[id=%llu,path=%s]", id,
                share_name.c_str());
    }
    return rc;
  }
  return 0;
}

int RemoveSession(uint64_t session_id) {
  return SendIdCommand("remove_session", "session_id", session_id);
}

int PauseSession(uint64_t session_id) { return SendIdCommand("pause", "session_id", session_id); }

int ResumeSession(uint64_t session_id) {
  return SendIdCommand("resume", "session_id", session_id);
}

int RemoveWatchSession(uint64_t session_id) {
  return SendIdCommand("remove_watch_session", "session_id", session_id);
}

int PauseConnection(uint64_t connection_id) {
  return SendIdCommand("pause", "connection_id", connection_id);
}

int UnlinkConnection(uint64_t connection_id) {
  return SendIdCommand("unlink_connection", "connection_id", connection_id);
}

int GetStatus(PObject* reply) {
  PObject request;
  request["action"] = std::string("get_status");
  return SendDaemonCommand(request, reply);
}

int ReloadConnection(const ConnectionEntry& connection) {
  PObject request, reply;
  FillConnectionObject(connection, &request);
  return SendDaemonCommand(request, &reply);
}

int ReloadSessionFilter(uint64_t session_id) {
  PObject request, reply;
  request["action"] = std::string("reload_session");
  request["session_id"] = static_cast<int64_t>(session_id);
  request["do_reload_filter"] = static_cast<int64_t>(1);
  return SendDaemonCommand(request, &reply);
}

int ReloadSessionConflictPolicy(uint64_t session_id, const std::string& conflict_policy,
                                bool rename_conflict) {
  PObject request, reply;
  request["action"] = std::string("reload_session");
  request["session_id"] = static_cast<int64_t>(session_id);
  request["conflict_policy"] = conflict_policy;
  request["rename_conflict"] = Flag(rename_conflict);
  return SendDaemonCommand(request, &reply);
}

int AddEvent(uint64_t session_id, const std::string& type, const std::string& path,
             bool is_dir) {
  PObject request, reply;
  request["action"] = std::string("add_event");
  request["session_id"] = static_cast<int64_t>(session_id);
  request["type"] = type;
  request["path"] = path;
  request["is_dir"] = Flag(is_dir);
  return SendDaemonCommand(request, &reply);
}

int AddThreeWayMergeEvent(uint64_t session_id) {
  PObject request, reply;
  request["action"] = std::string("add_event");
  request["type"] = std::string("three_way_merge");
  request["session_id"] = static_cast<int64_t>(session_id);
  request["path"] = std::string("/");
  return SendDaemonCommand(request, &reply);
}

int AddWatchSession(uint64_t session_id, bool merge_mode) {
  PObject request, reply;
  request["action"] = std::string("add_watch_session");
  request["session_id"] = static_cast<int64_t>(session_id);
  request["merge_mode"] = Flag(merge_mode);
  return SendDaemonCommand(request, &reply);
}

void FillConnectionObject(const ConnectionEntry& c, PObject* map) {
  ProxyInfo proxy;
  if (GetSystemProxy(&proxy) < 0) {
    // No system proxy to describe: tell the daemon to find one itself.
    proxy = ProxyInfo();
    proxy.use_proxy = true;
    proxy.use_system_proxy = true;
  }
  PObject& m = *map;
  m["action"] = std::string("reload_connection");
  m["connection_id"] = static_cast<int64_t>(c.id);
  m["server_name"] = c.server_name;
  m["connection_mode"] = static_cast<int64_t>(c.conn_mode);
  m["domain_name"] = c.domain_name;
  m["server_ip"] = c.server_ip;
  m["server_port"] = static_cast<int64_t>(c.server_port);
  m["nx_id"] = c.nx_id;
  m["restore_id"] = c.restore_id;
  m["protocol_version"] = static_cast<int64_t>(c.protocol_version);
  m["use_ssl"] = Flag(c.use_ssl);
  m["ssl_signature"] = c.ssl_signature;
  m["ssl_allow_untrust"] = Flag(c.ssl_allow_untrust);
  m["use_proxy"] = Flag(proxy.use_proxy);
  m["use_sys_proxy"] = Flag(proxy.use_system_proxy);
  m["proxy_ip"] = proxy.proxy_ip;
  m["proxy_port"] = static_cast<int64_t>(proxy.proxy_port);
  m["proxy_username"] = proxy.proxy_username;
  m["proxy_password"] = proxy.proxy_password;
  m["proxy_domain"] = proxy.proxy_domain;
  m["proxy_host"] = proxy.proxy_host;
  m["tunnel_ip"] = c.tunnel.tunnel_ip;
  m["tunnel_port"] = static_cast<int64_t>(c.tunnel.tunnel_port);
  m["session"] = c.session;
  m["username"] = c.username;
  m["computer_name"] = c.computer_name;
  m["package_version"] = static_cast<int64_t>(c.package_version);
  m["package_major"] = static_cast<int64_t>(c.major);
  m["package_minor"] = static_cast<int64_t>(c.minor);
}
