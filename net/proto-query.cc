// ProtoUI's requests: query_server_info, the certificate signature that
// comes with it, and query_user_info; each reply read into its record.
#include <string_view>

#include "net/proto-builder.h"
#include "net/proto-ui.h"
#include "net/proto-wire.h"

namespace {

int32_t Int32(const PObject& map, std::string_view key) {
  return static_cast<int32_t>(map.Lookup(key).AsInteger());
}

// The member as a 32-bit integer, or `absent` when the map lacks it.
int32_t Int32Or(const PObject& map, std::string_view key, int32_t absent) {
  const PObject& v = map.Lookup(key);
  return v.IsNull() ? absent : static_cast<int32_t>(v.AsInteger());
}

uint64_t Uint64(const PObject& map, std::string_view key) {
  return static_cast<uint64_t>(map.Lookup(key).AsInteger());
}

bool Flag(const PObject& map, std::string_view key) { return map.Lookup(key).AsBool(); }

std::string Text(const PObject& map, std::string_view key) {
  return map.Lookup(key).AsString();
}

int32_t PrivilegeOf(std::string_view word) {
  if (word == "read-write") return 2;
  if (word == "read-only") return 1;
  return 0;
}

ViewInfo ReadView(const PObject& v) {
  ViewInfo view;
  view.view_id = Uint64(v, "view_id");
  view.node_id = v.Lookup("node_id").IsNull() ? view.view_id : Uint64(v, "node_id");
  view.name = Text(v, "name");
  view.privilege = PrivilegeOf(v.Lookup("privilege").AsStringView());
  view.share_priv_disabled = Flag(v, "share_priv_disabled");
  view.share_version = Int32(v, "version");
  view.is_encryption = Flag(v, "is_encryption");
  view.is_mounted = Flag(v, "is_mounted");
  view.is_q9share = Flag(v, "is_q9share");
  view.q9_hash_key = Text(v, "q9_hash_key");
  view.q9_share_id = Text(v, "q9_share_id");
  return view;
}

}  // namespace

int ProtoUI::QueryServerInfo(ServerInfo* info) {
  if (!Validate(false)) return -1;
  PObject request;
  RequestFactory().Build("query_server_info", &request);
  request["get_all"] = 1;
  PObject reply;
  if (RunProtocol(kCmdQueryServerInfo, request, &reply) != 0) return -1;
  if (TakeProtocolError(reply)) return -1;

  info->database_serial = Text(reply, "database_serial");
  info->database_restore_id = Text(reply, "database_restore_id");
  info->server_id = Text(reply, "server_id");
  const PObject& package = reply.Lookup("package_version");
  if (!package.IsNull()) {
    info->package_major = Int32(package, "major");
    info->package_minor = Int32(package, "minor");
    info->package_build = Int32(package, "build");
  }
  const PObject& kos = reply.Lookup("kos");
  if (!kos.IsNull()) {
    info->kos_major = Int32(kos, "major");
    info->kos_minor = Int32(kos, "minor");
    info->kos_build = Int32(kos, "build");
    info->kos_fix = Int32(kos, "fix");
    info->kos_unique = Text(kos, "unique");
  }
  if (!reply.Lookup("server_alias").IsNull()) info->server_alias = Text(reply, "server_alias");
  if (!reply.Lookup("host_name").IsNull()) info->host_name = Text(reply, "host_name");
  ClearError();
  return 0;
}

int ProtoUI::QuerySslSignature(std::string* signature) {
  ServerInfo scratch;
  int rc = QueryServerInfo(&scratch);
  *signature = received_signature_;
  return rc;
}

int ProtoUI::QueryUserInfo(UserInfo* info, bool get_views) {
  if (!Validate(true)) return -1;
  PObject request;
  RequestFactory(build_number_, restore_id_).Build("query_user_info", &request);
  AddAuthentication(&request);
  request["get_view"] = get_views ? 1 : 0;
  PObject reply;
  if (RunProtocol(kCmdQueryUserInfo, request, &reply) != 0) return -1;
  if (TakeProtocolError(reply)) return -1;

  info->uid = Int32(reply, "uid");
  info->gid = Int32(reply, "gid");
  info->is_admin_group = Flag(reply, "is_admin_group");
  info->enable_email_notification = Int32Or(reply, "enable_email_notification", -1);
  info->enable_chat_notification = Int32Or(reply, "enable_chat_notification", -1);
  info->archive_codepage = Text(reply, "archive_codepage");
  info->enable_myfernbox = Flag(reply, "enable_myfernbox");
  info->enable_myfernbox_versioning = Flag(reply, "enable_myfernbox_versioning");
  info->myfernbox_keep_versions = Int32(reply, "myfernbox_keep_versions");
  info->displayname_setting = Text(reply, "displayname_setting");
  info->displayname_result = Text(reply, "displayname_result");
  info->name = Text(reply, "name");
  info->nickname = Text(reply, "nickname");
  info->preferred_color = Text(reply, "preferred_color");
  for (const PObject& v : reply.Lookup("view_list").AsArray()) info->views.push_back(ReadView(v));
  ClearError();
  return 0;
}
