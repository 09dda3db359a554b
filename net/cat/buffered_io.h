// Buffered, time-limited, cancellable byte streams over an IOBase.
//
// BufferedIOBase holds what every stream shares -- its descriptor (an owned
// clone), the controller it asks before each step, the idle time-out, the
// closed flags of both sides and the first error -- and the wait rule:
// before each system call ask IsCancelled (error kErrCancelled), then wait
// for readiness in 3-second slices, retrying on EINTR, until the idle
// time-out has passed without progress (error kErrTimeout).
//
// BufferedIO is the plain stream with an 8 KiB read and an 8 KiB write
// buffer; the TLS streams (net/cat/ssl_socket.h) derive from the base.
// Channel owns one stream at a time and switches it to TLS with HandOver.
//
// A stream is used by one thread at a time; only the controller's cancel
// test may observe another thread.  Results are byte counts; a failure is
// kept in GetError() and closes the side it happened on.
#ifndef VESTA_NET_CAT_BUFFERED_IO_H_
#define VESTA_NET_CAT_BUFFERED_IO_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <memory>
#include <vector>

#include "net/cat/controller.h"
#include "net/cat/io.h"

namespace cat {

// Error codes kept by a stream (GetError).
enum StreamError {
  kErrNone = 0,
  kErrIO = -1,          // a system call failed
  kErrCancelled = -2,   // the controller cancelled
  kErrTimeout = -3,     // idle time-out
  kErrNotSocket = -4,   // a socket was needed
  kErrNoSpace = -5,     // file write: ENOSPC or EDQUOT
  kErrTooLarge = -6,    // file write: EFBIG
  kErrSslNotSocket = -100,   // TLS: the stream taken over is not on a socket
  kErrSslVerify = -101,      // TLS: chain did not verify against the CA bundle
  kErrSslSignature = -102,   // TLS: signature differs from expected_signature
  kErrSslHost = -103,        // TLS: certificate does not name expected_host
};

// Short text of a stream error code; "Unknown error" for others.
const char* StreamErrorText(int code);

// The stream error of a failed file write, by errno.
int FileWriteError(int saved_errno);

class BufferedIOBase {
 public:
  // State flags.
  enum { kReadClosed = 1 << 0, kWriteClosed = 1 << 1 };

  static constexpr int kDefaultTimeout = 60;         // seconds
  static constexpr int kWaitSliceSeconds = 3;        // one poll
  static constexpr size_t kFilePieceSize = 65536;    // generic file copy

  BufferedIOBase();
  virtual ~BufferedIOBase();
  BufferedIOBase(const BufferedIOBase&) = delete;
  BufferedIOBase& operator=(const BufferedIOBase&) = delete;

  // Gives `target` this stream's time-out, controller and clock and lets it
  // Attach this stream's descriptor; on success this stream is detached.
  // 0, or -1 (this stream is unchanged).
  virtual int HandOver(BufferedIOBase* target);
  // Takes a clone of `io`, clears flags and error.  0, or -1.
  virtual int Attach(const IOBase& io) = 0;
  // Releases the descriptor object (the descriptor stays open) and clears
  // flags and error.
  virtual void Detach();
  // Reads up to n bytes, fewer only at end of stream or on error.
  virtual ssize_t Read(void* buffer, size_t n) = 0;
  // Writes n bytes (possibly into a buffer); fewer on error.
  virtual ssize_t Write(const void* buffer, size_t n) = 0;
  // Sends `length` bytes of `file` from `offset` through Write.  Returns the
  // bytes sent, -1 on a short file read or a failed write.
  virtual int64_t SendFile(File& file, uint64_t offset, uint64_t length);
  // Receives `length` bytes into `file` at `offset` through Read.  Returns
  // the bytes received; -1 when the file side is full or too large
  // (error kErrNoSpace / kErrTooLarge).
  virtual int64_t RecvFile(File& file, uint64_t offset, uint64_t length);
  // Writes out buffered bytes.  0, or -1 when some remain.
  virtual int Flush() = 0;
  // Look-ahead: the bytes held in the read buffer, at *data, after reading
  // more while fewer than `want` (at most the buffer's size) are held.
  // Returns their count.  A stream without a read buffer holds none: 0.
  virtual size_t Peek(size_t /*want*/, const char** data) {
    *data = nullptr;
    return 0;
  }
  // Drops `n` of the bytes Peek showed.
  virtual void Consume(size_t /*n*/) {}

