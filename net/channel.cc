#include "net/channel.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "log/log.h"
#include "net/cat/buffered_io.h"
#include "net/cat/socket_ops.h"
#include "net/cat/ssl_socket.h"

namespace {

const char kComponent[] = "channel_debug";

constexpr int kLingerSeconds = 1;
constexpr int kKeepAliveIdle = 150;     // seconds before the first probe
constexpr int kKeepAliveInterval = 10;  // seconds between probes
constexpr int kKeepAliveCount = 3;      // probes before the peer is dead

struct EvpMdCtxDeleter {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, EvpMdCtxDeleter>;

// Stream error of a failed file receive -> the channel's code.
int FileReceiveCode(int stream_error) {
  if (stream_error == cat::kErrTooLarge) return Channel::kErrFileTooLarge;
  if (stream_error == cat::kErrNoSpace) return Channel::kErrDiskFull;
  return Channel::kErrIo;
}

// TLS stream error after a failed upgrade -> the channel's code.
int SslConversionCode(int stream_error) {
  if (stream_error == cat::kErrSslVerify || stream_error == cat::kErrSslHost) {
    return Channel::kErrSslVerify;
  }
  if (stream_error == cat::kErrSslSignature) return Channel::kErrSslSignature;
  return Channel::kErrIo;
}

// Installs a progress reporter in the controller for the length of a scope.
template <typename Controller>
class ReporterScope {
 public:
  ReporterScope(Controller* controller, Channel::ProgressReporter* reporter)
      : controller_(controller) {
    controller_->SetReporter(reporter);
  }
  ~ReporterScope() { controller_->SetReporter(nullptr); }
  ReporterScope(const ReporterScope&) = delete;
  ReporterScope& operator=(const ReporterScope&) = delete;

 private:
  Controller* controller_;
};

// A caller's file under a buffered stream of its own, with its own pacing,
// positioned at `offset`: the block-by-block transfers read or write it so
// that every block also passes through the channel's Read or Write.
class LocalFile {
 public:
  LocalFile(int fd, int timeout) : fd_(fd) {
    stream_.Attach(cat::File(fd));
    stream_.SetController(&pacing_);
    stream_.SetTimeout(timeout);
  }
  LocalFile(const LocalFile&) = delete;
  LocalFile& operator=(const LocalFile&) = delete;

  int Seek(uint64_t offset) {
    cat::File file(fd_);
    if (file.Seek(offset) == 0) return 0;
    LOG_ERROR(kComponent, "Can't seek file to offset %llu.",
              static_cast<unsigned long long>(offset));
    return -1;
  }

  cat::BufferedIO& stream() { return stream_; }

 private:
  int fd_;                           // the caller's; not closed here
  cat::BandwidthController pacing_;  // no limiter: moves at full speed
  cat::BufferedIO stream_;           // uses pacing_, so declared after it
};

}  // namespace

// Cancels on the caller's flag and tells the current progress reporter about
// every block before pacing it.
class ChannelController : public cat::BandwidthController {
 public:
  bool IsCancelled() override { return cat::StopAsked(cancel_flag_, run_flag_); }
  void OnRead(size_t n) override {
    if (reporter_ != nullptr) reporter_->Update(n);
    cat::BandwidthController::OnRead(n);
  }
  void OnWrite(size_t n) override {
    if (reporter_ != nullptr) reporter_->Update(n);
    cat::BandwidthController::OnWrite(n);
  }

  void SetCancelFlag(const std::atomic<int>* flag) { cancel_flag_ = flag; }
  void SetRunFlag(const std::atomic<int32_t>* run) { run_flag_ = run; }
  const std::atomic<int>* GetCancelFlag() const { return cancel_flag_; }
  const std::atomic<int32_t>* GetRunFlag() const { return run_flag_; }
  void SetReporter(Channel::ProgressReporter* reporter) { reporter_ = reporter; }

