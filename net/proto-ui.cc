// ProtoUI: settings, authentication, one request's connection and the
// error fields.  The queries themselves are in proto-query.cc.
#include "net/proto-ui.h"

#include <time.h>

#include <algorithm>

#include "db/base64.h"
#include "log/log.h"
#include "net/cat/controller.h"
#include "net/channel.h"
#include "net/net-limits.h"
#include "net/proto-builder.h"
#include "net/proto-error.h"
#include "net/proto-wire.h"
#include "net/rsa.h"
#include "stream/redact.h"
#include "stream/stream.h"

namespace {

const char kComponent[] = "proto_ui_debug";

constexpr int kDefaultTimeout = 10;         // seconds
constexpr uint32_t kDefaultServerPort = 6690;

bool StartsWith(const std::string& text, const char* prefix) {
  return text.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

// A reply may never make the client write a file where the server chose,
// nor take more of its memory than the cap.  The stream's requests are
// not affected.
void GuardReplies(PStream* stream) {
  stream->SetRefuseBinaries(true);
  stream->SetSizeCap(kReplySizeCap);
}

}  // namespace

const std::atomic<int32_t>* ProtoUI::m_run_flag = nullptr;

ProtoUI::ProtoUI() { Reset(); }

ProtoUI::~ProtoUI() = default;

void ProtoUI::Reset() {
  server_signature_hash_.clear();
  session_.clear();
  username_.clear();
  password_.clear();
  otp_.clear();
  private_key_.clear();
  key_fingerprint_.clear();
  sudo_text_.clear();
  sudo_number_ = 0;
  forward_ip_.clear();
  forward_port_ = 0;
  forward_proto_.clear();
  sharing_token_.clear();
  channel_.reset();
  use_tls_ = true;
  verify_host_ = false;
  host_name_.clear();
  expected_signature_.clear();
  received_signature_.clear();
  timeout_ = kDefaultTimeout;
  server_address_.clear();
  server_port_ = kDefaultServerPort;
  build_number_ = 0;
  restore_id_.clear();
  proxy_.reset();
  tunnel_.reset();
  cancel_flag_ = nullptr;
  clock_ = cat::Clock::Real();
  ClearError();
}

void ProtoUI::SetSsl(bool use_tls, bool verify_host, const std::string& host_name,
                     const std::string& expected_signature) {
  use_tls_ = use_tls;
  verify_host_ = verify_host;
  host_name_ = host_name;
  expected_signature_ = expected_signature;
}

void ProtoUI::SetServer(const std::string& address, uint32_t port) {
  server_address_ = address;
  server_port_ = port;
}

void ProtoUI::SetSession(const std::string& session) { session_ = session; }
void ProtoUI::SetBuildNumber(int build_number) { build_number_ = build_number; }
void ProtoUI::SetRestoreId(const std::string& restore_id) { restore_id_ = restore_id; }
void ProtoUI::SetTimeout(int seconds) { timeout_ = seconds; }
void ProtoUI::SetProxy(const ProxyInfo& proxy) { proxy_ = std::make_unique<ProxyInfo>(proxy); }
void ProtoUI::SetTunnel(const TunnelInfo& tunnel) {
  tunnel_ = std::make_unique<TunnelInfo>(tunnel);
}

void ProtoUI::SetAuth(const std::string& username, const std::string& password,
                      const std::string& otp, const std::string& private_key,
                      const std::string& key_fingerprint, const std::string& sharing_token) {
  username_ = username;
  password_ = password;
  otp_ = otp;
  private_key_ = private_key;
  key_fingerprint_ = key_fingerprint;
  sharing_token_ = sharing_token;
}

void ProtoUI::SetSudo(const std::string& text, uint32_t number) {
  sudo_text_ = text;
  sudo_number_ = number;
}

void ProtoUI::SetForward(const std::string& ip, uint32_t port, const std::string& proto) {
  forward_ip_ = ip;
  forward_port_ = port;
  forward_proto_ = proto;
}

void ProtoUI::SetCancelFlag(const std::atomic<int>* flag) { cancel_flag_ = flag; }

bool ProtoUI::IsUnixAddress() const { return StartsWith(server_address_, kUnixAddressPrefix); }

bool ProtoUI::Validate(bool need_authentication) {
  if (server_address_.empty()) {
    SetError(kProtoErrMissingInfo, 0, "missing server ip address");
    return false;
  }
  if (need_authentication && sharing_token_.empty() && session_.empty() && username_.empty() &&
      password_.empty() && private_key_.empty()) {
    SetError(kProtoErrMissingInfo, 0, "missing authentication info");
    return false;
  }
  return true;
}

// The first rule that applies: sharing token, session, signature login,
// user name and password.  `sudo` follows unless the signature login failed.
void ProtoUI::AddAuthentication(PObject* request) const {
  PObject& r = *request;
  if (!sharing_token_.empty()) {
    r["sharing_token"] = sharing_token_;
    if (!session_.empty()) {
      r["session"] = session_;
    } else if (IsUnixAddress() && !username_.empty() && username_ != "anonymous") {
      r["username"] = username_;
    }
  } else if (!session_.empty()) {
    r["session"] = session_;
  } else if (!private_key_.empty()) {
    if (!AddSignatureLogin(request)) return;
  } else {
    r["username"] = username_;
    if (!IsUnixAddress()) {
      r["password"] = password_;
      if (!otp_.empty()) r["otp"] = otp_;
    }
  }
  if (!sudo_text_.empty()) {
    r["sudo"] = sudo_text_;
  } else if (sudo_number_ != 0) {
    r["sudo"] = sudo_number_;
  }
}

// The server checks the signature of base64(username + salt) with the
// user's public key; the salt is the current time in seconds.
bool ProtoUI::AddSignatureLogin(PObject* request) const {
  RsaKey key = RsaKey::FromPem(private_key_);
  if (!key.IsValid()) {
    LOG_ERROR(kComponent, "Rsa key is not valid.");
    return false;
  }
  const int64_t salt = time(nullptr);
  std::string encoded;
  if (Base64Encode(username_ + std::to_string(salt), kBase64Standard, &encoded) != 0) {
    LOG_ERROR(kComponent, "Failed to perform base64 encode.");
    return false;
  }
  std::string signature;
  if (key.Sign(encoded, &signature) != 0) {
    LOG_ERROR(kComponent, "Failed to sign message.");
    return false;
  }
  PObject& r = *request;
  r["username"] = username_;
  PObject& pem = r["pem"];
  pem["key_fingerprint"] = key_fingerprint_;
  pem["salt"] = salt;
  pem["signature"] = signature;
  if (!otp_.empty()) r["otp"] = otp_;
  return true;
}

int ProtoUI::RunProtocol(uint8_t command, const PObject& request, PObject* reply) {
  int rc = Exchange(command, request, reply);
  channel_.reset();  // no connection outlives its request
  return rc;
}

int ProtoUI::Exchange(uint8_t command, const PObject& request, PObject* reply) {
  const std::string action = request.Lookup("_action").AsString();
  LOG_DEBUG(kComponent, "start %s protocol and protocol request is %s", action.c_str(),
            ToLogJson(request).c_str());
  if (Connect() != 0) return -1;

  int rc = SendHeader(channel_.get(), kProtoVersion, command);
  if (rc != 0) {
    SetChannelError(rc, "channel error while sending header");
    return -1;
  }
  PObject sent = request;
  AddProtoMap(&sent);
  PStream stream;
  GuardReplies(&stream);
  rc = stream.Send(channel_.get(), sent);
  if (rc != 0) {
    SetStreamError(rc, "stream error while sending request");
    return -1;
  }
  if (ReadAnswer(&stream, reply) != 0) return -1;
  LOG_DEBUG(kComponent, "end %s protocol and response is %s", action.c_str(),
            ToLogJson(*reply).c_str());
  return 0;
}

void ProtoUI::AddProtoMap(PObject* request) const {
  PObject& proto = (*request)[kProtoKey];
  proto["type"] = kProtoType;
  proto["date"] = static_cast<int64_t>(time(nullptr));
  proto["version"]["major"] = kProtoMapMajor;
  proto["version"]["minor"] = kProtoMapMinor;
  proto["body-continue"] = 0;
  if (!forward_ip_.empty()) {
    PObject& forward = proto["x-forward"];
    forward["ip"] = forward_ip_;
    forward["port"] = forward_port_;
    forward["proto"] = forward_proto_;
  }
}

// The first reply that is not a keep-alive, whatever its kind.
int ProtoUI::ReadAnswer(PStream* stream, PObject* reply) {
  for (;;) {
    PObject answer;  // fresh each time: Recv merges into a map it is given
    int rc = stream->Recv(channel_.get(), &answer);
    if (rc != 0) {
      SetStreamError(rc, "stream error while receiving response");
      return -1;
    }
    if (answer.Lookup("type").AsStringView() == kReplyTypeKeepAlive) {
      LOG_DEBUG(kComponent, "Get channel keepalive message.");
      continue;
    }
    *reply = std::move(answer);
    return 0;
  }
}

// A fresh channel connected to the server address, switched to TLS when
// asked (never for a "unix:" address).  0, or -1 with the error set.  The
// exchange's deadline counts from before the connect, which its own
// time-out bounds.
int ProtoUI::Connect() {
  channel_ = std::make_unique<Channel>();
  if (timeout_ != 0) channel_->SetTimeout(timeout_);
  if (cancel_flag_ != nullptr) channel_->SetCancelFlag(cancel_flag_);
  channel_->SetRunFlag(m_run_flag);
  channel_->SetClock(clock_);
  const uint64_t exchange_us =
      static_cast<uint64_t>(kExchangeDeadlineFactor * std::max(0, channel_->GetTimeout())) *
      1000000u;
  const uint64_t deadline_us = clock_->NowMicros() + exchange_us;

  const bool unix_socket = IsUnixAddress();
  int rc = unix_socket ? channel_->Open(server_address_.substr(
                             std::char_traits<char>::length(kUnixAddressPrefix)))
                       : channel_->Open(server_address_.c_str(), static_cast<int>(server_port_));
  if (rc != 0) {
    SetChannelError(rc, "channel error while connecting to server");
    return -1;
  }
  channel_->SetDeadlineAt(deadline_us);
  if (unix_socket) return 0;
  int nodelay = channel_->SetNoDelay(true);
  if (nodelay != 0) LOG_WARNING(kComponent, "Failed to set tcp nodelay (code: %d)", nodelay);
  return use_tls_ ? EncryptChannel(channel_.get()) : 0;
}

int ProtoUI::SendHeader(Channel* channel, uint8_t version, uint8_t command) {
  int rc = channel->WriteUInt32(kProtoHeaderMagic);
  if (rc != 0) {
    LOG_ERROR(kComponent, "SendHeader: Failed to write magic");
    return rc;
  }
  rc = channel->WriteUInt8(version);
  if (rc != 0) {
    LOG_ERROR(kComponent, "SendHeader: Failed to write version (%u)", version);
    return rc;
  }
  rc = channel->WriteUInt8(command);
  if (rc != 0) {
    LOG_ERROR(kComponent, "SendHeader: Failed to write command (%u)", command);
    return rc;
  }
  rc = channel->WriteUInt16(kProtoPayloadLength);
  if (rc != 0) {
    LOG_ERROR(kComponent, "SendHeader: Failed to write payload length");
    return rc;
  }
  return 0;
}

int ProtoUI::EncryptChannel(Channel* channel) {
  PObject request;
  RequestFactory(build_number_, restore_id_).Build("encrypt_channel", &request);
  channel->SetTrustBySignature(!verify_host_);
  channel->SetExpectedHost(verify_host_ ? host_name_ : std::string());
  channel->SetExpectedSignature(expected_signature_);

  int rc = SendHeader(channel, kProtoVersion, kCmdEncryptChannel);
  if (rc != 0) {
    SetChannelError(rc, "channel error while sending encrypt_channel header");
    return -1;
  }
  PStream stream;
  GuardReplies(&stream);
  rc = stream.Send(channel, request);
  if (rc != 0) {
    SetStreamError(rc, "stream error while sending encrypt_channel request");
    return -1;
  }
  PObject reply;  // its content does not matter
  rc = stream.Recv(channel, &reply);
  if (rc != 0) {
    SetStreamError(rc, "stream error while receiving encrypt_channel response");
    return -1;
  }

  rc = channel->ConvertToSSLChannel(false);
  channel->GetSslSignature(&received_signature_);
  server_signature_hash_ = channel->GetSslSignatureHash();
  LOG_DEBUG(kComponent, "SSL signature: %s, fingerprint: %s", received_signature_.c_str(),
            server_signature_hash_.c_str());
  if (rc != 0) {
    SetChannelError(rc, "channel error while converting SSL channel");
    return -1;
  }
  if (channel->IsSSL()) LOG_DEBUG(kComponent, "channel is encrypted using SSL");
  return 0;
}

void ProtoUI::ClearError() { SetError(kProtoOk, 0, std::string()); }

void ProtoUI::SetError(int code, int sub_code, const std::string& reason) {
  error_code_ = code;
  error_sub_code_ = sub_code;
  error_reason_ = reason;
}

void ProtoUI::SetChannelError(int channel_code, const char* reason) {
  int code = MapChannelError(channel_code);
  SetError(code, 0, code == kProtoOk ? std::string() : reason);
}

void ProtoUI::SetStreamError(int stream_code, const char* reason) {
  int code = MapStreamError(stream_code);
  SetError(code, 0, code == kProtoOk ? std::string() : reason);
}

bool ProtoUI::TakeProtocolError(const PObject& reply) {
  const PObject& error = reply.Lookup("error");
  if (error.IsNull()) return false;
  int sub_code = 0;
  int code = MapServerError(error.Lookup("code").AsInteger(), &sub_code);
  if (code == kProtoOk) {
    ClearError();
  } else {
    SetError(code, sub_code,
             "protocol error, reason = '" + error.Lookup("reason").AsString() + "'");
  }
  return true;
}
