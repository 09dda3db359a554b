// Channel: one bidirectional byte stream to a peer -- a TCP connection, a
// UNIX-domain socket or an adopted, already connected descriptor --
// optionally upgraded to TLS.
//
// Every message of the daemon travels over a Channel: PStream encodes values
// onto it, the local socket transport adopts accepted descriptors with it,
// and the remote-server protocol opens TCP channels and switches them to TLS.
// On top of the buffered I/O of net/cat it adds exact-length reads and
// writes, big-endian integers, a running message digest of the bytes that
// pass, file transfers with progress reports, TCP tuning and the identity of
// the peer (address, certificate signature and its SHA-256 hash).
//
// Threads: a Channel is used by one thread at a time.  The only things another
// thread may touch are the flags handed to SetCancelFlag and SetRunFlag;
// every wait, connects included, tests them between steps.  The class-wide paths and the server cipher list
// are set once, before any channel is opened, and read without a lock.
//
// Results: 0 for success, otherwise one of the negative codes below.  A
// Channel owns its descriptor and closes it in Close() and in the destructor.
#ifndef VESTA_NET_CHANNEL_H_
#define VESTA_NET_CHANNEL_H_

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <atomic>
#include <memory>
#include <string>

namespace cat {
class BufferedIOBase;
class Clock;
class IOBase;
class Socket;
}  // namespace cat

class ChannelController;

class Channel {
 public:
  // Result codes of the channel's operations.
  enum {
    kOk = 0,
    kErrClosedOrFailedConnect = -1,  // Flush/GetPeerInfo on a closed channel,
                                     // no-delay without a socket, Connect failed
    kErrIo = -2,           // I/O failure, short read or write, closed channel
                           // while reading or writing, connect failure in Open
    kErrSocketOption = -3, // socket option failure in Open, getpeername/inet_ntop
    kErrBadState = -4,     // bad arguments to Open, already open, invalid socket
    kErrDiskFull = -16,    // file receive: ENOSPC or EDQUOT on the file
    kErrSslVerify = -24,   // TLS: chain did not verify, or host not named
    kErrSslSignature = -25,// TLS: certificate signature differs from expected
    kErrFileTooLarge = -34,// file receive: EFBIG on the file
  };

  // Receives the progress of a file transfer: Update is called with the size
  // of each block moved.  The default keeps the last value given; PStream's
  // reporter accumulates instead.
  class ProgressReporter {
   public:
    ProgressReporter() = default;
    virtual ~ProgressReporter() = default;
    ProgressReporter(const ProgressReporter&) = delete;
    ProgressReporter& operator=(const ProgressReporter&) = delete;

    virtual void Update(uint64_t bytes) { bytes_ = bytes; }
    virtual uint64_t GetBytes() const { return bytes_; }

   private:
    uint64_t bytes_ = 0;  // the value last given to Update
  };

  // Any object whose lifetime should end with the connection (for example a
  // tunnel that carries it).  The channel owns it and deletes it in Close().
  class Auxiliary {
   public:
    virtual ~Auxiliary() = default;
  };

  // Size of the blocks moved by the digesting send and the copying receive.
  static constexpr size_t kDefaultBlockSize = 81920;

  // The fixed cipher list of every client TLS connection.
  static const char kClientCipherList[];

  // Class-wide TLS settings, set before any channel is opened.
  static std::string m_ca_path;             // CA bundle checked against when
                                            // trust_by_signature is off
  static std::string m_cert_path;           // server side: certificate chain
  static std::string m_key_path;            // server side: private key (PEM)
  static std::string m_server_cipher_list;  // server side; "" = library default
  static void SetCAPath(const std::string& path);
  static void SetCertPath(const std::string& path);
  static void SetKeyPath(const std::string& path);
  static void SetServerCipherList(const std::string& list);

