// Wire constants of the remote-server request protocol, in one place for
// the header writer, the request builder and the client.
//
// Every request starts with an 8-byte header (big-endian):
//   magic             4 bytes  kProtoHeaderMagic
//   protocol version  1 byte   kProtoVersion
//   command           1 byte   ProtoCommand
//   payload length    2 bytes  always 0 (the body is one PObject map)
// then one PObject request map; the reply is one PObject map.  After
// encrypt_channel's reply both sides switch the same connection to TLS.
#ifndef VESTA_NET_PROTO_WIRE_H_
#define VESTA_NET_PROTO_WIRE_H_

#include <stdint.h>

constexpr uint32_t kProtoHeaderMagic = 0x25521814;
constexpr uint8_t kProtoVersion = 70;
constexpr uint16_t kProtoPayloadLength = 0;

enum ProtoCommand : uint8_t {
  kCmdQueryUserInfo = 17,
  kCmdEncryptChannel = 22,
  kCmdQueryServerInfo = 25,
};

// The `_agent` map of every request.
constexpr char kAgentDefaultPlatform[] = "Stackbay";  // when none is set
constexpr char kAgentType[] = "sync";
constexpr int kAgentVersionMajor = 3;
constexpr int kAgentVersionMinor = 0;
constexpr int kAgentVersionMini = 5;
constexpr int kAgentVersionBuild = 12700;

// The `@proto` map added to every request but encrypt_channel.
constexpr char kProtoKey[] = "@proto";
constexpr char kProtoType[] = "header";
constexpr int kProtoMapMajor = 7;
constexpr int kProtoMapMinor = 0;

// A reply of this `type` only keeps the connection alive; the answer
// follows.
constexpr char kReplyTypeKeepAlive[] = "keep_alive";

// Addresses of this form name a UNIX-domain socket path, not a host.
constexpr char kUnixAddressPrefix[] = "unix:";

#endif  // VESTA_NET_PROTO_WIRE_H_
