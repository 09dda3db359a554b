// The request map of the remote-server protocol.  RequestFactory holds the
// per-request parameters; Build hands them to a ProtocolBuilder, which puts
// the common members into a PObject map:
//   _action       the action name
//   _agent        {platform, type "sync", version {major 3, minor 0,
//                 mini 5, build 12700}, device_uuid when set}
//   view_id, root_node_id          when not 0
//   session, root_node_path        when not empty
//   server_id     {restore_id} when the restore id is not empty
// ProtoUI adds the authentication members and `@proto` before sending.
// Plain values used by one thread at a time.
#ifndef VESTA_NET_PROTO_BUILDER_H_
#define VESTA_NET_PROTO_BUILDER_H_

#include <stdint.h>

#include <string>
#include <utility>

#include "stream/PObject.h"

class ProtocolBuilder {
 public:
  ProtocolBuilder(uint64_t view_id, uint64_t root_node_id, std::string session,
                  std::string device_uuid, std::string restore_id, std::string root_node_path);
  virtual ~ProtocolBuilder() = default;

  // view_id, root_node_id, session, root_node_path and server_id, each when
  // set.
  virtual void AddOptionalFields();
  // `_agent`; an empty platform is sent as "Stackbay".
  virtual void SetAgent(const std::string& platform);
  virtual void SetAction(const std::string& action);

  const PObject& request() const { return request_; }

 private:
  PObject request_;  // the map being built
  uint64_t view_id_;
  uint64_t root_node_id_;
  std::string session_;
  std::string device_uuid_;
  std::string restore_id_;
  std::string root_node_path_;
};

class RequestFactory {
 public:
  // The monitor sets only the server's build number and its restore id;
  // the other parameters keep their defaults.
  explicit RequestFactory(int build_number = 0, std::string restore_id = std::string())
      : build_number_(build_number), restore_id_(std::move(restore_id)) {}

  // Replaces `request` with the map for `action`.
  void Build(const std::string& action, PObject* request) const;

  int build_number() const { return build_number_; }

 private:
  int build_number_;          // the server's build; not sent
  uint64_t view_id_ = 0;
  uint64_t root_node_id_ = 0;
  std::string session_;
  std::string device_uuid_;
  std::string restore_id_;
  std::string platform_;      // "" = the default agent platform
  std::string root_node_path_;
};

#endif  // VESTA_NET_PROTO_BUILDER_H_