 private:
  const std::atomic<int>* cancel_flag_ = nullptr;      // caller's; null = none
  const std::atomic<int32_t>* run_flag_ = nullptr;     // caller's; 0 cancels
  Channel::ProgressReporter* reporter_ = nullptr;      // set during a transfer
};

struct Channel::Digest {
  const EVP_MD* md;  // static table entry of the TLS library
  EvpMdCtxPtr ctx;
};

const char Channel::kClientCipherList[] =
    "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
    "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:"
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:"
    "ECDHE-ECDSA-AES256-SHA384:ECDHE-RSA-AES256-SHA384:"
    "ECDHE-ECDSA-AES128-SHA256:ECDHE-RSA-AES128-SHA256";

std::string Channel::m_ca_path = "/etc/ssl/certs/ca-certificates.crt";
std::string Channel::m_cert_path;
std::string Channel::m_key_path;
std::string Channel::m_server_cipher_list;

void Channel::SetCAPath(const std::string& path) { m_ca_path = path; }
void Channel::SetCertPath(const std::string& path) { m_cert_path = path; }
void Channel::SetKeyPath(const std::string& path) { m_key_path = path; }
void Channel::SetServerCipherList(const std::string& list) { m_server_cipher_list = list; }

Channel::Channel(size_t block_size)
    : controller_(std::make_unique<ChannelController>()),
      block_size_(block_size != 0 ? block_size : kDefaultBlockSize),
      clock_(cat::Clock::Real()) {}

Channel::~Channel() { Close(); }

void Channel::BuildIO(const cat::IOBase& io) {
  if (is_ssl_) {  // a TLS stream belongs to the previous connection
    io_.reset();
    is_ssl_ = false;
  }
  if (io_ == nullptr) io_ = std::make_unique<cat::BufferedIO>();
  io_->Detach();
  io_->Attach(io);
  io_->SetController(controller_.get());
  io_->SetClock(clock_);
  io_->SetTimeout(timeout_);
  io_->SetDeadline(0);  // a deadline belongs to one connection
}

// Closes the previous connection's descriptor, if any, and takes `fd`.
int Channel::OpenDescriptor(int fd) {
  if (socket_ != nullptr && socket_->valid()) {
    socket_->Shutdown();
    socket_->Close();
  }
  if (socket_ == nullptr) socket_ = std::make_unique<cat::Socket>();
  socket_->set_fd(fd);
  return 0;
}

int Channel::Open(const std::string& socket_path) {
  int fd = cat::ConnectUnix(socket_path, timeout_, controller_->GetCancelFlag(),
                            controller_->GetRunFlag());
  if (fd < 0) return kErrIo;
  OpenDescriptor(fd);
  BuildIO(*socket_);
  return kOk;
}

int Channel::Open(int fd, bool set_linger) {
  if (socket_ != nullptr && socket_->valid()) {
    LOG_ERROR(kComponent, "Open: Channel already opened.");
    return kErrBadState;
  }
  if (socket_ == nullptr) socket_ = std::make_unique<cat::Socket>();
  socket_->set_fd(fd);
  if (set_linger) {
    if (socket_->SetLinger(kLingerSeconds) < 0) {
      LOG_WARNING(kComponent, "Open: SetLinger to socket [%d] failed, %s", fd, strerror(errno));
      return kErrSocketOption;
    }
    if (socket_->SetBlocking(false) < 0) {
      LOG_WARNING(kComponent, "Open: SetNonBlock to socket [%d] failed, %s", fd, strerror(errno));
      return kErrSocketOption;
    }
  }
  if (!socket_->valid()) return kErrBadState;
  BuildIO(*socket_);
  LOG_DEBUG(kComponent, "Channel: opening socket %d", fd);
  return kOk;
}

int Channel::OpenIO(const cat::IOBase& io) {
  if (io_ != nullptr) return kErrBadState;
  BuildIO(io);
  return kOk;
}

int Channel::Open(const char* host, int port) {
  if (host == nullptr || port < 0) return kErrBadState;
  int fd = Connect(host, port);
  if (fd == -1 || fd == -2) return kErrIo;
  OpenDescriptor(fd);
  if (socket_->SetLinger(kLingerSeconds) < 0) {
    socket_->Shutdown();
    return kErrSocketOption;
  }
  if (SetupTcpKeepAlive(fd) != 0) {
    LOG_DEBUG(kComponent, "Channel::Open: SetupTcpKeepAlive failed (ignoring)");
  }
  BuildIO(*socket_);
  return kOk;
}

namespace {

// setsockopt of one int; 0, or the errno of the failure.
int SetIntOption(int fd, int level, int name, int value) {
  return setsockopt(fd, level, name, &value, sizeof(value)) < 0 ? errno : 0;
}

}  // namespace

int Channel::SetupTcpKeepAlive(int fd) {
  int err = SetIntOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, kKeepAliveIdle);
  if (err != 0) {
    LOG_ERROR(kComponent, "Can't set TCP keepalive idle time. (code: %d, reason: %s)", err,
              strerror(err));
    return -1;
  }
  err = SetIntOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, kKeepAliveInterval);
  if (err != 0) {
    LOG_ERROR(kComponent, "Can't enable TCP keepalive probe interval. (code: %d, reason: %s)",
              err, strerror(err));
    return -1;
  }
  err = SetIntOption(fd, IPPROTO_TCP, TCP_KEEPCNT, kKeepAliveCount);
  if (err != 0) {
    LOG_ERROR(kComponent, "Can't enable TCP keepalive probe count. (code: %d, reason: %s)", err,
              strerror(err));
    return -1;
  }
  err = SetIntOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
  if (err != 0) {
    LOG_ERROR(kComponent, "Can't enable TCP keepalive. (code: %d, reason: %s)", err,
              strerror(err));
    return -1;
  }
  return 0;
}

