// ProtoUI: the client side of the request protocol of a remote storage
// server.  Each request opens its own connection, writes the 8-byte header
// (net/proto-wire.h), optionally switches the connection to TLS through the
// encrypt_channel step, sends one PObject request map and reads one reply
// map; the connection is closed before the call returns.  Nothing is
// retried.  Every request goes straight to the server address (a host or
// address and a port, or "unix:" followed by a socket path, which is never
// switched to TLS); proxy and tunnel settings are kept, not used.
//
// Callers, each with a ProtoUI of its own made for one operation:
//  - the share-listing updater (share-listing thread): QueryUserInfo with
//    the view list, using the connection's login session;
//  - the error handler (on whichever thread calls HandleError, the status
//    thread or the main thread): QueryServerInfo for the server version
//    check, without TLS, and QuerySslSignature to refresh a stored
//    certificate signature, with the connection's host rule given through
//    SetSsl(use TLS, verify host, host name, expected signature).
// A ProtoUI belongs to one thread at a time and takes no lock; several may
// run at once on different threads.  Only the cancel flag and the run flag
// that m_run_flag points at may change meanwhile, from another thread or a
// signal handler.
//
// Limits (net/net-limits.h): one request's exchange ends within twice the
// time-out however the server trickles, keep-alives included; a reply may
// take at most kReplySizeCap of memory; and every exchange ends once the
// run flag is cleared.
//
// Results: each Query returns 0 or -1.  After 0 the error fields are clear
// (code 0, sub-code 0, reason "").  After -1 they describe the failure:
//   -100        "missing server ip address", "missing authentication info"
//               (before any connection is made)
//   -200        a channel or stream failure; the reason names the step:
//               "channel error while connecting to server",
//               "channel error while sending header",
//               "stream error while sending request",
//               "stream error while receiving response",
//               "channel error while sending encrypt_channel header",
//               "stream error while sending encrypt_channel request",
//               "stream error while receiving encrypt_channel response",
//               "channel error while converting SSL channel"
//   -201, -202  the TLS switch failed the certificate's chain or host name
//               check, or its signature differs from the expected one
//   -301        malformed data: undecodable, larger than the cap, or a
//               reply carrying a file (replies may never write files)
//   -203..-1200 the server refused: `error.code` mapped by MapServerError
//               (net/proto-error.h), reason "protocol error, reason = '...'";
//               -904 keeps the server's code as sub-code.  A refusal with
//               code 0 returns -1 with the error fields clear.
// An answer that is no map is no refusal either: the query returns 0 with
// its record at the defaults.
#ifndef VESTA_NET_PROTO_UI_H_
#define VESTA_NET_PROTO_UI_H_

#include <stdint.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "db/records.h"
#include "stream/PObject.h"

class Channel;
class PStream;
namespace cat {
class Clock;
}  // namespace cat

// What query_server_info tells about the server.
struct ServerInfo {
  int32_t package_major = 0;
  int32_t package_minor = 0;
  int32_t package_build = 0;  // the server package's build number
  int32_t kos_major = 0;
  int32_t kos_minor = 0;
  int32_t kos_build = 0;
  int32_t kos_fix = 0;
  std::string kos_unique;  // the server system's unique id
  std::string server_id;
  std::string server_alias;
  std::string database_serial;
  std::string database_restore_id;
  std::string host_name;
};

// One shared folder offered by the server.
struct ViewInfo {
  uint64_t view_id = 0;
  uint64_t node_id = 0;   // the view_id when the server sends none
  std::string name;
  int32_t privilege = 0;  // 2 read-write, 1 read-only, 0 other
  int32_t share_version = 0;
  bool share_priv_disabled = false;
  bool is_encryption = false;
  bool is_mounted = false;
  bool is_q9share = false;
  std::string q9_share_id;
  std::string q9_hash_key;

  bool operator==(const ViewInfo& o) const {
    return view_id == o.view_id && node_id == o.node_id && name == o.name &&
           privilege == o.privilege && share_version == o.share_version &&
           share_priv_disabled == o.share_priv_disabled && is_encryption == o.is_encryption &&
           is_mounted == o.is_mounted && is_q9share == o.is_q9share &&
           q9_share_id == o.q9_share_id && q9_hash_key == o.q9_hash_key;
  }
};

// What query_user_info tells about the logged-in user.
struct UserInfo {
  int32_t uid = 0;
  int32_t gid = 0;
  bool is_admin_group = false;
  std::vector<ViewInfo> views;  // in the server's order
  int32_t enable_email_notification = -1;  // -1: not received
  int32_t enable_chat_notification = -1;   // -1: not received
  bool enable_myfernbox = false;
  bool enable_myfernbox_versioning = false;
  int32_t myfernbox_keep_versions = 0;
  std::string archive_codepage;
  std::string displayname_setting;
  std::string displayname_result;
  std::string name;
  std::string nickname;
  std::string preferred_color;
};

class ProtoUI {
 public:
  ProtoUI();  // every setting at its default (see Reset)
  ~ProtoUI();
  ProtoUI(const ProtoUI&) = delete;
  ProtoUI& operator=(const ProtoUI&) = delete;

  // Back to the defaults: TLS on without host check, time-out 10 s, port
  // 6690, every text empty, every number 0, no proxy, tunnel or cancel flag,
  // no error.
  void Reset();