  bool IsReadable() const;
  bool IsWritable() const;
  int GetError() const { return error_; }
  int GetFlags() const { return flags_; }
  void SetTimeout(int seconds) { timeout_ = seconds; }
  // Every wait ends `micros` from now at the latest (error kErrTimeout),
  // whatever progress is made meanwhile; 0 removes the deadline.
  void SetDeadline(uint64_t micros);
  // The same at `at_us` on the stream's clock (0 removes it).
  void SetDeadlineAt(uint64_t at_us) { deadline_us_ = at_us; }
  int GetTimeout() const { return timeout_; }
  // `controller` is not owned and must outlive its use; null = the base
  // controller (grants everything, cancels nothing).
  void SetController(BufferedIOController* controller);
  BufferedIOController* GetController() const { return controller_; }
  // `clock` is not owned; tests replace the real clock.
  void SetClock(Clock* clock) { clock_ = clock; }
  IOBase* GetIO() const { return io_.get(); }

 protected:
  // Waits until the descriptor is ready for `events`.  1 ready, or 0 with
  // the error set (cancelled, time-out, wait failure).
  int WaitReady(int events);
  void SetError(int code) { if (error_ == 0) error_ = code; }
  void ResetState();

  std::unique_ptr<IOBase> io_;          // owned clone; null when detached
  BufferedIOController* controller_;    // never null; not owned
  Clock* clock_;                        // not owned
  int timeout_;                         // idle time-out, seconds
  int flags_ = 0;                       // kReadClosed | kWriteClosed
  int error_ = 0;                       // first error, 0 = none
  uint64_t deadline_us_ = 0;            // on clock_; 0 = none

 private:
  static BufferedIOController default_controller_;
};

// The plain stream.  Reads are served from an 8 KiB buffer; writes collect in
// an 8 KiB buffer until it would overflow or Flush is called.
class BufferedIO : public BufferedIOBase {
 public:
  static constexpr size_t kBufferSize = 8192;
  static constexpr size_t kMapWindow = 134217728;  // 128 MiB per mapping
  static constexpr size_t kMapStep = 524288;       // 512 KiB per recv

  BufferedIO() = default;

  int Attach(const IOBase& io) override;
  void Detach() override;
  ssize_t Read(void* buffer, size_t n) override;
  ssize_t Write(const void* buffer, size_t n) override;
  // On a socket: the bytes already buffered, then RecvFileMapped, then the
  // generic copy for what remains.  On a file: the generic copy.  On any
  // other descriptor: error kErrNotSocket and -1.
  int64_t RecvFile(File& file, uint64_t offset, uint64_t length) override;
  int Flush() override;
  size_t Peek(size_t want, const char** data) override;
  void Consume(size_t n) override;

  // Socket-to-file receive straight into a shared mapping of `file`, which
  // is first extended to offset + length.  Returns the bytes received
  // (-1 with kErrNotSocket when not on a socket, kErrNoSpace/kErrTooLarge
  // when the file cannot be extended).  Stops early without an error when
  // the file is not a regular file or cannot be mapped; the caller copies
  // the rest.
  virtual int64_t RecvFileMapped(File& file, uint64_t offset, uint64_t length);

  size_t BufferedReadBytes() const { return read_end_ - read_pos_; }

 private:
  // One successful read of up to n bytes after waiting; 0 at end of stream
  // or on error (the read side is then closed).
  ssize_t ReadSome(void* buffer, size_t n);
  // Writes all n bytes directly; returns the count written.
  size_t WriteDirect(const char* data, size_t n);

  std::vector<char> read_buffer_;   // kBufferSize once attached
  size_t read_pos_ = 0;             // next unread byte in read_buffer_
  size_t read_end_ = 0;             // end of valid bytes in read_buffer_
  std::vector<char> write_buffer_;  // kBufferSize once attached
  size_t write_len_ = 0;            // bytes waiting in write_buffer_
};

}  // namespace cat

#endif  // VESTA_NET_CAT_BUFFERED_IO_H_