int Channel::Close() {
  auxiliary_.reset();
  controller_->SetReporter(nullptr);
  controller_->Reset();
  if (io_ != nullptr) {
    if (io_->Flush() < 0) {
      LOG_WARNING(kComponent, "FlushWrite: %s", cat::StreamErrorText(io_->GetError()));
    }
    io_->Detach();
    io_.reset();
  }
  if (socket_ != nullptr) {
    if (socket_->valid()) {
      socket_->Shutdown();
      socket_->Close();
    }
    socket_.reset();
  }
  is_ssl_ = false;
  digest_.reset();
  LOG_DEBUG(kComponent, "Channel has been closed.");
  return kOk;
}

int Channel::GetFd() const { return socket_ != nullptr ? socket_->fd() : -1; }

bool Channel::IsGood() const { return io_ != nullptr && io_->GetError() == 0; }

bool Channel::IsClosed() const { return io_ == nullptr; }

int Channel::GetIOError() const { return io_ != nullptr ? io_->GetError() : 0; }

void Channel::SetTimeout(int seconds) {
  timeout_ = seconds;
  if (io_ != nullptr) io_->SetTimeout(seconds);
}

void Channel::SetCancelFlag(const std::atomic<int>* flag) { controller_->SetCancelFlag(flag); }

void Channel::SetRunFlag(const std::atomic<int32_t>* run) { controller_->SetRunFlag(run); }

void Channel::SetDeadline(int seconds) {
  if (io_ != nullptr) io_->SetDeadline(seconds > 0 ? static_cast<uint64_t>(seconds) * 1000000u : 0);
}

void Channel::SetDeadlineAt(uint64_t at_us) {
  if (io_ != nullptr) io_->SetDeadlineAt(at_us);
}

void Channel::SetAuxiliary(std::unique_ptr<Auxiliary> aux) { auxiliary_ = std::move(aux); }

int Channel::SetHash(bool enable, const std::string& algorithm) {
  digest_.reset();
  if (!enable) return 1;
  const EVP_MD* md = EVP_get_digestbyname(algorithm.c_str());
  if (md == nullptr) return 0;
  auto digest = std::make_unique<Digest>();
  digest->md = md;
  digest->ctx.reset(EVP_MD_CTX_new());
  if (digest->ctx == nullptr || EVP_DigestInit_ex(digest->ctx.get(), md, nullptr) != 1) {
    return 0;
  }
  digest_ = std::move(digest);
  return 1;
}

std::string Channel::GetHash() const {
  if (digest_ == nullptr) return std::string();
  EvpMdCtxPtr copy(EVP_MD_CTX_new());
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (copy == nullptr || EVP_MD_CTX_copy_ex(copy.get(), digest_->ctx.get()) != 1 ||
      EVP_DigestFinal_ex(copy.get(), md, &len) != 1) {
    return std::string();
  }
  return cat::HexText(md, len);
}

void Channel::ResetHash() {
  if (digest_ != nullptr) EVP_DigestInit_ex(digest_->ctx.get(), digest_->md, nullptr);
}

void Channel::FeedDigest(const void* data, size_t n) {
  if (digest_ != nullptr && n > 0) EVP_DigestUpdate(digest_->ctx.get(), data, n);
}