  // With `use_tls` the connection switches to TLS after connecting.  With
  // `verify_host` the certificate chain must verify against the CA bundle
  // (Channel::m_ca_path) and name `host_name`; without it the chain is not
  // checked.  `expected_signature` ("" = any) must equal the certificate's
  // signature text in both cases.
  void SetSsl(bool use_tls, bool verify_host, const std::string& host_name,
              const std::string& expected_signature);
  // A host name or address and a TCP port, or "unix:" + a socket path.
  void SetServer(const std::string& address, uint32_t port);
  void SetSession(const std::string& session);
  void SetBuildNumber(int build_number);
  void SetRestoreId(const std::string& restore_id);
  void SetTimeout(int seconds);  // 0 keeps the channel's own time-out
  void SetProxy(const ProxyInfo& proxy);     // kept (copied), not used
  void SetTunnel(const TunnelInfo& tunnel);  // kept (copied), not used
  // `private_key` is PEM text; with it (and no sharing token or session)
  // the login is by signature, and `key_fingerprint` names the key.
  void SetAuth(const std::string& username, const std::string& password, const std::string& otp,
               const std::string& private_key, const std::string& key_fingerprint,
               const std::string& sharing_token);
  // `sudo` is sent as `text` when that is set, else as `number` when not 0.
  void SetSudo(const std::string& text, uint32_t number);
  // Sent as `x-forward` {ip, port, proto} when `ip` is set.
  void SetForward(const std::string& ip, uint32_t port, const std::string& proto);
  // `flag` is owned by the caller and must outlive the requests; non-zero
  // aborts the connection's waits.  nullptr removes it.
  void SetCancelFlag(const std::atomic<int>* flag);
  // The time source of the exchange's deadline and idle time-out; not
  // owned.  Tests replace the real clock.
  void SetClock(cat::Clock* clock) { clock_ = clock; }

  // The process's run flag, read by every ProtoUI: once it reads 0 every
  // exchange in progress or to come is cancelled (-200).  Set once at
  // start-up, before any request; nullptr (the default) for none.
  static const std::atomic<int32_t>* m_run_flag;

  // query_server_info with `get_all`; needs no login.  Fills `info`:
  // database_serial, database_restore_id and server_id always, the version
  // maps, server_alias and host_name when the reply has them.
  int QueryServerInfo(ServerInfo* info);
  // Runs QueryServerInfo and sets `signature` to the certificate signature
  // text seen during the TLS switch ("" when none happened), whatever the
  // result.  Returns the query's result.
  int QuerySslSignature(std::string* signature);
  // query_user_info with the login; `get_views` asks for the view list.
  // Fills `info`; the views are appended to `info->views`.
  int QueryUserInfo(UserInfo* info, bool get_views);

  int GetErrorCode() const { return error_code_; }
  int GetErrorSubCode() const { return error_sub_code_; }
  const std::string& GetErrorReason() const { return error_reason_; }
  // SHA-256 (64 hex digits) of the certificate seen by the last TLS switch.
  const std::string& GetServerSignatureHash() const { return server_signature_hash_; }

 private:
  bool Validate(bool need_authentication);
  void AddAuthentication(PObject* request) const;
  bool AddSignatureLogin(PObject* request) const;
  int RunProtocol(uint8_t command, const PObject& request, PObject* reply);
  int Exchange(uint8_t command, const PObject& request, PObject* reply);
  void AddProtoMap(PObject* request) const;
  int ReadAnswer(PStream* stream, PObject* reply);
  int Connect();
  static int SendHeader(Channel* channel, uint8_t version, uint8_t command);
  int EncryptChannel(Channel* channel);
  bool IsUnixAddress() const;

  void ClearError();
  void SetError(int code, int sub_code, const std::string& reason);
  void SetChannelError(int channel_code, const char* reason);
  void SetStreamError(int stream_code, const char* reason);
  // The reply's `error` member; true (and the error set) when there is one.
  bool TakeProtocolError(const PObject& reply);

  std::string server_signature_hash_;  // of the certificate of the last switch
  std::string session_;
  std::string username_;
  std::string password_;
  std::string otp_;                    // one-time password
  std::string private_key_;            // PEM
  std::string key_fingerprint_;
  std::string sudo_text_;
  uint32_t sudo_number_;               // sent when sudo_text_ is empty
  std::string forward_ip_;
  uint32_t forward_port_;
  std::string forward_proto_;
  std::string sharing_token_;
  std::unique_ptr<Channel> channel_;   // only while a request runs
  bool use_tls_;
  bool verify_host_;
  std::string host_name_;              // checked when verify_host_
  std::string expected_signature_;     // "" = any
  std::string received_signature_;     // seen by the last TLS switch
  int timeout_;                        // seconds; 0 = the channel's default
  std::string server_address_;
  uint32_t server_port_;
  int build_number_;
  std::string restore_id_;
  std::unique_ptr<ProxyInfo> proxy_;
  std::unique_ptr<TunnelInfo> tunnel_;
  const std::atomic<int>* cancel_flag_;  // not owned; null = none
  cat::Clock* clock_;                    // not owned
  int error_code_;
  int error_sub_code_;
  std::string error_reason_;
};

#endif  // VESTA_NET_PROTO_UI_H_