  // `block_size` is the size of the blocks of the digesting send and the
  // copying receive (0 is taken as kDefaultBlockSize).
  explicit Channel(size_t block_size = kDefaultBlockSize);
  virtual ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  // Connects to the UNIX-domain stream socket at `socket_path` within the
  // time-out, honouring the cancel flag.  -2 when the connect fails.
  virtual int Open(const std::string& socket_path);
  // Adopts the connected descriptor `fd` (the channel owns it from now on).
  // With `set_linger`: SO_LINGER 1 s and non-blocking mode (-3 on failure).
  // -4 when the channel is already open (the first descriptor is kept) or
  // `fd` is not valid.
  virtual int Open(int fd, bool set_linger);
  // TCP connect to `host` (IPv6 literal, IPv4 literal or name) and `port`,
  // then linger 1 s and TCP keep-alive (150 s idle, 10 s interval, 3 probes;
  // a keep-alive failure is ignored).  -4 for a null host or negative port,
  // -2 when the connect fails, -3 when linger cannot be set.
  virtual int Open(const char* host, int port);
  // Runs the channel over a clone of `io` instead of a socket it owns: for
  // byte sources that are no socket, such as the memory-backed stream of the
  // benchmarks.  File transfers need a socket and fail here.  -4 when the
  // channel is already open.
  int OpenIO(const cat::IOBase& io);
  // Flushes, closes and releases everything; the channel may be opened again.
  virtual int Close();
  virtual int GetFd() const;
  // False when closed or when the I/O object holds an error.
  virtual bool IsGood() const;
  virtual void SetTimeout(int seconds);
  int GetTimeout() const { return timeout_; }
  // `flag` is owned by the caller and must outlive the channel's use of it;
  // non-zero cancels every wait (error -2 from the I/O layer).  nullptr
  // removes it.
  virtual void SetCancelFlag(const std::atomic<int>* flag);
  // `run` is owned by the caller and must outlive the channel's use of it;
  // once it reads 0 every wait ends as cancelled (a process run flag that a
  // stop signal clears).  nullptr removes it.
  void SetRunFlag(const std::atomic<int32_t>* run);
  // Every read and write must be done within `seconds` from now, however
  // the peer trickles its bytes; after that they fail (-2) as after an idle
  // time-out.  0 removes the deadline.  Needs an open channel.
  void SetDeadline(int seconds);
  // The same at `at_us` on the channel's clock.
  void SetDeadlineAt(uint64_t at_us);
  // The time source of the idle time-out and the deadline of the
  // connections opened from now on; not owned, must outlive the channel.
  // Tests replace the real clock (cat::Clock::Real()).
  void SetClock(cat::Clock* clock) { clock_ = clock; }
  cat::Clock* GetClock() const { return clock_; }

  // Starts digesting every byte read or written (OpenSSL digest names such as
  // "sha256").  Returns 1 on success (also for enable == false, which stops
  // digesting), 0 for an unknown name or a failed set-up (digesting is off).
  virtual int SetHash(bool enable, const std::string& algorithm);
  // Lower-case hex digest of the bytes since SetHash/ResetHash; the running
  // digest is not disturbed.  "" when digesting is off.
  virtual std::string GetHash() const;
  // Restarts the digest with the same algorithm.
  virtual void ResetHash();

  // Upgrades the open channel to TLS.  As client: TLS 1.2 with the fixed
  // cipher list; with trust_by_signature the certificate's signature text
  // must equal the expected signature (when set), otherwise the chain must
  // verify against m_ca_path and name the expected host (when set).
  // -24 chain or host check failed, -25 signature mismatch, -2 otherwise.
  // 0 without change when already TLS.
  virtual int ConvertToSSLChannel(bool as_server);

  // Big-endian packing of the wire's integers, the one place that knows the
  // byte order: the Read/Write helpers below and PStream both use these.
  static void PutUInt16(uint8_t* out, uint16_t value) {
    value = __builtin_bswap16(value);
    memcpy(out, &value, sizeof(value));
  }
  static void PutUInt32(uint8_t* out, uint32_t value) {
    value = __builtin_bswap32(value);
    memcpy(out, &value, sizeof(value));
  }
  static void PutUInt64(uint8_t* out, uint64_t value) {
    value = __builtin_bswap64(value);
    memcpy(out, &value, sizeof(value));
  }
  static uint16_t GetUInt16(const uint8_t* in) {
    uint16_t value;
    memcpy(&value, in, sizeof(value));
    return __builtin_bswap16(value);
  }
  static uint32_t GetUInt32(const uint8_t* in) {
    uint32_t value;
    memcpy(&value, in, sizeof(value));
    return __builtin_bswap32(value);
  }
  static uint64_t GetUInt64(const uint8_t* in) {
    uint64_t value;
    memcpy(&value, in, sizeof(value));
    return __builtin_bswap64(value);
  }

  // Exact reads and writes of big-endian integers.
  virtual int ReadUInt8(uint8_t* value);
  virtual int ReadUInt16(uint16_t* value);
  virtual int ReadUInt32(uint32_t* value);
  virtual int ReadUInt64(uint64_t* value);
  virtual int WriteUInt8(uint8_t value);
  virtual int WriteUInt16(uint16_t value);
  virtual int WriteUInt32(uint32_t value);
  virtual int WriteUInt64(uint64_t value);

  // Reads exactly `n` bytes: 0, or -2 (closed, not readable, end of stream or
  // I/O error).  `received` (may be null) gets the bytes obtained.
  virtual int Read(void* buffer, size_t n);
  virtual int Read(void* buffer, size_t n, size_t* received);
  // Writes `n` bytes (they may stay buffered until Flush): 0 or -2.
  virtual int Write(const void* buffer, size_t n);

  // In-place reading for decoders: makes the bytes the stream holds visible
  // at *data without consuming them, reading more first while fewer than
  // `want` are held (at most the stream's buffer size).  Returns the count
  // visible: fewer than `want` only at end of stream, on an error or past
  // the buffer's size; 0 when closed or when the stream keeps no buffer of
  // its own (TLS) -- Read serves then.  The bytes stay valid until the next
  // call on the channel.
  size_t Peek(size_t want, const uint8_t** data);
  // Consumes `n` of the bytes the last Peek made visible; a running digest
  // sees them.
  void Consume(size_t n);