int Channel::ConvertToSSLChannel(bool as_server) {
  if (is_ssl_) {
    LOG_WARNING(kComponent, "ConvertToSSLChannel: Channel is SSL channel, no need to be converted");
    return kOk;
  }
  if (io_ == nullptr) return kErrIo;
  if (io_->Flush() != 0) return kErrIo;  // bytes written before the switch go in clear

  std::unique_ptr<cat::SslSocket> tls;
  if (as_server) {
    auto server = std::make_unique<cat::SslServerSocket>();
    if (!m_server_cipher_list.empty() && server->SetCipherList(m_server_cipher_list) != 0) {
      LOG_ERROR(kComponent, "setCipherList failed, cipher list = '%s'",
                m_server_cipher_list.c_str());
      return kErrIo;
    }
    if (server->SetPrivateKeyFile(m_key_path) != 0 ||
        server->SetCertificateChainFile(m_cert_path) != 0) {
      LOG_ERROR(kComponent, "Can't load the server key '%s' or certificate chain '%s'.",
                m_key_path.c_str(), m_cert_path.c_str());
      return kErrIo;
    }
    tls = std::move(server);
  } else {
    auto client = std::make_unique<cat::SslClientSocket>(kClientCipherList, m_ca_path);
    client->verify = !trust_by_signature_;
    client->expected_host = expected_host_;
    client->expected_signature = expected_signature_;
    tls = std::move(client);
  }
  if (io_->HandOver(tls.get()) != 0) return SslConversionCode(tls->GetError());
  io_ = std::move(tls);
  is_ssl_ = true;
  return kOk;
}

int Channel::Read(void* buffer, size_t n) { return Read(buffer, n, nullptr); }

int Channel::Read(void* buffer, size_t n, size_t* received) {
  if (received != nullptr) *received = 0;
  if (n == 0) return kOk;
  if (io_ == nullptr) {
    LOG_ERROR(kComponent, "Read failed: channel has been closed.");
    return kErrIo;
  }
  if (!io_->IsReadable()) return kErrIo;
  ssize_t got = io_->Read(buffer, n);
  if (got > 0) FeedDigest(buffer, static_cast<size_t>(got));
  if (received != nullptr) *received = got > 0 ? static_cast<size_t>(got) : 0;
  if (got == static_cast<ssize_t>(n)) return kOk;
  if (io_->GetError() != 0) {
    LOG_ERROR(kComponent, "bio error is set to %d  (rc: %d, len: %d).", io_->GetError(),
              static_cast<int>(got), static_cast<int>(n));
  }
  return kErrIo;
}

int Channel::Write(const void* buffer, size_t n) {
  if (io_ == nullptr) {
    LOG_DEBUG(kComponent, "Write failed: channel has been closed.");
    return kErrIo;
  }
  ssize_t written = io_->Write(buffer, n);
  if (written > 0) FeedDigest(buffer, static_cast<size_t>(written));
  return written == static_cast<ssize_t>(n) ? kOk : kErrIo;
}

int Channel::ReadUInt8(uint8_t* value) { return Read(value, 1); }

int Channel::ReadUInt16(uint16_t* value) {
  uint8_t b[2];
  int rc = Read(b, sizeof(b));
  if (rc == kOk) *value = GetUInt16(b);
  return rc;
}

int Channel::ReadUInt32(uint32_t* value) {
  uint8_t b[4];
  int rc = Read(b, sizeof(b));
  if (rc == kOk) *value = GetUInt32(b);
  return rc;
}

int Channel::ReadUInt64(uint64_t* value) {
  uint8_t b[8];
  int rc = Read(b, sizeof(b));
  if (rc == kOk) *value = GetUInt64(b);
  return rc;
}

int Channel::WriteUInt8(uint8_t value) { return Write(&value, 1); }

int Channel::WriteUInt16(uint16_t value) {
  uint8_t b[2];
  PutUInt16(b, value);
  return Write(b, sizeof(b));
}

int Channel::WriteUInt32(uint32_t value) {
  uint8_t b[4];
  PutUInt32(b, value);
  return Write(b, sizeof(b));
}

int Channel::WriteUInt64(uint64_t value) {
  uint8_t b[8];
  PutUInt64(b, value);
  return Write(b, sizeof(b));
}

