#include "net/proto-builder.h"

#include "net/proto-wire.h"

ProtocolBuilder::ProtocolBuilder(uint64_t view_id, uint64_t root_node_id, std::string session,
                                 std::string device_uuid, std::string restore_id,
                                 std::string root_node_path)
    : view_id_(view_id),
      root_node_id_(root_node_id),
      session_(std::move(session)),
      device_uuid_(std::move(device_uuid)),
      restore_id_(std::move(restore_id)),
      root_node_path_(std::move(root_node_path)) {
  request_.MutableMap();
}

void ProtocolBuilder::AddOptionalFields() {
  if (view_id_ != 0) request_["view_id"] = view_id_;
  if (root_node_id_ != 0) request_["root_node_id"] = root_node_id_;
  if (!root_node_path_.empty()) request_["root_node_path"] = root_node_path_;
  if (!session_.empty()) request_["session"] = session_;
  if (!restore_id_.empty()) request_["server_id"]["restore_id"] = restore_id_;
}

void ProtocolBuilder::SetAgent(const std::string& platform) {
  PObject& agent = request_["_agent"];
  agent["platform"] = platform.empty() ? kAgentDefaultPlatform : platform.c_str();
  agent["type"] = kAgentType;
  PObject& version = agent["version"];
  version["major"] = kAgentVersionMajor;
  version["minor"] = kAgentVersionMinor;
  version["mini"] = kAgentVersionMini;
  version["build"] = kAgentVersionBuild;
  if (!device_uuid_.empty()) agent["device_uuid"] = device_uuid_;
}

void ProtocolBuilder::SetAction(const std::string& action) { request_["_action"] = action; }

void RequestFactory::Build(const std::string& action, PObject* request) const {
  ProtocolBuilder builder(view_id_, root_node_id_, session_, device_uuid_, restore_id_,
                          root_node_path_);
  builder.AddOptionalFields();
  builder.SetAgent(platform_);
  builder.SetAction(action);
  *request = builder.request();
}