  // Sends `length` bytes of the file `fd` from `offset`: the digesting send
  // while a digest runs, else the plain send.  `reporter` may be null.
  // 0 when all bytes went, else -2.  `fd` stays the caller's.
  virtual int SendFile(int fd, uint64_t offset, uint64_t length,
                       ProgressReporter* reporter);
  // The I/O object's own file send (sendfile-like), reporter installed.
  virtual int SendFilePlain(int fd, uint64_t offset, uint64_t length,
                            ProgressReporter* reporter);
  // Reads the file in blocks and passes each through Write, so the digest
  // sees every byte.
  virtual int SendFileDigesting(int fd, uint64_t offset, uint64_t length,
                                ProgressReporter* reporter);

  // Receives `length` bytes into the file `fd` at `offset`: the copying
  // receive while a digest runs, else the plain receive.  `received` (may be
  // null) gets the bytes stored.  0 when all arrived; -34 file too large
  // (EFBIG), -16 disk or quota full, -2 otherwise.
  virtual int RecvFile(int fd, uint64_t offset, uint64_t length,
                       ProgressReporter* reporter, uint64_t* received);
  // The I/O object's own file receive (memory-mapped on a socket).
  virtual int RecvFilePlain(int fd, uint64_t offset, uint64_t length,
                            ProgressReporter* reporter, uint64_t* received);
  // Reads blocks with Read (so the digest sees them) and writes them to the
  // file; each block is reported to `reporter`, from whose GetBytes the
  // caller learns the count.  Also used to discard data into /dev/null.
  virtual int RecvFileCopying(int fd, uint64_t offset, uint64_t length,
                              ProgressReporter* reporter);

  virtual Channel* GetReader() { return this; }
  virtual Channel* GetWriter() { return this; }

  // Flushes buffered output.  -1 when closed; the I/O object's negative
  // result otherwise.  `mode` is always 0.
  virtual int Flush(int mode);

  // IPv4 text address and port of the peer.  -1 no socket, -3 system failure.
  virtual int GetPeerInfo(std::string* address, int* port) const;
  // The peer certificate's signature as colon-separated hex text, no
  // newlines ("" and 0 when the channel is not TLS).
  virtual int GetSslSignature(std::string* text) const;
  // SHA-256 of the peer certificate, 64 lower-case hex digits ("" when not
  // TLS or no certificate).
  virtual std::string GetSslSignatureHash() const;
  virtual bool IsClosed() const;
  bool IsSSL() const { return is_ssl_; }

  static uint64_t Swap64(uint64_t value);
  static uint32_t Swap32(uint32_t value);
  static uint16_t Swap16(uint16_t value);

  // Connects to `host`:`port` within the time-out and returns the connected
  // descriptor, or -1.
  virtual int Connect(const char* host, int port);

  // Sets TCP_NODELAY.  -1 without a valid socket or when the option fails.
  int SetNoDelay(bool enable);

  void SetTrustBySignature(bool trust) { trust_by_signature_ = trust; }
  bool GetTrustBySignature() const { return trust_by_signature_; }
  void SetExpectedHost(const std::string& host) { expected_host_ = host; }
  const std::string& GetExpectedHost() const { return expected_host_; }
  void SetExpectedSignature(const std::string& s) { expected_signature_ = s; }
  const std::string& GetExpectedSignature() const { return expected_signature_; }

  // Hands an object to the channel; it is deleted by Close().
  void SetAuxiliary(std::unique_ptr<Auxiliary> aux);

  // The I/O object's error code (net/cat/buffered_io.h), 0 when closed.
  int GetIOError() const;

 private:
  struct Digest;

  int OpenDescriptor(int fd);
  void BuildIO(const cat::IOBase& io);
  void FeedDigest(const void* data, size_t n);
  int SetupTcpKeepAlive(int fd);
  int RecvFileCopyingCounted(int fd, uint64_t offset, uint64_t length,
                             ProgressReporter* reporter, uint64_t* received);

  int timeout_ = 60;                               // seconds; connect and idle
  std::unique_ptr<ChannelController> controller_;  // cancel, progress, bandwidth
  std::unique_ptr<Auxiliary> auxiliary_;           // released by Close()
  bool is_ssl_ = false;                    // set once ConvertToSSLChannel succeeds
  bool trust_by_signature_ = true;         // see ConvertToSSLChannel
  std::string expected_host_;              // host the certificate must name
  std::string expected_signature_;         // signature text the cert must carry
  std::unique_ptr<cat::BufferedIOBase> io_;  // all bytes pass here; null = closed
  std::unique_ptr<cat::Socket> socket_;      // owns the descriptor
  std::unique_ptr<Digest> digest_;           // null while digesting is off
  size_t block_size_;                        // bytes per copying block
  cat::Clock* clock_;                        // not owned; time-outs and deadline
};

#endif  // VESTA_NET_CHANNEL_H_