size_t Channel::Peek(size_t want, const uint8_t** data) {
  if (io_ == nullptr) return 0;
  const char* bytes = nullptr;
  size_t visible = io_->Peek(want, &bytes);
  *data = reinterpret_cast<const uint8_t*>(bytes);
  return visible;
}

void Channel::Consume(size_t n) {
  if (io_ == nullptr || n == 0) return;
  const char* bytes = nullptr;
  io_->Peek(0, &bytes);
  FeedDigest(bytes, n);
  io_->Consume(n);
}

int Channel::SendFile(int fd, uint64_t offset, uint64_t length, ProgressReporter* reporter) {
  if (digest_ != nullptr) return SendFileDigesting(fd, offset, length, reporter);
  return SendFilePlain(fd, offset, length, reporter);
}

int Channel::SendFilePlain(int fd, uint64_t offset, uint64_t length,
                           ProgressReporter* reporter) {
  if (io_ == nullptr) {
    LOG_DEBUG(kComponent, "Write failed: channel has been closed.");
    return kErrIo;
  }
  // The reporter hears of file bytes only, the last piece included: what
  // was buffered before goes out first, the file's tail before it leaves.
  if (io_->Flush() != 0) return kErrIo;
  ReporterScope<ChannelController> scope(controller_.get(), reporter);
  cat::File file(fd);
  int64_t sent = io_->SendFile(file, offset, length);
  if (sent != static_cast<int64_t>(length) || io_->Flush() != 0) return kErrIo;
  return kOk;
}

int Channel::SendFileDigesting(int fd, uint64_t offset, uint64_t length,
                               ProgressReporter* reporter) {
  if (io_ == nullptr) {
    LOG_DEBUG(kComponent, "Write failed: channel has been closed.");
    return kErrIo;
  }
  LocalFile source(fd, timeout_);
  if (source.Seek(offset) != 0) return kErrIo;
  std::vector<char> block(static_cast<size_t>(std::min<uint64_t>(block_size_, length)));
  for (uint64_t sent = 0; sent < length;) {
    size_t want = static_cast<size_t>(std::min<uint64_t>(block.size(), length - sent));
    if (source.stream().Read(block.data(), want) != static_cast<ssize_t>(want)) return kErrIo;
    if (Write(block.data(), want) != kOk) return kErrIo;
    if (reporter != nullptr) reporter->Update(want);
    sent += want;
  }
  return kOk;
}

int Channel::RecvFile(int fd, uint64_t offset, uint64_t length, ProgressReporter* reporter,
                      uint64_t* received) {
  if (digest_ != nullptr) {
    return RecvFileCopyingCounted(fd, offset, length, reporter, received);
  }
  return RecvFilePlain(fd, offset, length, reporter, received);
}

int Channel::RecvFilePlain(int fd, uint64_t offset, uint64_t length,
                           ProgressReporter* reporter, uint64_t* received) {
  if (received != nullptr) *received = 0;
  if (io_ == nullptr) {
    LOG_ERROR(kComponent, "Read failed: channel has been closed.");
    return kErrIo;
  }
  int64_t moved;
  {
    ReporterScope<ChannelController> scope(controller_.get(), reporter);
    cat::File file(fd);
    moved = io_->RecvFile(file, offset, length);
  }
  if (moved < 0) {
    int error = io_->GetError();
    LOG_ERROR(kComponent, "Failed to recvfile (offset: %llu, length: %llu, rc: %lld, error: %d)",
              static_cast<unsigned long long>(offset), static_cast<unsigned long long>(length),
              static_cast<long long>(moved), error);
    return FileReceiveCode(error);
  }
  if (received != nullptr) *received = static_cast<uint64_t>(moved);
  return static_cast<uint64_t>(moved) == length ? kOk : kErrIo;
}

int Channel::RecvFileCopying(int fd, uint64_t offset, uint64_t length,
                             ProgressReporter* reporter) {
  return RecvFileCopyingCounted(fd, offset, length, reporter, nullptr);
}

int Channel::RecvFileCopyingCounted(int fd, uint64_t offset, uint64_t length,
                                    ProgressReporter* reporter, uint64_t* received) {
  if (received != nullptr) *received = 0;
  std::vector<char> block(block_size_);
  LocalFile sink(fd, timeout_);
  if (sink.Seek(offset) != 0) return kErrIo;
  for (uint64_t done = 0; done < length;) {
    size_t want = static_cast<size_t>(std::min<uint64_t>(block.size(), length - done));
    int rc = Read(block.data(), want);
    if (rc != kOk) {
      LOG_ERROR(kComponent, "Failed to read. (code: %d)", rc);
      return rc;
    }
    ssize_t written = sink.stream().Write(block.data(), want);
    if (written != static_cast<ssize_t>(want)) {
      LOG_ERROR(kComponent, "Failed to write. (rc: %d, error: %d)", static_cast<int>(written),
                sink.stream().GetError());
      return FileReceiveCode(sink.stream().GetError());
    }
    done += want;
    if (received != nullptr) *received = done;
    if (reporter != nullptr) reporter->Update(want);
  }
  if (sink.stream().Flush() != 0) {
    LOG_ERROR(kComponent, "Failed to flush. (error: %d)", sink.stream().GetError());
    return FileReceiveCode(sink.stream().GetError());
  }
  return kOk;
}

int Channel::Flush(int /*mode*/) {
  if (io_ == nullptr) return kErrClosedOrFailedConnect;
  int rc = io_->Flush();
  if (rc < 0) {
    LOG_ERROR(kComponent, "bio error is set to %d  (rc: %d).", io_->GetError(), rc);
  }
  return rc;
}

int Channel::GetPeerInfo(std::string* address, int* port) const {
  if (socket_ == nullptr) {
    LOG_WARNING(kComponent, "GetPeerInfo: Attempting to get info of an uninitialized channel");
    return kErrClosedOrFailedConnect;
  }
  struct sockaddr_in peer;
  socklen_t len = sizeof(peer);
  memset(&peer, 0, sizeof(peer));
  if (getpeername(socket_->fd(), reinterpret_cast<struct sockaddr*>(&peer), &len) < 0) {
    LOG_WARNING(kComponent, "GetPeerInfo: getpeername: %s", strerror(errno));
    return kErrSocketOption;
  }
  char text[17];
  if (inet_ntop(AF_INET, &peer.sin_addr, text, sizeof(text)) == nullptr) {
    LOG_WARNING(kComponent, "GetPeerInfo: inet_ntop: %s (%d)", strerror(errno), errno);
    return kErrSocketOption;
  }
  *address = text;
  *port = ntohs(peer.sin_port);
  return kOk;
}

int Channel::GetSslSignature(std::string* text) const {
  text->clear();
  if (!is_ssl_) return kOk;
  auto* tls = static_cast<cat::SslSocket*>(io_.get());
  *text = cat::SignatureText(tls->PeerCertificate());
  return text->empty() ? kErrClosedOrFailedConnect : kOk;
}

std::string Channel::GetSslSignatureHash() const {
  if (!is_ssl_) return std::string();
  auto* tls = static_cast<cat::SslSocket*>(io_.get());
  std::string hash = cat::CertificateHash(tls->PeerCertificate());
  LOG_DEBUG(kComponent, "the channel SSL signature hash is %s", hash.c_str());
  return hash;
}

uint64_t Channel::Swap64(uint64_t value) { return __builtin_bswap64(value); }
uint32_t Channel::Swap32(uint32_t value) { return __builtin_bswap32(value); }
uint16_t Channel::Swap16(uint16_t value) { return __builtin_bswap16(value); }

int Channel::Connect(const char* host, int port) {
  std::string address = cat::ParseHostAddress(host, &port);
  int fd = cat::ConnectTcp(address, port, timeout_, controller_->GetCancelFlag(),
                           controller_->GetRunFlag());
  return fd < 0 ? -1 : fd;
}

int Channel::SetNoDelay(bool enable) {
  if (socket_ == nullptr || !socket_->valid()) {
    LOG_CRIT(kComponent, "Invalid socket");
    return -1;
  }
  int flag = enable ? 1 : 0;
  if (setsockopt(socket_->fd(), IPPROTO_TCP, TCP_NODELAY, &flag, sizeof(flag)) < 0) {
    LOG_ERROR(kComponent, "Failed to enable tcp nodelay. (fd: %d, error: %d)", socket_->fd(),
              errno);
    return -1;
  }
  return 0;
}
